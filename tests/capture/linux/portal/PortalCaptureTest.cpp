#include "MovieInspection.h"
#include "capture/linux/portal/DesktopPortal.h"
#include "capture/linux/portal/PortalCaptureServices.h"
#include "controller/TessarelController.h"
#include "support/PortalDesktop.h"
#include "support/VirtualDisplay.h"
#include "support/WaylandDesktop.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <set>
#include <thread>

namespace {

using WallClock = std::chrono::steady_clock;

// The pictures the ScreenCast backend shares (see its source): the test pattern of the
// output's seed, a block sliding through the lower quarter, the pointer a magenta square.
constexpr int kBlockSide = 48;
constexpr QRect kPointerBox(40, 40, 16, 16);
const QSize kOutputPixels(640, 360);

int seedOf(const QString& output) {
    return output == QLatin1String("HEADLESS-1") ? 1 : 2;
}
int blockBandTop() {
    return kOutputPixels.height() - kOutputPixels.height() / 8 - kBlockSide / 2;
}

// The display list the GUI would give for an output: its number and its frame in points.
DisplayInfo displayOf(const WaylandDesktop::Output& output) {
    return {static_cast<uint32_t>(seedOf(output.name)),
            Rect{static_cast<double>(output.logical.x()), static_cast<double>(output.logical.y()),
                 static_cast<double>(output.logical.width()),
                 static_cast<double>(output.logical.height())}};
}

class ListedDisplays final : public ShareableContentProvider {
public:
    explicit ListedDisplays(const WaylandDesktop& desktop) {
        for (const auto& output : desktop.outputs()) {
            content_.displays.push_back(displayOf(output));
        }
    }
    ShareableContent shareableContent(bool, bool) override { return content_; }
    uint32_t mainDisplayID() override { return 1; }

private:
    ShareableContent content_;
};

QImage imageOf(const Image& image) {
    return QImage(reinterpret_cast<const uchar*>(image.pixels.constData()), image.width,
                  image.height, image.bytesPerRow, QImage::Format_RGB32)
        .copy();
}

// Pixels of `picture` in rows [firstRow, endRow) that differ from `expected`; with
// `cellInteriorsOnly`, of those only the ones two pixels or more inside a 16-pixel cell.
long long mismatches(const QImage& picture, const QImage& expected, int firstRow, int endRow,
                     bool cellInteriorsOnly = false) {
    const auto interior = [](int at) { return at % 16 >= 2 && at % 16 < 14; };
    long long count = 0;
    for (int y = firstRow; y < endRow; ++y) {
        for (int x = 0; x < picture.width(); ++x) {
            if (cellInteriorsOnly && !(interior(x) && interior(y))) {
                continue;
            }
            count += (picture.pixel(x, y) & 0xffffff) != (expected.pixel(x, y) & 0xffffff);
        }
    }
    return count;
}

// A snapshot of the output the backend's dialog chose: the full pixel size, whatever the scale
// (the cropped-off strip stays out), and above the sliding block the pattern exactly, without
// a pointer.
void expectSnapshotOfThePattern(PortalScreenshotService& screenshots,
                                const WaylandDesktop::Output& output) {
    const QImage pattern = VirtualDisplay::testPattern(output.pixels, seedOf(output.name));
    const QImage snapshot = imageOf(screenshots.captureImage(
        {displayOf(output), {}}, {output.logical.width(), output.logical.height(), false}));
    ASSERT_EQ(snapshot.size(), output.pixels);
    EXPECT_EQ(mismatches(snapshot, pattern, 0, blockBandTop()), 0);
}

class Portal : public testing::Test {
protected:
    explicit Portal(PortalDesktop::Options options = {})
        : desktop_(WaylandDesktop::Options{kOutputPixels, false}), portal_(desktop_, options) {}

    std::unique_ptr<DesktopPortal> client() const {
        return std::make_unique<DesktopPortal>(portal_.busAddress(), portal_.grantsDirectory());
    }

