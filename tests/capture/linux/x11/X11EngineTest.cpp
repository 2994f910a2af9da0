#include "capture/CaptureEngine.h"
#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11ScreenshotService.h"
#include "capture/linux/x11/X11VideoCaptureService.h"
#include "support/FakeCapturePlatform.h"
#include "support/SmallFolder.h"
#include "support/VirtualDisplay.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
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

namespace {

// The movie at `path` plays: ffprobe finds its video stream and a duration.
double movieSeconds(const QString& path) {
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-show_entries"),
                   QStringLiteral("format=duration"), QStringLiteral("-of"),
                   QStringLiteral("csv=p=0"), path});
    EXPECT_TRUE(ffprobe.waitForFinished(60000));
    return ffprobe.readAllStandardOutput().trimmed().toDouble();
}

} // namespace

// The X server gone mid-recording: the engine says so at once, stop does not hang, and the
// movie holds what was recorded.
TEST(X11Engine, XServerKilledMidMovieEndsItWithAFinishedFile) {
    VirtualDisplay display(640, 480);
    const auto background =
        display.showWindow(QRect(0, 0, 640, 480), VirtualDisplay::testPattern(QSize(640, 480), 4));
    X11Engine engine(display);
    std::promise<std::exception_ptr> reported;
    std::future<std::exception_ptr> failure = reported.get_future();
    engine->setFailureHandler([&reported](std::exception_ptr error) { reported.set_value(error); });
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("Tessarel Video.mp4"));
    engine->startVideo(QUrl::fromLocalFile(path), Rect{0, 0, 320, 240}, engine.mainDisplayID(),
                       Rect{0, 0, 640, 480}, 1.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));

    display.kill();

    ASSERT_EQ(failure.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_FALSE(localizedDescription(failure.get()).isEmpty());
    auto stopping = std::async(std::launch::async, [&] {
        try {
            engine->stop();
        } catch (const std::exception&) { // the failure already reported
        }
    });
    ASSERT_EQ(stopping.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_GT(movieSeconds(path), 1.0);
}

// A monitor removed mid-recording: the movie goes on or ends with a message, never hangs,
// and its file plays.
TEST(X11Engine, MonitorRemovedMidMovieNeverHangsAndLeavesAFinishedFile) {
    VirtualDisplay display(1280, 480);
    display.setMonitor(QStringLiteral("Left"), QRect(0, 0, 640, 480), QStringLiteral("screen"));
    display.setMonitor(QStringLiteral("Right"), QRect(640, 0, 640, 480));
    const auto background = display.showWindow(QRect(0, 0, 1280, 480),
                                               VirtualDisplay::testPattern(QSize(1280, 480), 6));
    X11Engine engine(display);
    X11ContentProvider content(display.name());
    const ShareableContent listed = content.shareableContent(false, true);
    const auto right = std::find_if(listed.displays.begin(), listed.displays.end(),
                                    [](const DisplayInfo& d) { return d.frame.x == 640; });
    ASSERT_NE(right, listed.displays.end());
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("Tessarel Video.mp4"));
    engine->startVideo(QUrl::fromLocalFile(path), Rect{640, 0, 320, 240}, right->displayID,
                       right->frame, 1.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));

    display.run(QStringLiteral("xrandr"),
                {QStringLiteral("--delmonitor"), QStringLiteral("Right")});
    std::this_thread::sleep_for(std::chrono::milliseconds(500));

    auto stopping = std::async(std::launch::async, [&] {
        try {
            engine->stop();
        } catch (const std::exception&) { // ending with a message is allowed
        }
    });
    ASSERT_EQ(stopping.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_GT(movieSeconds(path), 1.0);
}

