#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11ScreenshotService.h"
#include "capture/linux/x11/X11VideoCaptureService.h"
#include "support/VirtualDisplay.h"

#include "MovieInspection.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

DisplayInfo mainDisplay(const QByteArray& name) {
    X11ContentProvider provider(name);
    for (const DisplayInfo& display : provider.shareableContent(false, true).displays) {
        if (display.displayID == provider.mainDisplayID()) {
            return display;
        }
    }
    return {};
}

// Moves a window back and forth along a line until destroyed.
class Mover {
public:
    Mover(VirtualDisplay::Window& window, QPoint from, int travel)
        : thread_([this, &window, from, travel] {
              for (int step = 0; !stop_; ++step) {
                  const int offset = step % (2 * travel);
                  window.move(from.x() + (offset < travel ? offset : 2 * travel - offset),
                              from.y());
                  std::this_thread::sleep_for(std::chrono::milliseconds(4));
              }
          }) {}
    ~Mover() {
        stop_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

struct Recording {
    QString path;
    double wallClockSeconds = 0;
    bool finished = false;
    X11VideoCaptureService::Counts counts;
};

// A stream with a movie recorder on it, not started yet.
struct Recorder {
    Recorder(const QByteArray& display, const ContentFilter& filter,
             const VideoStreamConfiguration& configuration, const QString& path,
             std::optional<VideoCodec> codec = VideoCodec::h264)
        : video(display), output{QUrl::fromLocalFile(path), VideoFileType::mpeg4, codec},
          stream(video.makeStream(filter, configuration, &events)) {
        stream->addRecordingOutput(video.makeRecordingOutput(output, &events));
    }

    X11VideoCaptureService video;
    RecorderEvents events;
    const RecordingOutputConfiguration output;
    const std::shared_ptr<VideoCaptureStream> stream;
};

Recording record(const QByteArray& display, const ContentFilter& filter,
                 const VideoStreamConfiguration& configuration, const QString& path,
                 std::chrono::milliseconds length) {
    Recorder recorder(display, filter, configuration, path);
    recorder.stream->startCapture();
    const auto started = Clock::now();
    std::this_thread::sleep_for(length);
    const auto stopping = Clock::now();
    recorder.stream->stopCapture();
    const bool finished = recorder.events.finished();
    return {path, std::chrono::duration<double>(stopping - started).count(), finished,
            X11VideoCaptureService::counts(*recorder.stream)};
}

// Every frame of the movie at `path` shows the screen's `area` as `pattern` has it.
void expectFramesShow(const QString& path, const QImage& pattern, const QRect& area) {
    const auto frames = decode(path, area.width(), area.height());
    ASSERT_FALSE(frames.empty());
    for (const QByteArray& frame : frames) {
        EXPECT_LT(meanDifference(frame, pattern, area, [](int, int) { return true; }), 3.0);
    }
}

} // namespace

TEST(X11Video, MovieOfAMovingPatternIsH264InMpeg4AtTheWallClocksPace) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 5);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    // A block sliding through the lower band of the area; the upper band stays still.
    auto block = display.showWindow(QRect(120, 260, 48, 48),
                                    VirtualDisplay::solid(QSize(48, 48), qRgb(40, 200, 60)));
    // The pointer's hot spot lands at (80, 60) of the area.
    display.movePointer(200, 140);
    QTemporaryDir directory;
    Mover mover(*block, QPoint(120, 260), 200);
    // 160 × 120 points at (60, 40) on a display of scale 2: pixels (120, 80, 320, 240).
    const auto configuration = configurationFor(Rect{60, 40, 160, 120}, 2.0);

    const Recording movie =
        record(display.name(), {mainDisplay(display.name()), {}}, configuration,
               directory.filePath("movie.mp4"), std::chrono::milliseconds(3000));

    ASSERT_TRUE(movie.finished);
    const Probe probed = probe(movie.path);
    EXPECT_EQ(probed.codec, "h264");
    EXPECT_TRUE(probed.format.contains("mp4")) << probed.format.toStdString();
    EXPECT_EQ(probed.width, 320);
    EXPECT_EQ(probed.height, 240);
    EXPECT_LE(probed.averageFrameRate, 30.0);
    EXPECT_NEAR(static_cast<double>(probed.frames), 30 * probed.duration,
                0.03 * 30 * probed.duration);
    EXPECT_NEAR(probed.duration, movie.wallClockSeconds, 0.150);
    // Keyframes come ten seconds apart: in three seconds only the first frame is one.
    EXPECT_EQ(probed.keyframes, 1);

    const auto frames = decode(movie.path, 320, 240);
    ASSERT_EQ(static_cast<long long>(frames.size()), probed.frames);
    const QRect area(120, 80, 320, 240);
    const QRect pointerBox(60, 40, 40, 40);
    for (const QByteArray& frame : frames) {
        // The still band matches the screen; the block moves below it.
        EXPECT_LT(
            meanDifference(frame, pattern, area,
                           [&](int x, int y) { return y < 170 && !pointerBox.contains(x, y); }),
            3.0);
        EXPECT_GT(extremePixels(frame, 320, pointerBox), 20);
        EXPECT_EQ(extremePixels(frame, 320, QRect(0, 0, 320, 36)), 0);
    }
}