    WaylandDesktop desktop_;
    PortalDesktop portal_;
};

class PortalScreenshot : public Portal {
protected:
    PortalScreenshot() : Portal({false}) {}
};

// The backend sharing what sway shows, as the movie benchmark records it.
class PortalFromScreen : public Portal {
protected:
    PortalFromScreen() : Portal({true, {}, true}) {}
};

// Outputs whose buffers come turned, each output as one of the two transforms named.
struct Turns {
    QString first;
    QString second;
};
void PrintTo(const Turns& turns, std::ostream* out) {
    *out << turns.first.toStdString() << " and " << turns.second.toStdString();
}

class PortalTurned : public Portal, public testing::WithParamInterface<Turns> {
protected:
    PortalTurned()
        : Portal({true,
                  {{QStringLiteral("HEADLESS-1"), GetParam().first},
                   {QStringLiteral("HEADLESS-2"), GetParam().second}}}) {}
};

// ---- Movies --------------------------------------------------------------------------------

// Pixels of the pointer's colour in `box` of a decoded frame.
int magentaPixels(const QByteArray& frame, int frameWidth, const QRect& box) {
    int count = 0;
    const auto* data = reinterpret_cast<const unsigned char*>(frame.constData());
    for (int y = box.top(); y <= box.bottom(); ++y) {
        for (int x = box.left(); x <= box.right(); ++x) {
            const unsigned char* pixel = data + (static_cast<qsizetype>(y) * frameWidth + x) * 4;
            count += pixel[2] > 200 && pixel[0] > 200 && pixel[1] < 80;
        }
    }
    return count;
}

struct Recorder {
    Recorder(DesktopPortal& portal, const ContentFilter& filter,
             const VideoStreamConfiguration& configuration, const QString& path)
        : video(portal), output{QUrl::fromLocalFile(path), VideoFileType::mpeg4, VideoCodec::h264},
          stream(video.makeStream(filter, configuration, &events)) {
        stream->addRecordingOutput(video.makeRecordingOutput(output, &events));
    }

    PortalVideoCaptureService video;
    RecorderEvents events;
    const RecordingOutputConfiguration output;
    const std::shared_ptr<VideoCaptureStream> stream;
};

// The leftmost column of the sliding block's green in `row` of a decoded frame, if any.
std::optional<int> blockLeft(const QByteArray& frame, int frameWidth, int row) {
    const auto* data = reinterpret_cast<const unsigned char*>(frame.constData()) +
                       static_cast<qsizetype>(row) * frameWidth * 4;
    for (int x = 0; x < frameWidth; ++x) {
        const unsigned char* pixel = data + static_cast<qsizetype>(x) * 4;
        // The pattern's colours have no channel below 64.
        if (pixel[1] > 170 && pixel[2] < 56 && pixel[0] < 100) {
            return x;
        }
    }
    return std::nullopt;
}

// ---- Tests -----------------------------------------------------------------------------------

} // namespace

TEST_F(PortalScreenshot, SnapshotOfEachOutputEqualsGrimsPicture) {
    const auto first = desktop_.showWindow(QStringLiteral("HEADLESS-1"), 3);
    const auto second = desktop_.showWindow(QStringLiteral("HEADLESS-2"), 4);
    const auto portal = client();
    ListedDisplays displays(desktop_);
    PortalScreenshotService screenshots(*portal, displays);
    ASSERT_FALSE(portal->offersScreenCast());

    for (const auto& output : desktop_.outputs()) {
        SCOPED_TRACE(output.name.toStdString());
        const QImage expected = desktop_.grim(output.name);
        const QImage snapshot = imageOf(screenshots.captureImage(
            {displayOf(output), {}}, {output.pixels.width(), output.pixels.height(), false}));
        ASSERT_EQ(snapshot.size(), output.pixels);
        // The portal's screenshot spans the layout at its densest scale: the scale-2 output
        // comes as it is, the other is scaled down and keeps only its flat areas exactly.
        EXPECT_EQ(mismatches(snapshot, expected, 0, snapshot.height(), output.scale != 2), 0);
    }
}

TEST_F(Portal, SnapshotOfEachOutputIsItsStreamsFullPixelPicture) {
    const auto portal = client();
    ListedDisplays displays(desktop_);
    PortalScreenshotService screenshots(*portal, displays);
    ASSERT_TRUE(portal->offersScreenCast());

    for (const auto& output : desktop_.outputs()) {
        SCOPED_TRACE(output.name.toStdString());
        portal_.chooseOutput(output.name);
        expectSnapshotOfThePattern(screenshots, output);
    }
    // Each snapshot's screen cast ends with it.
    EXPECT_EQ(portal_.openSessions(), 0);
}

