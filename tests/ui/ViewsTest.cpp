#include "GuiFixture.h"

#include "ui/Appearance.h"
#include "ui/Chrome.h"
#include "ui/Views.h"

#include <QAbstractButton>
#include <QLabel>
#include <QLayout>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>

#include <algorithm>
#include <memory>
#include <optional>

namespace {

QString labelText(const QWidget* root, const QString& name) {
    const auto* label = root->findChild<QLabel*>(name);
    return label != nullptr ? label->text() : QString();
}

QMenu* openMenu(const QString& name) {
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (auto* menu = qobject_cast<QMenu*>(widget);
            menu && menu->objectName() == name && menu->isVisible()) {
            return menu;
        }
    }
    return nullptr;
}

QStringList buttonTexts(const QMessageBox& box) {
    QStringList texts;
    for (const QAbstractButton* button : box.buttons()) {
        texts << button->text();
    }
    return texts;
}

QAbstractButton* button(const QMessageBox& box, const QString& text) {
    for (QAbstractButton* candidate : box.buttons()) {
        if (candidate->text() == text) {
            return candidate;
        }
    }
    return nullptr;
}

// The colour in the middle of the lowest rows of bar `index`, where every bar is drawn.
QColor barColor(const QImage& image, int index) {
    const int x =
        static_cast<int>(index * (MeterBars::width + MeterBars::spacing) + MeterBars::width / 2);
    return image.pixelColor(x, image.height() - 5);
}

bool looksLit(const QColor& color, int index) {
    return color.alpha() == 255 && color.hsvSaturationF() > 0.8F &&
           std::abs(color.hsvHueF() - MeterBars::hue(index)) < 0.02;
}

bool looksGrey(const QColor& color) {
    return color.hsvSaturationF() < 0.2F;
}

class ViewsTest : public GuiTest {
protected:
    std::unique_ptr<TessarelRootView> root() {
        auto view = std::make_unique<TessarelRootView>(*controller);
        view->resize(650, 430);
        view->show();
        settle();
        return view;
    }
};

} // namespace

// ---- Root and home ------------------------------------------------------------------------

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

// ---- Capture setup ------------------------------------------------------------------------

TEST_F(ViewsTest, TheVideoSetupShowsMP4WithAChevronButOpensNoMenu) {
    CaptureSetupView setup(*controller, CaptureKind::video);
    setup.show();
    settle();
    EXPECT_EQ(labelText(&setup, "formatText"), "MP4");
    QTest::mouseClick(find(&setup, "formatButton"), Qt::LeftButton);
    settle();
    EXPECT_EQ(openMenu("formatMenu"), nullptr);
}

TEST_F(ViewsTest, WithTheSaveFolderAtUsersAMoviesTheRowReadsMovies) {
    fakes.locations.downloads = {QUrl::fromLocalFile("/Users/a/Movies")};
    TessarelController fresh(engine, selector, fakes.platform());
    CaptureSetupView setup(fresh, CaptureKind::audio);
    EXPECT_EQ(labelText(&setup, "folderName"), "Movies");
}

TEST_F(ViewsTest, TheSaveToRowRunsTheFolderChooser) {
    CaptureSetupView setup(*controller, CaptureKind::snapshot);
    setup.show();
    fakes.folderChooser.answer = QUrl::fromLocalFile("/Users/a/Pictures");
    QTest::mouseClick(find(&setup, "saveToButton"), Qt::LeftButton);
    settle();
    ASSERT_EQ(fakes.folderChooser.runs.size(), 1u);
    EXPECT_EQ(fakes.folderChooser.runs[0].title, "Choose where Tessarel saves captures");
    EXPECT_EQ(labelText(&setup, "folderName"), "Pictures");
}

TEST_F(ViewsTest, TheFormatMenuListsTheFormatsWithACheckmarkOnTheCurrentOne) {
    CaptureSetupView setup(*controller, CaptureKind::audio);
    setup.show();
    settle();
    EXPECT_EQ(labelText(&setup, "formatText"), "M4A");
    QTest::mouseClick(find(&setup, "formatButton"), Qt::LeftButton);
    QMenu* menu = openMenu("formatMenu");
    ASSERT_NE(menu, nullptr);
    QStringList titles;
    QStringList checked;
    for (const QAction* item : menu->actions()) {
        titles << item->text();
        if (!item->icon().isNull()) {
            checked << item->text();
        }
    }
    EXPECT_EQ(titles, (QStringList{"M4A", "MP3", "WAV"}));
    EXPECT_EQ(checked, QStringList{"M4A"});
    menu->actions().at(1)->trigger();
    menu->close();
    settle();
    EXPECT_EQ(controller->audioFormat(), AudioExportFormat::mp3);
    EXPECT_EQ(labelText(&setup, "formatText"), "MP3");
}

