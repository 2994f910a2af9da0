// The capture layers of this system, in a module of their own: the libraries they need
// (FFmpeg, x264, PulseAudio, PipeWire and theirs) are loaded with it when the first capture
// needs them, not while Tessarel sits idle in the tray.

#include "app/PlatformLoader.h"
#include "app/PortalPermission.h"

#include "capture/linux/ApplicationResourceDirectories.h"
#include "capture/linux/FfmpegAudioWriter.h"
#include "capture/linux/PulseAudioCaptureService.h"
#include "capture/linux/portal/DesktopPortal.h"
#include "capture/linux/portal/PortalCaptureServices.h"
#include "capture/linux/wayland/WaylandContentProvider.h"
#include "capture/linux/wayland/WaylandScreenshotService.h"
#include "capture/linux/wayland/WaylandVideoCaptureService.h"
#include "capture/linux/wayland/WaylandWindowsHidden.h"
#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11ScreenshotService.h"
#include "capture/linux/x11/X11VideoCaptureService.h"
#include "controller/linux/DesktopServices.h"

#include <QApplication>
#include <QPointer>
#include <QThread>
#include <QWidget>

#include <functional>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

namespace {

// Where no layer can capture the session's screen there is nothing to list or grab: every
// screen capture fails with one clear sentence saying why.
class UnavailableScreenCapture final : public ShareableContentProvider,
                                       public ScreenshotService,
                                       public VideoCaptureService {
public:
    explicit UnavailableScreenCapture(QString reason) : reason_(std::move(reason)) {}

    ShareableContent shareableContent(bool, bool) override { unavailable(); }
    uint32_t mainDisplayID() override { return 0; }
    Image captureImage(const ContentFilter&, const ScreenshotConfiguration&) override {
        unavailable();
    }
    std::vector<VideoCodec> availableVideoCodecTypes() override { return {}; }
    std::shared_ptr<VideoCaptureStream>
    makeStream(const ContentFilter&, const VideoStreamConfiguration&, StreamDelegate*) override {
        unavailable();
    }
    std::shared_ptr<RecordingOutput> makeRecordingOutput(const RecordingOutputConfiguration&,
                                                         RecordingOutputDelegate*) override {
        unavailable();
    }

private:
    [[noreturn]] void unavailable() const { throw PlatformError(reason_); }

    const QString reason_;
};

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

// The desktop portal's layer: the outputs as the Wayland connection lists them, their
// pictures through the portal, which asks the user.
struct PortalLayer {
    PortalLayer()
        : portal({}, DesktopPortal::defaultGrantsDirectory()), screenshots(portal, content),
          video(portal), permission(portal) {}
    WaylandContentProvider content;
    DesktopPortal portal;
    PortalScreenshotService screenshots;
    PortalVideoCaptureService video;
    PortalPermission permission;
};

// The screen capture layer for the session Qt runs on: on a Wayland desktop the Wayland
// layer where the compositor lets applications copy the screen (wlroots), else the desktop
// portal (GNOME, KDE Plasma); never X11 through XWayland, which sees only XWayland's own
// windows.
class ScreenCaptureLayer {
public:
    ScreenCaptureLayer() {
        const QString session = QGuiApplication::platformName();
        // Qt falls back to XWayland where it has no Wayland support; only a user who asked
        // for X11 gets XWayland's partial picture.
        const bool fellBackToXWayland = session == QLatin1String("xcb") &&
                                        qEnvironmentVariableIsSet("WAYLAND_DISPLAY") &&
                                        qgetenv("QT_QPA_PLATFORM") != "xcb";
        if (fellBackToXWayland) {
            unavailable_.emplace(QStringLiteral(
                "Tessarel runs through XWayland here, which sees only XWayland's windows. "
                "Install Qt's Wayland support (qt6-wayland), or start Tessarel with "
                "QT_QPA_PLATFORM=xcb to capture XWayland's windows alone."));
        } else if (session == QLatin1String("xcb")) {
            x11_.emplace();
        } else if (session == QLatin1String("wayland")) {
            if (WaylandContentProvider::offersScreenCapture()) {
                wayland_.emplace();
                wayland_->screenshots.hideForSnapshots(&applicationWindows_);
            } else {
                // Whether a portal answers is asked at capture time, off the GUI thread.
                portal_.emplace();
            }
        } else {
            unavailable_.emplace(QStringLiteral(
                "Tessarel captures the screen of X11 sessions and of Wayland desktops that let "
                "applications copy the screen."));
        }
    }

    ShareableContentProvider& content() {
        return x11_       ? static_cast<ShareableContentProvider&>(x11_->content)
               : wayland_ ? static_cast<ShareableContentProvider&>(wayland_->content)
               : portal_  ? static_cast<ShareableContentProvider&>(portal_->content)
                          : *unavailable_;
    }
    ScreenshotService& screenshots() {
        return x11_       ? static_cast<ScreenshotService&>(x11_->screenshots)
               : wayland_ ? static_cast<ScreenshotService&>(wayland_->screenshots)
               : portal_  ? static_cast<ScreenshotService&>(portal_->screenshots)
                          : *unavailable_;
    }
    ScreenCapturePermission& permission() {
        return portal_ ? static_cast<ScreenCapturePermission&>(portal_->permission)
                       : allowedEverywhere_;
    }
    VideoCaptureService& video() {
        return x11_       ? static_cast<VideoCaptureService&>(x11_->video)
               : wayland_ ? static_cast<VideoCaptureService&>(wayland_->video)
               : portal_  ? static_cast<VideoCaptureService&>(portal_->video)
                          : *unavailable_;
    }

private:
    template <typename Content, typename Screenshots, typename Video> struct Layer {
        Content content;
        Screenshots screenshots;
        Video video;
    };

    DesktopApplicationWindows applicationWindows_;
    DesktopScreenCapturePermission allowedEverywhere_; // X11 and screen copy ask no grant
    std::optional<Layer<X11ContentProvider, X11ScreenshotService, X11VideoCaptureService>> x11_;
    std::optional<
        Layer<WaylandContentProvider, WaylandScreenshotService, WaylandVideoCaptureService>>
        wayland_;
    std::optional<PortalLayer> portal_;
    std::optional<UnavailableScreenCapture> unavailable_;
};

class LinuxCapturePlatform final : public LoadedCapturePlatform {
public:
    CapturePlatform platform() override {
        return {screen_.content(),     audio_,          audioWriters_,
                screen_.screenshots(), screen_.video(), resources_};
    }
    ScreenCapturePermission& permission() override { return screen_.permission(); }

private:
    ScreenCaptureLayer screen_;
    PulseAudioCaptureService audio_;
    FfmpegAudioWriterFactory audioWriters_;
    ApplicationResourceDirectories resources_;
};

} // namespace

extern "C" __attribute__((visibility("default"))) LoadedCapturePlatform*
tessarel_make_capture_platform() {
    // Tessarel writes nothing to the console; failures reach the user through the panel.
    av_log_set_level(AV_LOG_QUIET);
    return new LinuxCapturePlatform;
}
