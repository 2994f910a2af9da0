// Screen-area movies against ffmpeg with libx264, in one run on a private Xvfb.
//
//   video_benchmark [--seconds 60] [--quality-seconds 10] [--size 1920x1080]
//                   [--scenes desktop,motion,still]
//
// Three scenes at 30 frames a second: a typical desktop (still but for a 320 × 240 animation
// and a moving pointer), full-screen motion, and a desktop where nothing moves at all, which
// shows what an unchanged screen costs. A child process of this program draws the scene.
//
// Quality first: each scene is recorded once without loss (x11grab, raw pixels), and
// that same source is encoded by ffmpeg (`-c:v libx264 -preset veryfast -crf 23`) and by
// Tessarel's converter and recorder, fed the decoded frames as its stream feeds them; SSIM
// and PSNR of each against the source (ffmpeg's ssim and psnr filters, I420 at 30 fps) are
// printed beside the file sizes.
//
// Then live: each scene is recorded by Tessarel's recorder in this process, then by
// `ffmpeg -f x11grab` with the same peer encoder, and the CPU seconds are each recorder's
// own (the X server's share is not counted for either). Frames are counted with ffprobe;
// ffmpeg writes a constant 30 fps, repeating a frame where it missed one, so its "missing"
// column cannot show drops: its own count of duplicated and dropped frames is printed
// beside it. "gap s" is the longest time between two frames of the movie. Below the table,
// Tessarel's stream tells what became of the ticks of its frame clock (how many read the
// screen and how many rows, skipped as identical to the frame before, dropped because the
// encoder was behind, encoded), how often it listed the windows, how its CPU time divides
// between the capture thread and encoding, and the process's peak resident memory during
// the recording. The load average before each live pair is printed with its ratios.

#include "capture/linux/VideoFileRecorder.h"
#include "capture/linux/VideoFrameConverter.h"
#include "capture/linux/VideoFrameQueue.h"
#include "capture/linux/VideoPacing.h"
#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11VideoCaptureService.h"
#include "support/VirtualDisplay.h"

#include "DesktopScenes.h"
#include "MovieFacts.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QUrl>

#include <xcb/xcb.h>

#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

// The screen's size, 1920 × 1080 unless asked for another.
int gWidth = 1920;
int gHeight = 1080;

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
    canvas.show(desktopPicture(gWidth, gHeight), 0, 0);
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
    canvas.show(desktopPicture(gWidth, gHeight), 0, 0);
    for (;;) {
        pause();
    }
}

// Full-screen motion: a picture wider than the screen slides back and forth, moved at
// 60 Hz so that every capture sees a new picture (an unchanged one would be skipped, not
// dropped).
[[noreturn]] void runMotion(SceneCanvas& canvas) {
    const xcb_window_t window = canvas.show(desktopPicture(gWidth + 600, gHeight), 0, 0).first;
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

// The peer's encoder, the same in the quality comparison and the live recordings.
const std::vector<std::string> kPeerEncoder{"-c:v", "libx264", "-preset",  "veryfast",
                                            "-crf", "23",      "-pix_fmt", "yuv420p"};

std::vector<std::string> joined(std::vector<std::string> first,
                                const std::vector<std::string>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::string screenSize() {
    return std::to_string(gWidth) + "x" + std::to_string(gHeight);
}

struct Result : MovieFacts {
    double cpuSeconds = 0;
    double longestGapSeconds = 0; // between two frames' times in the movie
    long long duplicated = -1;    // ffmpeg's only: frames it repeated, and dropped
    long long dropped = -1;
    std::optional<X11VideoCaptureService::Counts> counts; // Tessarel's only
    int leastEffortStep = 0;
    double peakResidentMb = 0; // Tessarel's only: this process's, during the recording
};

// The longest time between two frames of the movie at `path`.
double longestGapSeconds(const QString& path) {
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-select_streams"),
                   QStringLiteral("v:0"), QStringLiteral("-show_entries"),
                   QStringLiteral("packet=pts_time"), QStringLiteral("-of"),
                   QStringLiteral("csv=p=0"), path});
    ffprobe.waitForFinished(300000);
    std::vector<double> times;
    for (const QString& line : QString::fromUtf8(ffprobe.readAllStandardOutput()).split('\n')) {
        if (!line.trimmed().isEmpty()) {
            times.push_back(line.toDouble());
        }
    }
    std::sort(times.begin(), times.end());
    double longest = 0;
    for (size_t i = 1; i < times.size(); ++i) {
        longest = std::max(longest, times[i] - times[i - 1]);
    }
    return longest;
}

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

