// Screen-area movies against ffmpeg's x11grab with libx264, in one run on a private Xvfb.
//
//   video_benchmark [--seconds 60]
//
// Three scenes at 1920 × 1080 and 30 frames a second: a typical desktop (still but for a
// 320 × 240 animation and a moving pointer), full-screen motion, and a desktop where nothing
// moves at all, which shows what an unchanged screen costs. Each scene is recorded
// by Tessarel's recorder in this process, then by `ffmpeg -f x11grab ... -c:v libx264` with
// the same encoder settings (preset veryfast, crf 23, no B-frames, a keyframe every ten
// seconds).
// A child process of this program draws the scene, so the CPU seconds are each recorder's
// own (the X server's share is not counted for either). Frames are counted with ffprobe;
// ffmpeg writes a constant 30 fps, repeating a frame where it missed one, so its "missing"
// column cannot show drops. Below the table, Tessarel's stream tells what became of the
// ticks of its frame clock (how many read the screen and how many rows, skipped as
// identical to the frame before, dropped because the encoder was behind, encoded), how
// often it listed the windows, and how its CPU time divides between the capture thread and
// encoding.

#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11VideoCaptureService.h"
#include "support/VirtualDisplay.h"

#include "DesktopScenes.h"
#include "MovieFacts.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QUrl>

#include <xcb/xcb.h>

#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

double cpuSeconds(const rusage& usage) {
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

pid_t spawn(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        std::fprintf(stderr, "cannot start %s\n", argv[0]);
        std::exit(1);
    }
    return pid;
}

// ---- Scenes (run in the child) ---------------------------------------------------------

// The connection a scene draws on, and its windows; they live as long as the process and
// the X server paints them.
class SceneCanvas {
public:
    explicit SceneCanvas(const QByteArray& display)
        : connection_(xcb_connect(display.constData(), nullptr)),
          screen_(xcb_setup_roots_iterator(xcb_get_setup(connection_)).data) {}

    xcb_connection_t* connection() const { return connection_; }

    // A window showing `picture`, and a graphics context to draw into it.
    std::pair<xcb_window_t, xcb_gcontext_t> show(const QImage& picture, int x, int y) {
        const uint32_t pixmap = xcb_generate_id(connection_);
        xcb_create_pixmap(connection_, 24, pixmap, screen_->root,
                          static_cast<uint16_t>(picture.width()),
                          static_cast<uint16_t>(picture.height()));
        const uint32_t gc = xcb_generate_id(connection_);
        xcb_create_gc(connection_, gc, pixmap, 0, nullptr);
        const int rowsPerStrip = 200000 / (picture.width() * 4);
        for (int top = 0; top < picture.height(); top += rowsPerStrip) {
            const int rows = std::min(rowsPerStrip, picture.height() - top);
            xcb_put_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, pixmap, gc,
                          static_cast<uint16_t>(picture.width()), static_cast<uint16_t>(rows), 0,
                          static_cast<int16_t>(top), 0, 24,
                          static_cast<uint32_t>(rows * picture.width() * 4),
                          picture.constScanLine(top));
        }
        const uint32_t window = xcb_generate_id(connection_);
        const uint32_t values[] = {pixmap, 1};
        xcb_create_window(
            connection_, XCB_COPY_FROM_PARENT, window, screen_->root, static_cast<int16_t>(x),
            static_cast<int16_t>(y), static_cast<uint16_t>(picture.width()),
            static_cast<uint16_t>(picture.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
            screen_->root_visual, XCB_CW_BACK_PIXMAP | XCB_CW_OVERRIDE_REDIRECT, values);
        xcb_map_window(connection_, window);
        return {window, gc};
    }

    // Moves the pointer around the middle of the screen.
    void movePointer(double angle) {
        xcb_warp_pointer(connection_, XCB_NONE, screen_->root, 0, 0, 0, 0,
                         static_cast<int16_t>(960 + 600 * std::cos(angle)),
                         static_cast<int16_t>(540 + 350 * std::sin(angle)));
        xcb_flush(connection_);
    }

private:
    xcb_connection_t* connection_;
    const xcb_screen_t* screen_;
};

constexpr auto kFrameTime = std::chrono::microseconds(1'000'000 / 30);

