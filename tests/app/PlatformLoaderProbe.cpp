// Loads the capture platform the way Tessarel does, in the session its environment names.
//
//   platform_loader_probe
//       prints the displays its screen service lists ("display <number>" a line) or the
//       message its screen captures fail with ("unavailable: <message>");
//   platform_loader_probe snapshot <png>
//       takes a snapshot of the first display through the engine, off the GUI thread as
//       Tessarel does, saves it and prints "snapshot <width>x<height>";
//   platform_loader_probe movie <mp4> <milliseconds>
//       records the first display's upper left quarter through the engine and prints "movie";
//   platform_loader_probe movies <first mp4> <second mp4> <milliseconds>
//       records the first movie as `movie` does, keeps the GUI thread answering until the
//       capture module has left the process (a minute at most) and prints "unloaded" or "still
//       loaded", then records the second;
//   platform_loader_probe preflight
//       checks the screen-capture permission on the GUI thread, as the controller does before
//       each capture, and prints "allowed" or "refused" and how often a 50 ms timer of the
//       GUI thread fired meanwhile ("... after <n> ticks");
//   platform_loader_probe overlay-picture
//       asks, on the GUI thread, for the still picture the region overlay shows and prints
//       "picture <width>x<height>" or "no picture".
// A capture that fails prints "failed: <message>".

#include "app/PlatformLoader.h"
#include "app/ScreenPicture.h"
#include "capture/CaptureEngine.h"

#include <QApplication>
#include <QEventLoop>
#include <QFile>
#include <QImage>
#include <QScreen>
#include <QTimer>
#include <QUrl>

#include <chrono>
#include <cstdio>
#include <future>
#include <thread>

namespace {

// Runs `work` on a thread of its own, as Tessarel's capture tasks run, while the GUI thread
// keeps answering (the Wayland snapshot hides and shows windows on it).
template <typename Work> auto offGuiThread(Work work) {
    auto result = std::async(std::launch::async, std::move(work));
    while (result.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) {
        QCoreApplication::processEvents();
    }
    return result.get();
}

const DisplayInfo& firstDisplay(const ShareableContent& content) {
    if (content.displays.empty()) {
        throw PlatformError(QStringLiteral("no display"));
    }
    return content.displays.front();
}

void snapshot(CapturePlatform platform, const QString& path) {
    CaptureEngine engine(platform);
    const DisplayInfo display = firstDisplay(platform.content.shareableContent(false, true));
    const Image image = offGuiThread([&] {
        return engine.snapshot(display.displayID, Size{display.frame.width, display.frame.height},
                               1.0);
    });
    QImage(reinterpret_cast<const uchar*>(image.pixels.constData()), image.width, image.height,
           image.bytesPerRow, QImage::Format_RGB32)
        .save(path);
    std::printf("snapshot %dx%d\n", image.width, image.height);
}

void movie(CapturePlatform platform, const QString& path, int milliseconds) {
    CaptureEngine engine(platform);
    engine.setFailureHandler([](std::exception_ptr) {});
    const DisplayInfo display = firstDisplay(platform.content.shareableContent(false, true));
    const Rect& frame = display.frame;
    offGuiThread([&] {
        // The engine's areas have their origin at the bottom left.
        engine.startVideo(
            QUrl::fromLocalFile(path),
            Rect{frame.x, frame.y + frame.height / 2, frame.width / 2, frame.height / 2},
            display.displayID, frame, 1.0);
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        engine.stop();
    });
    std::printf("movie\n");
}

bool mapsCaptureModule() {
    QFile maps(QStringLiteral("/proc/self/maps"));
    return maps.open(QIODevice::ReadOnly) && maps.readAll().contains("/tessarel_capture.so");
}

void movies(CapturePlatform platform, const QStringList& arguments) {
    const int milliseconds = arguments.value(2).toInt();
    movie(platform, arguments.value(0), milliseconds);
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&loop] {
        if (!mapsCaptureModule()) {
            loop.quit();
        }
    });
    poll.start(100);
    QTimer::singleShot(60000, &loop, &QEventLoop::quit);
    loop.exec();
    std::printf("%s\n", mapsCaptureModule() ? "still loaded" : "unloaded");
    movie(platform, arguments.value(1), milliseconds);
}

void preflight(LoadedCapturePlatform& loaded) {
    int ticks = 0;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&ticks] { ++ticks; });
    timer.start(50);
    const bool allowed = loaded.permission().preflightScreenCaptureAccess();
    std::printf("%s after %d ticks\n", allowed ? "allowed" : "refused", ticks);
}

} // namespace

int main(int argc, char** argv) {
    // A widget application, as Tessarel is: the capture module hides its windows for
    // snapshots through it.
    QApplication application(argc, argv);
    const QStringList arguments = QApplication::arguments().mid(1);
    const auto loaded = loadCapturePlatform();
    const QString command = arguments.value(0);
    try {
        if (command == QLatin1String("snapshot")) {
            snapshot(loaded->platform(), arguments.value(1));
        } else if (command == QLatin1String("movie")) {
            movie(loaded->platform(), arguments.value(1), arguments.value(2).toInt());
        } else if (command == QLatin1String("movies")) {
            movies(loaded->platform(), arguments.mid(1));
        } else if (command == QLatin1String("preflight")) {
            preflight(*loaded);
        } else if (command == QLatin1String("overlay-picture")) {
            const QPixmap picture =
                screenPicture(loaded->platform(), *QApplication::primaryScreen());
            if (picture.isNull()) {
                std::printf("no picture\n");
            } else {
                std::printf("picture %dx%d\n", picture.width(), picture.height());
            }
        } else {
            for (const DisplayInfo& display :
                 loaded->platform().content.shareableContent(false, true).displays) {
                std::printf("display %u\n", display.displayID);
            }
        }
    } catch (const PlatformError& error) {
        std::printf("%s: %s\n", command.isEmpty() ? "unavailable" : "failed", error.what());
    } catch (const std::exception& error) {
        std::printf("failed: %s\n", error.what());
    }
    std::fflush(stdout);
    return 0;
}
