#include "ControllerFixture.h"

#include <limits>

using CaptureActions = ControllerTest;

TEST_F(CaptureActions, PermissionMissingSnapshotAndVideoStartNothing) {
    fakes.permission.allowed = false;
    controller->show(TessarelMode::snapshotSetup);
    controller->takeSnapshot();
    EXPECT_EQ(controller->mode(), TessarelMode::snapshotSetup);
    controller->show(TessarelMode::videoSetup);
    controller->beginVideoSelection();
    EXPECT_EQ(controller->mode(), TessarelMode::videoSetup);

    EXPECT_TRUE(controller->screenCapturePermissionRequired());
    EXPECT_FALSE(controller->hasPendingWork());
    EXPECT_FALSE(selector.isSelecting());
    EXPECT_TRUE(overlays.overlays.empty());
    EXPECT_EQ(overlays.cursorPushes, 0);
}

TEST_F(CaptureActions, SuccessfulSnapshotEndsHomeWithTheFileSavedAndRevealed) {
    fakes.clock.time = QDateTime(QDate(2026, 3, 7), QTime(14, 5, 9));
    takeSnapshotAndWait();
    const QString expected =
        QDir(folder.path())
            .filePath(QStringLiteral("Tessarel Snapshot 2026-03-07 at 14.05.09.png"));
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_EQ(pathOf(controller->lastSavedURL()), expected);
    EXPECT_TRUE(QFile::exists(expected));
    EXPECT_EQ(fakes.workspace.revealed, std::vector<QList<QUrl>>{{QUrl::fromLocalFile(expected)}});
}

TEST_F(CaptureActions, SnapshotAsksTheEngineForTheMainScreen) {
    fakes.screens.main =
        ScreenDescription{QVariant::fromValue(uint32_t{1}), Rect{0, 0, 720, 450}, 2.0};
    takeSnapshotAndWait();
    ASSERT_EQ(capture.screenshots.captures().size(), 1u);
    const auto captured = capture.screenshots.captures()[0];
    EXPECT_EQ(captured.filter.display.displayID, 1u);
    EXPECT_EQ(captured.configuration.width, 1440);
    EXPECT_EQ(captured.configuration.height, 900);
}

TEST_F(CaptureActions, FormatChangedWhileSnapshotWaitsGivesJpegDataUnderPngName) {
    screenshots.hold();
    controller->show(TessarelMode::snapshotSetup);
    controller->takeSnapshot();
    ASSERT_TRUE(processEventsUntil([this] { return screenshots.isWaiting(); }));

    controller->snapshotFormat.set(SnapshotExportFormat::jpeg);
    screenshots.release();
    waitForPendingWork();

    const QString saved = pathOf(controller->lastSavedURL());
    EXPECT_TRUE(saved.endsWith(QStringLiteral(".png")));
    QFile file(saved);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll().startsWith(FakeSnapshotEncoders::jpegSignature));
    EXPECT_EQ(fakes.encoders.jpegQualities, std::vector<double>{0.92});
}

TEST_F(CaptureActions, EscapeLeavesVideoSetupAndControllerUnchanged) {
    controller->show(TessarelMode::videoSetup);
    controller->beginVideoSelection();
    ASSERT_TRUE(selector.isSelecting());
    int changes = 0;
    auto subscription = controller->objectWillChange.subscribe([&] { ++changes; });

    overlays.pressEscape();

    EXPECT_FALSE(selector.isSelecting());
    EXPECT_TRUE(overlays.overlays.empty());
    EXPECT_EQ(overlays.cursorPops, overlays.cursorPushes);
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(controller->mode(), TessarelMode::videoSetup);
    EXPECT_FALSE(controller->hasPendingWork());
    EXPECT_TRUE(capture.video.streams().empty());
}

