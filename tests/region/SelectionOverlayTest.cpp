#include "region/SelectionOverlay.h"
#include "controller/linux/DesktopScreens.h"
#include "region/RegionSelector.h"
#include "support/EventLoop.h"

#include <QApplication>
#include <QPainter>
#include <QScreen>
#include <QTest>

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace {

struct Delivery {
    Rect rect;
    ScreenDescription screen;
};

// Real overlays on the offscreen platform's two screens: a 1920 × 1080 primary and a
// 1280 × 1024 screen to its right, their bottom edges aligned.
class SelectionOverlayTest : public testing::Test {
protected:
    ~SelectionOverlayTest() override {
        host.closeOverlays();
        while (QGuiApplication::overrideCursor() != nullptr) {
            QGuiApplication::restoreOverrideCursor();
        }
        settle();
    }

    static void settle() {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
    }

    void begin() {
        selector.begin([this](const Rect& rect, const ScreenDescription& screen) {
            deliveries.push_back({rect, screen});
        });
    }

    SelectionOverlay* overlay(std::size_t index) { return host.overlays().at(index); }

    // A drag in the overlay's own widget points, as the pointer would make it.
    static void drag(QWidget* target, QPoint from, QPoint to) {
        QTest::mousePress(target, Qt::LeftButton, {}, from);
        QMouseEvent move(QEvent::MouseMove, QPointF(to), target->mapToGlobal(QPointF(to)),
                         Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(target, &move);
        QTest::mouseRelease(target, Qt::LeftButton, {}, to);
    }

    DesktopScreens screens;
    DesktopSelectionOverlayHost host{screens};
    RegionSelector selector{host};
    std::vector<Delivery> deliveries;
};

} // namespace

TEST_F(SelectionOverlayTest, OneFramelessOverlayAboveEverythingCoversEachScreen) {
    ASSERT_EQ(QGuiApplication::screens().size(), 2);
    begin();
    ASSERT_EQ(host.overlays().size(), 2u);
    for (int i = 0; i < 2; ++i) {
        SelectionOverlay* window = overlay(static_cast<std::size_t>(i));
        EXPECT_EQ(window->geometry(), QGuiApplication::screens().at(i)->geometry());
        EXPECT_TRUE(window->isVisible());
        const Qt::WindowFlags flags = window->windowFlags();
        EXPECT_TRUE(flags.testFlag(Qt::FramelessWindowHint));
        EXPECT_TRUE(flags.testFlag(Qt::WindowStaysOnTopHint));
        EXPECT_TRUE(flags.testFlag(Qt::X11BypassWindowManagerHint));
        EXPECT_EQ(window->cursor().shape(), Qt::CrossCursor);
    }
    ASSERT_NE(QGuiApplication::overrideCursor(), nullptr);
    EXPECT_EQ(QGuiApplication::overrideCursor()->shape(), Qt::CrossCursor);
}

TEST_F(SelectionOverlayTest, TheOverlayDimsAndShowsTheDragUndimmedWithABlueOutline) {
    begin();
    SelectionOverlay* window = overlay(0);
    QTest::mousePress(window, Qt::LeftButton, {}, QPoint(100, 100));
    QMouseEvent move(QEvent::MouseMove, QPointF(300, 200), window->mapToGlobal(QPointF(300, 200)),
                     Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(window, &move);
    // Composed over white, as the desktop beneath would show it.
    QImage image(window->size(), QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::white);
    {
        QPainter painter(&image);
        painter.drawPixmap(0, 0, window->grab());
    }
    // Black at 0.32 over white: 255 × (1 − 0.32) = 173.4.
    const QColor dimmed = image.pixelColor(50, 50);
    EXPECT_NEAR(dimmed.red(), 173, 1);
    EXPECT_NEAR(dimmed.green(), 173, 1);
    EXPECT_NEAR(dimmed.blue(), 173, 1);
    EXPECT_EQ(image.pixelColor(200, 150), QColor(Qt::white));
    // The outline is centred on the hole's edge at y = 100: two rows of blue, one each side.
    const auto isBlue = [&image](int y) {
        const QColor pixel = image.pixelColor(200, y);
        return pixel.blue() > 200 && pixel.red() < 60 && pixel.green() < 160;
    };
    EXPECT_FALSE(isBlue(97));
    EXPECT_FALSE(isBlue(98));
    EXPECT_TRUE(isBlue(99));
    EXPECT_TRUE(isBlue(100));
    EXPECT_FALSE(isBlue(101));
    EXPECT_FALSE(isBlue(102));
}

TEST_F(SelectionOverlayTest, RightAndMiddleButtonDragsSelectNothing) {
    begin();
    for (const Qt::MouseButton button : {Qt::RightButton, Qt::MiddleButton}) {
        SelectionOverlay* window = overlay(0);
        QTest::mousePress(window, button, {}, QPoint(100, 100));
        QMouseEvent move(QEvent::MouseMove, QPointF(400, 400),
                         window->mapToGlobal(QPointF(400, 400)), Qt::NoButton, button,
                         Qt::NoModifier);
        QApplication::sendEvent(window, &move);
        QTest::mouseRelease(window, button, {}, QPoint(400, 400));
        settle();
        EXPECT_TRUE(deliveries.empty());
        EXPECT_FALSE(window->view().highlightedRect().has_value());
        EXPECT_EQ(host.overlays().size(), 2u);
    }
    // A right click in the middle of a left drag neither restarts nor ends it.
    SelectionOverlay* window = overlay(0);
    QTest::mousePress(window, Qt::LeftButton, {}, QPoint(100, 100));
    QTest::mousePress(window, Qt::RightButton, Qt::NoModifier, QPoint(150, 150));
    QTest::mouseRelease(window, Qt::RightButton, Qt::NoModifier, QPoint(150, 150));
    EXPECT_TRUE(deliveries.empty());
    QTest::mouseRelease(window, Qt::LeftButton, {}, QPoint(300, 300));
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].rect.size(), (Size{200, 200}));
}

