#include "ViewTestSupport.h"

TEST_F(ViewsTest, WithoutASavedFileTheFooterShowsOnlyTheDotAndReady) {
    HomeView home(*controller);
    home.show();
    settle();
    EXPECT_EQ(labelText(&home, "readyText"), "Ready to capture");
    EXPECT_FALSE(find<QPushButton>(&home, "showLastCaptureButton")->isVisible());
}

TEST_F(ViewsTest, WithASavedFileTheFooterOffersShowFileName) {
    HomeView home(*controller);
    home.show();
    const QUrl saved = QUrl::fromLocalFile("/x/shot-1.png");
    controller->lastSavedURL.set(saved);
    settle();
    auto* show = find<QPushButton>(&home, "showLastCaptureButton");
    ASSERT_TRUE(show->isVisible());
    EXPECT_EQ(show->text(), "Show shot-1.png");
    QTest::mouseClick(show, Qt::LeftButton);
    ASSERT_EQ(fakes.workspace.revealed.size(), 1u);
    EXPECT_EQ(fakes.workspace.revealed[0], QList<QUrl>{saved});
}

TEST_F(ViewsTest, CompactHomeHasNoFooterATallerTitleBarAndRoomBelowTheCard) {
    HomeView compact(*controller, true);
    HomeView full(*controller, false);
    EXPECT_EQ(find(&compact, "footer"), nullptr);
    EXPECT_EQ(find(&compact, "footerDivider"), nullptr);
    EXPECT_EQ(find(&compact, "titleBar")->height(), 88);
    EXPECT_EQ(find(&full, "titleBar")->height(), 82);
    EXPECT_EQ(find(&compact, "homeCard")->parentWidget()->layout()->contentsMargins().bottom(), 20);
    EXPECT_EQ(find(&full, "homeCard")->parentWidget()->layout()->contentsMargins().bottom(), 0);
    EXPECT_NE(find(&full, "footer"), nullptr);
}

TEST_F(ViewsTest, WithOnSelectRecordVideoGoesThereAndNotToTheController) {
    std::optional<TessarelMode> selected;
    HomeView home(*controller, true, [&selected](TessarelMode mode) { selected = mode; });
    home.resize(480, 402);
    home.show();
    QTest::mouseClick(find(&home, "recordVideoRow"), Qt::LeftButton, {}, QPoint(40, 40));
    EXPECT_EQ(selected, TessarelMode::videoSetup);
    EXPECT_EQ(controller->mode(), TessarelMode::home);
}

TEST_F(ViewsTest, WithoutOnSelectARowOpensItsSetupScreen) {
    HomeView home(*controller);
    home.resize(650, 430);
    home.show();
    QTest::mouseClick(find(&home, "takeSnapshotRow"), Qt::LeftButton);
    EXPECT_EQ(controller->mode(), TessarelMode::snapshotSetup);
    QTest::mouseClick(find(&home, "recordAudioRow"), Qt::LeftButton);
    EXPECT_EQ(controller->mode(), TessarelMode::audioSetup);
}

TEST_F(ViewsTest, HomeRowsReadAsTheirCaptureKinds) {
    HomeView home(*controller);
    const auto row = [&home](const QString& name) { return find(&home, name); };
    EXPECT_EQ(labelText(row("recordAudioRow"), "rowTitle"), "Record Audio");
    EXPECT_EQ(labelText(row("recordAudioRow"), "rowSubtitle"), "Record system audio");
    EXPECT_EQ(labelText(row("recordVideoRow"), "rowTitle"), "Record Video");
    EXPECT_EQ(labelText(row("recordVideoRow"), "rowSubtitle"), "Record screen area");
    EXPECT_EQ(labelText(row("takeSnapshotRow"), "rowTitle"), "Take Snapshot");
    EXPECT_EQ(labelText(row("takeSnapshotRow"), "rowSubtitle"), "Capture entire screen");
    EXPECT_EQ(labelText(row("recordAudioRow"), "shortcutBadge"), "Ctrl+R");
    EXPECT_EQ(labelText(row("recordVideoRow"), "shortcutBadge"), "Ctrl+V");
    EXPECT_EQ(labelText(row("takeSnapshotRow"), "shortcutBadge"), "Ctrl+S");
}

TEST_F(ViewsTest, TheGearOfTheHomeScreenShowsTheAboutBox) {
    HomeView home(*controller);
    home.show();
    auto* gear = find<GearMenuButton>(&home, "gearButton");
    QTest::mouseClick(gear, Qt::LeftButton);
    gear->openMenu()->actions().at(0)->trigger();
    ASSERT_EQ(fakes.alerts.shown.size(), 1u);
    EXPECT_EQ(fakes.alerts.shown[0].messageText, "Tessarel");
}