RecordingOutputConfiguration movieAt(const QString& path) {
    return {QUrl::fromLocalFile(path), VideoFileType::mpeg4, VideoCodec::h264};
}

// Starts this process's peak resident memory afresh.
void resetPeakResident() {
    QFile clearRefs(QStringLiteral("/proc/self/clear_refs"));
    if (!clearRefs.open(QIODevice::WriteOnly) || clearRefs.write("5") != 1) {
        std::fprintf(stderr, "cannot reset the peak resident memory\n");
    }
}

// This process's peak resident memory in MB since it was last reset (VmHWM).
double peakResidentMb() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : status.readAll().split('\n')) {
            if (line.startsWith("VmHWM:")) {
                return line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024;
            }
        }
    }
    return 0;
}

Result recordWithTessarel(const QByteArray& display, const QString& path, int seconds) {
    resetPeakResident();
    X11ContentProvider provider(display);
    X11VideoCaptureService video(display);
    const ShareableContent content = provider.shareableContent(false, true);
    Silent silent;
    VideoStreamConfiguration configuration;
    configuration.sourceRect = {0, 0, static_cast<double>(gWidth), static_cast<double>(gHeight)};
    configuration.width = gWidth;
    configuration.height = gHeight;
    configuration.minimumFrameInterval = {1, 30};
    configuration.queueDepth = 6;
    configuration.showsCursor = true;
    // As the engine does: this process's windows are left out.
    auto stream =
        video.makeStream({content.displays.front(), {{getpid(), {}}}}, configuration, &silent);
    const auto recorder = std::dynamic_pointer_cast<VideoFileRecorder>(
        video.makeRecordingOutput(movieAt(path), &silent));
    stream->addRecordingOutput(recorder);
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
    result.leastEffortStep = recorder->leastEffortStep();
    result.peakResidentMb = peakResidentMb();
    probeMovieInto(result, path);
    result.longestGapSeconds = longestGapSeconds(path);
    return result;
}

// The value of `key` in the last report of an ffmpeg -progress file.
long long progressValue(const QString& progressPath, const QString& key) {
    QFile file(progressPath);
    long long value = -1;
    if (file.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (line.startsWith(key.toUtf8() + '=')) {
                value = line.mid(key.size() + 1).toLongLong();
            }
        }
    }
    return value;
}

Result recordWithFfmpeg(const QByteArray& display, const QString& path, int seconds) {
    const QString progress = path + QStringLiteral(".progress");
    const pid_t pid =
        spawn(joined({"ffmpeg", "-nostdin", "-y", "-v", "error", "-progress",
                      progress.toStdString(), "-f", "x11grab", "-framerate", "30", "-video_size",
                      screenSize(), "-i", display.toStdString(), "-t", std::to_string(seconds)},
                     joined(kPeerEncoder, {path.toStdString()})));
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    Result result;
    result.cpuSeconds = cpuSeconds(usage);
    probeMovieInto(result, path);
    result.longestGapSeconds = longestGapSeconds(path);
    result.duplicated = progressValue(progress, QStringLiteral("dup_frames"));
    result.dropped = progressValue(progress, QStringLiteral("drop_frames"));
    return result;
}

// ---- Quality at the same source ------------------------------------------------------------

// Records the screen without loss, at a constant 30 fps (the frame numbers are the times).
// Raw pixels, since anything that costs time would make x11grab repeat frames on a busy
// machine, and a source with repeated frames is not the scene.
void captureLosslessly(const QByteArray& display, const QString& path, int seconds) {
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
                             screenSize(),
                             "-i",
                             display.toStdString(),
                             "-t",
                             std::to_string(seconds),
                             "-vsync",
                             "cfr",
                             "-r",
                             "30",
                             "-c:v",
                             "rawvideo",
                             path.toStdString()});
    waitpid(pid, nullptr, 0);
}