TEST_F(SelectionOverlayTest, OnTheSecondDisplayAtX1920TheViewRectangleIsOffsetIntoGlobalPoints) {
    begin();
    // View rectangle (10, 10, 100, 50) in bottom-left points of the 1024-point-high overlay.
    drag(overlay(1), QPoint(10, 1014), QPoint(110, 964));
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].rect, (Rect{1930, 10, 100, 50}));
    EXPECT_EQ(deliveries[0].screen.frame, (Rect{1920, 0, 1280, 1024}));
    settle();
    EXPECT_TRUE(host.overlays().empty());
    EXPECT_EQ(QGuiApplication::overrideCursor(), nullptr);
}

TEST_F(SelectionOverlayTest, ADragAtTheTopOfTheSmallerScreenLandsNearTheTopOfGlobalSpace) {
    begin();
    drag(overlay(1), QPoint(10, 10), QPoint(110, 60));
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].rect, (Rect{1930, 964, 100, 50}));
}

TEST_F(SelectionOverlayTest, ATooSmallDragIsIgnoredAndTheOverlaysStay) {
    begin();
    drag(overlay(0), QPoint(100, 100), QPoint(119, 400));
    EXPECT_TRUE(deliveries.empty());
    settle();
    EXPECT_EQ(host.overlays().size(), 2u);
    drag(overlay(0), QPoint(100, 100), QPoint(120, 120));
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].rect.size(), (Size{20, 20}));
}

TEST_F(SelectionOverlayTest, EscapeBeforeAnyDragRemovesAllOverlaysAndRestoresTheCursor) {
    begin();
    QTest::keyClick(overlay(0), Qt::Key_Escape);
    settle();
    EXPECT_TRUE(host.overlays().empty());
    EXPECT_EQ(QGuiApplication::overrideCursor(), nullptr);
    EXPECT_FALSE(selector.isSelecting());
    EXPECT_TRUE(deliveries.empty());
}

TEST_F(SelectionOverlayTest, AMouseUpWithoutAMouseDownDoesNothing) {
    begin();
    QTest::mouseRelease(overlay(0), Qt::LeftButton, {}, QPoint(500, 500));
    settle();
    EXPECT_TRUE(deliveries.empty());
    EXPECT_EQ(host.overlays().size(), 2u);
}

TEST_F(SelectionOverlayTest, AKeyOtherThanEscapeChangesNothing) {
    begin();
    QTest::keyClick(overlay(0), Qt::Key_A);
    QTest::keyClick(overlay(1), Qt::Key_Return);
    settle();
    EXPECT_EQ(host.overlays().size(), 2u);
    EXPECT_TRUE(selector.isSelecting());
    EXPECT_TRUE(deliveries.empty());
}