TEST_F(ViewsTest, ReselectingTheCurrentFormatChangesNothingVisible) {
    CaptureSetupView setup(*controller, CaptureKind::snapshot);
    setup.show();
    settle();
    const QImage before = setup.grab().toImage();
    QTest::mouseClick(find(&setup, "formatButton"), Qt::LeftButton);
    QMenu* menu = openMenu("formatMenu");
    ASSERT_NE(menu, nullptr);
    menu->actions().at(0)->trigger();
    menu->close();
    settle();
    EXPECT_EQ(controller->snapshotFormat(), SnapshotExportFormat::png);
    EXPECT_EQ(labelText(&setup, "formatText"), "PNG");
    EXPECT_EQ(setup.grab().toImage(), before);
}

TEST_F(ViewsTest, TheSnapshotScreenReadsTakeScreenSnapshotAndTakeSnapshot) {
    CaptureSetupView setup(*controller, CaptureKind::snapshot);
    EXPECT_EQ(labelText(&setup, "headerTitle"), "Take Screen Snapshot");
    EXPECT_EQ(find<QPushButton>(&setup, "startButton")->text(), "Take Snapshot");
}

TEST_F(ViewsTest, AudioAndVideoSetupStartRecording) {
    CaptureSetupView audio(*controller, CaptureKind::audio);
    CaptureSetupView video(*controller, CaptureKind::video);
    EXPECT_EQ(labelText(&audio, "headerTitle"), "Record Audio");
    EXPECT_EQ(labelText(&video, "headerTitle"), "Record Video");
    EXPECT_EQ(find<QPushButton>(&audio, "startButton")->text(), "Start Recording");
    EXPECT_EQ(find<QPushButton>(&video, "startButton")->text(), "Start Recording");
    EXPECT_EQ(audio.size(), QSize(700, 460));
}

TEST_F(ViewsTest, TheCloseButtonOfASetupScreenGoesHome) {
    controller->show(TessarelMode::videoSetup);
    CaptureSetupView setup(*controller, CaptureKind::video);
    setup.show();
    QTest::mouseClick(find(&setup, "closeButton"), Qt::LeftButton);
    EXPECT_EQ(controller->mode(), TessarelMode::home);
}

TEST_F(ViewsTest, StartingAnAudioRecordingShowsTheProgressScreen) {
    auto view = root();
    controller->show(TessarelMode::audioSetup);
    settle();
    QTest::mouseClick(find(view->content(), "startButton"), Qt::LeftButton);
    waitForPendingWork();
    EXPECT_EQ(controller->mode(), TessarelMode::recordingAudio);
    EXPECT_EQ(view->content()->objectName(), "progressView");
    EXPECT_EQ(labelText(view->content(), "durationLabel"), "00:00:00");
    fakes.timers.fire();
    fakes.timers.fire();
    settle();
    EXPECT_EQ(labelText(view->content(), "durationLabel"), "00:00:00");
    EXPECT_NEAR(find<Meter>(view->content(), "meter")->level(), controller->meterLevel(), 1e-12);
}

TEST_F(ViewsTest, TheVideoStartButtonBeginsTheAreaSelection) {
    CaptureSetupView setup(*controller, CaptureKind::video);
    setup.show();
    QTest::mouseClick(find(&setup, "startButton"), Qt::LeftButton);
    EXPECT_EQ(overlays.overlays.size(), 1u);
}

// ---- Progress and meter -------------------------------------------------------------------

TEST_F(ViewsTest, MeterAtLevelZeroShows22GreyBars) {
    Meter meter(0);
    const QImage image = meter.grab().toImage();
    for (int i = 0; i < MeterBars::count; ++i) {
        EXPECT_TRUE(looksGrey(barColor(image, i))) << "bar " << i;
    }
}

TEST_F(ViewsTest, MeterAtLevelOneShows22ColouredBars) {
    Meter meter(1);
    const QImage image = meter.grab().toImage();
    for (int i = 0; i < MeterBars::count; ++i) {
        EXPECT_TRUE(looksLit(barColor(image, i), i)) << "bar " << i;
    }
}

TEST_F(ViewsTest, MeterAtFivePercentLightsBarsZeroAndOne) {
    Meter meter(0.05);
    const QImage image = meter.grab().toImage();
    EXPECT_TRUE(looksLit(barColor(image, 0), 0));
    EXPECT_TRUE(looksLit(barColor(image, 1), 1));
    for (int i = 2; i < MeterBars::count; ++i) {
        EXPECT_TRUE(looksGrey(barColor(image, i))) << "bar " << i;
    }
}

