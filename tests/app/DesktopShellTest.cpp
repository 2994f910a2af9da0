#include "GuiFixture.h"

#include "app/DesktopShell.h"
#include "controller/linux/DesktopScreens.h"
#include "region/SelectionOverlay.h"
#include "ui/Chrome.h"
#include "ui/Views.h"

#include <QKeyEvent>
#include <QTest>

#include <memory>

namespace {

// A window of the application that records the keys it receives.
class KeyRecorder : public QWidget {
public:
    KeyRecorder() {
        setFocusPolicy(Qt::StrongFocus);
        resize(200, 100);
    }
    QList<QKeyCombination> received;

protected:
    void keyPressEvent(QKeyEvent* event) override {
        if (event->key() != Qt::Key_Control && event->key() != Qt::Key_Shift) {
            received << event->keyCombination();
        }
    }
};

class DesktopShellTest : public GuiTest {
protected:
    void launch(bool tray) {
        shell = std::make_unique<DesktopShell>(*controller, tray);
        shell->launch();
        settle();
    }
    QSize panelSize() const { return shell->panel()->size(); }
    void clickTrayIcon() {
        Q_EMIT shell->trayIcon()->activated(QSystemTrayIcon::Trigger);
        settle();
    }
    void pressInPanel(int key, Qt::KeyboardModifiers modifiers) {
        QTest::keyClick(shell->panel(), static_cast<Qt::Key>(key), modifiers);
        settle();
    }

    std::unique_ptr<DesktopShell> shell;
};

} // namespace

TEST_F(DesktopShellTest, RightAfterLaunchTheHiddenPanelIs650By430) {
    launch(true);
    EXPECT_FALSE(shell->panel()->isVisible());
    EXPECT_FALSE(shell->popup()->isVisible());
    EXPECT_EQ(panelSize(), QSize(650, 430));
    EXPECT_EQ(shell->panel()->windowTitle(), "Tessarel");
}

TEST_F(DesktopShellTest, ThePanelNeverShrinksBelow650By410) {
    launch(true);
    shell->panel()->resize(100, 100);
    EXPECT_EQ(panelSize(), QSize(650, 410));
}

TEST_F(DesktopShellTest, ChoosingRecordVideoInThePopupOpensThePanelAtVideoSetup) {
    launch(true);
    clickTrayIcon();
    ASSERT_TRUE(shell->popup()->isVisible());
    EXPECT_EQ(shell->popup()->size(), QSize(480, 402));
    QTest::mouseClick(find(shell->popup(), "recordVideoRow"), Qt::LeftButton);
    settle();
    EXPECT_EQ(controller->mode(), TessarelMode::videoSetup);
    EXPECT_EQ(panelSize(), QSize(700, 460));
    EXPECT_TRUE(shell->panel()->isVisible());
    EXPECT_TRUE(shell->panel()->isActiveWindow());
    EXPECT_FALSE(shell->popup()->isVisible());
    EXPECT_EQ(shell->rootView()->content()->objectName(), "captureSetupView");
}

TEST_F(DesktopShellTest, ClickingTheTrayIconWhileThePopupIsShownClosesItAndKeepsTheMode) {
    launch(true);
    clickTrayIcon();
    controller->show(TessarelMode::snapshotSetup);
    clickTrayIcon();
    EXPECT_FALSE(shell->popup()->isVisible());
    EXPECT_EQ(controller->mode(), TessarelMode::snapshotSetup);
}

TEST_F(DesktopShellTest, ClickingTheTrayIconWhileThePopupIsClosedGoesHomeAndShowsIt) {
    launch(true);
    controller->show(TessarelMode::audioSetup);
    clickTrayIcon();
    EXPECT_TRUE(shell->popup()->isVisible());
    EXPECT_EQ(controller->mode(), TessarelMode::home);
}

TEST_F(DesktopShellTest, OpeningThePopupDuringAnAudioRecordingShowsHomeWhileItGoesOn) {
    launch(true);
    controller->show(TessarelMode::audioSetup);
    controller->startAudio();
    waitForPendingWork();
    ASSERT_EQ(controller->mode(), TessarelMode::recordingAudio);
    EXPECT_EQ(panelSize(), QSize(720, 318));
    clickTrayIcon();
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_EQ(panelSize(), QSize(650, 430));
    EXPECT_EQ(fakes.timers.runningCount(), 1u);
}