// The disk fills up mid-movie: the movie ends then with the system's reason, and what was
// written plays.
TEST(X11Engine, DiskFullMidMovieEndsItWithTheReasonAndAPlayableFile) {
    const SmallFolder small(512);
    ASSERT_TRUE(small.isSmall());
    VirtualDisplay display(640, 480);
    const auto background =
        display.showWindow(QRect(0, 0, 640, 480), VirtualDisplay::testPattern(QSize(640, 480), 7));
    const auto mover =
        display.showWindow(QRect(0, 0, 200, 200), VirtualDisplay::testPattern(QSize(200, 200), 8));
    X11Engine engine(display);
    std::promise<std::exception_ptr> reported;
    std::future<std::exception_ptr> failure = reported.get_future();
    engine->setFailureHandler([&reported](std::exception_ptr error) { reported.set_value(error); });
    const QString path = QDir(small.path()).filePath(QStringLiteral("Tessarel Video.mp4"));
    engine->startVideo(QUrl::fromLocalFile(path), Rect{0, 0, 640, 480}, engine.mainDisplayID(),
                       Rect{0, 0, 640, 480}, 1.0);
    // Changing pictures until the folder is full.
    for (int step = 0;
         failure.wait_for(std::chrono::milliseconds(30)) != std::future_status::ready &&
         step < 2000;
         ++step) {
        mover->move((step * 37) % 440, (step * 53) % 280);
    }

    ASSERT_EQ(failure.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    const QString message = localizedDescription(failure.get());
    EXPECT_TRUE(message.contains(QStringLiteral("No space left on device")))
        << message.toStdString();
    auto stopping = std::async(std::launch::async, [&] {
        try {
            engine->stop();
        } catch (const std::exception&) { // the failure already reported
        }
    });
    ASSERT_EQ(stopping.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_GT(movieSeconds(path), 0.0);
}

namespace {

// The save folder goes away a second into a changing movie, which goes on for another
// second. The stop says the folder was made again, and the movie there plays to its end.
void recordMovieWhileTheFolderGoesAway(bool unmounted) {
    SmallFolder mounted(64 * 1024);
    QTemporaryDir parent;
    const QString folder =
        unmounted ? mounted.path() : QDir(parent.path()).filePath(QStringLiteral("Movies"));
    ASSERT_TRUE(QDir().mkpath(folder));
    VirtualDisplay display(640, 480);
    const auto background =
        display.showWindow(QRect(0, 0, 640, 480), VirtualDisplay::testPattern(QSize(640, 480), 5));
    const auto mover =
        display.showWindow(QRect(0, 0, 100, 100), VirtualDisplay::testPattern(QSize(100, 100), 6));
    X11Engine engine(display);
    const QString path = QDir(folder).filePath(QStringLiteral("Tessarel Video.mp4"));
    engine->startVideo(QUrl::fromLocalFile(path), Rect{0, 0, 640, 480}, engine.mainDisplayID(),
                       Rect{0, 0, 640, 480}, 1.0);
    const auto moveFor = [&](std::chrono::milliseconds duration) {
        const auto until = std::chrono::steady_clock::now() + duration;
        for (int step = 0; std::chrono::steady_clock::now() < until; ++step) {
            mover->move((step * 37) % 540, (step * 53) % 380);
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
    };
    moveFor(std::chrono::milliseconds(1000));
    if (unmounted) {
        ASSERT_TRUE(mounted.detach());
    } else {
        ASSERT_TRUE(QDir(folder).removeRecursively());
    }
    ASSERT_FALSE(QFile::exists(path));
    moveFor(std::chrono::milliseconds(1000));

    try {
        engine->stop();
        ADD_FAILURE() << "the stop should have said where the movie went";
    } catch (const PlatformError& error) {
        EXPECT_EQ(QString::fromUtf8(error.what()),
                  QStringLiteral("The folder “%1” went away during the recording. Tessarel made "
                                 "it again and saved “Tessarel Video.mp4” in it.")
                      .arg(folder));
    }
    // The second after the folder went away is there too.
    EXPECT_GT(movieSeconds(path), 1.5);
}

} // namespace

TEST(X11Engine, SaveFolderRemovedMidMovieIsMadeAgainWithTheWholeMovie) {
    recordMovieWhileTheFolderGoesAway(false);
}

TEST(X11Engine, SaveFolderUnmountedMidMovieGetsTheWholeMovieBack) {
    recordMovieWhileTheFolderGoesAway(true);
}

namespace {

int threadsOfThisProcess() {
    return static_cast<int>(QDir(QStringLiteral("/proc/self/task"))
                                .entryList(QDir::Dirs | QDir::NoDotAndDotDot)
                                .size());
}

// Runs as the unprivileged user "nobody", whom the system lets have at most `tasks` threads
// (root is never refused one), and becomes root again at the end of the scope.
class ThreadAllowance {
public:
    static constexpr uid_t kNobody = 65534;
    static constexpr gid_t kNoGroup = 65534;

    explicit ThreadAllowance(rlim_t tasks) {
        ::getrlimit(RLIMIT_NPROC, &previous_);
        dropped_ = ::setresgid(kNoGroup, kNoGroup, 0) == 0 && ::setresuid(kNobody, kNobody, 0) == 0;
        const rlimit limited{tasks, previous_.rlim_max};
        limited_ = dropped_ && ::setrlimit(RLIMIT_NPROC, &limited) == 0;
    }
    ~ThreadAllowance() {
        ::setresuid(0, 0, 0);
        ::setresgid(0, 0, 0);
        ::setrlimit(RLIMIT_NPROC, &previous_);
    }
    ThreadAllowance(const ThreadAllowance&) = delete;
    ThreadAllowance& operator=(const ThreadAllowance&) = delete;

    bool holds() const { return limited_; }

private:
    rlimit previous_{};
    bool dropped_ = false;
    bool limited_ = false;
};

} // namespace

// The system refuses the movie's threads, one allowance after another: the recorder's, then
// the capture's own, the last one the start makes. Each refused start leaves no thread
// behind, no file, and a message that says what happened; the first allowance large enough
// starts the movie, and the engine records as before.
TEST(X11Engine, MovieStartRefusedAThreadLeavesNoThreadNoFileAndSaysWhy) {
    ASSERT_EQ(::geteuid(), 0u) << "needs root to become another user";
    VirtualDisplay display(640, 480);
    const auto background =
        display.showWindow(QRect(0, 0, 640, 480), VirtualDisplay::testPattern(QSize(640, 480), 3));
    X11Engine engine(display);
    QTemporaryDir directory;
    // Open to the unprivileged user.
    ASSERT_EQ(::chmod(QFile::encodeName(directory.path()).constData(), 0777), 0);
    const QString path = directory.filePath(QStringLiteral("Tessarel Video.mp4"));
    const int threadsBefore = threadsOfThisProcess();

    int refusals = 0;
    bool started = false;
    for (int extra = 0; extra <= 64 && !started; ++extra) {
        QString refusal;
        {
            const ThreadAllowance allowance(static_cast<rlim_t>(threadsBefore + extra));
            ASSERT_TRUE(allowance.holds());
            try {
                engine->startVideo(QUrl::fromLocalFile(path), Rect{0, 0, 320, 240},
                                   engine.mainDisplayID(), Rect{0, 0, 640, 480}, 1.0);
                started = true;
            } catch (...) {
                refusal = localizedDescription(std::current_exception());
            }
        }
        if (started) {
            break;
        }
        ++refusals;
        SCOPED_TRACE(extra);
        EXPECT_EQ(threadsOfThisProcess(), threadsBefore);
        EXPECT_FALSE(QFile::exists(path));
        EXPECT_EQ(refusal.toStdString(), "Tessarel could not start the capture: the system "
                                         "refused it (Resource temporarily unavailable).");
        auto stopping = std::async(std::launch::async, [&] { engine->stop(); });
        ASSERT_EQ(stopping.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    }
    ASSERT_TRUE(started);
    EXPECT_GE(refusals, 2);
    // The unprivileged user's frames may not reach the X server; what matters is that the
    // engine is whole after the refusals: as root again it records a movie.
    engine->stop();
    ASSERT_TRUE(QFile::remove(path));
    engine->startVideo(QUrl::fromLocalFile(path), Rect{0, 0, 320, 240}, engine.mainDisplayID(),
                       Rect{0, 0, 640, 480}, 1.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    engine->stop();
    EXPECT_GT(movieSeconds(path), 0.3);
}
