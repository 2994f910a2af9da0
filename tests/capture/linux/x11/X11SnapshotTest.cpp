#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11ScreenshotService.h"
#include "support/EventLoop.h"
#include "support/VirtualDisplay.h"

#include <QFile>

#include <xcb/shape.h>
#include <xcb/xcb.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace {

const QImage kOwnWindowPicture = VirtualDisplay::solid(QSize(400, 300), qRgb(255, 0, 255));

uint32_t internAtom(const QByteArray& display, const char* name) {
    xcb_connection_t* connection = xcb_connect(display.constData(), nullptr);
    auto* reply = xcb_intern_atom_reply(
        connection, xcb_intern_atom(connection, 1, static_cast<uint16_t>(std::strlen(name)), name),
        nullptr);
    const uint32_t atom = reply ? reply->atom : 0;
    std::free(reply);
    xcb_disconnect(connection);
    return atom;
}

// Pixels of `image` whose B, G, R differ from `expected` at the same place of `area`.
long long mismatches(const Image& image, const QImage& expected, const QRect& area) {
    long long count = 0;
    for (int y = 0; y < area.height(); ++y) {
        const auto* want = reinterpret_cast<const QRgb*>(expected.constScanLine(area.y() + y));
        const unsigned char* got = image.row(y);
        for (int x = 0; x < area.width(); ++x) {
            const QRgb pixel = want[area.x() + x];
            if (got[4 * x] != qBlue(pixel) || got[4 * x + 1] != qGreen(pixel) ||
                got[4 * x + 2] != qRed(pixel)) {
                ++count;
            }
        }
    }
    return count;
}

DisplayInfo displayNamed(X11ContentProvider& provider, uint32_t displayID) {
    for (const DisplayInfo& display : provider.shareableContent(false, true).displays) {
        if (display.displayID == displayID) {
            return display;
        }
    }
    ADD_FAILURE() << "no display " << displayID;
    return {};
}

ScreenshotConfiguration fullSize(const DisplayInfo& display) {
    return {static_cast<long long>(display.frame.width),
            static_cast<long long>(display.frame.height), false};
}

bool listsProcess(const ShareableContent& content, int64_t processID) {
    return std::any_of(
        content.applications.begin(), content.applications.end(),
        [&](const RunningApplication& application) { return application.processID == processID; });
}

// A window whose owner draws it only when asked: it has no background for the server to
// paint, and its owner fills it with `colour` `delay` after its first exposure and, unless it
// is hung by then, after each later one, as a busy application would.
class LateRepaintingWindow {
public:
    enum class Later { repaints, hangs };