TEST_F(ViewsTest, MeterBarsClimbInASawTooth) {
    Meter meter(1);
    const QImage image = meter.grab().toImage();
    const auto barTop = [&image](int index) {
        const int x = static_cast<int>(index * (MeterBars::width + MeterBars::spacing) + 5);
        int y = 0;
        while (y < image.height() && !looksLit(image.pixelColor(x, y), index)) {
            ++y;
        }
        return image.height() - y;
    };
    EXPECT_EQ(barTop(0), 16);
    EXPECT_EQ(barTop(8), 32);
    EXPECT_EQ(barTop(9), 16);
    EXPECT_EQ(barTop(18), 16);
}

TEST_F(ViewsTest, TheVideoProgressScreenHasNoAudioLevelRowAndIs220High) {
    ProgressView video(*controller, false);
    ProgressView audio(*controller, true);
    EXPECT_EQ(find(&video, "audioLevelRow"), nullptr);
    EXPECT_EQ(find(&video, "meter"), nullptr);
    EXPECT_EQ(video.size(), QSize(720, 220));
    EXPECT_NE(find(&audio, "audioLevelRow"), nullptr);
    EXPECT_EQ(audio.size(), QSize(720, 318));
    EXPECT_EQ(find<ReadyLabel>(&audio, QString())->text(), QStringLiteral("Capturing audio\u2026"));
    EXPECT_EQ(find<ReadyLabel>(&video, QString())->text(), QStringLiteral("Capturing video\u2026"));
}

TEST_F(ViewsTest, TheTimerTextFollowsElapsed) {
    ProgressView progress(*controller, true);
    controller->elapsed.set(3661.4);
    settle();
    EXPECT_EQ(labelText(&progress, "durationLabel"), "01:01:01");
}

TEST_F(ViewsTest, StopCaptureAndTheHeaderCloseBothStop) {
    auto view = root();
    controller->show(TessarelMode::audioSetup);
    controller->startAudio();
    waitForPendingWork();
    ASSERT_EQ(controller->mode(), TessarelMode::recordingAudio);
    QTest::mouseClick(find(view->content(), "stopButton"), Qt::LeftButton);
    waitForPendingWork();
    EXPECT_EQ(controller->mode(), TessarelMode::home);

    controller->show(TessarelMode::audioSetup);
    controller->startAudio();
    waitForPendingWork();
    ASSERT_EQ(controller->mode(), TessarelMode::recordingAudio);
    QTest::mouseClick(find(view->content(), "closeButton"), Qt::LeftButton);
    waitForPendingWork();
    EXPECT_EQ(controller->mode(), TessarelMode::home);
}

// ---- Chrome and palette -------------------------------------------------------------------

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

TEST_F(ViewsTest, TheGearOfTheHomeScreenShowsTheAboutBox) {
    HomeView home(*controller);
    home.show();
    auto* gear = find<GearMenuButton>(&home, "gearButton");
    QTest::mouseClick(gear, Qt::LeftButton);
    gear->openMenu()->actions().at(0)->trigger();
    ASSERT_EQ(fakes.alerts.shown.size(), 1u);
    EXPECT_EQ(fakes.alerts.shown[0].messageText, "Tessarel");
}

TEST_F(ViewsTest, ChromeButtonsDescribeThemselves) {
    GearMenuButton gear([] {}, [] {});
    CloseButton close([] {});
    EXPECT_EQ(gear.accessibleName(), "Tessarel options");
    EXPECT_EQ(close.accessibleName(), "Close");
    EXPECT_EQ(gear.size(), QSize(44, 44));
    EXPECT_EQ(close.size(), QSize(44, 44));
}

TEST_F(ViewsTest, TheFourPaletteColours) {
    EXPECT_EQ(Appearance::color(TessarelColor::audio), QColor::fromRgbF(1.0F, 0.2F, 0.28F));
    EXPECT_EQ(Appearance::color(TessarelColor::video), QColor::fromRgbF(0.1F, 0.52F, 1.0F));
    EXPECT_EQ(Appearance::color(TessarelColor::snapshot), QColor::fromRgbF(0.5F, 0.2F, 0.92F));
    EXPECT_EQ(Appearance::color(TessarelColor::green), QColor::fromRgbF(0.05F, 0.82F, 0.35F));
}

TEST_F(ViewsTest, ThePanelBackgroundIsTranslucentAndTheTextColoursDiffer) {
    EXPECT_LT(Appearance::panelBackground().alpha(), 255);
    EXPECT_GT(Appearance::panelBackground().alpha(), 0);
    EXPECT_NE(Appearance::primaryText(), Appearance::secondaryText());
}
