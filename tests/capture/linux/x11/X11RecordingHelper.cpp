// Records an area of the main display to a movie until the process is killed.
// Usage: x11_recording_helper <display> <movie path> <x> <y> <width> <height>
// Prints "recording" once capture has started.

#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11VideoCaptureService.h"

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

int main(int argc, char** argv) {
    if (argc != 7) {
        std::fprintf(stderr, "usage: %s display path x y width height\n", argv[0]);
        return 2;
    }
    const QByteArray display(argv[1]);
    const Rect area{std::atof(argv[3]), std::atof(argv[4]), std::atof(argv[5]), std::atof(argv[6])};
    try {
        X11ContentProvider provider(display);
        X11VideoCaptureService video(display);
        DisplayInfo main;
        for (const DisplayInfo& candidate : provider.shareableContent(false, true).displays) {
            if (candidate.displayID == provider.mainDisplayID()) {
                main = candidate;
            }
        }
        Quiet quiet;
        VideoStreamConfiguration configuration;
        configuration.sourceRect = area;
        configuration.width = static_cast<long long>(area.width) / 2 * 2;
        configuration.height = static_cast<long long>(area.height) / 2 * 2;
        configuration.minimumFrameInterval = {1, 30};
        configuration.queueDepth = 6;
        configuration.showsCursor = true;
        auto stream = video.makeStream({main, {}}, configuration, &quiet);
        stream->addRecordingOutput(
            video.makeRecordingOutput({QUrl::fromLocalFile(QString::fromLocal8Bit(argv[2])),
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