TEST(X11Video, OwnWindowOverTheAreaIsAbsentFromTheMovie) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 6);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    const auto panel =
        display.showWindow(QRect(200, 150, 300, 200),
                           VirtualDisplay::solid(QSize(300, 200), qRgb(255, 0, 255)), getpid());
    display.movePointer(1500, 900);
    QTemporaryDir directory;
    const auto configuration = configurationFor(Rect{100, 100, 320, 240}, 1.0);

    const Recording movie =
        record(display.name(), {mainDisplay(display.name()), {{getpid(), {}}}}, configuration,
               directory.filePath("movie.mp4"), std::chrono::milliseconds(1000));

    ASSERT_TRUE(movie.finished);
    expectFramesShow(movie.path, pattern, QRect(100, 100, 320, 240));
}

TEST(X11Video, OwnWindowOverTheAreaIsBlackInTheMovieWhereTheServerCannotCompose) {
    VirtualDisplay display(1920, 1080, {QStringLiteral("COMPOSITE")});
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 16);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    const QRect panelGeometry(200, 150, 300, 200);
    const auto panel = display.showWindow(
        panelGeometry, VirtualDisplay::solid(panelGeometry.size(), qRgb(255, 0, 255)), getpid());
    display.movePointer(1500, 900);
    QTemporaryDir directory;
    const auto configuration = configurationFor(Rect{100, 100, 320, 240}, 1.0);
    QImage expected = pattern.copy();
    VirtualDisplay::drawOnto(expected, panelGeometry.topLeft(),
                             VirtualDisplay::solid(panelGeometry.size(), qRgb(0, 0, 0)));

    const Recording movie =
        record(display.name(), {mainDisplay(display.name()), {{getpid(), {}}}}, configuration,
               directory.filePath("movie.mp4"), std::chrono::milliseconds(1000));

    ASSERT_TRUE(movie.finished);
    expectFramesShow(movie.path, expected, QRect(100, 100, 320, 240));
}

TEST(X11Video, UnchangedScreenIsRecordedAtTheWallClocksPaceWithFewFrames) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 7);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    QTemporaryDir directory;
    const auto configuration = configurationFor(Rect{0, 0, 640, 480}, 1.0);

    const Recording movie =
        record(display.name(), {mainDisplay(display.name()), {}}, configuration,
               directory.filePath("movie.mp4"), std::chrono::milliseconds(3000));

    ASSERT_TRUE(movie.finished);
    const Probe probed = probe(movie.path);
    EXPECT_NEAR(probed.duration, movie.wallClockSeconds, 0.150);
    // A frame a second keeps the fragments coming; the identical frames between are skipped.
    EXPECT_LE(probed.frames, 5);
}

TEST(X11Video, UnchangedLayoutIsListedOnceAndUnchangedGrabsGoNoFurther) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 11);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    const auto panel =
        display.showWindow(QRect(1200, 600, 300, 200),
                           VirtualDisplay::solid(QSize(300, 200), qRgb(255, 0, 255)), getpid());
    display.movePointer(1500, 900);
    QTemporaryDir directory;

    const Recording movie =
        record(display.name(), {mainDisplay(display.name()), {{getpid(), {}}}},
               configurationFor(Rect{100, 100, 640, 480}, 1.0), directory.filePath("still.mp4"),
               std::chrono::milliseconds(1500));

    ASSERT_TRUE(movie.finished);
    const auto& counts = movie.counts;
    EXPECT_EQ(counts.windowListings, 1);
    EXPECT_EQ(counts.droppedByQueue, 0);
    EXPECT_GT(counts.skippedIdentical, 0);
    EXPECT_EQ(counts.encoded + counts.skippedIdentical, counts.captured);
    // The first frame, and one a second after it.
    EXPECT_LE(counts.encoded, 3);
}

