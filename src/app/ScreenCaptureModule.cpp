// The screen's displays and snapshots on X11 and on Wayland compositors that let applications
// copy the screen, in a module of their own: a snapshot loads XCB or the Wayland client and
// none of the recorders' libraries (FFmpeg, x264, PulseAudio, PipeWire), which the capture
// module holds.

#include "app/CaptureSession.h"
#include "app/PlatformLoader.h"

#include "capture/linux/wayland/WaylandContentProvider.h"
#include "capture/linux/wayland/WaylandScreenshotService.h"
#include "capture/linux/wayland/WaylandWindowsHidden.h"
#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11ScreenshotService.h"

#include <QApplication>
#include <QPointer>
#include <QThread>
#include <QWidget>

#include <functional>
#include <vector>

namespace {

// Tessarel's windows as the Wayland snapshot hides them: every window that shows, hidden and
// shown again on the GUI thread.
class DesktopApplicationWindows final : public ApplicationWindows {
public:
    QString appID() const override { return appID_; }

    void hide() override {
        onGuiThread(
            [this] {
                hidden_.clear();
                for (QWidget* widget : QApplication::topLevelWidgets()) {
                    if (widget->isVisible()) {
                        hidden_.emplace_back(widget);
                        widget->hide();
                    }
                }
            },
            Qt::BlockingQueuedConnection);
    }

    void restore() override {
        // Nothing waits for the windows to come back.
        onGuiThread(
            [this] {
                for (const QPointer<QWidget>& widget : hidden_) {
                    if (widget) {
                        widget->show();
                    }
                }
                hidden_.clear();
            },
            Qt::QueuedConnection);
    }

private:
    static void onGuiThread(const std::function<void()>& work, Qt::ConnectionType from) {
        if (QThread::currentThread() == qApp->thread()) {
            work();
        } else {
            QMetaObject::invokeMethod(qApp, work, from);
        }
    }

    const QString appID_ = QGuiApplication::desktopFileName();
    std::vector<QPointer<QWidget>> hidden_; // GUI thread only
};

class X11Screen final : public LoadedScreenCapture {
public:
    ShareableContentProvider& content() override { return content_; }
    ScreenshotService& screenshots() override { return screenshots_; }

private:
    X11ContentProvider content_;
    X11ScreenshotService screenshots_;
};

// Tessarel's own windows leave the picture, which no Wayland protocol does for them.
class WaylandScreen final : public LoadedScreenCapture {
public:
    WaylandScreen() { screenshots_.hideForSnapshots(&windows_); }

    ShareableContentProvider& content() override { return content_; }
    ScreenshotService& screenshots() override { return screenshots_; }

private:
    DesktopApplicationWindows windows_;
    WaylandContentProvider content_;
    WaylandScreenshotService screenshots_;
};

} // namespace

extern "C" __attribute__((visibility("default"))) LoadedScreenCapture*
tessarel_make_screen_capture() {
    switch (screenSession()) {
    case ScreenSession::x11:
        return new X11Screen;
    case ScreenSession::waylandCopy:
        return new WaylandScreen;
    case ScreenSession::waylandElsewise:
    case ScreenSession::xwayland:
    case ScreenSession::other:
        break;
    }
    return nullptr;
}