    LateRepaintingWindow(const QByteArray& display, const QRect& geometry, QRgb colour,
                         std::chrono::milliseconds delay, Later later = Later::repaints)
        : connection_(xcb_connect(display.constData(), nullptr)) {
        const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
        window_ = xcb_generate_id(connection_);
        const uint32_t values[] = {XCB_BACK_PIXMAP_NONE, 1,
                                   XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
        xcb_create_window(
            connection_, XCB_COPY_FROM_PARENT, window_, screen->root,
            static_cast<int16_t>(geometry.x()), static_cast<int16_t>(geometry.y()),
            static_cast<uint16_t>(geometry.width()), static_cast<uint16_t>(geometry.height()), 0,
            XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
            XCB_CW_BACK_PIXMAP | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
        gc_ = xcb_generate_id(connection_);
        const uint32_t foreground = colour & 0xffffff;
        xcb_create_gc(connection_, gc_, window_, XCB_GC_FOREGROUND, &foreground);
        xcb_map_window(connection_, window_);
        xcb_flush(connection_);
        const xcb_rectangle_t whole{0, 0, static_cast<uint16_t>(geometry.width()),
                                    static_cast<uint16_t>(geometry.height())};
        owner_ = std::thread([this, whole, delay, later] {
            bool painted = false;
            while (auto* event = xcb_wait_for_event(connection_)) {
                const uint8_t type = event->response_type & 0x7f;
                std::free(event);
                if (type == XCB_DESTROY_NOTIFY) {
                    return;
                }
                if (type == XCB_EXPOSE && (!painted || later == Later::repaints)) {
                    std::this_thread::sleep_for(delay);
                    xcb_poly_fill_rectangle(connection_, window_, gc_, 1, &whole);
                    xcb_flush(connection_);
                    painted = true;
                }
            }
        });
    }
    ~LateRepaintingWindow() {
        xcb_destroy_window(connection_, window_);
        xcb_flush(connection_);
        owner_.join();
        xcb_disconnect(connection_);
    }
    LateRepaintingWindow(const LateRepaintingWindow&) = delete;
    LateRepaintingWindow& operator=(const LateRepaintingWindow&) = delete;

private:
    xcb_connection_t* connection_;
    xcb_window_t window_ = 0;
    xcb_gcontext_t gc_ = 0;
    std::thread owner_;
};

void fill(QImage& picture, const QRect& rect, QRgb colour) {
    VirtualDisplay::drawOnto(picture, rect.topLeft(), VirtualDisplay::solid(rect.size(), colour));
}

// The bounding rectangles of `window`, or none when it has no shape of its own.
std::optional<std::vector<QRect>> boundingShape(const QByteArray& display, uint32_t window) {
    xcb_connection_t* connection = xcb_connect(display.constData(), nullptr);
    std::optional<std::vector<QRect>> result;
    auto* extents = xcb_shape_query_extents_reply(
        connection, xcb_shape_query_extents(connection, window), nullptr);
    if (extents && extents->bounding_shaped) {
        auto* shape = xcb_shape_get_rectangles_reply(
            connection, xcb_shape_get_rectangles(connection, window, XCB_SHAPE_SK_BOUNDING),
            nullptr);
        result.emplace();
        if (shape) {
            const auto* rectangles = xcb_shape_get_rectangles_rectangles(shape);
            for (int i = 0; i < xcb_shape_get_rectangles_rectangles_length(shape); ++i) {
                result->emplace_back(rectangles[i].x, rectangles[i].y, rectangles[i].width,
                                     rectangles[i].height);
            }
        }
        std::free(shape);
    }
    std::free(extents);
    xcb_disconnect(connection);
    return result;
}

void setBoundingShape(const QByteArray& display, uint32_t window,
                      const std::vector<xcb_rectangle_t>& rectangles) {
    xcb_connection_t* connection = xcb_connect(display.constData(), nullptr);
    xcb_shape_rectangles(connection, XCB_SHAPE_SO_SET, XCB_SHAPE_SK_BOUNDING,
                         XCB_CLIP_ORDERING_UNSORTED, window, 0, 0,
                         static_cast<uint32_t>(rectangles.size()), rectangles.data());
    std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    xcb_disconnect(connection);
}

// Shared-memory segments this process created that still exist.
int sharedMemorySegmentsOfThisProcess() {
    QFile table(QStringLiteral("/proc/sysvipc/shm"));
    if (!table.open(QIODevice::ReadOnly)) {
        ADD_FAILURE() << "no /proc/sysvipc/shm";
        return -1;
    }
    const QList<QByteArray> header = table.readLine().simplified().split(' ');
    const auto creator = header.indexOf("cpid");
    int count = 0;
    while (!table.atEnd()) {
        const QList<QByteArray> fields = table.readLine().simplified().split(' ');
        count +=
            creator >= 0 && creator < fields.size() && fields[creator].toLongLong() == getpid();
    }
    return count;
}

} // namespace

TEST(X11Snapshot, TestPatternIsCapturedPixelExactWithoutThePointer) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 1);
    const auto window = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    display.movePointer(700, 500);
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());

    const DisplayInfo screen = displayNamed(provider, provider.mainDisplayID());
    const Image image = screenshots.captureImage({screen, {}}, fullSize(screen));

    ASSERT_EQ(image.width, 1920);
    ASSERT_EQ(image.height, 1080);
    EXPECT_EQ(mismatches(image, pattern, QRect(0, 0, 1920, 1080)), 0);
}