TEST_F(CaptureActions, StartedVideoRecordingSetsModeFileAndResetsElapsed) {
    startAudioRecording();
    fakes.timers.fire();
    controller->stopCapture();
    waitForPendingWork();
    ASSERT_DOUBLE_EQ(controller->elapsed(), 0.1);

    startVideoRecording();
    EXPECT_EQ(controller->mode(), TessarelMode::recordingVideo);
    const QFileInfo file(pathOf(controller->lastSavedURL()));
    EXPECT_TRUE(file.fileName().startsWith(QStringLiteral("Tessarel Video")));
    EXPECT_EQ(file.suffix(), QStringLiteral("mp4"));
    EXPECT_EQ(controller->elapsed(), 0.0);
}

TEST_F(CaptureActions, VideoRecordsTheSelectedAreaOnItsScreen) {
    overlays.attached = {
        ScreenDescription{QVariant::fromValue(uint32_t{1}), Rect{0, 0, 1440, 900}, 2.0},
        ScreenDescription{QVariant::fromValue(uint32_t{2}), Rect{1440, 0, 1920, 1080}, 1.0}};
    capture.content.setDisplays(
        {DisplayInfo{1, Rect{0, 0, 1440, 900}}, DisplayInfo{2, Rect{1440, 0, 1920, 1080}}});
    controller->show(TessarelMode::videoSetup);
    controller->beginVideoSelection();
    ASSERT_EQ(overlays.overlays.size(), 2u);
    overlays.select(1, Rect{10, 10, 100, 50});
    waitForPendingWork();

    ASSERT_EQ(controller->mode(), TessarelMode::recordingVideo);
    const auto stream = capture.video.lastStream();
    EXPECT_EQ(stream->filter().display.displayID, 2u);
    // Global (1450, 10, 100, 50) on a screen whose top is at 1080.
    EXPECT_EQ(stream->configuration().sourceRect, (Rect{10, 1020, 100, 50}));
    EXPECT_EQ(stream->configuration().width, 100);
}

TEST_F(CaptureActions, ScreenWithoutDisplayNumberDropsTheSelectionSilently) {
    overlays.attached = {ScreenDescription{QVariant(-1), Rect{0, 0, 1920, 1080}, 1.0}};
    controller->show(TessarelMode::videoSetup);
    controller->beginVideoSelection();
    overlays.select(0, Rect{0, 0, 300, 300});
    EXPECT_EQ(controller->mode(), TessarelMode::videoSetup);
    EXPECT_FALSE(controller->hasPendingWork());
    EXPECT_FALSE(controller->errorMessage());
    EXPECT_FALSE(controller->lastSavedURL());
}

TEST_F(CaptureActions, SelectionAfterControllerIsGoneDoesNothing) {
    controller->show(TessarelMode::videoSetup);
    controller->beginVideoSelection();
    controller.reset();
    overlays.select(0, Rect{0, 0, 300, 300});
    EXPECT_TRUE(capture.video.streams().empty());
}

TEST_F(CaptureActions, DisplayNumberMustBeAnUnsigned32BitInteger) {
    EXPECT_EQ(TessarelController::displayNumber(QVariant::fromValue(uint32_t{7})), 7u);
    EXPECT_EQ(TessarelController::displayNumber(QVariant(0)), 0u);
    EXPECT_EQ(TessarelController::displayNumber(
                  QVariant::fromValue(qulonglong{std::numeric_limits<uint32_t>::max()})),
              std::numeric_limits<uint32_t>::max());
    EXPECT_FALSE(TessarelController::displayNumber(
        QVariant::fromValue(qulonglong{std::numeric_limits<uint32_t>::max()} + 1)));
    EXPECT_FALSE(TessarelController::displayNumber(QVariant(-1)));
    EXPECT_FALSE(TessarelController::displayNumber(QVariant(1.0)));
    EXPECT_FALSE(TessarelController::displayNumber(QVariant(QStringLiteral("1"))));
    EXPECT_FALSE(TessarelController::displayNumber(QVariant(true)));
    EXPECT_FALSE(TessarelController::displayNumber(QVariant()));
}
