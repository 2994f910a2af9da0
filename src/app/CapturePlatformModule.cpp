// The recording layers of this system, in a module of their own: the libraries they need
// (FFmpeg, x264, PulseAudio, PipeWire and theirs) are loaded with it when the first recording
// needs them, not while Tessarel sits idle in the tray or takes snapshots. Where the screen
// module serves the screen's displays and snapshots, this module records the screen beside
// it; elsewhere it serves the screen whole.

#include "app/CaptureSession.h"
#include "app/PlatformLoader.h"
#include "app/PortalPermission.h"

#include "capture/linux/ApplicationResourceDirectories.h"
#include "capture/linux/FfmpegAudioWriter.h"
#include "capture/linux/PulseAudioCaptureService.h"
#include "capture/linux/portal/DesktopPortal.h"
#include "capture/linux/portal/PortalCaptureServices.h"
#include "capture/linux/wayland/WaylandContentProvider.h"
#include "capture/linux/wayland/WaylandVideoCaptureService.h"
#include "capture/linux/x11/X11VideoCaptureService.h"
#include "controller/linux/DesktopServices.h"

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
// windows. The screen module's displays and snapshots serve X11 and the Wayland layer.
class ScreenCaptureLayer {
public:
    explicit ScreenCaptureLayer(LoadedScreenCapture* screen) : screen_(screen) {
        const ScreenSession session = screenSession();
        if (screen_ != nullptr && session == ScreenSession::x11) {
            x11Video_.emplace();
        } else if (screen_ != nullptr && session == ScreenSession::waylandCopy) {
            waylandVideo_.emplace();
        } else if (session == ScreenSession::xwayland) {
            unavailable_.emplace(QStringLiteral(
                "Tessarel runs through XWayland here, which sees only XWayland's windows. "
                "Install Qt's Wayland support (qt6-wayland), or start Tessarel with "
                "QT_QPA_PLATFORM=xcb to capture XWayland's windows alone."));
        } else if (session == ScreenSession::waylandElsewise) {
            // Whether a portal answers is asked at capture time, off the GUI thread.
            portal_.emplace();
        } else {
            unavailable_.emplace(QStringLiteral(
                "Tessarel captures the screen of X11 sessions and of Wayland desktops that let "
                "applications copy the screen."));
        }
    }

    ShareableContentProvider& content() {
        return screen_   ? screen_->content()
               : portal_ ? static_cast<ShareableContentProvider&>(portal_->content)
                         : *unavailable_;
    }
    ScreenshotService& screenshots() {
        return screen_   ? screen_->screenshots()
               : portal_ ? static_cast<ScreenshotService&>(portal_->screenshots)
                         : *unavailable_;
    }
    ScreenCapturePermission& permission() {
        return portal_ ? static_cast<ScreenCapturePermission&>(portal_->permission)
                       : allowedEverywhere_;
    }
    VideoCaptureService& video() {
        return x11Video_       ? static_cast<VideoCaptureService&>(*x11Video_)
               : waylandVideo_ ? static_cast<VideoCaptureService&>(*waylandVideo_)
               : portal_       ? static_cast<VideoCaptureService&>(portal_->video)
                               : *unavailable_;
    }

private:
    LoadedScreenCapture* screen_;
    DesktopScreenCapturePermission allowedEverywhere_; // X11 and screen copy ask no grant
    std::optional<X11VideoCaptureService> x11Video_;
    std::optional<WaylandVideoCaptureService> waylandVideo_;
    std::optional<PortalLayer> portal_;
    std::optional<UnavailableScreenCapture> unavailable_;
};

class LinuxCapturePlatform final : public LoadedCapturePlatform {
public:
    explicit LinuxCapturePlatform(LoadedScreenCapture* screen) : screen_(screen) {}

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
tessarel_make_capture_platform(LoadedScreenCapture* screen) {
    // Tessarel writes nothing to the console; failures reach the user through the panel.
    av_log_set_level(AV_LOG_QUIET);
    return new LinuxCapturePlatform(screen);
}
