#include "app/ShellCoordinator.h"

#include "support/EventLoop.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

namespace {

// Records what the shell asks of the windowing system.
class FakeWindowing : public ShellWindowing {
public:
    bool trayAvailable = true;
    std::vector<std::string> calls;
    std::optional<Size> panelSize;
    bool panelShown = false;
    bool popupShown = false;
    KeyHandler keyHandler;
    int popupIdentity = 0;

    void configurePanel() override { calls.emplace_back("configurePanel"); }
    void setPanelContentSize(const Size& size) override { panelSize = size; }
    void showPanel() override {
        calls.emplace_back("showPanel");
        panelShown = true;
    }
    void configureStatusItem() override { calls.emplace_back("configureStatusItem"); }
    bool hasStatusItem() override { return trayAvailable; }
    bool isPopupShown() override { return popupShown; }
    void showPopup() override {
        calls.emplace_back("showPopup");
        popupShown = true;
    }
    void closePopup() override {
        calls.emplace_back("closePopup");
        popupShown = false;
    }
    const void* popupWindow() override { return trayAvailable ? &popupIdentity : nullptr; }
    void installKeyMonitor(KeyHandler handler) override {
        calls.emplace_back("installKeyMonitor");
        keyHandler = std::move(handler);
    }
};

class ShellCoordinatorTest : public testing::Test {
protected:
    void launch() {
        shell->launch();
        settle();
    }
    // Lets the queued resizes and popup selections run.
    void settle() {
        bool done = false;
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [&done] { done = true; }, Qt::QueuedConnection);
        ASSERT_TRUE(processEventsUntil([&done] { return done; }));
    }
    bool press(bool ctrl, const QString& characters) {
        return windowing.keyHandler({ctrl, characters});
    }

    Signal<> objectWillChange;
    Published<TessarelMode> mode{TessarelMode::home, objectWillChange};
    FakeWindowing windowing;
    std::unique_ptr<ShellCoordinator> shell = std::make_unique<ShellCoordinator>(
        windowing, mode, [this](TessarelMode newMode) { mode.set(newMode); });
};

} // namespace

TEST(ShellSizesTest, SizeTableByMode) {
    EXPECT_EQ(ShellCoordinator::panelContentSize(TessarelMode::home), (Size{650, 430}));
    for (TessarelMode setup :
         {TessarelMode::audioSetup, TessarelMode::videoSetup, TessarelMode::snapshotSetup}) {
        EXPECT_EQ(ShellCoordinator::panelContentSize(setup), (Size{700, 460}));
    }
    EXPECT_EQ(ShellCoordinator::panelContentSize(TessarelMode::recordingAudio), (Size{720, 318}));
    EXPECT_EQ(ShellCoordinator::panelContentSize(TessarelMode::recordingVideo), (Size{720, 220}));
}

TEST_F(ShellCoordinatorTest, StartUpBuildsPanelThenTrayItemThenShortcutsAndShowsNothing) {
    launch();
    EXPECT_EQ(windowing.calls, (std::vector<std::string>{"configurePanel", "configureStatusItem",
                                                         "installKeyMonitor"}));
    EXPECT_FALSE(windowing.panelShown);
    EXPECT_FALSE(windowing.popupShown);
}

TEST_F(ShellCoordinatorTest, RightAfterLaunchThePanelContentSizeIs650By430) {
    launch();
    ASSERT_TRUE(windowing.panelSize);
    EXPECT_EQ(*windowing.panelSize, (Size{650, 430}));
}

TEST_F(ShellCoordinatorTest, ChoosingRecordVideoInThePopupOpensThePanelAtVideoSetup) {
    launch();
    shell->togglePopup();
    ASSERT_TRUE(windowing.popupShown);
    shell->popupDidSelect(TessarelMode::videoSetup);
    // The screen opens only after the click has been handled.
    EXPECT_EQ(mode(), TessarelMode::home);
    settle();
    EXPECT_EQ(mode(), TessarelMode::videoSetup);
    EXPECT_EQ(*windowing.panelSize, (Size{700, 460}));
    EXPECT_TRUE(windowing.panelShown);
    EXPECT_FALSE(windowing.popupShown);
}

TEST_F(ShellCoordinatorTest, ClickingTheTrayItemWhileThePopupIsShownClosesItAndKeepsTheMode) {
    launch();
    shell->togglePopup();
    mode.set(TessarelMode::snapshotSetup);
    shell->togglePopup();
    EXPECT_FALSE(windowing.popupShown);
    EXPECT_EQ(mode(), TessarelMode::snapshotSetup);
}

TEST_F(ShellCoordinatorTest, ClickingTheTrayItemWhileThePopupIsClosedGoesHomeAndShowsIt) {
    launch();
    mode.set(TessarelMode::audioSetup);
    shell->togglePopup();
    EXPECT_TRUE(windowing.popupShown);
    EXPECT_EQ(mode(), TessarelMode::home);
}