TEST(X11Video, AreaNobodyDrawsInIsNotReadAgainWhileTheScreenElsewhereChanges) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 12);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    auto block = display.showWindow(QRect(900, 700, 48, 48),
                                    VirtualDisplay::solid(QSize(48, 48), qRgb(40, 200, 60)));
    const Mover mover(*block, QPoint(900, 700), 300);
    display.movePointer(1500, 900);
    QTemporaryDir directory;

    const Recording movie =
        record(display.name(), {mainDisplay(display.name()), {}},
               configurationFor(Rect{100, 100, 640, 480}, 1.0), directory.filePath("still.mp4"),
               std::chrono::milliseconds(2500));

    ASSERT_TRUE(movie.finished);
    const auto& counts = movie.counts;
    EXPECT_GE(counts.captured, 60);
    // The first frame only: the frame a second that keeps the movie's fragments coming
    // repeats the last picture.
    EXPECT_LE(counts.screenReads, 2);
    expectFramesShow(movie.path, pattern, QRect(100, 100, 640, 480));
}

TEST(X11Video, DrawingInABandOfTheAreaReadsOnlyThoseRows) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 15);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    // Sliding to and fro through rows 200 to 248 of the area (100, 100, 640, 480).
    auto block = display.showWindow(QRect(150, 300, 48, 48),
                                    VirtualDisplay::solid(QSize(48, 48), qRgb(40, 200, 60)));
    const Mover mover(*block, QPoint(150, 300), 400);
    display.movePointer(1500, 900);
    QTemporaryDir directory;

    const Recording movie = record(display.name(), {mainDisplay(display.name()), {}},
                                   configurationFor(Rect{100, 100, 640, 480}, 1.0),
                                   directory.filePath("band.mp4"), std::chrono::milliseconds(2000));

    ASSERT_TRUE(movie.finished);
    const auto& counts = movie.counts;
    EXPECT_GE(counts.screenReads, 30);
    // The first read is whole; the others cover the block's rows and little more.
    EXPECT_LE(counts.rowsRead, 480 + (counts.screenReads - 1) * 64);
    const auto frames = decode(movie.path, 640, 480);
    ASSERT_FALSE(frames.empty());
    for (const QByteArray& frame : frames) {
        EXPECT_LT(meanDifference(frame, pattern, QRect(100, 100, 640, 480),
                                 [](int, int y) { return y < 196 || y >= 252; }),
                  3.0);
    }
}

TEST(X11Video, SingleChangeOnAStillScreenReachesTheMovie) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 18);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    display.movePointer(1500, 900);
    QTemporaryDir directory;
    const QString path = directory.filePath("change.mp4");
    Recorder recorder(display.name(), {mainDisplay(display.name()), {}},
                      configurationFor(Rect{100, 100, 640, 480}, 1.0), path);
    QImage screen = pattern.copy();
    // Each change shows a window; the first leaves both grab buffers read once.
    std::vector<std::unique_ptr<VirtualDisplay::Window>> windows;
    const auto change = [&](const QRect& geometry, int seed) {
        const QImage picture = VirtualDisplay::testPattern(geometry.size(), seed);
        windows.push_back(display.showWindow(geometry, picture));
        VirtualDisplay::drawOnto(screen, geometry.topLeft(), picture);
    };

    recorder.stream->startCapture();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    change(QRect(150, 150, 100, 50), 19);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    change(QRect(300, 420, 200, 100), 20);
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    recorder.stream->stopCapture();

    ASSERT_TRUE(recorder.events.finished());
    const auto frames = decode(path, 640, 480);
    ASSERT_FALSE(frames.empty());
    EXPECT_LT(meanDifference(frames.back(), screen, QRect(100, 100, 640, 480),
                             [](int, int) { return true; }),
              3.0);
}

TEST(X11Video, PointerCrossingAStillAreaLeavesNoTrace) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 17);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    display.movePointer(50, 50);
    QTemporaryDir directory;
    const QString path = directory.filePath("pointer.mp4");
    Recorder recorder(display.name(), {mainDisplay(display.name()), {}},
                      configurationFor(Rect{100, 100, 640, 480}, 1.0), path);

    recorder.stream->startCapture();
    for (int step = 0; step <= 20; ++step) {
        display.movePointer(120 + step * 30, 150 + step * 20);
    }
    display.movePointer(1500, 900);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    recorder.stream->stopCapture();

    ASSERT_TRUE(recorder.events.finished());
    const auto frames = decode(path, 640, 480);
    ASSERT_GE(frames.size(), 3u);
    const QRect whole(0, 0, 640, 480);
    // The pointer's black and white pixels were in the movie, and are gone from its end.
    EXPECT_TRUE(std::any_of(frames.begin(), frames.end(), [&](const QByteArray& frame) {
        return extremePixels(frame, 640, whole) > 20;
    }));
    EXPECT_EQ(extremePixels(frames.back(), 640, whole), 0);
    EXPECT_LT(meanDifference(frames.back(), pattern, QRect(100, 100, 640, 480),
                             [](int, int) { return true; }),
              3.0);
}

