// A movie through the desktop portal and PipeWire, on a headless sway with the real portal
// frontend and the test tree's ScreenCast backend:
//
//   portal_benchmark [--seconds 20]
//
// The backend shares a 1920 × 1080 output as a PipeWire node at 60 pictures a second: the
// test pattern with a 48-pixel block sliding through a band, damage for that band, the pointer
// as metadata. Tessarel records the whole output with its portal stream and recorder in this
// process; the CPU seconds are this process's (PipeWire's thread, the capture thread and the
// encoder), the backend's are in neither. Dropped frames are those short of 30 a second of
// wall-clock time, counted with ffprobe.

#include "MovieFacts.h"
#include "capture/linux/portal/DesktopPortal.h"
#include "capture/linux/portal/PortalCaptureServices.h"
#include "support/PortalDesktop.h"
#include "support/WaylandDesktop.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QUrl>

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

double ownCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

class Silent final : public StreamDelegate, public RecordingOutputDelegate {
public:
    void streamDidStop(std::exception_ptr) override { std::fprintf(stderr, "stream stopped\n"); }
    void recordingOutputDidStartRecording() override {}
    void recordingOutputDidFinishRecording() override {}
    void recordingOutputDidFail(std::exception_ptr) override {
        std::fprintf(stderr, "recording failed\n");
    }
};

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    int seconds = 20;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--seconds") == 0) {
            seconds = std::atoi(argv[i + 1]);
        }
    }
    WaylandDesktop desktop(WaylandDesktop::Options{QSize(1920, 1080), false});
    PortalDesktop portalDesktop(desktop, {true});
    QTemporaryDir directory;
    DesktopPortal portal(portalDesktop.busAddress(), directory.filePath(QStringLiteral("grants")));
    PortalVideoCaptureService video(portal);
    const WaylandDesktop::Output output = desktop.output(QStringLiteral("HEADLESS-1"));
    const DisplayInfo display{1, Rect{0, 0, static_cast<double>(output.logical.width()),
                                      static_cast<double>(output.logical.height())}};
    VideoStreamConfiguration configuration;
    configuration.sourceRect = display.frame;
    configuration.width = output.pixels.width();
    configuration.height = output.pixels.height();
    configuration.minimumFrameInterval = {1, 30};
    configuration.queueDepth = 6;
    configuration.showsCursor = true;
    Silent silent;
    const QString path = directory.filePath(QStringLiteral("portal.mp4"));
    auto stream = video.makeStream({display, {}}, configuration, &silent);
    stream->addRecordingOutput(video.makeRecordingOutput(
        {QUrl::fromLocalFile(path), VideoFileType::mpeg4, VideoCodec::h264}, &silent));
    const double before = ownCpuSeconds();
    stream->startCapture();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    stream->stopCapture();
    const double cpu = ownCpuSeconds() - before;

    MovieFacts movie;
    probeMovieInto(movie, path);
    std::printf("%-22s %9s %8s %8s %9s %11s\n", "movie", "cpu s", "frames", "dropped", "length s",
                "size MB");
    std::printf("%-22s %9.2f %8lld %8lld %9.2f %11.2f\n", "portal 1920x1080 band", cpu,
                movie.frames, std::max(0LL, 30LL * seconds - movie.frames), movie.duration,
                static_cast<double>(movie.bytes) / 1e6);
    return 0;
}
