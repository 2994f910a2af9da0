#include "app/DesktopShell.h"
#include "app/PlatformLoader.h"
#include "app/ScreenPicture.h"
#include "app/SingleInstance.h"
#include "capture/CaptureEngine.h"
#include "controller/TessarelController.h"
#include "controller/linux/DesktopScreens.h"
#include "controller/linux/DesktopServices.h"
#include "controller/linux/DesktopWorkspace.h"
#include "controller/linux/LinuxSnapshotEncoders.h"
#include "region/RegionSelector.h"
#include "region/SelectionOverlay.h"
#include "ui/Appearance.h"

#include <QApplication>

#include <malloc.h>

int main(int argc, char** argv) {
    // Pictures of the screen and their encodings take many megabytes each. glibc raises its
    // threshold for mapping a block of its own once such a block is freed, and keeps later
    // ones in its heaps after use, holding them for as long as Tessarel idles in the tray; a
    // fixed threshold hands each back to the system when it is freed.
    mallopt(M_MMAP_THRESHOLD, 1024 * 1024);
    // One heap for every thread: the heaps glibc gives other threads keep the free memory at
    // their top once a recording's threads have ended, where trimming does not reach.
    mallopt(M_ARENA_MAX, 1);
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Tessarel"));
    QApplication::setDesktopFileName(QStringLiteral(TESSAREL_APP_ID));
    QApplication::setWindowIcon(Appearance::applicationIcon());
    // Closing the panel leaves Tessarel in the tray; only Quit ends it.
    QApplication::setQuitOnLastWindowClosed(false);

    SingleInstance instance(QStringLiteral(TESSAREL_APP_ID));
    if (!instance.claim()) {
        return 0;
    }

    const std::unique_ptr<LoadedCapturePlatform> capture = loadCapturePlatform();
    CaptureEngine engine(capture->platform());
    DesktopScreens screens;
    DesktopSelectionOverlayHost overlays(screens, [&capture](QScreen& screen) {
        return screenPicture(capture->platform(), screen);
    });
    RegionSelector selector(overlays);

    DesktopWorkspace workspace;
    DesktopFolderChooser folderChooser;
    DesktopAlertPresenter alerts;
    LinuxSnapshotEncoders encoders;
    DesktopStandardLocations locations;
    DesktopClock clock;
    DesktopTimerScheduler timers;
    TessarelController controller(engine, selector,
                                  {screens, capture->permission(), workspace, folderChooser, alerts,
                                   encoders, locations, clock, timers});

    DesktopShell shell(controller);
    QObject::connect(&instance, &SingleInstance::activated, &shell, &DesktopShell::activate);
    shell.launch();
    const int status = QApplication::exec();
    // Quit never drops a capture: the recording is stopped and its file finished first.
    controller.finishBeforeQuitting();
    return status;
}
