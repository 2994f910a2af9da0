#include "capture/OutputNumbering.h"
#include "capture/linux/wayland/WaylandContentProvider.h"
#include "capture/linux/wayland/WaylandVideoCaptureService.h"
#include "support/WaylandDesktop.h"

#include "MovieInspection.h"

#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

DisplayInfo displayOf(const WaylandDesktop& desktop, const QString& name) {
    WaylandContentProvider provider(desktop.displayName());
    for (const DisplayInfo& display : provider.shareableContent(false, true).displays) {
        if (display.displayID == displayNumberOfOutput(name)) {
            return display;
        }
    }
    return {};
}

// A stream with a movie recorder on it, not started yet.
struct Recorder {
    Recorder(const WaylandDesktop& desktop, const ContentFilter& filter,
             const VideoStreamConfiguration& configuration, const QString& path)
        : video(desktop.displayName()), output{QUrl::fromLocalFile(path), VideoFileType::mpeg4,
                                               VideoCodec::h264},
          stream(video.makeStream(filter, configuration, &events)) {
        stream->addRecordingOutput(video.makeRecordingOutput(output, &events));
    }

    WaylandVideoCaptureService video;
    RecorderEvents events;
    const RecordingOutputConfiguration output;
    const std::shared_ptr<VideoCaptureStream> stream;
};

// Records `sourcePoints` of the output called `name`, over the test window's band scrolling
// below its upper part, with the pointer `pointerAt` points into the area, for three
// seconds; checks the movie against the wall clock and grim's picture of the output.
void expectMovieOfTheMovingWindow(WaylandDesktop& desktop, const QString& name,
                                  const Rect& sourcePoints, QPoint pointerAt) {
    const WaylandDesktop::Output output = desktop.output(name);
    const auto window = desktop.showWindow(name, 31, WaylandDesktop::Motion::band);
    desktop.pointer().move(
        output.logical.topLeft() +
        QPoint(static_cast<int>(sourcePoints.x), static_cast<int>(sourcePoints.y)) + pointerAt);
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("movie.mp4"));
    const auto configuration = configurationFor(sourcePoints, output.scale);
    Recorder recorder(desktop, {displayOf(desktop, name), {}}, configuration, path);

    recorder.stream->startCapture();
    const auto started = Clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(3000));
    const auto stopping = Clock::now();
    recorder.stream->stopCapture();
    const double wallClockSeconds = std::chrono::duration<double>(stopping - started).count();

    ASSERT_TRUE(recorder.events.finished());
    // The buffer's pixels per point, as the compositor made them.
    const double perPoint = static_cast<double>(output.pixels.width()) / output.logical.width();
    const int width = static_cast<int>(sourcePoints.width * perPoint) / 2 * 2;
    const int height = static_cast<int>(sourcePoints.height * perPoint) / 2 * 2;
    const Probe probed = probe(path);
    EXPECT_EQ(probed.codec, "h264");
    EXPECT_TRUE(probed.format.contains("mp4")) << probed.format.toStdString();
    EXPECT_EQ(probed.width, width);
    EXPECT_EQ(probed.height, height);
    EXPECT_LE(probed.averageFrameRate, 30.0);
    EXPECT_NEAR(static_cast<double>(probed.frames), 30 * probed.duration,
                0.03 * 30 * probed.duration);
    EXPECT_NEAR(probed.duration, wallClockSeconds, 0.150);

    // The window's upper part stands still above the band; the pointer is drawn in.
    const QImage screen = desktop.grim(name);
    const QRect area(static_cast<int>(sourcePoints.x * perPoint),
                     static_cast<int>(sourcePoints.y * perPoint), width, height);
    const int bandTop =
        static_cast<int>((output.logical.height() * 3 / 4 - 24 - sourcePoints.y) * perPoint);
    const QRect pointerBox(static_cast<int>(pointerAt.x() * perPoint),
                           static_cast<int>(pointerAt.y() * perPoint),
                           static_cast<int>(40 * perPoint), static_cast<int>(40 * perPoint));
    const auto frames = decode(path, width, height);
    ASSERT_EQ(static_cast<long long>(frames.size()), probed.frames);
    const QRect band(0, bandTop, width,
                     std::min(height - bandTop, static_cast<int>(48 * perPoint)));
    int moved = 0;
    for (size_t index = 0; index < frames.size(); ++index) {
        const QByteArray& frame = frames[index];
        EXPECT_LT(
            meanDifference(frame, screen, area,
                           [&](int x, int y) { return y < bandTop && !pointerBox.contains(x, y); }),
            3.0);
        EXPECT_GT(extremePixels(frame, width, pointerBox), 20);
        if (index > 0) {
            const auto rowBytes = static_cast<qsizetype>(width) * 4;
            moved += frame.mid(band.top() * rowBytes, band.height() * rowBytes) !=
                     frames[index - 1].mid(band.top() * rowBytes, band.height() * rowBytes);
        }
    }
    // Each frame shows the band further on: none is a repeat.
    EXPECT_GE(moved, static_cast<int>(0.97 * static_cast<double>(frames.size() - 1)));
}

