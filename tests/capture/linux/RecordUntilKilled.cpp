#include "RecordUntilKilled.h"

#include <QString>
#include <QUrl>

#include <unistd.h>

#include <cstdio>
#include <exception>

namespace {

class Quiet final : public StreamDelegate, public RecordingOutputDelegate {
public:
    void streamDidStop(std::exception_ptr) override {}
    void recordingOutputDidStartRecording() override {}
    void recordingOutputDidFinishRecording() override {}
    void recordingOutputDidFail(std::exception_ptr) override {}
};

} // namespace

int recordUntilKilled(VideoCaptureService& video, const DisplayInfo& display, const Rect& area,
                      const char* moviePath) {
    try {
        Quiet quiet;
        VideoStreamConfiguration configuration;
        configuration.sourceRect = area;
        configuration.width = static_cast<long long>(area.width) / 2 * 2;
        configuration.height = static_cast<long long>(area.height) / 2 * 2;
        configuration.minimumFrameInterval = {1, 30};
        configuration.queueDepth = 6;
        configuration.showsCursor = true;
        auto stream = video.makeStream({display, {}}, configuration, &quiet);
        stream->addRecordingOutput(
            video.makeRecordingOutput({QUrl::fromLocalFile(QString::fromLocal8Bit(moviePath)),
                                       VideoFileType::mpeg4, VideoCodec::h264},
                                      &quiet));
        stream->startCapture();
        std::printf("recording\n");
        std::fflush(stdout);
        for (;;) {
            pause();
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