double encodeWithFfmpeg(const QString& source, const QString& path) {
    const pid_t pid =
        spawn(joined({"ffmpeg", "-nostdin", "-y", "-v", "error", "-i", source.toStdString()},
                     joined(kPeerEncoder, {path.toStdString()})));
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    return cpuSeconds(usage);
}

// Feeds the decoded source to Tessarel's converter and recorder as its stream does (a frame
// identical to the last passed on is skipped, but one a second is passed on all the same),
// waiting for the encoder rather than dropping, so both encoders get every frame.
double encodeWithTessarel(const QString& source, const QString& path) {
    const std::string command =
        "ffmpeg -nostdin -v error -i '" + source.toStdString() + "' -f rawvideo -pix_fmt bgr0 -";
    FILE* decoded = popen(command.c_str(), "r");
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    const size_t frameBytes = static_cast<size_t>(gWidth) * static_cast<size_t>(gHeight) * 4;
    std::vector<uint8_t> buffers[2] = {std::vector<uint8_t>(frameBytes),
                                       std::vector<uint8_t>(frameBytes)};
    constexpr int kDepth = 6;
    VideoFrameQueue queue(kDepth, gWidth, gHeight);
    VideoFrameConverter converter(gWidth, gHeight);
    Silent silent;
    VideoFileRecorder recorder(movieAt(path), &silent);
    recorder.start(queue, gWidth, gHeight, 0, kShortestFrameIntervalNs);
    const auto grabOf = [](const std::vector<uint8_t>& pixels) {
        return VideoGrab{pixels.data(), gWidth, gHeight, gWidth * 4};
    };
    std::optional<int> previous; // the buffer of the last frame passed on
    int64_t lastPassedOnNs = -kLongestFrameIntervalNs;
    long long passedOn = 0;
    int64_t timeNs = 0;
    for (;; timeNs += kShortestFrameIntervalNs) {
        const int current = previous == 0 ? 1 : 0;
        auto& pixels = buffers[current];
        if (std::fread(pixels.data(), 1, frameBytes, decoded) != frameBytes) {
            break;
        }
        const VideoGrab grab = grabOf(pixels);
        std::optional<VideoGrab> last;
        if (previous) {
            last = grabOf(buffers[*previous]);
        }
        if (!converter.differs(grab, last ? &*last : nullptr) &&
            timeNs - lastPassedOnNs < kLongestFrameIntervalNs) {
            continue;
        }
        // One frame at most waits, so the encoder never finds itself behind and works at
        // full effort.
        while (passedOn - recorder.encodedFrames() >= 2) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        VideoFrame& frame = queue.acquire();
        converter.convert(frame);
        frame.captureTimeNs = timeNs;
        queue.publish(frame);
        ++passedOn;
        lastPassedOnNs = timeNs;
        previous = current;
    }
    queue.close(timeNs);
    recorder.finish();
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    pclose(decoded);
    return cpuSeconds(after) - cpuSeconds(before);
}

struct Quality {
    double cpuSeconds = 0; // encoding the decoded source (ffmpeg's includes its decoding)
    double ssim = 0;
    double psnr = 0;
    qint64 bytes = 0;
};

// SSIM and PSNR of the movie at `path` against `source`, both at 30 fps in I420, over the
// frames both have (ffmpeg's fps filter may not make a last frame of a variable-rate movie).
Quality qualityOf(const QString& path, const QString& source) {
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {QStringLiteral("-nostdin"), QStringLiteral("-i"), path, QStringLiteral("-i"),
                  source, QStringLiteral("-lavfi"),
                  QStringLiteral("[0:v]fps=30,format=yuv420p,split[a][b];"
                                 "[1:v]fps=30,format=yuv420p,split[c][d];"
                                 "[a][c]ssim=shortest=1;[b][d]psnr=shortest=1"),
                  QStringLiteral("-f"), QStringLiteral("null"), QStringLiteral("-")});
    ffmpeg.waitForFinished(-1);
    const QString log = QString::fromUtf8(ffmpeg.readAllStandardError());
    Quality quality;
    const QRegularExpressionMatch ssim =
        QRegularExpression(QStringLiteral("SSIM .* All:([0-9.]+)")).match(log);
    const QRegularExpressionMatch psnr =
        QRegularExpression(QStringLiteral("PSNR .* average:([0-9.inf]+)")).match(log);
    quality.ssim = ssim.captured(1).toDouble();
    quality.psnr = psnr.captured(1).toDouble();
    quality.bytes = QFileInfo(path).size();
    return quality;
}

