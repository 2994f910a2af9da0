#include "ControllerFixture.h"

using SaveFolder = ControllerTest;

TEST_F(SaveFolder, NameFollowsTheDatePatternInLocalTime) {
    TessarelController named(engine, selector, fakes.platform());
    named.audioFormat.set(AudioExportFormat::mp3);
    fakes.clock.time = QDateTime(QDate(2026, 3, 9), QTime(7, 3, 4));

    named.startAudio();
    ASSERT_TRUE(processEventsUntil([&] { return !named.hasPendingWork(); }));

    ASSERT_TRUE(named.lastSavedURL());
    EXPECT_EQ(named.lastSavedURL()->toLocalFile(),
              folder.path() + QStringLiteral("/Tessarel Audio 2026-03-09 at 07.03.04.mp3"));
}

TEST_F(SaveFolder, HoursHaveTwoDigitsOnTheTwentyFourHourClock) {
    const QString prefix = QStringLiteral("Tessarel Audio");
    const QString extension = QStringLiteral("mp3");
    EXPECT_EQ(TessarelController::fileName(prefix, QDateTime(QDate(2026, 3, 9), QTime(19, 3, 4)),
                                           extension),
              QStringLiteral("Tessarel Audio 2026-03-09 at 19.03.04.mp3"));
    EXPECT_EQ(TessarelController::fileName(prefix, QDateTime(QDate(2026, 3, 9), QTime(7, 3, 4)),
                                           extension),
              QStringLiteral("Tessarel Audio 2026-03-09 at 07.03.04.mp3"));
}

TEST_F(SaveFolder, NameIgnoresTheUserLocale) {
    const QLocale previous;
    QLocale::setDefault(QLocale(QLocale::Arabic, QLocale::Egypt));
    const QString name = TessarelController::fileName(QStringLiteral("Tessarel Snapshot"),
                                                      QDateTime(QDate(2026, 3, 7), QTime(14, 5, 9)),
                                                      QStringLiteral("png"));
    QLocale::setDefault(previous);
    EXPECT_EQ(name, QStringLiteral("Tessarel Snapshot 2026-03-07 at 14.05.09.png"));
}

TEST_F(SaveFolder, VideoNameAlwaysEndsInMp4) {
    controller->audioFormat.set(AudioExportFormat::wav);
    controller->snapshotFormat.set(SnapshotExportFormat::pdf);
    fakes.clock.time = QDateTime(QDate(2026, 3, 7), QTime(14, 5, 9));
    startVideoRecording();
    EXPECT_EQ(
        pathOf(controller->lastSavedURL()),
        QDir(folder.path()).filePath(QStringLiteral("Tessarel Video 2026-03-07 at 14.05.09.mp4")));
}

TEST_F(SaveFolder, CancellingTheFolderChooserKeepsSaveFolder) {
    const QUrl before = controller->saveFolder();
    fakes.folderChooser.answer.reset();
    controller->chooseFolder();
    EXPECT_EQ(fakes.folderChooser.runs.size(), 1u);
    EXPECT_EQ(controller->saveFolder(), before);
}

TEST_F(SaveFolder, ChooserOpensAtSaveFolderForOneDirectoryThatMayBeCreated) {
    const QUrl before = controller->saveFolder();
    fakes.folderChooser.answer = QUrl::fromLocalFile(QStringLiteral("/Users/a/Chosen"));
    controller->chooseFolder();

    ASSERT_EQ(fakes.folderChooser.runs.size(), 1u);
    FolderChooserOptions expected;
    expected.title = QStringLiteral("Choose where Tessarel saves captures");
    expected.canChooseDirectories = true;
    expected.canChooseFiles = false;
    expected.canCreateDirectories = true;
    expected.allowsMultipleSelection = false;
    expected.directoryURL = before;
    EXPECT_EQ(fakes.folderChooser.runs[0], expected);
    EXPECT_EQ(controller->saveFolder(), QUrl::fromLocalFile(QStringLiteral("/Users/a/Chosen")));
}

TEST_F(SaveFolder, ChosenFolderTakesEffectForTheNextCaptureOnly) {
    startAudioRecording();
    const QUrl recording = *controller->lastSavedURL();
    QTemporaryDir chosen;
    fakes.folderChooser.answer = QUrl::fromLocalFile(chosen.path());
    controller->chooseFolder();
    EXPECT_EQ(controller->lastSavedURL(), recording);

    controller->stopCapture();
    waitForPendingWork();
    takeSnapshotAndWait();
    EXPECT_EQ(QFileInfo(pathOf(controller->lastSavedURL())).path(), chosen.path());
}

TEST_F(SaveFolder, RevealLastCaptureWithoutCaptureDoesNothing) {
    controller->revealLastCapture();
    EXPECT_TRUE(fakes.workspace.revealed.empty());
}

TEST_F(SaveFolder, RevealLastCaptureShowsThatOneFile) {
    const QUrl gone = QUrl::fromLocalFile(folder.filePath(QStringLiteral("gone.png")));
    controller->lastSavedURL.set(gone);
    controller->revealLastCapture();
    EXPECT_EQ(fakes.workspace.revealed, std::vector<QList<QUrl>>{{gone}});
}
