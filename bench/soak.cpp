// Long recordings through the whole engine, watching this process for slow growth: resident
// memory and open file descriptors are sampled every 10 s.
//
//   soak --audio [--minutes 60]   system sound into an M4A file (private PulseAudio, a tone)
//   soak --video [--minutes 20]   a 640 × 480 area of a private Xvfb where a window keeps moving
//
// Prints one line per sample and, at the end, the growth after the first minute: resident
// memory (largest sample minus the sample at one minute) and the lowest and highest
// descriptor counts. Both should stay flat (under 2 MB, descriptors constant).

#include "capture/CaptureEngine.h"
#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11ScreenshotService.h"
#include "capture/linux/x11/X11VideoCaptureService.h"
#include "support/AudioOnlyEngine.h"
#include "support/FakeCapturePlatform.h"
#include "support/SoundServer.h"
#include "support/VirtualDisplay.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kSampleInterval = std::chrono::seconds(10);
constexpr auto kSettling = std::chrono::minutes(1);

struct Sample {
    double seconds = 0;
    double residentMiB = 0;
    int descriptors = 0;
};

double residentMiB() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return 0;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:")) {
            return line.mid(6).trimmed().split(' ').front().toDouble() / 1024.0;
        }
    }
    return 0;
}

int openDescriptors() {
    return static_cast<int>(
        QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size());
}

// Samples while `duration` passes, then reports.
int watch(const char* what, std::chrono::minutes duration) {
    std::vector<Sample> samples;
    const Clock::time_point started = Clock::now();
    for (Clock::time_point next = started; next <= started + duration; next += kSampleInterval) {
        std::this_thread::sleep_until(next);
        const Sample sample{std::chrono::duration<double>(Clock::now() - started).count(),
                            residentMiB(), openDescriptors()};
        samples.push_back(sample);
        std::printf("%-6s t=%6.0f s  rss=%8.2f MiB  fds=%4d\n", what, sample.seconds,
                    sample.residentMiB, sample.descriptors);
        std::fflush(stdout);
    }
    const auto settled = std::find_if(samples.begin(), samples.end(), [](const Sample& sample) {
        return sample.seconds >= std::chrono::duration<double>(kSettling).count();
    });
    if (settled == samples.end()) {
        std::printf("%s: too short to judge\n", what);
        return 0;
    }
    const auto [fewest, most] =
        std::minmax_element(settled, samples.end(), [](const Sample& a, const Sample& b) {
            return a.descriptors < b.descriptors;
        });
    const double largest =
        std::max_element(settled, samples.end(), [](const Sample& a, const Sample& b) {
            return a.residentMiB < b.residentMiB;
        })->residentMiB;
    const double growth = largest - settled->residentMiB;
    std::printf("%s: %zu samples; rss at 1 min %.2f MiB, largest after %.2f MiB, growth %.2f "
                "MiB; fds %d..%d\n",
                what, samples.size(), settled->residentMiB, largest, growth, fewest->descriptors,
                most->descriptors);
    const bool flat = growth < 2.0 && fewest->descriptors == most->descriptors;
    std::printf("%s: %s\n", what, flat ? "flat" : "GROWING");
    return flat ? 0 : 1;
}

int soakAudio(std::chrono::minutes duration) {
    SoundServer server;
    server.playTone(440, std::chrono::duration<double>(duration).count() + 60);
    QTemporaryDir folder;
    AudioOnlyEngine recorder;
    const QString path = folder.filePath(QStringLiteral("soak.m4a"));
    recorder.engine.startAudio(QUrl::fromLocalFile(path), AudioExportFormat::m4a);
    const int result = watch("audio", duration);
    recorder.engine.stop();
    std::printf("audio: %.1f MiB written\n", static_cast<double>(QFileInfo(path).size()) / 1048576);
    return result;
}

int soakVideo(std::chrono::minutes duration) {
    VirtualDisplay display(1280, 720);
    const auto background = display.showWindow(QRect(0, 0, 1280, 720),
                                               VirtualDisplay::testPattern(QSize(1280, 720), 3));
    const auto mover =
        display.showWindow(QRect(0, 0, 160, 120), VirtualDisplay::testPattern(QSize(160, 120), 5));
    std::atomic<bool> moving{true};
    std::thread animation([&] {
        for (double angle = 0; moving; angle += 0.05) {
            mover->move(static_cast<int>(320 + 200 * std::cos(angle)),
                        static_cast<int>(240 + 150 * std::sin(angle)));
            std::this_thread::sleep_for(std::chrono::milliseconds(33));
        }
    });

    FakeCapturePlatform fakes;
    X11ContentProvider content(display.name());
    X11ScreenshotService screenshots(display.name());
    X11VideoCaptureService video(display.name());
    CaptureEngine engine(CapturePlatform{content, fakes.audio, fakes.audioWriters, screenshots,
                                         video, fakes.resources});
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("soak.mp4"));
    // A 640 × 480 area in the middle; bottom-left origin, as the engine takes it.
    engine.startVideo(QUrl::fromLocalFile(path), Rect{320, 120, 640, 480}, content.mainDisplayID(),
                      Rect{0, 0, 1280, 720}, 1.0);
    const int result = watch("video", duration);
    engine.stop();
    moving = false;
    animation.join();
    std::printf("video: %.1f MiB written\n", static_cast<double>(QFileInfo(path).size()) / 1048576);
    return result;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const bool audio = arguments.size() >= 2 && arguments[1] == QStringLiteral("--audio");
    const bool video = arguments.size() >= 2 && arguments[1] == QStringLiteral("--video");
    int minutes = audio ? 60 : 20;
    if (arguments.size() == 4 && arguments[2] == QStringLiteral("--minutes")) {
        minutes = arguments[3].toInt();
    }
    if ((!audio && !video) || (arguments.size() != 2 && arguments.size() != 4) || minutes <= 0) {
        std::fputs("usage: soak --audio|--video [--minutes N]\n", stderr);
        return 2;
    }
    try {
        return audio ? soakAudio(std::chrono::minutes(minutes))
                     : soakVideo(std::chrono::minutes(minutes));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "soak: %s\n", error.what());
        return 1;
    }
}