TEST(X11Video, WithoutDamageReportsEveryTickReadsTheArea) {
    VirtualDisplay display(1920, 1080, {QStringLiteral("DAMAGE")});
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 14);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    display.movePointer(1500, 900);
    QTemporaryDir directory;

    const Recording movie =
        record(display.name(), {mainDisplay(display.name()), {}},
               configurationFor(Rect{100, 100, 640, 480}, 1.0), directory.filePath("still.mp4"),
               std::chrono::milliseconds(1500));

    ASSERT_TRUE(movie.finished);
    EXPECT_EQ(movie.counts.screenReads, movie.counts.captured);
    EXPECT_LE(movie.counts.encoded, 3);
    expectFramesShow(movie.path, pattern, QRect(100, 100, 640, 480));
}

TEST(X11Video, OwnWindowMovingOverTheAreaIsLeftOutWithoutListingAgain) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 12);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    auto panel = display.showWindow(
        QRect(0, 150, 120, 90), VirtualDisplay::solid(QSize(120, 90), qRgb(255, 0, 255)), getpid());
    display.movePointer(1500, 900);
    QTemporaryDir directory;
    // Back and forth across the area (100, 100, 320, 240).
    Mover mover(*panel, QPoint(0, 150), 500);

    const Recording movie =
        record(display.name(), {mainDisplay(display.name()), {{getpid(), {}}}},
               configurationFor(Rect{100, 100, 320, 240}, 1.0), directory.filePath("moving.mp4"),
               std::chrono::milliseconds(1500));

    ASSERT_TRUE(movie.finished);
    EXPECT_EQ(movie.counts.windowListings, 1);
    expectFramesShow(movie.path, pattern, QRect(100, 100, 320, 240));
}

TEST(X11Video, OwnWindowAppearingDuringTheRecordingIsLeftOut) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 13);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    display.movePointer(1500, 900);
    QTemporaryDir directory;
    const QString path = directory.filePath("appearing.mp4");
    Recorder recorder(display.name(), {mainDisplay(display.name()), {{getpid(), {}}}},
                      configurationFor(Rect{100, 100, 320, 240}, 1.0), path);

    recorder.stream->startCapture();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const auto panel =
        display.showWindow(QRect(150, 150, 200, 100),
                           VirtualDisplay::solid(QSize(200, 100), qRgb(255, 0, 255)), getpid());
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    recorder.stream->stopCapture();

    ASSERT_TRUE(recorder.events.finished());
    EXPECT_GE(X11VideoCaptureService::counts(*recorder.stream).windowListings, 2);
    expectFramesShow(path, pattern, QRect(100, 100, 320, 240));
}

TEST(X11Video, KilledRecordingLeavesAPlayableMovie) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 8);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    auto block = display.showWindow(QRect(100, 200, 48, 48),
                                    VirtualDisplay::solid(QSize(48, 48), qRgb(40, 200, 60)));
    Mover mover(*block, QPoint(100, 200), 200);
    QTemporaryDir directory;
    const QString path = directory.filePath("killed.mp4");
    QProcess recorder;
    recorder.start(QStringLiteral(RECORDING_HELPER),
                   {QString::fromUtf8(display.name()), path, QStringLiteral("50"),
                    QStringLiteral("50"), QStringLiteral("400"), QStringLiteral("300")});
    ASSERT_TRUE(recorder.waitForReadyRead(30000));
    ASSERT_EQ(recorder.readLine().trimmed(), "recording");

    std::this_thread::sleep_for(std::chrono::seconds(5));
    recorder.kill(); // SIGKILL
    recorder.waitForFinished(30000);

    const Probe probed = probe(path);
    EXPECT_EQ(probed.codec, "h264");
    EXPECT_TRUE(probed.format.contains("mp4"));
    EXPECT_GE(probed.lastFrameEnd, 4.0);
}