double loadAverage() {
    double load[1] = {0};
    getloadavg(load, 1);
    return load[0];
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    const auto option = [&](const char* name, const QString& otherwise) {
        const qsizetype at = arguments.indexOf(QLatin1String(name));
        return at > 0 && at + 1 < arguments.size() ? arguments[at + 1] : otherwise;
    };
    const QStringList size = option("--size", QStringLiteral("1920x1080")).split('x');
    gWidth = size.value(0).toInt();
    gHeight = size.value(1).toInt();
    const QString sceneToDraw = option("--scene", {});
    if (!sceneToDraw.isEmpty()) {
        SceneCanvas canvas(option("--display", {}).toUtf8());
        if (sceneToDraw == QLatin1String("desktop")) {
            runDesktop(canvas);
        }
        if (sceneToDraw == QLatin1String("still")) {
            runStill(canvas);
        }
        runMotion(canvas);
    }
    const int seconds = option("--seconds", QStringLiteral("60")).toInt();
    const int qualitySeconds = option("--quality-seconds", QStringLiteral("10")).toInt();
    const QStringList scenes =
        option("--scenes", QStringLiteral("desktop,motion,still")).split(',');
    if (seconds <= 0 || qualitySeconds < 0 || gWidth <= 0 || gHeight <= 0 ||
        arguments.size() % 2 == 0) {
        std::fprintf(stderr,
                     "usage: %s [--seconds N] [--quality-seconds N] [--size WxH] "
                     "[--scenes desktop,motion,still]\n",
                     argv[0]);
        return 2;
    }

    VirtualDisplay display(gWidth, gHeight);
    QTemporaryDir directory;
    std::vector<std::string> quality;
    std::vector<std::string> rows;
    std::vector<std::string> ratios;
    std::vector<std::string> details;
    for (const QString& sceneName : scenes) {
        const QByteArray sceneBytes = sceneName.toUtf8();
        const char* scene = sceneBytes.constData();
        const pid_t driver = spawn({argv[0], "--scene", scene, "--display",
                                    display.name().toStdString(), "--size", screenSize()});
        std::this_thread::sleep_for(std::chrono::seconds(2));
        const auto file = [&](const char* what) {
            return directory.filePath(QStringLiteral("%1-%2.mp4").arg(sceneName, what));
        };
        if (qualitySeconds > 0) {
            const QString source = directory.filePath(sceneName + QStringLiteral("-source.nut"));
            captureLosslessly(display.name(), source, qualitySeconds);
            const double ourCpu = encodeWithTessarel(source, file("tessarel-q"));
            const double peerCpu = encodeWithFfmpeg(source, file("ffmpeg-q"));
            Quality ours = qualityOf(file("tessarel-q"), source);
            Quality peer = qualityOf(file("ffmpeg-q"), source);
            ours.cpuSeconds = ourCpu;
            peer.cpuSeconds = peerCpu;
            char line[512];
            for (const auto& [recorder, measured] :
                 {std::pair{"tessarel", ours}, {"ffmpeg", peer}}) {
                std::snprintf(line, sizeof line, "%-9s %-9s %8.4f %8.2f %11.3f %9.2f", scene,
                              recorder, measured.ssim, measured.psnr,
                              static_cast<double>(measured.bytes) / 1e6, measured.cpuSeconds);
                quality.emplace_back(line);
            }
            const double sizeRatio =
                static_cast<double>(ours.bytes) / static_cast<double>(peer.bytes);
            std::snprintf(line, sizeof line,
                          "%-9s ssim %+.4f against ffmpeg (target >= -0.002), size %.2f x ffmpeg "
                          "(target <= 1.20): %s",
                          scene, ours.ssim - peer.ssim, sizeRatio,
                          ours.ssim >= peer.ssim - 0.002 && sizeRatio <= 1.2 ? "met" : "missed");
            quality.emplace_back(line);
        }
        const double load = loadAverage();
        const Result ours = recordWithTessarel(display.name(), file("tessarel"), seconds);
        const Result peer = recordWithFfmpeg(display.name(), file("ffmpeg"), seconds);
        kill(driver, SIGTERM);
        waitpid(driver, nullptr, 0);
        std::fflush(stdout);
        char line[512];
        const auto row = [&](const char* recorder, const Result& result) {
            const long long expected = 30LL * seconds;
            const std::string missing =
                std::strcmp(scene, "still") == 0
                    ? std::string("-")
                    : std::to_string(std::max(0LL, expected - result.frames));
            const std::string dupDrop =
                result.duplicated < 0
                    ? std::string("-")
                    : std::to_string(result.duplicated) + "/" + std::to_string(result.dropped);
            std::snprintf(line, sizeof line, "%-9s %-9s %9.2f %8lld %8s %9s %9.3f %9.2f %11.2f",
                          scene, recorder, result.cpuSeconds, result.frames, missing.c_str(),
                          dupDrop.c_str(), result.longestGapSeconds, result.duration,
                          static_cast<double>(result.bytes) / 1e6);
            rows.emplace_back(line);
        };
        row("tessarel", ours);
        row("ffmpeg", peer);
        const double cpuTarget = std::strcmp(scene, "desktop") == 0  ? 0.5
                                 : std::strcmp(scene, "motion") == 0 ? 0.6
                                                                     : 0.05;
        const double cpuRatio = ours.cpuSeconds / peer.cpuSeconds;
        const long long dropped = ours.counts ? ours.counts->droppedByQueue : 0;
        std::snprintf(line, sizeof line,
                      "%-9s cpu %.2f x ffmpeg (target %.2f), %lld dropped by the queue, load "
                      "average %.2f before: %s",
                      scene, cpuRatio, cpuTarget, dropped, load,
                      cpuRatio <= cpuTarget && dropped == 0 ? "met" : "missed");
        ratios.emplace_back(line);
        if (const auto& counts = ours.counts) {
            std::snprintf(
                line, sizeof line,
                "%-9s tessarel: %lld ticks, %lld screen reads of %.0f rows on average, %lld "
                "skipped as identical, %lld dropped by the queue, %lld encoded, at most %d steps "
                "below full effort; windows listed %lld times; cpu s: %.2f capture thread, %.2f "
                "encoding (x264, muxer); peak resident %.0f MB",
                scene, counts->captured, counts->screenReads,
                counts->screenReads ? static_cast<double>(counts->rowsRead) /
                                          static_cast<double>(counts->screenReads)
                                    : 0.0,
                counts->skippedIdentical, counts->droppedByQueue, counts->encoded,
                ours.leastEffortStep, counts->windowListings, counts->captureCpuSeconds,
                ours.cpuSeconds - counts->captureCpuSeconds, ours.peakResidentMb);
            details.emplace_back(line);
        }
    }
    const auto print = [](const std::vector<std::string>& lines) {
        for (const auto& line : lines) {
            std::printf("%s\n", line.c_str());
        }
        std::printf("\n");
    };
    if (qualitySeconds > 0) {
        std::printf("Quality: %d s of each scene at %s captured without loss, then encoded from "
                    "that by each; against the source\n",
                    qualitySeconds, screenSize().c_str());
        std::printf("%-9s %-9s %8s %8s %11s %9s\n", "scene", "encoder", "ssim", "psnr dB",
                    "size MB", "cpu s");
        print(quality);
    }
    std::printf("Live: %d s per recording, %s at 30 fps; ffmpeg x11grab with libx264 preset "
                "veryfast, crf 23\n",
                seconds, screenSize().c_str());
    std::printf("%-9s %-9s %9s %8s %8s %9s %9s %9s %11s\n", "scene", "recorder", "cpu s", "frames",
                "missing", "dup/drop", "gap s", "length s", "size MB");
    print(rows);
    print(details);
    print(ratios);
    return 0;
}
