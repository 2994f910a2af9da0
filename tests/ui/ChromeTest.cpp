#include "ViewTestSupport.h"

TEST_F(ViewsTest, RepeatedLayoutPassesLeaveOneHoverLookOnEachButton) {
    CloseButton close([] {});
    close.show();
    for (int pass = 0; pass < 5; ++pass) {
        close.adjustSize();
        close.updateGeometry();
        QApplication::sendPostedEvents();
    }
    const QImage idle = close.grab().toImage();
    QEnterEvent enter(QPointF(22, 22), QPointF(22, 22), QPointF(22, 22));
    QApplication::sendEvent(&close, &enter);
    EXPECT_TRUE(close.isHovered());
    const QImage hovered = close.grab().toImage();
    EXPECT_NE(hovered, idle);
    // The faint rounded square behind the symbol, away from the symbol itself.
    EXPECT_NE(hovered.pixelColor(8, 22), idle.pixelColor(8, 22));
    QEvent leave(QEvent::Leave);
    QApplication::sendEvent(&close, &leave);
    EXPECT_FALSE(close.isHovered());
    EXPECT_EQ(close.grab().toImage(), idle);
}

TEST_F(ViewsTest, ChoosingQuitFromTheOptionsMenuRunsQuit) {
    int quits = 0;
    int abouts = 0;
    GearMenuButton gear([&abouts] { ++abouts; }, [&quits] { ++quits; });
    gear.show();
    QTest::mouseClick(&gear, Qt::LeftButton);
    QMenu* menu = gear.openMenu();
    ASSERT_NE(menu, nullptr);
    QStringList titles;
    for (const QAction* item : menu->actions()) {
        titles << (item->isSeparator() ? QStringLiteral("-") : QString(item->text()).remove('&'));
    }
    EXPECT_EQ(titles, (QStringList{"About...", "-", "Quit"}));
    menu->actions().at(2)->trigger();
    EXPECT_EQ(quits, 1);
    EXPECT_EQ(abouts, 0);
}

TEST_F(ViewsTest, PressingQWhileTheOptionsMenuIsOpenRunsQuit) {
    int quits = 0;
    GearMenuButton gear([] {}, [&quits] { ++quits; });
    gear.show();
    QTest::mouseClick(&gear, Qt::LeftButton);
    QMenu* menu = gear.openMenu();
    ASSERT_NE(menu, nullptr);
    QTest::keyClick(menu, Qt::Key_Q);
    settle();
    EXPECT_EQ(quits, 1);
}

TEST_F(ViewsTest, AfterNewClosuresAreSetTheMenuItemsCallTheNewOnes) {
    int oldCalls = 0;
    int newAbouts = 0;
    int newQuits = 0;
    GearMenuButton gear([&oldCalls] { ++oldCalls; }, [&oldCalls] { ++oldCalls; });
    gear.setActions([&newAbouts] { ++newAbouts; }, [&newQuits] { ++newQuits; });
    gear.show();
    QTest::mouseClick(&gear, Qt::LeftButton);
    gear.openMenu()->actions().at(0)->trigger();
    gear.openMenu()->actions().at(2)->trigger();
    EXPECT_EQ(oldCalls, 0);
    EXPECT_EQ(newAbouts, 1);
    EXPECT_EQ(newQuits, 1);
}

TEST_F(ViewsTest, ChromeButtonsDescribeThemselves) {
    GearMenuButton gear([] {}, [] {});
    CloseButton close([] {});
    EXPECT_EQ(gear.accessibleName(), "Tessarel options");
    EXPECT_EQ(close.accessibleName(), "Close");
    EXPECT_EQ(gear.size(), QSize(44, 44));
    EXPECT_EQ(close.size(), QSize(44, 44));
}
