#include "app/PlatformLoader.h"

#include "capture/linux/ApplicationResourceDirectories.h"
#include "capture/linux/FfmpegAudioWriter.h"
#include "capture/linux/PulseAudioCaptureService.h"
#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11ScreenshotService.h"
#include "capture/linux/x11/X11VideoCaptureService.h"

#include <QGuiApplication>

extern "C" {
#include <libavutil/log.h>
}

namespace {

// Where the windowing system is not X11 there is nothing to list or grab: every screen
// capture fails with one clear sentence.
class UnavailableScreenCapture final : public ShareableContentProvider,
                                       public ScreenshotService,
                                       public VideoCaptureService {
public:
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
    [[noreturn]] static void unavailable() {
        throw PlatformError(QStringLiteral("Tessarel captures the screen of X11 sessions only."));
    }
};

class LinuxCapturePlatform final : public LoadedCapturePlatform {
public:
    LinuxCapturePlatform() {
        if (QGuiApplication::platformName() == QLatin1String("xcb")) {
            x11Content_.emplace();
            x11Screenshots_.emplace();
            x11Video_.emplace();
        }
    }

    CapturePlatform platform() override {
        if (x11Content_) {
            return {*x11Content_, audio_, audioWriters_, *x11Screenshots_, *x11Video_, resources_};
        }
        return {unavailable_, audio_, audioWriters_, unavailable_, unavailable_, resources_};
    }

private:
    std::optional<X11ContentProvider> x11Content_;
    std::optional<X11ScreenshotService> x11Screenshots_;
    std::optional<X11VideoCaptureService> x11Video_;
    UnavailableScreenCapture unavailable_;
    PulseAudioCaptureService audio_;
    FfmpegAudioWriterFactory audioWriters_;
    ApplicationResourceDirectories resources_;
};

} // namespace

std::unique_ptr<LoadedCapturePlatform> loadCapturePlatform() {
    // Tessarel writes nothing to the console; failures reach the user through the panel.
    av_log_set_level(AV_LOG_QUIET);
    return std::make_unique<LinuxCapturePlatform>();
}