class WaylandVideo : public testing::Test {
protected:
    WaylandDesktop desktop;
};

} // namespace

TEST_F(WaylandVideo, MovieOfAMovingWindowOnAScaleOneOutputIsH264AtTheWallClocksPace) {
    // Output points (100, 400) on: the band crosses the area's lower half.
    expectMovieOfTheMovingWindow(desktop, QStringLiteral("HEADLESS-1"), Rect{100, 400, 320, 240},
                                 QPoint(80, 40));
}

TEST_F(WaylandVideo, MovieOfAMovingWindowOnAScaleTwoOutputHasTheBuffersPixels) {
    // 160 × 120 points at (60, 150) of a 640 × 360 point output: 320 × 240 pixels.
    expectMovieOfTheMovingWindow(desktop, QStringLiteral("HEADLESS-2"), Rect{60, 150, 160, 120},
                                 QPoint(80, 30));
}

TEST_F(WaylandVideo, UnchangedScreenCostsFewCopiesAndKeepsTheWallClocksPace) {
    const auto window = desktop.showWindow(QStringLiteral("HEADLESS-1"), 32);
    desktop.pointer().move(QPoint(1000, 600));
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("still.mp4"));
    Recorder recorder(desktop, {displayOf(desktop, QStringLiteral("HEADLESS-1")), {}},
                      configurationFor(Rect{0, 0, 640, 480}, 1.0), path);

    recorder.stream->startCapture();
    const auto started = Clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(3000));
    const auto stopping = Clock::now();
    recorder.stream->stopCapture();

    ASSERT_TRUE(recorder.events.finished());
    const auto counts = WaylandVideoCaptureService::counts(*recorder.stream);
    // Nothing changed, so the compositor made no copy after the first but the one a new
    // damage-tracking client gets at once (wlroots counts the whole output damaged for it).
    EXPECT_LE(counts.copies, 1);
    EXPECT_GE(counts.ticks, 80);
    const Probe probed = probe(path);
    EXPECT_NEAR(probed.duration, std::chrono::duration<double>(stopping - started).count(), 0.150);
    // A frame a second keeps the fragments coming.
    EXPECT_LE(probed.frames, 5);
}

TEST_F(WaylandVideo, CompositorGoingAwayStopsTheStreamWithAnErrorAndLeavesAPlayableMovie) {
    const auto window =
        desktop.showWindow(QStringLiteral("HEADLESS-1"), 33, WaylandDesktop::Motion::band);
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("orphaned.mp4"));
    Recorder recorder(desktop, {displayOf(desktop, QStringLiteral("HEADLESS-1")), {}},
                      configurationFor(Rect{0, 400, 320, 240}, 1.0), path);
    recorder.stream->startCapture();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));

    desktop.killCompositor();

    const std::exception_ptr error = recorder.events.streamStopped(10);
    ASSERT_TRUE(error);
    EXPECT_THROW(std::rethrow_exception(error), PlatformError);
    // What the engine does when told.
    recorder.stream->stopCapture();
    ASSERT_TRUE(recorder.events.finished());
    const Probe probed = probe(path);
    EXPECT_EQ(probed.codec, "h264");
    EXPECT_GE(probed.lastFrameEnd, 1.0);
}

TEST_F(WaylandVideo, KilledRecordingLeavesAPlayableMovie) {
    const auto window =
        desktop.showWindow(QStringLiteral("HEADLESS-1"), 34, WaylandDesktop::Motion::band);
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("killed.mp4"));
    QProcess recorder;
    recorder.start(QStringLiteral(RECORDING_HELPER),
                   {QString::fromUtf8(desktop.displayName()), QStringLiteral("HEADLESS-1"), path,
                    QStringLiteral("50"), QStringLiteral("400"), QStringLiteral("400"),
                    QStringLiteral("300")});
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
