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

int main(int argc, char** argv) {
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
