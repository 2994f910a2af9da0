// Wayland capture on a headless sway, in one run, side by side with the wlroots tools:
//
//   wayland_benchmark [--seconds 30] [--repetitions 7]
//
// Snapshot: a 3840 × 2160 output showing a desktop-like picture, to PNG on disk, Tessarel
// (listing the displays, copying the output through its screenshot service, encoding and
// writing the file atomically) against `grim -o`, timed from start to exit of its process;
// the median of interleaved repetitions. Tessarel's PNG must hold grim's pixels exactly.
//
// Movies: the desktop and motion scenes of the X11 video benchmark at 1920 × 1080 (a still
// desktop with a 320 × 240 animation and a pointer moving at 60 Hz; a picture sliding
// across the whole output), recorded whole by Tessarel's recorder in this process, then by
// `wf-recorder` with the same encoder settings (libx264, preset veryfast, crf 23, no
// B-frames, a keyframe every 300 frames), then by Tessarel through the desktop portal: the
// real xdg-desktop-portal frontend and, as the desktop's ScreenCast, the tests' backend
// copying the output with wlr-screencopy into shared-memory PipeWire buffers, as
// xdg-desktop-portal-wlr does with DMA-BUFs on a machine with a GPU. A child process drives
// the pointer, a client of the test tree draws the scene, so the CPU seconds are each
// recorder's own (sway's share is in neither; the portal backend's is given on its own line).
// wf-recorder 0.3 takes every frame the compositor draws (60 a second on the headless output)
// and writes them with their times, Tessarel at most 30 a second; frames are counted with
// ffprobe.

#include "capture/OutputNumbering.h"
#include "capture/linux/portal/DesktopPortal.h"
#include "capture/linux/portal/PortalCaptureServices.h"
#include "capture/linux/wayland/WaylandContentProvider.h"
#include "capture/linux/wayland/WaylandScreenshotService.h"
#include "capture/linux/wayland/WaylandVideoCaptureService.h"
#include "controller/linux/LinuxSnapshotEncoders.h"
#include "support/PortalDesktop.h"
#include "support/WaylandDesktop.h"

#include "DesktopScenes.h"
#include "MovieFacts.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QProcess>
#include <QSaveFile>
#include <QTemporaryDir>
#include <QUrl>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

const QString kOutput = QStringLiteral("HEADLESS-1");

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "wayland_benchmark: %s\n", what);
    std::exit(1);
}

double cpuSeconds(const rusage& usage) {
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double ownCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return cpuSeconds(usage);
}

double childrenCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return cpuSeconds(usage);
}

// User and system CPU seconds of another process so far, from /proc.
double processCpuSeconds(qint64 pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) {
        fail("cannot read a process's CPU time");
    }
    // Fields 14 and 15, counted after the command's closing parenthesis.
    const QByteArray line = stat.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    return static_cast<double>(fields.value(11).toLongLong() + fields.value(12).toLongLong()) /
           static_cast<double>(sysconf(_SC_CLK_TCK));
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

DisplayInfo outputDisplay(const QByteArray& displayName) {
    WaylandContentProvider provider(displayName);
    for (const DisplayInfo& display : provider.shareableContent(false, true).displays) {
        if (display.displayID == displayNumberOfOutput(kOutput)) {
            return display;
        }
    }
    fail("the output is not listed");
}

// ---- Snapshot ------------------------------------------------------------------------------

struct Sample {
    double seconds = 0;
    double cpuSeconds = 0;
    qint64 bytes = 0;
};

