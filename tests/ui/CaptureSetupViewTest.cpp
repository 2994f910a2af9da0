#include "ViewTestSupport.h"

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