TEST(X11Video, RecorderWithoutACodecChoiceUsesH264WhenAvailable) {
    VirtualDisplay display(640, 480);
    QTemporaryDir directory;
    const QString path = directory.filePath("default.mp4");
    Recorder recorder(display.name(), {mainDisplay(display.name()), {}},
                      configurationFor(Rect{0, 0, 64, 64}, 1.0), path, std::nullopt);
    ASSERT_EQ(recorder.video.availableVideoCodecTypes().front(), VideoCodec::h264);

    recorder.stream->startCapture();
    recorder.stream->stopCapture();

    ASSERT_TRUE(recorder.events.finished());
    EXPECT_EQ(probe(path).codec, "h264");
}

TEST(X11Video, RecorderAskedForMpeg4VisualWritesIt) {
    VirtualDisplay display(640, 480);
    QTemporaryDir directory;
    const QString path = directory.filePath("visual.mp4");
    Recorder recorder(display.name(), {mainDisplay(display.name()), {}},
                      configurationFor(Rect{0, 0, 64, 64}, 1.0), path, VideoCodec::mpeg4Part2);

    recorder.stream->startCapture();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    recorder.stream->stopCapture();

    ASSERT_TRUE(recorder.events.finished());
    const Probe probed = probe(path);
    EXPECT_EQ(probed.codec, "mpeg4");
    EXPECT_GT(probed.frames, 0);
}

// The encoder is told which macroblocks did not change; where a block has been, every
// frame must show the screen again, not the block.
TEST(X11Video, BlockMovingThroughTheAreaLeavesNoTrace) {
    VirtualDisplay display(640, 480);
    const QImage pattern = VirtualDisplay::testPattern(QSize(640, 480), 9);
    const auto background = display.showWindow(QRect(0, 0, 640, 480), pattern);
    auto block = display.showWindow(QRect(20, 90, 48, 48),
                                    VirtualDisplay::solid(QSize(48, 48), qRgb(40, 200, 60)));
    display.movePointer(630, 470);
    QTemporaryDir directory;
    const QString path = directory.filePath("trace.mp4");
    Recorder recorder(display.name(), {mainDisplay(display.name()), {}},
                      configurationFor(Rect{0, 0, 320, 240}, 1.0), path);

    recorder.stream->startCapture();
    {
        Mover mover(*block, QPoint(20, 90), 230);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    }
    block->move(400, 300); // out of the area
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    recorder.stream->stopCapture();

    ASSERT_TRUE(recorder.events.finished());
    const auto frames = decode(path, 320, 240);
    ASSERT_GT(frames.size(), 10U);
    // Pixels nearer the block's green than the screen behind them, which some cells of
    // the pattern come close to.
    const auto distance = [](const unsigned char* pixel, QRgb colour) {
        return std::abs(pixel[0] - qBlue(colour)) + std::abs(pixel[1] - qGreen(colour)) +
               std::abs(pixel[2] - qRed(colour));
    };
    const auto greenPixels = [&](const QByteArray& frame) {
        int count = 0;
        const auto* data = reinterpret_cast<const unsigned char*>(frame.constData());
        for (int y = 0; y < 240; ++y) {
            for (int x = 0; x < 320; ++x) {
                const unsigned char* p = data + (static_cast<qsizetype>(y) * 320 + x) * 4;
                if (distance(p, qRgb(40, 200, 60)) < distance(p, pattern.pixel(x, y))) {
                    ++count;
                }
            }
        }
        return count;
    };
    for (const QByteArray& frame : frames) {
        EXPECT_LE(greenPixels(frame), 48 * 48 + 48 * 4);
    }
    EXPECT_EQ(greenPixels(frames.back()), 0);
    EXPECT_LT(meanDifference(frames.back(), pattern, QRect(0, 0, 320, 240),
                             [](int, int) { return true; }),
              3.0);
}

TEST(X11Video, UnwritableDestinationStopsTheStartWithAPlatformError) {
    VirtualDisplay display(640, 480);
    Recorder recorder(display.name(), {mainDisplay(display.name()), {}},
                      configurationFor(Rect{0, 0, 64, 64}, 1.0),
                      QStringLiteral("/nonexistent-folder/movie.mp4"));

    EXPECT_THROW(recorder.stream->startCapture(), PlatformError);
}

TEST(X11Video, SecondRecorderIsRefused) {
    VirtualDisplay display(640, 480);
    Recorder recorder(display.name(), {mainDisplay(display.name()), {}},
                      configurationFor(Rect{0, 0, 64, 64}, 1.0), QStringLiteral("unused.mp4"));

    EXPECT_THROW(recorder.stream->addRecordingOutput(
                     recorder.video.makeRecordingOutput(recorder.output, &recorder.events)),
                 PlatformError);
}