namespace {

// Where the snapshot differs from the pattern: the bounding box of the differing pixels, and
// how many there are.
std::pair<QRect, long long> differences(const Image& image, const QImage& pattern) {
    QRect box;
    long long count = 0;
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            const QRgb want = pattern.pixel(x, y);
            const unsigned char* got = image.row(y) + 4 * x;
            if (got[0] != qBlue(want) || got[1] != qGreen(want) || got[2] != qRed(want)) {
                box |= QRect(x, y, 1, 1);
                ++count;
            }
        }
    }
    return {box, count};
}

} // namespace

// The same snapshot with and without the pointer: asked for, its image lies around its hot
// spot, and follows it; not asked for, the picture is the pattern exactly.
TEST(X11Snapshot, PointerIsInTheSnapshotWhereItIsOnlyWhenAskedFor) {
    VirtualDisplay display(640, 480);
    const QImage pattern = VirtualDisplay::testPattern(QSize(640, 480), 11);
    const auto window = display.showWindow(QRect(0, 0, 640, 480), pattern);
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());
    const DisplayInfo screen = displayNamed(provider, provider.mainDisplayID());
    const ScreenshotConfiguration withPointer{640, 480, true};
    const ScreenshotConfiguration withoutPointer{640, 480, false};

    for (const QPoint at : {QPoint(200, 150), QPoint(450, 330)}) {
        display.movePointer(at.x(), at.y());
        const auto [box, count] =
            differences(screenshots.captureImage({screen, {}}, withPointer), pattern);
        EXPECT_GT(count, 20);
        // X cursors are at most 64 pixels wide and high around their hot spot.
        EXPECT_TRUE(QRect(at - QPoint(64, 64), QSize(128, 128)).contains(box))
            << box.x() << "," << box.y() << " " << box.width() << "×" << box.height();
        EXPECT_EQ(
            differences(screenshots.captureImage({screen, {}}, withoutPointer), pattern).second, 0);
    }
}

TEST(X11Snapshot, EachMonitorIsCapturedAtItsOwnPixelSizeAndContent) {
    // A high-density monitor of 1440 × 900 points at scale 2, and a small one beside it.
    VirtualDisplay display(3520, 1800);
    display.setMonitor(QStringLiteral("Dense"), QRect(0, 0, 2880, 1800), QStringLiteral("screen"));
    display.setMonitor(QStringLiteral("Small"), QRect(2880, 100, 640, 480));
    const QImage pattern = VirtualDisplay::testPattern(QSize(3520, 1800), 2);
    const auto window = display.showWindow(QRect(0, 0, 3520, 1800), pattern);
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());

    const DisplayInfo dense = displayNamed(provider, internAtom(display.name(), "Dense"));
    const DisplayInfo small = displayNamed(provider, internAtom(display.name(), "Small"));
    const Image denseImage = screenshots.captureImage({dense, {}}, {1440 * 2, 900 * 2, false});
    const Image smallImage = screenshots.captureImage({small, {}}, fullSize(small));

    ASSERT_EQ(denseImage.width, 2880);
    ASSERT_EQ(denseImage.height, 1800);
    EXPECT_EQ(mismatches(denseImage, pattern, QRect(0, 0, 2880, 1800)), 0);
    ASSERT_EQ(smallImage.width, 640);
    ASSERT_EQ(smallImage.height, 480);
    EXPECT_EQ(mismatches(smallImage, pattern, QRect(2880, 100, 640, 480)), 0);
}

TEST(X11Snapshot, SnapshotsFromTwoThreadsAtOnceAreEachExact) {
    VirtualDisplay display(1920, 1080);
    display.setMonitor(QStringLiteral("Big"), QRect(0, 0, 1280, 1080), QStringLiteral("screen"));
    display.setMonitor(QStringLiteral("Little"), QRect(1280, 0, 640, 480));
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 20);
    const auto window = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());
    const DisplayInfo big = displayNamed(provider, internAtom(display.name(), "Big"));
    const DisplayInfo little = displayNamed(provider, internAtom(display.name(), "Little"));

    // Each thread alternates with the other on the one kept segment, at two sizes.
    std::vector<long long> bigMismatches;
    std::vector<long long> littleMismatches;
    std::thread other([&] {
        for (int i = 0; i < 6; ++i) {
            const Image image = screenshots.captureImage({little, {}}, fullSize(little));
            littleMismatches.push_back(image.width == 640 && image.height == 480
                                           ? mismatches(image, pattern, QRect(1280, 0, 640, 480))
                                           : -1);
        }
    });
    for (int i = 0; i < 6; ++i) {
        const Image image = screenshots.captureImage({big, {}}, fullSize(big));
        bigMismatches.push_back(image.width == 1280 && image.height == 1080
                                    ? mismatches(image, pattern, QRect(0, 0, 1280, 1080))
                                    : -1);
    }
    other.join();

    EXPECT_EQ(bigMismatches, std::vector<long long>(6, 0));
    EXPECT_EQ(littleMismatches, std::vector<long long>(6, 0));
}

