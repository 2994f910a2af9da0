// Snapshot of a 3840 x 2160 desktop-like screen to PNG, JPEG and PDF on disk: Tessarel
// against scrot and ImageMagick's import, in the same run, on an Xvfb started here.
//
//   snapshot_benchmark [repetitions]      (default 7; the median is reported)
//
// Tessarel's time covers what a snapshot costs it: listing the displays, grabbing the main
// one through its X11 screenshot service, encoding, and writing the file (PNG and JPEG
// atomically, PDF straight to the file). The peers are timed from start to exit of their
// process, since that is how they are used. JPEG runs at quality 92 everywhere. "Tessarel,
// paused" is the first snapshot after an idle pause: the service has let go of its pixel
// memory, as it does in the tray. Every time is set against scrot's in the same run.

#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11ScreenshotService.h"
#include "controller/linux/LinuxSnapshotEncoders.h"

#include "DesktopScenes.h"
#include "Wallpaper.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QProcess>
#include <QRadialGradient>
#include <QRandomGenerator>
#include <QSaveFile>
#include <QTemporaryDir>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace {

constexpr int kWidth = 3840;
constexpr int kHeight = 2160;
constexpr double kJpegQuality = 0.92;
// Time limits as fractions of scrot's time in the same run, and the lossless files' size.
constexpr double kPngLimit = 0.2;
constexpr double kJpegLimit = 0.3;
constexpr double kPdfLimit = 0.5;
constexpr double kAfterPauseLimit = 0.5;
constexpr double kSizeLimit = 1.1;
// The first snapshot after the service has let go of its pixel memory.
const QString kAfterPause = QStringLiteral("Tessarel, paused");

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "snapshot_benchmark: %s\n", what);
    std::exit(1);
}

// ---- The X server -----------------------------------------------------------------------

// Xvfb on a display number it picks itself (-displayfd), stopped on destruction.
class VirtualScreen {
public:
    VirtualScreen() {
        int fds[2];
        if (pipe(fds) != 0)
            fail("no pipe");
        const int readEnd = fds[0];
        const int writeEnd = fds[1];
        fcntl(readEnd, F_SETFD, FD_CLOEXEC);
        server_.setProgram("Xvfb");
        server_.setArguments({"-displayfd", QString::number(writeEnd), "-screen", "0",
                              QString("%1x%2x24").arg(kWidth).arg(kHeight), "-nolisten", "tcp"});
        server_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        server_.start();
        close(writeEnd);
        if (!server_.waitForStarted())
            fail("Xvfb does not start");
        QByteArray number;
        pollfd readable{readEnd, POLLIN, 0};
        char c = 0;
        while (!number.endsWith('\n') && poll(&readable, 1, 30000) == 1 &&
               read(readEnd, &c, 1) == 1)
            number.append(c);
        close(readEnd);
        if (!number.endsWith('\n'))
            fail("Xvfb reports no display");
        name_ = ":" + number.trimmed();
    }
    ~VirtualScreen() {
        server_.terminate();
        server_.waitForFinished(10000);
    }
    const QByteArray& name() const { return name_; }

private:
    QProcess server_;
    QByteArray name_;
};

// Tessarel's snapshot as the engine takes it: list the displays and applications, pick
// the main display, leave out this process's windows, capture at the display's pixel size.
class Snapshotter {
public:
    explicit Snapshotter(const QByteArray& display,
                         std::chrono::milliseconds keepPixelsFor = std::chrono::seconds(10))
        : content_(display), screenshots_(display, keepPixelsFor) {}

    Image take() { return capture(mainDisplayFilter()); }

    ContentFilter mainDisplayFilter() {
        const ShareableContent content = content_.shareableContent(false, true);
        const uint32_t main = content_.mainDisplayID();
        const auto display =
            std::find_if(content.displays.begin(), content.displays.end(),
                         [main](const DisplayInfo& d) { return d.displayID == main; });
        if (display == content.displays.end())
            fail("no main display");
        ContentFilter filter{*display, {}};
        for (const RunningApplication& application : content.applications)
            if (application.processID == QCoreApplication::applicationPid())
                filter.excludedApplications.push_back(application);
        return filter;
    }

    Image capture(const ContentFilter& filter) {
        return screenshots_.captureImage(
            filter, {static_cast<long long>(filter.display.frame.width),
                     static_cast<long long>(filter.display.frame.height), false});
    }

private:
    X11ContentProvider content_;
    X11ScreenshotService screenshots_;
};

// ---- Timing -----------------------------------------------------------------------------

struct Sample {
    double milliseconds = 0;
    double cpuMilliseconds = 0; // user and system time of the contender's own process
    qint64 bytes = 0;
};

// CPU time so far of this process (RUSAGE_SELF) or of its waited-for children.
double cpuMilliseconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

