#include "ControllerFixture.h"

using Permission = ControllerTest;

TEST_F(Permission, AllowedAccessNeverClearsTheFlag) {
    controller->screenCapturePermissionRequired.set(true);
    takeSnapshotAndWait();
    EXPECT_EQ(fakes.permission.preflightCount, 1);
    EXPECT_TRUE(controller->lastSavedURL()); // the capture went ahead
    EXPECT_TRUE(controller->screenCapturePermissionRequired());
}

TEST_F(Permission, DeniedAccessEachCaptureActionSetsFlagAndStartsNothing) {
    fakes.permission.allowed = false;
    const std::vector<std::pair<TessarelMode, void (TessarelController::*)()>> actions = {
        {TessarelMode::audioSetup, &TessarelController::startAudio},
        {TessarelMode::videoSetup, &TessarelController::beginVideoSelection},
        {TessarelMode::snapshotSetup, &TessarelController::takeSnapshot}};
    for (const auto& [setup, action] : actions) {
        controller->screenCapturePermissionRequired.set(false);
        controller->show(setup);
        (controller.get()->*action)();
        (controller.get()->*action)();
        EXPECT_TRUE(controller->screenCapturePermissionRequired());
        EXPECT_EQ(controller->mode(), setup);
        EXPECT_FALSE(controller->hasPendingWork());
    }
    EXPECT_EQ(fakes.permission.preflightCount, 6);
    EXPECT_TRUE(overlays.overlays.empty());
    EXPECT_TRUE(capture.content.listings().empty());
    EXPECT_TRUE(capture.screenshots.captures().empty());
    EXPECT_FALSE(controller->errorMessage());
}

TEST_F(Permission, OpenSettingsClearsFlagBeforeCallingThePlatform) {
    controller->screenCapturePermissionRequired.set(true);
    std::vector<bool> flagAtCall;
    fakes.workspace.onCall = [&] {
        flagAtCall.push_back(controller->screenCapturePermissionRequired());
    };
    controller->openScreenRecordingSettings();
    EXPECT_EQ(flagAtCall, std::vector<bool>{false});
    EXPECT_EQ(fakes.workspace.opened, std::vector<QUrl>{*fakes.permission.settingsURL});
}

TEST_F(Permission, OpenSettingsWithoutALinkStillClearsFlag) {
    controller->screenCapturePermissionRequired.set(true);
    fakes.permission.settingsURL.reset();
    controller->openScreenRecordingSettings();
    EXPECT_FALSE(controller->screenCapturePermissionRequired());
    EXPECT_TRUE(fakes.workspace.opened.empty());
}

TEST_F(Permission, RevealApplicationClearsFlagBeforeCallingThePlatform) {
    controller->screenCapturePermissionRequired.set(true);
    std::vector<bool> flagAtCall;
    fakes.workspace.onCall = [&] {
        flagAtCall.push_back(controller->screenCapturePermissionRequired());
    };
    controller->revealRunningApplication();
    EXPECT_EQ(flagAtCall, std::vector<bool>{false});
    EXPECT_EQ(fakes.workspace.revealed, std::vector<QList<QUrl>>{{fakes.workspace.bundleURL}});
}

TEST_F(Permission, AboutAlertHasOneOKButtonTheTitleAndTheIcon) {
    controller->showAbout();
    ASSERT_EQ(fakes.alerts.shown.size(), 1u);
    const AboutAlert& alert = fakes.alerts.shown[0];
    EXPECT_EQ(alert.style, AlertStyle::informational);
    EXPECT_TRUE(alert.showsApplicationIcon);
    EXPECT_EQ(alert.messageText, QStringLiteral("Tessarel"));
    EXPECT_EQ(alert.buttons, QList<QString>{QStringLiteral("OK")});
    EXPECT_FALSE(alert.informativeText.isEmpty());
    EXPECT_FALSE(alert.informativeText.contains(QLatin1Char('\n')));
}