void benchmarkSnapshot(int repetitions) {
    WaylandDesktop desktop({QSize(3840, 2160), false});
    QTemporaryDir directory;
    const QString picture = directory.filePath(QStringLiteral("scene.png"));
    if (!desktopScene(3840, 2160).save(picture)) {
        fail("cannot write the scene");
    }
    const auto window = desktop.showWindow(kOutput, 0, WaylandDesktop::Motion::still, picture);
    desktop.pointer().move(QPoint(5000, 3000)); // on the other output
    const QByteArray display = desktop.displayName();
    WaylandContentProvider content(display);
    WaylandScreenshotService screenshots(display);
    LinuxSnapshotEncoders encoders;
    const QString ours = directory.filePath(QStringLiteral("tessarel.png"));
    const QString theirs = directory.filePath(QStringLiteral("grim.png"));

    const auto tessarel = [&]() -> Sample {
        const double cpu = ownCpuSeconds();
        QElapsedTimer timer;
        timer.start();
        const ShareableContent listed = content.shareableContent(false, true);
        const auto found =
            std::find_if(listed.displays.begin(), listed.displays.end(), [](const DisplayInfo& d) {
                return d.displayID == displayNumberOfOutput(kOutput);
            });
        if (found == listed.displays.end()) {
            fail("no display");
        }
        const Image image = screenshots.captureImage({*found, {}}, {3840, 2160, false});
        const auto png = encoders.encodePNG(image);
        QSaveFile file(ours);
        if (!png || !file.open(QIODevice::WriteOnly) || file.write(*png) != png->size() ||
            !file.commit()) {
            fail("cannot write Tessarel's PNG");
        }
        return {static_cast<double>(timer.nsecsElapsed()) / 1e9, ownCpuSeconds() - cpu,
                QFileInfo(ours).size()};
    };
    const auto grim = [&]() -> Sample {
        QFile::remove(theirs);
        QProcess process;
        process.setProcessEnvironment(desktop.environment());
        const double cpu = childrenCpuSeconds();
        QElapsedTimer timer;
        timer.start();
        process.start(QStringLiteral("grim"), {QStringLiteral("-o"), kOutput, theirs});
        if (!process.waitForFinished(120000) || process.exitCode() != 0) {
            fail("grim failed");
        }
        return {static_cast<double>(timer.nsecsElapsed()) / 1e9, childrenCpuSeconds() - cpu,
                QFileInfo(theirs).size()};
    };

    std::vector<double> ourTimes, ourCpu, grimTimes, grimCpu;
    qint64 ourBytes = 0, grimBytes = 0;
    // Interleaved, so that a busy moment of the machine hits both alike.
    for (int r = 0; r < repetitions; ++r) {
        const Sample a = tessarel();
        ourTimes.push_back(a.seconds);
        ourCpu.push_back(a.cpuSeconds);
        ourBytes = a.bytes;
        const Sample b = grim();
        grimTimes.push_back(b.seconds);
        grimCpu.push_back(b.cpuSeconds);
        grimBytes = b.bytes;
    }
    if (QImage(ours).convertToFormat(QImage::Format_RGB32) !=
        QImage(theirs).convertToFormat(QImage::Format_RGB32)) {
        fail("Tessarel's PNG does not hold grim's pixels");
    }
    const double timeRatio = median(ourTimes) / median(grimTimes);
    const double sizeRatio = static_cast<double>(ourBytes) / static_cast<double>(grimBytes);
    std::printf("Snapshot of a 3840 x 2160 output to PNG, %d repetitions, median\n", repetitions);
    std::printf("%-9s %10s %10s %12s\n", "", "time ms", "cpu ms", "file bytes");
    std::printf("%-9s %10.1f %10.1f %12lld\n", "tessarel", median(ourTimes) * 1e3,
                median(ourCpu) * 1e3, static_cast<long long>(ourBytes));
    std::printf("%-9s %10.1f %10.1f %12lld\n", "grim", median(grimTimes) * 1e3,
                median(grimCpu) * 1e3, static_cast<long long>(grimBytes));
    std::printf("snapshot  time %.2f x grim (target 0.50), size %.2f x grim (target 1.25): %s\n\n",
                timeRatio, sizeRatio, timeRatio <= 0.5 && sizeRatio <= 1.25 ? "met" : "NOT met");
}

// ---- Movies --------------------------------------------------------------------------------

struct Result : MovieFacts {
    double cpuSeconds = 0;
    std::optional<WaylandVideoCaptureService::Counts> counts; // Tessarel's only
    double backendCpuSeconds = 0;                             // the portal's backend
};