TEST_F(DesktopShellTest, CtrlROpensTheAudioSetupScreen) {
    launch(false);
    pressInPanel(Qt::Key_R, Qt::ControlModifier);
    EXPECT_EQ(controller->mode(), TessarelMode::audioSetup);
    EXPECT_EQ(panelSize(), QSize(700, 460));
}

TEST_F(DesktopShellTest, CtrlShiftRDoesTheSame) {
    launch(false);
    pressInPanel(Qt::Key_R, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_EQ(controller->mode(), TessarelMode::audioSetup);
}

TEST_F(DesktopShellTest, CtrlVAndCtrlSOpenVideoAndSnapshotSetup) {
    launch(false);
    pressInPanel(Qt::Key_V, Qt::ControlModifier);
    EXPECT_EQ(controller->mode(), TessarelMode::videoSetup);
    pressInPanel(Qt::Key_S, Qt::ControlModifier);
    EXPECT_EQ(controller->mode(), TessarelMode::snapshotSetup);
}

TEST_F(DesktopShellTest, RWithoutCtrlAndCtrlXArePassedOnUnchanged) {
    launch(false);
    KeyRecorder recorder;
    recorder.show();
    QTest::keyClick(&recorder, Qt::Key_R);
    QTest::keyClick(&recorder, Qt::Key_X, Qt::ControlModifier);
    QTest::keyClick(&recorder, Qt::Key_R, Qt::ControlModifier);
    settle();
    EXPECT_EQ(recorder.received,
              (QList<QKeyCombination>{QKeyCombination(Qt::Key_R),
                                      QKeyCombination(Qt::ControlModifier, Qt::Key_X)}));
    EXPECT_EQ(controller->mode(), TessarelMode::audioSetup);
}

TEST_F(DesktopShellTest, ARegionSelectionOverlayBecomingKeyClosesThePopup) {
    launch(true);
    clickTrayIcon();
    ASSERT_TRUE(shell->popup()->isVisible());
    DesktopScreens screens;
    DesktopSelectionOverlayHost host(screens);
    RegionSelector realSelector(host);
    realSelector.begin([](const Rect&, const ScreenDescription&) {});
    settle();
    EXPECT_FALSE(shell->popup()->isVisible());
    host.closeOverlays();
    QGuiApplication::restoreOverrideCursor();
}

TEST_F(DesktopShellTest, SwitchingToAnotherApplicationClosesThePopupButNotThePanel) {
    launch(true);
    pressInPanel(Qt::Key_S, Qt::ControlModifier);
    shell->panel()->show();
    clickTrayIcon();
    ASSERT_TRUE(shell->popup()->isVisible());
    shell->coordinator().applicationDidResignActive();
    EXPECT_FALSE(shell->popup()->isVisible());
    EXPECT_TRUE(shell->panel()->isVisible());
}

TEST_F(DesktopShellTest, RecordingVideoSizesThePanelTo720By220AndAudioTo720By318) {
    launch(true);
    controller->show(TessarelMode::recordingVideo);
    settle();
    EXPECT_EQ(panelSize(), QSize(720, 220));
    controller->show(TessarelMode::recordingAudio);
    settle();
    EXPECT_EQ(panelSize(), QSize(720, 318));
}

TEST_F(DesktopShellTest, WithoutATrayThePanelComesUpAtHome) {
    launch(false);
    EXPECT_EQ(shell->trayIcon(), nullptr);
    EXPECT_TRUE(shell->panel()->isVisible());
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_EQ(panelSize(), QSize(650, 430));
}

TEST_F(DesktopShellTest, AClosedPanelComesBackAtHomeWhenTessarelIsStartedAgain) {
    launch(false);
    pressInPanel(Qt::Key_V, Qt::ControlModifier);
    shell->panel()->close();
    EXPECT_FALSE(shell->panel()->isVisible());
    shell->activate();
    settle();
    EXPECT_TRUE(shell->panel()->isVisible());
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_EQ(panelSize(), QSize(650, 430));
}

TEST_F(DesktopShellTest, TheOptionsMenuOfThePopupLeavesThePopupOpen) {
    launch(true);
    clickTrayIcon();
    auto* gear = find<GearMenuButton>(shell->popup(), "gearButton");
    QTest::mouseClick(gear, Qt::LeftButton);
    settle();
    ASSERT_NE(gear->openMenu(), nullptr);
    EXPECT_TRUE(gear->openMenu()->isVisible());
    EXPECT_TRUE(shell->popup()->isVisible());
    gear->openMenu()->close();
}