TEST_F(Portal, AreaMovieOfEachOutputIsH264AtTheWallClocksPaceWithThePointerDrawnIn) {
    const auto portal = client();
    QTemporaryDir directory;
    for (const auto& output : desktop_.outputs()) {
        SCOPED_TRACE(output.name.toStdString());
        portal_.chooseOutput(output.name);
        const double scale = output.pixels.width() / static_cast<double>(output.logical.width());
        // From 10 pixels in, down through the block's band.
        const QRect pixels(10, 10, 300, kOutputPixels.height() - 10);
        const Rect points{pixels.x() / scale, pixels.y() / scale, pixels.width() / scale,
                          pixels.height() / scale};
        const QString path = directory.filePath(output.name + QStringLiteral(".mp4"));
        Recorder recorder(*portal, {displayOf(output), {}}, configurationFor(points, scale), path);
        recorder.stream->startCapture();
        const auto started = WallClock::now();
        std::this_thread::sleep_for(std::chrono::milliseconds(3000));
        const auto stopping = WallClock::now();
        recorder.stream->stopCapture();
        ASSERT_TRUE(recorder.events.finished());
        EXPECT_EQ(portal_.openSessions(), 0); // one stream per movie, closed at stop
        const double wallClock = std::chrono::duration<double>(stopping - started).count();

        const Probe probed = probe(path);
        EXPECT_EQ(probed.codec, "h264");
        EXPECT_TRUE(probed.format.contains("mp4")) << probed.format.toStdString();
        EXPECT_EQ(probed.width, pixels.width());
        EXPECT_EQ(probed.height, pixels.height());
        EXPECT_LE(probed.averageFrameRate, 30.0);
        EXPECT_NEAR(static_cast<double>(probed.frames), 30 * probed.duration,
                    0.03 * 30 * probed.duration);
        EXPECT_NEAR(probed.duration, wallClock, 0.150);

        const QImage pattern = VirtualDisplay::testPattern(output.pixels, seedOf(output.name));
        const QRect pointer = kPointerBox.translated(-pixels.topLeft());
        const auto frames = decode(path, probed.width, probed.height);
        ASSERT_EQ(static_cast<long long>(frames.size()), probed.frames);
        // The block slides through the rows the stream reports as damaged.
        std::set<int> blockPlaces;
        for (const QByteArray& frame : frames) {
            if (const auto left =
                    blockLeft(frame, probed.width, blockBandTop() + kBlockSide / 2 - pixels.y())) {
                blockPlaces.insert(*left);
            }
        }
        EXPECT_GT(blockPlaces.size(), 10u);
        for (const QByteArray& frame : frames) {
            EXPECT_LT(meanDifference(frame, pattern, pixels,
                                     [&](int x, int y) {
                                         return y + pixels.y() < blockBandTop() &&
                                                !pointer.adjusted(-4, -4, 4, 4).contains(x, y);
                                     }),
                      3.0);
            EXPECT_GT(magentaPixels(frame, probed.width, pointer.adjusted(2, 2, -2, -2)), 100);
        }
    }
}