bool writeAtomically(const QString& path, const std::optional<QByteArray>& data) {
    QSaveFile file(path);
    return data && file.open(QIODevice::WriteOnly) && file.write(*data) == data->size() &&
           file.commit();
}

std::optional<Sample> runPeer(const QByteArray& display, const QString& program,
                              const QStringList& arguments, const QString& output) {
    QFile::remove(output);
    QProcess peer;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DISPLAY", QString::fromUtf8(display));
    peer.setProcessEnvironment(environment);
    peer.setProcessChannelMode(QProcess::MergedChannels);
    const double cpu = cpuMilliseconds(RUSAGE_CHILDREN);
    QElapsedTimer timer;
    timer.start();
    peer.start(program, arguments);
    if (!peer.waitForFinished(120000) || peer.exitStatus() != QProcess::NormalExit ||
        peer.exitCode() != 0 || !QFileInfo::exists(output))
        return std::nullopt;
    return Sample{static_cast<double>(timer.nsecsElapsed()) / 1e6,
                  cpuMilliseconds(RUSAGE_CHILDREN) - cpu, QFileInfo(output).size()};
}

struct Contender {
    Contender(QString label, std::function<std::optional<Sample>()> taker)
        : name(std::move(label)), take(std::move(taker)) {}

    QString name;
    std::function<std::optional<Sample>()> take;
    std::vector<double> times;
    std::vector<double> cpuTimes;
    qint64 bytes = 0;
    bool available = true;
};

} // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    const int repetitions = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;

    VirtualScreen server;
    const QImage scene = desktopScene(kWidth, kHeight);
    const Wallpaper wallpaper(server.name().constData(), scene);
    if (!wallpaper.shown())
        fail("cannot connect to Xvfb");
    Snapshotter screen(server.name());
    // The first snapshot after a pause, once the service has let go of its pixel memory.
    Snapshotter pausedScreen(server.name(), std::chrono::milliseconds(0));
    QTemporaryDir dir;
    LinuxSnapshotEncoders encoders;

    // Tessarel's PNG must hold the screen exactly.
    {
        const auto png = encoders.encodePNG(screen.take());
        if (!png || QImage::fromData(*png, "PNG").convertToFormat(QImage::Format_RGB32) != scene)
            fail("Tessarel's PNG is not the screen");
    }

    // `source` is `screen`, or `pausedScreen` for the first snapshot after an idle pause.
    auto tessarel = [&](const QString& file, const std::function<bool(const Image&)>& save,
                        Snapshotter& source) {
        return [&source, save, path = dir.filePath(file)]() -> std::optional<Sample> {
            const double cpu = cpuMilliseconds(RUSAGE_SELF);
            QElapsedTimer timer;
            timer.start();
            if (!save(source.take()))
                return std::nullopt;
            return Sample{static_cast<double>(timer.nsecsElapsed()) / 1e6,
                          cpuMilliseconds(RUSAGE_SELF) - cpu, QFileInfo(path).size()};
        };
    };
    auto peer = [&](const QString& program, QStringList arguments, const QString& file) {
        const QString path = dir.filePath(file);
        arguments.append(path);
        return [&server, program, arguments, path] {
            return runPeer(server.name(), program, arguments, path);
        };
    };
    const QString png = dir.filePath("tessarel.png");
    const QString jpeg = dir.filePath("tessarel.jpg");
    const QString pdf = dir.filePath("tessarel.pdf");

    const std::function<bool(const Image&)> savePng = [&](const Image& i) {
        return writeAtomically(png, encoders.encodePNG(i));
    };
    const std::function<bool(const Image&)> saveJpeg = [&](const Image& i) {
        return writeAtomically(jpeg, encoders.encodeJPEG(i, kJpegQuality));
    };
    const std::function<bool(const Image&)> savePdf = [&](const Image& i) {
        return encoders.writePDF(i, QUrl::fromLocalFile(pdf), {double(i.width), double(i.height)});
    };
    std::vector<std::pair<QByteArray, std::vector<Contender>>> formats;
    formats.emplace_back("PNG", std::vector<Contender>{
                                    {"Tessarel", tessarel("tessarel.png", savePng, screen)},
                                    {kAfterPause, tessarel("tessarel.png", savePng, pausedScreen)},
                                    {"scrot", peer("scrot", {"-o"}, "scrot.png")},
                                    {"import", peer("import", {"-window", "root"}, "import.png")},
                                });
    formats.emplace_back(
        "JPEG", std::vector<Contender>{
                    {"Tessarel", tessarel("tessarel.jpg", saveJpeg, screen)},
                    {kAfterPause, tessarel("tessarel.jpg", saveJpeg, pausedScreen)},
                    {"scrot", peer("scrot", {"-o", "-q", "92"}, "scrot.jpg")},
                    {"import", peer("import", {"-window", "root", "-quality", "92"}, "import.jpg")},
                });
    formats.emplace_back("PDF", std::vector<Contender>{
                                    {"Tessarel", tessarel("tessarel.pdf", savePdf, screen)},
                                    {kAfterPause, tessarel("tessarel.pdf", savePdf, pausedScreen)},
                                    {"import", peer("import", {"-window", "root"}, "import.pdf")},
                                });

    // Interleaved, so that a busy moment of the machine hits every contender alike.
    for (int r = 0; r < repetitions; ++r)
        for (auto& [format, contenders] : formats)
            for (Contender& contender : contenders) {
                if (!contender.available)
                    continue;
                const auto sample = contender.take();
                if (!sample) {
                    contender.available = false;
                    continue;
                }
                contender.times.push_back(sample->milliseconds);
                contender.cpuTimes.push_back(sample->cpuMilliseconds);
                contender.bytes = sample->bytes;
            }

    // Where the time goes: listing, capture, each encoder, the atomic write of the PNG.
    std::map<QByteArray, std::vector<double>> parts;
    for (int r = 0; r < repetitions; ++r) {
        QElapsedTimer timer;
        auto lap = [&timer, &parts](const QByteArray& part) {
            parts[part].push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
            timer.restart();
        };
        timer.start();
        const ContentFilter filter = screen.mainDisplayFilter();
        lap("1 list displays and applications");
        const Image image = screen.capture(filter);
        lap("2 capture");
        pausedScreen.capture(filter);
        lap("2 capture after a pause");
        const auto data = encoders.encodePNG(image);
        lap("3 encode PNG");
        writeAtomically(png, data);
        lap("4 write PNG atomically");
        encoders.encodeJPEG(image, kJpegQuality);
        lap("5 encode JPEG");
        encoders.writePDF(image, QUrl::fromLocalFile(pdf),
                          {double(image.width), double(image.height)});
        lap("6 write PDF");
    }

    std::printf(
        "Snapshot of a %d x %d desktop-like screen on Xvfb, %d repetitions, median wall "
        "time;\nCPU time is the client's own (the X server's share of a grab is in neither)\n\n",
        kWidth, kHeight, repetitions);
    std::printf("%-5s %-16s %10s %10s %12s %12s %12s %8s\n", "", "", "time ms", "cpu ms",
                "file bytes", "time/scrot", "size/scrot", "target");
    bool allMet = true;
    // scrot's time and size in a format; a format scrot does not write is set against its
    // PNG: the same lossless pixels.
    auto scrotOf = [](const std::vector<Contender>& contenders) -> std::optional<Sample> {
        for (const Contender& c : contenders)
            if (c.name == "scrot" && c.available)
                return Sample{median(c.times), median(c.cpuTimes), c.bytes};
        return std::nullopt;
    };
    const auto scrotPng = scrotOf(formats.front().second);
    if (!scrotPng)
        fail("scrot wrote no PNG");
    for (const auto& [format, contenders] : formats) {
        const auto own = scrotOf(contenders);
        const Sample scrot = own ? *own : *scrotPng;
        const bool lossless = format != "JPEG";
        for (const Contender& c : contenders) {
            if (!c.available) {
                std::printf("%-5s %-16s %10s   (cannot write this format here)\n",
                            format.constData(), qPrintable(c.name), "n/a");
                continue;
            }
            const double t = median(c.times);
            const double timeRatio = t / scrot.milliseconds;
            const double sizeRatio = double(c.bytes) / double(scrot.bytes);
            QByteArray verdict;
            if (c.name.startsWith("Tessarel")) {
                const double limit = c.name == kAfterPause ? kAfterPauseLimit
                                     : format == "PNG"     ? kPngLimit
                                     : format == "JPEG"    ? kJpegLimit
                                                           : kPdfLimit;
                const bool met = timeRatio <= limit && (!lossless || sizeRatio <= kSizeLimit);
                verdict = (met ? "met <= " : "MISSED <= ") + QByteArray::number(limit, 'f', 2);
                allMet = allMet && met;
            }
            std::printf("%-5s %-16s %10.1f %10.1f %12lld %12.2f %12.2f  %s%s\n", format.constData(),
                        qPrintable(c.name), t, median(c.cpuTimes), static_cast<long long>(c.bytes),
                        timeRatio, sizeRatio, verdict.constData(),
                        own ? "" : "  (against scrot's PNG)");
        }
    }
    std::printf("\nTessarel's parts (median ms):");
    for (const auto& [part, times] : parts)
        std::printf("  %s %.1f", part.constData() + 2, median(times));
    std::printf("\n");
    std::printf("Targets: time at most PNG %.2f, JPEG %.2f, PDF %.2f x scrot's, the first after a "
                "pause %.2f x; a lossless file at most %.2f x scrot's PNG: %s\n",
                kPngLimit, kJpegLimit, kPdfLimit, kAfterPauseLimit, kSizeLimit,
                allMet ? "all met" : "NOT all met");
    return 0;
}
