#include "region/RegionSelector.h"
#include "screen/ScreenCoordinates.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

ScreenDescription screenAt(const Rect& frame, uint32_t number) {
    return {QVariant::fromValue(number), frame, 1.0};
}

// Records what the selector asks of the windowing system and lets a test act as the user
// on one overlay's view.
class RecordingOverlayHost : public SelectionOverlayHost {
public:
    std::vector<ScreenDescription> attached;
    std::vector<std::unique_ptr<SelectionView>> views;
    int cursorDepth = 0;

    std::vector<ScreenDescription> screens() override { return attached; }
    void showOverlay(const ScreenDescription&, OverlayCallbacks callbacks) override {
        views.push_back(std::make_unique<SelectionView>(std::move(callbacks)));
    }
    void closeOverlays() override { closedViews = std::move(views); }
    void pushCrosshairCursor() override { ++cursorDepth; }
    void popCursor() override { --cursorDepth; }

    // Closed views are kept alive until the test ends, as a window system would delete
    // them only after the event that closed them.
    std::vector<std::unique_ptr<SelectionView>> closedViews;
};

struct Delivery {
    Rect rect;
    ScreenDescription screen;
};

class RegionSelectorTest : public testing::Test {
protected:
    RegionSelectorTest() {
        host.attached = {screenAt({0, 0, 1920, 1080}, 1), screenAt({1920, 0, 1280, 1024}, 2)};
    }

    void begin() {
        selector.begin([this](const Rect& rect, const ScreenDescription& screen) {
            deliveries.push_back({rect, screen});
        });
    }
    SelectionView& view(std::size_t index) { return *host.views.at(index); }
    void drag(std::size_t index, Point from, Point to) {
        view(index).mouseDown(from);
        view(index).mouseDragged(to);
        view(index).mouseUp(to);
    }

    RecordingOverlayHost host;
    RegionSelector selector{host};
    std::vector<Delivery> deliveries;
};

} // namespace

TEST_F(RegionSelectorTest, BeginCoversEveryScreenAndPushesTheCrosshair) {
    begin();
    EXPECT_EQ(host.views.size(), 2u);
    EXPECT_EQ(host.cursorDepth, 1);
    EXPECT_TRUE(selector.isSelecting());
}

TEST_F(RegionSelectorTest, DragFromBottomRightToTopLeftYieldsTheSameRectangle) {
    EXPECT_EQ(RegionSelector::selectionRect({300, 40}, {100, 240}),
              RegionSelector::selectionRect({100, 240}, {300, 40}));
    EXPECT_EQ(RegionSelector::selectionRect({300, 40}, {100, 240}), (Rect{100, 40, 200, 200}));

    begin();
    drag(0, {300, 40}, {100, 240});
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].rect, (Rect{100, 40, 200, 200}));
}

TEST_F(RegionSelectorTest, TooNarrowDragIsIgnoredAndTheOverlayStays) {
    begin();
    drag(0, {0, 0}, {19.9, 300});
    EXPECT_TRUE(deliveries.empty());
    EXPECT_EQ(host.views.size(), 2u);
    EXPECT_EQ(host.cursorDepth, 1);
    EXPECT_TRUE(selector.isSelecting());
    // The last rectangle stays drawn until a new drag begins.
    EXPECT_EQ(view(0).highlightedRect(), (Rect{0, 0, 19.9, 300}));
}

TEST_F(RegionSelectorTest, ExactlyTwentyByTwentyIsAccepted) {
    begin();
    drag(0, {0, 0}, {19.9, 300});
    drag(0, {50, 50}, {70, 70});
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].rect, (Rect{50, 50, 20, 20}));
    EXPECT_TRUE(host.views.empty());
    EXPECT_EQ(host.cursorDepth, 0);
}

TEST_F(RegionSelectorTest, SecondDisplayAtX1920OffsetsTheViewRectangle) {
    begin();
    drag(1, {10, 10}, {110, 60});
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].rect, (Rect{1930, 10, 100, 50}));
    EXPECT_EQ(deliveries[0].screen, host.attached[1]);
}

TEST_F(RegionSelectorTest, EscapeBeforeAnyDragRemovesOverlaysAndRestoresTheCursor) {
    begin();
    view(1).keyDown(SelectionKey::escape);
    EXPECT_TRUE(host.views.empty());
    EXPECT_EQ(host.cursorDepth, 0);
    EXPECT_FALSE(selector.isSelecting());
    EXPECT_TRUE(deliveries.empty());
}