TEST_F(ShellCoordinatorTest, OpeningThePopupDuringAnAudioRecordingShowsHomeAt650By430) {
    launch();
    mode.set(TessarelMode::recordingAudio);
    settle();
    EXPECT_EQ(*windowing.panelSize, (Size{720, 318}));
    shell->togglePopup();
    settle();
    EXPECT_EQ(mode(), TessarelMode::home);
    EXPECT_EQ(*windowing.panelSize, (Size{650, 430}));
}

TEST_F(ShellCoordinatorTest, CtrlROpensTheAudioSetupScreen) {
    launch();
    EXPECT_TRUE(press(true, "r"));
    EXPECT_EQ(mode(), TessarelMode::audioSetup);
    EXPECT_TRUE(windowing.panelShown);
    settle();
    EXPECT_EQ(*windowing.panelSize, (Size{700, 460}));
}

TEST_F(ShellCoordinatorTest, CtrlShiftRMatchesToo) {
    launch();
    EXPECT_TRUE(press(true, "R"));
    EXPECT_EQ(mode(), TessarelMode::audioSetup);
}

TEST_F(ShellCoordinatorTest, CtrlVAndCtrlSOpenVideoAndSnapshotSetup) {
    launch();
    EXPECT_TRUE(press(true, "v"));
    EXPECT_EQ(mode(), TessarelMode::videoSetup);
    EXPECT_TRUE(press(true, "s"));
    EXPECT_EQ(mode(), TessarelMode::snapshotSetup);
}

TEST_F(ShellCoordinatorTest, RWithoutCtrlIsPassedOnUnchanged) {
    launch();
    EXPECT_FALSE(press(false, "r"));
    EXPECT_EQ(mode(), TessarelMode::home);
    EXPECT_FALSE(windowing.panelShown);
}

TEST_F(ShellCoordinatorTest, CtrlXIsPassedOnUnchanged) {
    launch();
    EXPECT_FALSE(press(true, "x"));
    EXPECT_FALSE(press(true, ""));
    EXPECT_EQ(mode(), TessarelMode::home);
}

TEST_F(ShellCoordinatorTest, AShortcutIsConsumedEvenWhenTheShellIsGone) {
    launch();
    ShellWindowing::KeyHandler handler = windowing.keyHandler;
    shell.reset();
    EXPECT_TRUE(handler({true, "r"}));
    EXPECT_EQ(mode(), TessarelMode::home);
}

TEST_F(ShellCoordinatorTest, ASelectionOverlayBecomingKeyClosesThePopup) {
    launch();
    shell->togglePopup();
    int overlay = 0;
    shell->windowDidBecomeKey(&overlay);
    EXPECT_FALSE(windowing.popupShown);
}

TEST_F(ShellCoordinatorTest, ThePopupItselfBecomingKeyLeavesItOpen) {
    launch();
    shell->togglePopup();
    shell->windowDidBecomeKey(windowing.popupWindow());
    shell->windowDidBecomeKey(nullptr);
    EXPECT_TRUE(windowing.popupShown);
}

TEST_F(ShellCoordinatorTest, SwitchingToAnotherApplicationClosesThePopupButNotThePanel) {
    launch();
    EXPECT_TRUE(press(true, "s"));
    shell->togglePopup();
    shell->applicationDidResignActive();
    EXPECT_FALSE(windowing.popupShown);
    EXPECT_TRUE(windowing.panelShown);
}

TEST_F(ShellCoordinatorTest, RecordingVideoSizesThePanelTo720By220) {
    launch();
    mode.set(TessarelMode::recordingVideo);
    settle();
    EXPECT_EQ(*windowing.panelSize, (Size{720, 220}));
}

TEST_F(ShellCoordinatorTest, RecordingAudioSizesThePanelTo720By318) {
    launch();
    mode.set(TessarelMode::recordingAudio);
    settle();
    EXPECT_EQ(*windowing.panelSize, (Size{720, 318}));
}

TEST_F(ShellCoordinatorTest, WithoutATrayThePanelComesUpAtHomeAtStart) {
    windowing.trayAvailable = false;
    mode.set(TessarelMode::snapshotSetup);
    launch();
    EXPECT_TRUE(windowing.panelShown);
    EXPECT_EQ(mode(), TessarelMode::home);
    EXPECT_EQ(*windowing.panelSize, (Size{650, 430}));
    shell->togglePopup();
    EXPECT_FALSE(windowing.popupShown);
}

TEST_F(ShellCoordinatorTest, AnotherStartBringsThePanelForwardAtHome) {
    launch();
    mode.set(TessarelMode::videoSetup);
    windowing.calls.clear();
    shell->activate();
    EXPECT_EQ(mode(), TessarelMode::home);
    EXPECT_EQ(windowing.calls, (std::vector<std::string>{"showPanel", "closePopup"}));
}
