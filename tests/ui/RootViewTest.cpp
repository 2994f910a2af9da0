#include "ViewTestSupport.h"

TEST_F(ViewsTest, RootShowsTheScreenOfEachMode) {
    auto view = root();
    EXPECT_EQ(view->content()->objectName(), "homeView");
    const std::pair<TessarelMode, QString> screens[] = {
        {TessarelMode::audioSetup, "Record Audio"},
        {TessarelMode::videoSetup, "Record Video"},
        {TessarelMode::snapshotSetup, "Take Screen Snapshot"},
        {TessarelMode::recordingAudio, "Audio Capture in Progress"},
        {TessarelMode::recordingVideo, "Video Capture in Progress"}};
    for (const auto& [mode, title] : screens) {
        controller->show(mode);
        settle();
        EXPECT_EQ(labelText(view->content(), "headerTitle"), title);
    }
}

TEST_F(ViewsTest, TheErrorAlertShowsTheMessageVerbatimWithOneOKButton) {
    auto view = root();
    controller->errorMessage.set(QStringLiteral("The disk is full."));
    settle();
    QMessageBox* alert = view->errorAlert();
    ASSERT_NE(alert, nullptr);
    EXPECT_TRUE(alert->isVisible());
    EXPECT_EQ(alert->text(), QStringLiteral("Tessarel couldn\u2019t capture"));
    EXPECT_EQ(alert->informativeText(), "The disk is full.");
    EXPECT_EQ(buttonTexts(*alert), QStringList{"OK"});
    QTest::mouseClick(button(*alert, "OK"), Qt::LeftButton);
    settle();
    EXPECT_FALSE(controller->errorMessage().has_value());
    EXPECT_EQ(view->errorAlert(), nullptr);
}

TEST_F(ViewsTest, ThePermissionAlertHasItsTitleMessageAndThreeButtonsInOrder) {
    auto view = root();
    controller->screenCapturePermissionRequired.set(true);
    settle();
    QMessageBox* alert = view->permissionAlert();
    ASSERT_NE(alert, nullptr);
    EXPECT_EQ(alert->text(), "Screen Recording Permission Required");
    EXPECT_EQ(alert->informativeText(),
              QStringLiteral("Allow Tessarel in the desktop's screen sharing dialog, which asks "
                             "again at the next capture, or in your desktop's privacy settings. "
                             "Use Show Tessarel in File Manager if you need to locate it."));
    EXPECT_EQ(buttonTexts(*alert),
              (QStringList{"Open System Settings", "Show Tessarel in File Manager", "Cancel"}));
    QList<QAbstractButton*> shown = alert->buttons();
    std::sort(shown.begin(), shown.end(),
              [](const QAbstractButton* a, const QAbstractButton* b) { return a->x() < b->x(); });
    EXPECT_EQ(shown.first()->text(), "Open System Settings");
    EXPECT_EQ(shown.last()->text(), "Cancel");
    EXPECT_EQ(alert->escapeButton()->text(), "Cancel");
}

TEST_F(ViewsTest, OpenSystemSettingsClearsTheFlagAndOpensTheSettings) {
    auto view = root();
    controller->screenCapturePermissionRequired.set(true);
    settle();
    QTest::mouseClick(button(*view->permissionAlert(), "Open System Settings"), Qt::LeftButton);
    settle();
    EXPECT_FALSE(controller->screenCapturePermissionRequired());
    ASSERT_EQ(fakes.workspace.opened.size(), 1u);
    EXPECT_EQ(view->permissionAlert(), nullptr);
}

TEST_F(ViewsTest, WithoutPrivacySettingsThePermissionAlertOffersNone) {
    fakes.permission.settingsURL.reset();
    auto view = root();
    controller->screenCapturePermissionRequired.set(true);
    settle();
    QMessageBox* alert = view->permissionAlert();
    ASSERT_NE(alert, nullptr);
    EXPECT_EQ(buttonTexts(*alert), (QStringList{"Show Tessarel in File Manager", "Cancel"}));
    EXPECT_EQ(alert->defaultButton()->text(), "Show Tessarel in File Manager");
}

TEST_F(ViewsTest, ShowTessarelInFileManagerRevealsTheApplication) {
    auto view = root();
    controller->screenCapturePermissionRequired.set(true);
    settle();
    QTest::mouseClick(button(*view->permissionAlert(), "Show Tessarel in File Manager"),
                      Qt::LeftButton);
    settle();
    EXPECT_FALSE(controller->screenCapturePermissionRequired());
    ASSERT_EQ(fakes.workspace.revealed.size(), 1u);
    EXPECT_EQ(fakes.workspace.revealed[0], QList<QUrl>{fakes.workspace.bundleURL});
}

TEST_F(ViewsTest, ErrorAndPermissionAlertsAreDismissedEachOnItsOwn) {
    auto view = root();
    controller->screenCapturePermissionRequired.set(true);
    settle();
    controller->errorMessage.set(QStringLiteral("Something else went wrong."));
    settle();
    ASSERT_NE(view->permissionAlert(), nullptr);
    ASSERT_NE(view->errorAlert(), nullptr);

    QTest::mouseClick(button(*view->errorAlert(), "OK"), Qt::LeftButton);
    settle();
    EXPECT_FALSE(controller->errorMessage().has_value());
    EXPECT_TRUE(controller->screenCapturePermissionRequired());
    ASSERT_NE(view->permissionAlert(), nullptr);
    EXPECT_TRUE(view->permissionAlert()->isVisible());

    QTest::mouseClick(button(*view->permissionAlert(), "Cancel"), Qt::LeftButton);
    settle();
    EXPECT_FALSE(controller->screenCapturePermissionRequired());
    EXPECT_TRUE(fakes.workspace.opened.empty());
    EXPECT_TRUE(fakes.workspace.revealed.empty());
}

TEST_F(ViewsTest, ThePanelNeverShrinksBelow650By410) {
    auto view = root();
    EXPECT_EQ(view->minimumSize(), QSize(650, 410));
    view->resize(300, 200);
    EXPECT_EQ(view->size(), QSize(650, 410));
}
