#include "capture/CaptureEngine.h"
#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11ScreenshotService.h"
#include "capture/linux/x11/X11VideoCaptureService.h"
#include "support/FakeCapturePlatform.h"
#include "support/VirtualDisplay.h"

#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <thread>

namespace {

// The engine on the X11 services of one virtual display; audio stays fake.
class X11Engine {
public:
    explicit X11Engine(const VirtualDisplay& display)
        : content_(display.name()), screenshots_(display.name()), video_(display.name()),
          engine_(CapturePlatform{content_, fakes_.audio, fakes_.audioWriters, screenshots_, video_,
                                  fakes_.resources}) {}

    CaptureEngine& operator*() { return engine_; }
    CaptureEngine* operator->() { return &engine_; }
    uint32_t mainDisplayID() { return content_.mainDisplayID(); }

private:
    FakeCapturePlatform fakes_;
    X11ContentProvider content_;
    X11ScreenshotService screenshots_;
    X11VideoCaptureService video_;
    CaptureEngine engine_;
};

} // namespace

TEST(X11Engine, DisplayNumberThatNoMonitorCarriesGivesNoDisplay) {
    VirtualDisplay display(1920, 1080);
    display.setMonitor(QStringLiteral("Left"), QRect(0, 0, 1280, 1080), QStringLiteral("screen"));
    display.setMonitor(QStringLiteral("Right"), QRect(1280, 0, 640, 480));
    X11Engine engine(display);

    try {
        engine->snapshot(0x7fff'fff0, Size{1280, 1080}, 1.0);
        FAIL() << "the snapshot should have failed";
    } catch (const CaptureEngineError& error) {
        EXPECT_STREQ(error.what(), "Tessarel could not find a display to capture.");
    }
}

TEST(X11Engine, SnapshotOfTheMainDisplayLeavesThisProcesssWindowOut) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 9);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    const auto panel =
        display.showWindow(QRect(800, 400, 300, 200),
                           VirtualDisplay::solid(QSize(300, 200), qRgb(255, 0, 255)), getpid());
    X11Engine engine(display);

    const Image image = engine->snapshot(engine.mainDisplayID(), Size{1920, 1080}, 1.0);

    ASSERT_EQ(image.width, 1920);
    ASSERT_EQ(image.height, 1080);
    long long mismatches = 0;
    for (int y = 0; y < 1080; ++y) {
        for (int x = 0; x < 1920; ++x) {
            const QRgb want = pattern.pixel(x, y);
            const unsigned char* got = image.row(y) + 4 * x;
            mismatches += got[0] != qBlue(want) || got[1] != qGreen(want) || got[2] != qRed(want);
        }
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(X11Engine, VideoOfADraggedOutAreaIsCompleteWhenStopReturns) {
    VirtualDisplay display(1920, 1080);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080),
                                               VirtualDisplay::testPattern(QSize(1920, 1080), 10));
    X11Engine engine(display);
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("Tessarel Video.mp4"));
    // 301 × 151 points dragged out near the top-left of a 1920 × 1080 display at scale 1.
    const Rect region{100, 1080 - 50 - 151, 301, 151};

    engine->startVideo(QUrl::fromLocalFile(path), region, engine.mainDisplayID(),
                       Rect{0, 0, 1920, 1080}, 1.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    engine->stop();

    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-show_entries"),
                   QStringLiteral("stream=codec_name,width,height"), QStringLiteral("-of"),
                   QStringLiteral("csv=p=0"), path});
    ASSERT_TRUE(ffprobe.waitForFinished(60000));
    EXPECT_EQ(ffprobe.readAllStandardOutput().trimmed(), "h264,300,150");
}

// A movie never truncates a file already under its name: the start fails and names why.
TEST(X11Engine, MovieWhoseDestinationExistsLeavesThatFileAlone) {
    VirtualDisplay display(640, 480);
    X11Engine engine(display);
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("Tessarel Video.mp4"));
    QFile existing(path);
    ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
    existing.write("an earlier movie");
    existing.close();

    try {
        engine->startVideo(QUrl::fromLocalFile(path), Rect{0, 0, 320, 240}, engine.mainDisplayID(),
                           Rect{0, 0, 640, 480}, 1.0);
        FAIL() << "the start should have failed";
    } catch (const PlatformError& error) {
        EXPECT_EQ(QString::fromUtf8(error.what()),
                  QStringLiteral("Tessarel could not save “Tessarel Video.mp4” in the folder "
                                 "“%1”: File exists")
                      .arg(directory.path()));
    }
    ASSERT_TRUE(existing.open(QIODevice::ReadOnly));
    EXPECT_EQ(existing.readAll(), "an earlier movie");
    EXPECT_NO_THROW(engine->stop());
}