TEST_P(PortalTurned, SnapshotAndMovieOfEachOutputComeOutUprightAtItsSize) {
    const auto portal = client();
    ListedDisplays displays(desktop_);
    PortalScreenshotService screenshots(*portal, displays);
    QTemporaryDir directory;
    for (const auto& output : desktop_.outputs()) {
        SCOPED_TRACE(output.name.toStdString());
        portal_.chooseOutput(output.name);
        expectSnapshotOfThePattern(screenshots, output);

        // An area off the picture's corner, down through the block's band, from where the
        // block starts sliding (each share starts the backend's pattern afresh).
        const double scale = output.pixels.width() / static_cast<double>(output.logical.width());
        const QRect pixels(10, 40, 400, kOutputPixels.height() - 40);
        const Rect points{pixels.x() / scale, pixels.y() / scale, pixels.width() / scale,
                          pixels.height() / scale};
        const QString path = directory.filePath(output.name + QStringLiteral(".mp4"));
        VideoStreamConfiguration configuration = configurationFor(points, scale);
        configuration.showsCursor = false;
        Recorder recorder(*portal, {displayOf(output), {}}, configuration, path);
        recorder.stream->startCapture();
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        recorder.stream->stopCapture();
        ASSERT_TRUE(recorder.events.finished());
        const Probe probed = probe(path);
        ASSERT_EQ(probed.width, pixels.width());
        const QImage pattern = VirtualDisplay::testPattern(output.pixels, seedOf(output.name));
        ASSERT_EQ(probed.height, pixels.height());
        const auto frames = decode(path, probed.width, probed.height);
        ASSERT_FALSE(frames.empty());
        std::set<int> blockPlaces;
        for (const QByteArray& frame : frames) {
            EXPECT_LT(meanDifference(frame, pattern, pixels,
                                     [&](int, int y) { return y + pixels.y() < blockBandTop(); }),
                      3.0);
            if (const auto left =
                    blockLeft(frame, probed.width, blockBandTop() + kBlockSide / 2 - pixels.y())) {
                blockPlaces.insert(*left);
            }
        }
        // The block slides along its band, the right way up.
        EXPECT_GT(blockPlaces.size(), 5u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    EveryOutputTransform, PortalTurned,
    testing::Values(Turns{QStringLiteral("90"), QStringLiteral("270")},
                    Turns{QStringLiteral("flipped"), QStringLiteral("flipped-90")},
                    Turns{QStringLiteral("flipped-180"), QStringLiteral("flipped-270")}),
    [](const testing::TestParamInfo<Turns>& instance) {
        QString name = instance.param.first + QStringLiteral("And") + instance.param.second;
        return name.remove(QLatin1Char('-')).toStdString();
    });

TEST_F(PortalFromScreen, SnapshotOfTheCompositorsPictureEqualsGrimsPicture) {
    const auto window = desktop_.showWindow(QStringLiteral("HEADLESS-1"), 5);
    const auto portal = client();
    ListedDisplays displays(desktop_);
    PortalScreenshotService screenshots(*portal, displays);
    const auto output = desktop_.output(QStringLiteral("HEADLESS-1"));
    const QImage snapshot = imageOf(screenshots.captureImage(
        {displayOf(output), {}}, {output.pixels.width(), output.pixels.height(), false}));
    EXPECT_EQ(snapshot, desktop_.grim(QStringLiteral("HEADLESS-1")));
}

TEST_F(Portal, SecondCaptureAndNextRunAskNothing) {
    ListedDisplays displays(desktop_);
    const auto output = desktop_.output(QStringLiteral("HEADLESS-1"));
    {
        const auto portal = client();
        PortalScreenshotService screenshots(*portal, displays);
        screenshots.captureImage({displayOf(output), {}}, {640, 360, false});
        ASSERT_EQ(portal_.grantsGiven(), 1);
        screenshots.captureImage({displayOf(output), {}}, {640, 360, false});
        EXPECT_EQ(portal_.grantsGiven(), 1);
    }
    // A new run finds the grant where it kept it.
    const auto portal = client();
    PortalScreenshotService screenshots(*portal, displays);
    screenshots.captureImage({displayOf(output), {}}, {640, 360, false});
    EXPECT_EQ(portal_.grantsGiven(), 1);
}

TEST_F(Portal, DeclinedGrantAsksForPermissionAndLeavesNoFile) {
    portal_.declineGrants(true);
    const auto portal = client();
    ListedDisplays displays(desktop_);
    PortalScreenshotService screenshots(*portal, displays);
    const auto output = desktop_.output(QStringLiteral("HEADLESS-1"));
    try {
        screenshots.captureImage({displayOf(output), {}}, {640, 360, false});
        ADD_FAILURE() << "a declined grant gave a snapshot";
    } catch (const PlatformError& error) {
        EXPECT_TRUE(TessarelController::isPermissionRefusal(std::current_exception()))
            << error.what();
    }

    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("movie.mp4"));
    Recorder recorder(*portal, {displayOf(output), {}}, configurationFor(Rect{0, 0, 200, 100}, 1.0),
                      path);
    try {
        recorder.stream->startCapture();
        ADD_FAILURE() << "a declined grant started a movie";
    } catch (const PlatformError& error) {
        EXPECT_TRUE(TessarelController::isPermissionRefusal(std::current_exception()))
            << error.what();
    }
    EXPECT_FALSE(QFileInfo::exists(path));
    EXPECT_EQ(portal_.grantsGiven(), 0);
}

TEST_F(Portal, BackendGoneMidRecordingEndsInAPlayableMovieAndAMessage) {
    const auto portal = client();
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("movie.mp4"));
    const auto output = desktop_.output(QStringLiteral("HEADLESS-1"));
    Recorder recorder(*portal, {displayOf(output), {}}, configurationFor(Rect{0, 0, 320, 180}, 1.0),
                      path);
    recorder.stream->startCapture();
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    portal_.killScreenCastBackend();
    const std::exception_ptr stopped = recorder.events.streamStopped(10);
    ASSERT_TRUE(stopped);
    EXPECT_FALSE(localizedDescription(stopped).isEmpty());
    recorder.stream->stopCapture();
    EXPECT_TRUE(recorder.events.finished());
    const Probe probed = probe(path);
    EXPECT_EQ(probed.codec, "h264");
    EXPECT_GE(probed.duration, 2.0);
}