// A still desktop with a 320 × 240 animation and a pointer moving at 60 Hz.
[[noreturn]] void runDesktop(SceneCanvas& canvas) {
    canvas.show(desktopPicture(kWidth, kHeight), 0, 0);
    QImage animation(QSize(320, 240), QImage::Format_RGB32);
    const auto [window, gc] = canvas.show(animation, 500, 300);
    auto next = std::chrono::steady_clock::now();
    for (int frame = 0;; ++frame) {
        for (int y = 0; y < 240; ++y) {
            auto* row = reinterpret_cast<QRgb*>(animation.scanLine(y));
            for (int x = 0; x < 320; ++x) {
                const double dx = x - 160 - 100 * std::sin(frame / 15.0);
                const double dy = y - 120 - 60 * std::cos(frame / 15.0);
                const int glow = static_cast<int>(255 * std::exp(-(dx * dx + dy * dy) / 1800));
                row[x] = qRgb(glow, 80 + glow / 2, 200 - glow / 2);
            }
        }
        xcb_put_image(canvas.connection(), XCB_IMAGE_FORMAT_Z_PIXMAP, window, gc, 320, 240, 0, 0, 0,
                      24, 320 * 240 * 4, animation.constBits());
        for (int half = 0; half < 2; ++half) {
            canvas.movePointer((2 * frame + half) / 40.0);
            next += kFrameTime / 2;
            std::this_thread::sleep_until(next);
        }
    }
}

// A still desktop: nothing moves, not even the pointer.
[[noreturn]] void runStill(SceneCanvas& canvas) {
    canvas.show(desktopPicture(kWidth, kHeight), 0, 0);
    for (;;) {
        pause();
    }
}

// Full-screen motion: a picture wider than the screen slides back and forth, moved at
// 60 Hz so that every capture sees a new picture (an unchanged one would be skipped, not
// dropped).
[[noreturn]] void runMotion(SceneCanvas& canvas) {
    const xcb_window_t window = canvas.show(desktopPicture(kWidth + 600, kHeight), 0, 0).first;
    auto next = std::chrono::steady_clock::now();
    for (int frame = 0;; ++frame) {
        const int offset = frame * 4 % 1200;
        const uint32_t values[] = {static_cast<uint32_t>(-(offset < 600 ? offset : 1200 - offset)),
                                   0};
        xcb_configure_window(canvas.connection(), window, XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y,
                             values);
        canvas.movePointer(frame / 40.0);
        next += kFrameTime / 2;
        std::this_thread::sleep_until(next);
    }
}

// ---- Measurements (in the parent) -------------------------------------------------------

struct Result : MovieFacts {
    double cpuSeconds = 0;
    std::optional<X11VideoCaptureService::Counts> counts; // Tessarel's only
};

class Silent final : public StreamDelegate, public RecordingOutputDelegate {
public:
    void streamDidStop(std::exception_ptr) override {}
    void recordingOutputDidStartRecording() override {}
    void recordingOutputDidFinishRecording() override {}
    void recordingOutputDidFail(std::exception_ptr error) override {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& failure) {
            std::fprintf(stderr, "recording failed: %s\n", failure.what());
        }
    }
};

Result recordWithTessarel(const QByteArray& display, const QString& path, int seconds) {
    X11ContentProvider provider(display);
    X11VideoCaptureService video(display);
    const ShareableContent content = provider.shareableContent(false, true);
    Silent silent;
    VideoStreamConfiguration configuration;
    configuration.sourceRect = {0, 0, kWidth, kHeight};
    configuration.width = kWidth;
    configuration.height = kHeight;
    configuration.minimumFrameInterval = {1, 30};
    configuration.queueDepth = 6;
    configuration.showsCursor = true;
    // As the engine does: this process's windows are left out.
    auto stream =
        video.makeStream({content.displays.front(), {{getpid(), {}}}}, configuration, &silent);
    stream->addRecordingOutput(video.makeRecordingOutput(
        {QUrl::fromLocalFile(path), VideoFileType::mpeg4, VideoCodec::h264}, &silent));
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    stream->startCapture();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    stream->stopCapture();
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    Result result;
    result.cpuSeconds = cpuSeconds(after) - cpuSeconds(before);
    result.counts = X11VideoCaptureService::counts(*stream);
    probeMovieInto(result, path);
    return result;
}

Result recordWithFfmpeg(const QByteArray& display, const QString& path, int seconds) {
    const pid_t pid = spawn({"ffmpeg",
                             "-nostdin",
                             "-y",
                             "-v",
                             "error",
                             "-f",
                             "x11grab",
                             "-framerate",
                             "30",
                             "-video_size",
                             std::to_string(kWidth) + "x" + std::to_string(kHeight),
                             "-i",
                             display.toStdString(),
                             "-t",
                             std::to_string(seconds),
                             "-c:v",
                             "libx264",
                             "-preset",
                             "veryfast",
                             "-crf",
                             "23",
                             "-bf",
                             "0",
                             "-g",
                             "300",
                             "-pix_fmt",
                             "yuv420p",
                             path.toStdString()});
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    Result result;
    result.cpuSeconds = cpuSeconds(usage);
    probeMovieInto(result, path);
    return result;
}