TEST(X11Snapshot, SmallerDisplayThenLargerOneAreBothExact) {
    VirtualDisplay display(1920, 1080);
    display.setMonitor(QStringLiteral("Big"), QRect(0, 0, 1280, 1080), QStringLiteral("screen"));
    display.setMonitor(QStringLiteral("Little"), QRect(1280, 0, 640, 480));
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 21);
    const auto window = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());
    const DisplayInfo big = displayNamed(provider, internAtom(display.name(), "Big"));
    const DisplayInfo little = displayNamed(provider, internAtom(display.name(), "Little"));

    const Image small = screenshots.captureImage({little, {}}, fullSize(little));
    const Image large = screenshots.captureImage({big, {}}, fullSize(big));

    EXPECT_EQ(mismatches(small, pattern, QRect(1280, 0, 640, 480)), 0);
    ASSERT_EQ(large.width, 1280);
    ASSERT_EQ(large.height, 1080);
    EXPECT_EQ(mismatches(large, pattern, QRect(0, 0, 1280, 1080)), 0);
}

TEST(X11Snapshot, SharedMemoryIsLetGoOnceSnapshotsPause) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 24);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name(), std::chrono::milliseconds(300));
    const DisplayInfo screen = displayNamed(provider, provider.mainDisplayID());

    const Image first = screenshots.captureImage({screen, {}}, fullSize(screen));
    const Image second = screenshots.captureImage({screen, {}}, fullSize(screen));

    EXPECT_EQ(mismatches(first, pattern, QRect(0, 0, 1920, 1080)), 0);
    EXPECT_EQ(mismatches(second, pattern, QRect(0, 0, 1920, 1080)), 0);
    // Let go of after the pause, and by the server a moment after it is told to.
    processEventsUntil([] { return sharedMemorySegmentsOfThisProcess() == 0; }, 10000);
    EXPECT_EQ(sharedMemorySegmentsOfThisProcess(), 0);
}

TEST(X11Snapshot, ImageStillHeldIsNotOverwrittenByTheNextSnapshot) {
    VirtualDisplay display(640, 480);
    const QImage first = VirtualDisplay::testPattern(QSize(640, 480), 22);
    const QImage second = VirtualDisplay::testPattern(QSize(640, 480), 23);
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());
    const DisplayInfo screen = displayNamed(provider, provider.mainDisplayID());

    const auto firstWindow = display.showWindow(QRect(0, 0, 640, 480), first);
    const Image held = screenshots.captureImage({screen, {}}, fullSize(screen));
    const auto secondWindow = display.showWindow(QRect(0, 0, 640, 480), second);
    const Image next = screenshots.captureImage({screen, {}}, fullSize(screen));

    EXPECT_EQ(mismatches(held, first, QRect(0, 0, 640, 480)), 0);
    EXPECT_EQ(mismatches(next, second, QRect(0, 0, 640, 480)), 0);
}

TEST(X11Content, DisplaysAreNumberedByTheirMonitorNameAtoms) {
    VirtualDisplay display(1920, 1080);
    display.setMonitor(QStringLiteral("Left"), QRect(0, 0, 1280, 1080), QStringLiteral("screen"));
    display.setMonitor(QStringLiteral("*Right"), QRect(1280, 0, 640, 480));
    X11ContentProvider provider(display.name());

    const ShareableContent content = provider.shareableContent(false, true);

    ASSERT_EQ(content.displays.size(), 2u);
    const uint32_t left = internAtom(display.name(), "Left");
    const uint32_t right = internAtom(display.name(), "Right");
    EXPECT_EQ(displayNamed(provider, left).frame, (Rect{0, 0, 1280, 1080}));
    EXPECT_EQ(displayNamed(provider, right).frame, (Rect{1280, 0, 640, 480}));
    EXPECT_EQ(provider.mainDisplayID(), right);
}