TEST_F(RegionSelectorTest, MouseUpWithoutMouseDownDoesNothing) {
    begin();
    view(0).mouseUp({400, 400});
    EXPECT_TRUE(deliveries.empty());
    EXPECT_EQ(host.views.size(), 2u);
    EXPECT_FALSE(view(0).start().has_value());
    EXPECT_FALSE(view(0).highlightedRect().has_value());
}

TEST_F(RegionSelectorTest, AKeyOtherThanEscapeChangesNothing) {
    begin();
    view(0).mouseDown({10, 10});
    view(0).mouseDragged({100, 100});
    view(0).keyDown(SelectionKey::other);
    EXPECT_EQ(host.views.size(), 2u);
    EXPECT_EQ(host.cursorDepth, 1);
    EXPECT_EQ(view(0).highlightedRect(), (Rect{10, 10, 90, 90}));
    EXPECT_TRUE(deliveries.empty());
}

TEST_F(RegionSelectorTest, TheCompletionCannotBeCalledASecondTime) {
    begin();
    SelectionView& first = view(0);
    drag(0, {0, 0}, {100, 100});
    // A late mouse-up on a closed overlay finds the completion already cleared.
    first.mouseUp({200, 200});
    EXPECT_EQ(deliveries.size(), 1u);
}

TEST_F(RegionSelectorTest, MouseUpDoesNotMoveTheDrawnRectangle) {
    begin();
    view(0).mouseDown({10, 10});
    view(0).mouseDragged({40, 40});
    view(0).mouseUp({15, 15});
    EXPECT_EQ(view(0).current(), (Point{40, 40}));
    EXPECT_EQ(view(0).highlightedRect(), (Rect{10, 10, 30, 30}));
}

TEST_F(RegionSelectorTest, SelectorGoneLeavesOverlayCallbacksHarmless) {
    auto owned = std::make_unique<RegionSelector>(host);
    owned->begin([this](const Rect& rect, const ScreenDescription& screen) {
        deliveries.push_back({rect, screen});
    });
    owned.reset();
    drag(0, {0, 0}, {100, 100});
    view(0).keyDown(SelectionKey::escape);
    EXPECT_TRUE(deliveries.empty());
}

// Two monitors of different sizes: a 1920 × 1080 primary and a 1280 × 1024 screen to its
// right, both top-aligned as Qt places them.
TEST(ScreenCoordinatesTest, TwoMonitorsOfDifferentSizesMapIntoBottomLeftGlobalPoints) {
    const QRectF primary(0, 0, 1920, 1080);
    EXPECT_EQ(ScreenCoordinates::globalFrame(primary, primary), (Rect{0, 0, 1920, 1080}));
    const Rect second = ScreenCoordinates::globalFrame(QRectF(1920, 0, 1280, 1024), primary);
    EXPECT_EQ(second, (Rect{1920, 56, 1280, 1024}));

    // A drag from (10, 10) to (110, 60) in the second overlay's widget points.
    const ScreenCoordinates overlay(second.height);
    const Rect view =
        RegionSelector::selectionRect(overlay.viewPoint({10, 10}), overlay.viewPoint({110, 60}));
    EXPECT_EQ(view, (Rect{10, 964, 100, 50}));
    // Qt's global top edge of that drag is y 10, its bottom edge y 60.
    EXPECT_EQ(view.offsetBy(second.minX(), second.minY()), (Rect{1930, 1020, 100, 50}));
    EXPECT_EQ(overlay.widgetRect(view), QRectF(10, 10, 100, 50));
}

TEST(ScreenCoordinatesTest, ScreenBelowThePrimaryHasANegativeOrigin) {
    EXPECT_EQ(ScreenCoordinates::globalFrame(QRectF(0, 1080, 1280, 720), QRectF(0, 0, 1920, 1080)),
              (Rect{0, -720, 1280, 720}));
}

TEST(ScreenCoordinatesTest, APrimaryScreenAwayFromQtsOriginStillAnchorsTheGlobalSpace) {
    const QRectF primary(1280, 200, 1920, 1080);
    EXPECT_EQ(ScreenCoordinates::globalFrame(primary, primary), (Rect{0, 0, 1920, 1080}));
    EXPECT_EQ(ScreenCoordinates::globalFrame(QRectF(0, 0, 1280, 1024), primary),
              (Rect{-1280, 256, 1280, 1024}));
}