// On a still screen Tessarel skips identical frames on purpose, so nothing counts as missing.
void printRow(const char* scene, const char* recorder, const Result& result, int seconds) {
    const long long expected = 30LL * seconds;
    const std::string missing = std::strcmp(scene, "still") == 0
                                    ? std::string("-")
                                    : std::to_string(std::max(0LL, expected - result.frames));
    std::printf("%-9s %-9s %9.2f %8lld %8s %9.2f %11.2f\n", scene, recorder, result.cpuSeconds,
                result.frames, missing.c_str(), result.duration,
                static_cast<double>(result.bytes) / 1e6);
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() == 5 && arguments[1] == QLatin1String("--scene")) {
        SceneCanvas canvas(arguments[4].toUtf8());
        if (arguments[2] == QLatin1String("desktop")) {
            runDesktop(canvas);
        }
        if (arguments[2] == QLatin1String("still")) {
            runStill(canvas);
        }
        runMotion(canvas);
    }
    int seconds = 60;
    if (arguments.size() == 3 && arguments[1] == QLatin1String("--seconds")) {
        seconds = arguments[2].toInt();
    } else if (arguments.size() != 1 || seconds <= 0) {
        std::fprintf(stderr, "usage: %s [--seconds N]\n", argv[0]);
        return 2;
    }

    VirtualDisplay display(kWidth, kHeight);
    QTemporaryDir directory;
    std::printf("%d s per recording, 1920x1080 at 30 fps; x264 preset veryfast, crf 23, no "
                "B-frames, keyframe every ten seconds\n\n",
                seconds);
    std::printf("%-9s %-9s %9s %8s %8s %9s %11s\n", "scene", "recorder", "cpu s", "frames",
                "missing", "length s", "size MB");
    std::vector<std::string> ratios;
    std::vector<std::string> details;
    for (const char* scene : {"desktop", "motion", "still"}) {
        const pid_t driver =
            spawn({argv[0], "--scene", scene, "--display", display.name().toStdString()});
        std::this_thread::sleep_for(std::chrono::seconds(2));
        const Result ours = recordWithTessarel(
            display.name(), directory.filePath(QStringLiteral("%1-tessarel.mp4").arg(scene)),
            seconds);
        const Result peer = recordWithFfmpeg(
            display.name(), directory.filePath(QStringLiteral("%1-ffmpeg.mp4").arg(scene)),
            seconds);
        kill(driver, SIGTERM);
        waitpid(driver, nullptr, 0);
        printRow(scene, "tessarel", ours, seconds);
        printRow(scene, "ffmpeg", peer, seconds);
        char line[512];
        const char* cpuTarget = std::strcmp(scene, "desktop") == 0  ? "target 0.50"
                                : std::strcmp(scene, "motion") == 0 ? "target 0.80"
                                                                    : "no target";
        std::snprintf(line, sizeof line,
                      "%-9s cpu %.2f x ffmpeg (%s), size %.2f x ffmpeg (target 1.20)", scene,
                      ours.cpuSeconds / peer.cpuSeconds, cpuTarget,
                      static_cast<double>(ours.bytes) / static_cast<double>(peer.bytes));
        ratios.emplace_back(line);
        if (const auto& counts = ours.counts) {
            std::snprintf(
                line, sizeof line,
                "%-9s tessarel: %lld ticks, %lld screen reads of %.0f rows on average, %lld "
                "skipped as identical, %lld dropped by the queue, %lld encoded; windows listed "
                "%lld times; cpu s: %.2f capture thread, %.2f encoding (x264, muxer)",
                scene, counts->captured, counts->screenReads,
                counts->screenReads ? static_cast<double>(counts->rowsRead) /
                                          static_cast<double>(counts->screenReads)
                                    : 0.0,
                counts->skippedIdentical, counts->droppedByQueue, counts->encoded,
                counts->windowListings, counts->captureCpuSeconds,
                ours.cpuSeconds - counts->captureCpuSeconds);
            details.emplace_back(line);
        }
    }
    std::printf("\n");
    for (const auto& line : details) {
        std::printf("%s\n", line.c_str());
    }
    std::printf("\n");
    for (const auto& line : ratios) {
        std::printf("%s\n", line.c_str());
    }
    return 0;
}