TEST(X11Content, ThisProcessIsListedOnceItHasAWindow) {
    VirtualDisplay display(1920, 1080);
    X11ContentProvider provider(display.name());
    EXPECT_FALSE(listsProcess(provider.shareableContent(false, true), getpid()));

    const auto window = display.showWindow(QRect(10, 10, 400, 300), kOwnWindowPicture, getpid());
    const ShareableContent content = provider.shareableContent(false, true);

    EXPECT_TRUE(listsProcess(content, getpid()));
}

TEST(X11Content, UnreachableDisplayIsAPlatformError) {
    X11ContentProvider provider(":4093");
    EXPECT_THROW(provider.shareableContent(false, true), PlatformError);
}

TEST(X11Snapshot, OwnWindowOverTheDisplayIsLeftOut) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 3);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    const auto panel = display.showWindow(QRect(300, 200, 400, 300), kOwnWindowPicture, getpid());
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());
    const DisplayInfo screen = displayNamed(provider, provider.mainDisplayID());

    const Image withPanel = screenshots.captureImage({screen, {}}, fullSize(screen));
    const Image withoutPanel =
        screenshots.captureImage({screen, {{getpid(), {}}}}, fullSize(screen));

    EXPECT_EQ(mismatches(withPanel, pattern, QRect(0, 0, 1920, 1080)), 400 * 300);
    EXPECT_EQ(mismatches(withoutPanel, pattern, QRect(0, 0, 1920, 1080)), 0);
}

TEST(X11Snapshot, FrameAroundOwnClientWindowIsLeftOutWithIt) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 5);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    // As a window manager reparents a client: the frame has no owner, its child is ours.
    const auto frame = display.showWindow(QRect(300, 200, 400, 330),
                                          VirtualDisplay::solid(QSize(400, 330), qRgb(90, 90, 90)));
    const auto client =
        display.showWindow(QRect(0, 30, 400, 300), kOwnWindowPicture, getpid(), frame->id());
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());
    const DisplayInfo screen = displayNamed(provider, provider.mainDisplayID());

    const Image image = screenshots.captureImage({screen, {{getpid(), {}}}}, fullSize(screen));

    EXPECT_EQ(mismatches(image, pattern, QRect(0, 0, 1920, 1080)), 0);
}

TEST(X11Snapshot, OwnWindowIsHiddenForTheSnapshotWhereTheServerCannotCompose) {
    VirtualDisplay display(1920, 1080, {QStringLiteral("COMPOSITE")});
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 8);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    // Its owner takes longer to repaint than the screen takes to look still.
    const QRect busy(500, 300, 300, 200);
    const LateRepaintingWindow application(display.name(), busy, qRgb(0, 160, 60),
                                           std::chrono::milliseconds(120));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto panel = display.showWindow(QRect(400, 250, 400, 300), kOwnWindowPicture, getpid());
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());
    const DisplayInfo screen = displayNamed(provider, provider.mainDisplayID());
    QImage expected = pattern.copy();
    fill(expected, busy, qRgb(0, 160, 60));

    const Image withoutPanel =
        screenshots.captureImage({screen, {{getpid(), {}}}}, fullSize(screen));
    const Image afterwards = screenshots.captureImage({screen, {}}, fullSize(screen));

    EXPECT_EQ(mismatches(withoutPanel, expected, QRect(0, 0, 1920, 1080)), 0);
    // The panel is back, as it was.
    EXPECT_EQ(mismatches(afterwards, expected, QRect(0, 0, 1920, 1080)), 400 * 300);
    EXPECT_FALSE(boundingShape(display.name(), panel->id()));
}