// The configuration the engine makes for the whole 1920 × 1080 output.
VideoStreamConfiguration wholeOutput() {
    VideoStreamConfiguration configuration;
    configuration.sourceRect = {0, 0, 1920, 1080};
    configuration.width = 1920;
    configuration.height = 1080;
    configuration.minimumFrameInterval = {1, 30};
    configuration.queueDepth = 6;
    configuration.showsCursor = true;
    return configuration;
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

// Records the whole output into `path` for `seconds` through `video`, with this process's CPU
// seconds meanwhile in `cpuSeconds`; the stream comes back stopped.
std::shared_ptr<VideoCaptureStream> recordWholeOutput(VideoCaptureService& video,
                                                      const QByteArray& display,
                                                      const QString& path, int seconds,
                                                      Silent& silent, double& cpuSeconds) {
    auto stream = video.makeStream({outputDisplay(display), {}}, wholeOutput(), &silent);
    stream->addRecordingOutput(video.makeRecordingOutput(
        {QUrl::fromLocalFile(path), VideoFileType::mpeg4, VideoCodec::h264}, &silent));
    const double before = ownCpuSeconds();
    stream->startCapture();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    stream->stopCapture();
    cpuSeconds = ownCpuSeconds() - before;
    return stream;
}

Result recordWithTessarel(const QByteArray& display, const QString& path, int seconds) {
    WaylandVideoCaptureService video(display);
    Silent silent;
    Result result;
    const auto stream = recordWholeOutput(video, display, path, seconds, silent, result.cpuSeconds);
    result.counts = WaylandVideoCaptureService::counts(*stream);
    probeMovieInto(result, path);
    return result;
}

Result recordThroughThePortal(const QByteArray& display, const PortalDesktop& portalDesktop,
                              const QString& path, int seconds) {
    QTemporaryDir grants;
    DesktopPortal portal(portalDesktop.busAddress(), grants.path());
    PortalVideoCaptureService video(portal);
    Silent silent;
    const qint64 backend = portalDesktop.screenCastBackendProcessId();
    const double backendBefore = processCpuSeconds(backend);
    Result result;
    recordWholeOutput(video, display, path, seconds, silent, result.cpuSeconds);
    result.backendCpuSeconds = processCpuSeconds(backend) - backendBefore;
    probeMovieInto(result, path);
    return result;
}

Result recordWithWfRecorder(const WaylandDesktop& desktop, const QString& path, int seconds) {
    QProcess recorder;
    recorder.setProcessEnvironment(desktop.environment());
    recorder.setStandardInputFile(QProcess::nullDevice());
    recorder.setStandardOutputFile(QProcess::nullDevice());
    recorder.setStandardErrorFile(QProcess::nullDevice());
    recorder.start(QStringLiteral("wf-recorder"),
                   {QStringLiteral("-o"), kOutput, QStringLiteral("-c"), QStringLiteral("libx264"),
                    QStringLiteral("-p"), QStringLiteral("preset=veryfast"), QStringLiteral("-p"),
                    QStringLiteral("crf=23"), QStringLiteral("-p"), QStringLiteral("g=300"),
                    QStringLiteral("-b"), QStringLiteral("0"), QStringLiteral("-x"),
                    QStringLiteral("yuv420p"), QStringLiteral("-f"), path});
    if (!recorder.waitForStarted(10000)) {
        fail("wf-recorder does not start");
    }
    const pid_t pid = static_cast<pid_t>(recorder.processId());
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    kill(pid, SIGINT);
    // Reaped here rather than by QProcess, for its resource usage.
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    recorder.waitForFinished(1000);
    Result result;
    result.cpuSeconds = cpuSeconds(usage);
    probeMovieInto(result, path);
    return result;
}

void printRow(const char* scene, const char* recorder, const Result& result, int seconds) {
    const long long expected = 30LL * seconds;
    std::printf("%-9s %-12s %9.2f %8lld %8lld %9.2f %11.2f\n", scene, recorder, result.cpuSeconds,
                result.frames, std::max(0LL, expected - result.frames), result.duration,
                static_cast<double>(result.bytes) / 1e6);
}

// The child that moves the pointer around the middle of the output at 60 Hz until killed.
[[noreturn]] void drivePointer() {
    QProcess pointer;
    pointer.start(QStringLiteral(WAYLAND_POINTER),
                  {QStringLiteral("1920"), QStringLiteral("1080")});
    if (!pointer.waitForStarted(10000)) {
        fail("no virtual pointer");
    }
    auto next = std::chrono::steady_clock::now();
    for (int step = 0;; ++step) {
        const double angle = step / 40.0;
        pointer.write(QByteArray("move ") +
                      QByteArray::number(static_cast<int>(960 + 600 * std::cos(angle))) + ' ' +
                      QByteArray::number(static_cast<int>(540 + 350 * std::sin(angle))) + '\n');
        pointer.waitForBytesWritten(1000);
        pointer.waitForReadyRead(1000);
        pointer.readAll();
        next += std::chrono::microseconds(1'000'000 / 60);
        std::this_thread::sleep_until(next);
    }
}

void benchmarkMovies(const char* self, int seconds) {
    WaylandDesktop desktop({QSize(1920, 1080), false});
    PortalDesktop portalDesktop(desktop, {true, {}, true});
    QTemporaryDir directory;
    std::printf("Movies of a 1920 x 1080 output, %d s each; x264 preset veryfast, crf 23, no "
                "B-frames, keyframe every 300 frames\n",
                seconds);
    std::printf("%-9s %-12s %9s %8s %8s %9s %11s\n", "scene", "recorder", "cpu s", "frames",
                "missing", "length s", "size MB");
    std::vector<std::string> lines;
    for (const char* scene : {"desktop", "motion"}) {
        const bool isDesktop = std::string(scene) == "desktop";
        const QString picture = directory.filePath(QStringLiteral("%1.png").arg(scene));
        desktopPicture(isDesktop ? 1920 : 1920 + 600, 1080).save(picture);
        const auto window = desktop.showWindow(
            kOutput, 0, isDesktop ? WaylandDesktop::Motion::glow : WaylandDesktop::Motion::slide,
            picture);
        QProcess driver;
        if (isDesktop) {
            driver.setProcessEnvironment(desktop.environment());
            driver.start(QString::fromLocal8Bit(self), {QStringLiteral("--drive-pointer")});
            driver.waitForStarted(10000);
        }
        std::this_thread::sleep_for(std::chrono::seconds(2));
        const Result ours = recordWithTessarel(
            desktop.displayName(), directory.filePath(QStringLiteral("%1-tessarel.mp4").arg(scene)),
            seconds);
        const Result peer = recordWithWfRecorder(
            desktop, directory.filePath(QStringLiteral("%1-wf-recorder.mp4").arg(scene)), seconds);
        const Result portal = recordThroughThePortal(
            desktop.displayName(), portalDesktop,
            directory.filePath(QStringLiteral("%1-portal.mp4").arg(scene)), seconds);
        driver.kill();
        driver.waitForFinished(10000);
        printRow(scene, "tessarel", ours, seconds);
        printRow(scene, "wf-recorder", peer, seconds);
        printRow(scene, "portal", portal, seconds);
        const double cpuRatio = ours.cpuSeconds / peer.cpuSeconds;
        const double sizeRatio = static_cast<double>(ours.bytes) / static_cast<double>(peer.bytes);
        const double cpuTarget = isDesktop ? 0.5 : 0.8;
        const auto& counts = *ours.counts;
        char line[512];
        std::snprintf(line, sizeof line,
                      "%-9s cpu %.2f x wf-recorder (target %.2f), size %.2f x wf-recorder (target "
                      "1.20), %lld dropped by the queue: %s",
                      scene, cpuRatio, cpuTarget, sizeRatio, counts.droppedByQueue,
                      cpuRatio <= cpuTarget && sizeRatio <= 1.2 && counts.droppedByQueue == 0
                          ? "met"
                          : "NOT met");
        lines.emplace_back(line);
        std::snprintf(line, sizeof line,
                      "%-9s tessarel: %lld ticks, %lld copies by the compositor, %lld skipped as "
                      "identical, %lld encoded; cpu s: %.2f capture thread, %.2f encoding",
                      scene, counts.ticks, counts.copies, counts.skippedIdentical, counts.encoded,
                      counts.captureCpuSeconds, ours.cpuSeconds - counts.captureCpuSeconds);
        lines.emplace_back(line);
        std::snprintf(line, sizeof line,
                      "%-9s portal: tessarel %.2f cpu s, %.2f x through screen copy; the portal's "
                      "backend (screen copy into PipeWire) %.2f cpu s",
                      scene, portal.cpuSeconds, portal.cpuSeconds / ours.cpuSeconds,
                      portal.backendCpuSeconds);
        lines.emplace_back(line);
    }
    std::printf("\n");
    for (const auto& line : lines) {
        std::printf("%s\n", line.c_str());
    }
}

} // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() == 2 && arguments[1] == QLatin1String("--drive-pointer")) {
        drivePointer();
    }
    int seconds = 30;
    int repetitions = 7;
    for (int i = 1; i + 1 < arguments.size(); i += 2) {
        if (arguments[i] == QLatin1String("--seconds")) {
            seconds = arguments[i + 1].toInt();
        } else if (arguments[i] == QLatin1String("--repetitions")) {
            repetitions = arguments[i + 1].toInt();
        }
    }
    if (seconds <= 0 || repetitions < 0 || arguments.size() % 2 == 0) {
        std::fprintf(stderr, "usage: %s [--seconds N] [--repetitions N]\n", argv[0]);
        return 2;
    }
    if (repetitions > 0) { // none: the movies alone
        benchmarkSnapshot(repetitions);
    }
    benchmarkMovies(argv[0], seconds);
    return 0;
}
