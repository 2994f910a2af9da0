#include "app/PlatformLoader.h"

namespace {

// Lists no displays and refuses every stream, writer and screenshot.
class NullCapturePlatform final : public LoadedCapturePlatform,
                                  ShareableContentProvider,
                                  AudioCaptureService,
                                  AudioWriterFactory,
                                  ScreenshotService,
                                  VideoCaptureService,
                                  ApplicationResources {
public:
    CapturePlatform platform() override { return {*this, *this, *this, *this, *this, *this}; }

private:
    [[noreturn]] static void unavailable() {
        throw PlatformError(
            QStringLiteral("Screen and sound capture are not available on this system."));
    }

    ShareableContent shareableContent(bool, bool) override { return {}; }
    uint32_t mainDisplayID() override { return 0; }
    std::shared_ptr<AudioCaptureStream>
    makeStream(const ContentFilter&, const AudioStreamConfiguration&, StreamDelegate*) override {
        unavailable();
    }
    std::unique_ptr<AudioFileWriter> makeWriter(const QUrl&, const AudioWriterSettings&) override {
        unavailable();
    }
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
    std::optional<QString> pathForResource(const QString&) override { return std::nullopt; }
};

} // namespace

std::unique_ptr<LoadedCapturePlatform> loadCapturePlatform() {
    return std::make_unique<NullCapturePlatform>();
}