TEST(X11Snapshot, WindowAboveTheHiddenOneKeepsItsPixelsWhereTheServerCannotCompose) {
    VirtualDisplay display(1920, 1080, {QStringLiteral("COMPOSITE")});
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 19);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    const auto panel = display.showWindow(QRect(400, 250, 400, 300), kOwnWindowPicture, getpid());
    // Another application's window, stacked above the panel and partly over it.
    const QRect above(700, 400, 300, 300);
    const auto other =
        display.showWindow(above, VirtualDisplay::solid(above.size(), qRgb(30, 90, 200)));
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());
    const DisplayInfo screen = displayNamed(provider, provider.mainDisplayID());
    QImage expected = pattern.copy();
    fill(expected, above, qRgb(30, 90, 200));

    const Image image = screenshots.captureImage({screen, {{getpid(), {}}}}, fullSize(screen));

    EXPECT_EQ(mismatches(image, expected, QRect(0, 0, 1920, 1080)), 0);
}

TEST(X11Snapshot, PlaceThatIsNeverRepaintedComesOutBlackRatherThanAsTheHiddenWindow) {
    VirtualDisplay display(1920, 1080, {QStringLiteral("COMPOSITE")});
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 13);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    const QRect hung(500, 300, 300, 200);
    const LateRepaintingWindow application(display.name(), hung, qRgb(0, 160, 60),
                                           std::chrono::milliseconds(0),
                                           LateRepaintingWindow::Later::hangs);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const QRect panelGeometry(400, 250, 400, 300);
    const auto panel = display.showWindow(panelGeometry, kOwnWindowPicture, getpid());
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());
    const DisplayInfo screen = displayNamed(provider, provider.mainDisplayID());
    QImage expected = pattern.copy();
    fill(expected, hung, qRgb(0, 160, 60));
    fill(expected, hung.intersected(panelGeometry), qRgb(0, 0, 0));

    const Image image = screenshots.captureImage({screen, {{getpid(), {}}}}, fullSize(screen));

    EXPECT_EQ(mismatches(image, expected, QRect(0, 0, 1920, 1080)), 0);
}

TEST(X11Snapshot, ShapedOwnWindowGetsItsShapeBackAfterTheSnapshot) {
    VirtualDisplay display(1920, 1080, {QStringLiteral("COMPOSITE")});
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 9);
    const auto background = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    const auto panel = display.showWindow(QRect(300, 200, 400, 300), kOwnWindowPicture, getpid());
    // Two bands, as a window with cut corners has.
    setBoundingShape(display.name(), panel->id(), {{0, 10, 400, 280}, {10, 0, 380, 300}});
    const auto shape = boundingShape(display.name(), panel->id());
    ASSERT_TRUE(shape);
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());
    const DisplayInfo screen = displayNamed(provider, provider.mainDisplayID());

    const Image image = screenshots.captureImage({screen, {{getpid(), {}}}}, fullSize(screen));

    EXPECT_EQ(mismatches(image, pattern, QRect(0, 0, 1920, 1080)), 0);
    EXPECT_EQ(boundingShape(display.name(), panel->id()), shape);
}

TEST(X11Snapshot, RequestedSizeOtherThanTheMonitorsIsScaled) {
    VirtualDisplay display(1920, 1080);
    const QImage pattern = VirtualDisplay::testPattern(QSize(1920, 1080), 4);
    const auto window = display.showWindow(QRect(0, 0, 1920, 1080), pattern);
    X11ContentProvider provider(display.name());
    X11ScreenshotService screenshots(display.name());
    const DisplayInfo screen = displayNamed(provider, provider.mainDisplayID());

    const Image image = screenshots.captureImage({screen, {}}, {960, 540, false});

    EXPECT_EQ(image.width, 960);
    EXPECT_EQ(image.height, 540);
    // Halving flat 16-pixel cells keeps each cell's colour in its inner pixels.
    const QRgb cell = pattern.pixel(40, 40);
    const unsigned char* pixel = image.row(20) + 4 * 20;
    EXPECT_EQ(pixel[0], qBlue(cell));
    EXPECT_EQ(pixel[1], qGreen(cell));
    EXPECT_EQ(pixel[2], qRed(cell));
}
