#include "ControllerFixture.h"

using AudioAction = ControllerTest;

TEST_F(AudioAction, PermissionMissingLeavesAudioSetupAndStartsNothing) {
    fakes.permission.allowed = false;
    controller->show(TessarelMode::audioSetup);
    controller->startAudio();
    EXPECT_EQ(controller->mode(), TessarelMode::audioSetup);
    EXPECT_TRUE(controller->screenCapturePermissionRequired());
    EXPECT_FALSE(controller->hasPendingWork());
    EXPECT_TRUE(capture.audio.streams().empty());
    EXPECT_EQ(capture.audioWriters.makeWriterCount(), 0);
}

TEST_F(AudioAction, RefusedScreenCapturePermissionRaisesPermissionFlagOnly) {
    controller->errorMessage.set(QStringLiteral("An earlier failure."));
    capture.audio.setScript({nullptr,
                             std::make_exception_ptr(ScreenCapturePermissionError(
                                 QStringLiteral("The user declined screen capture."))),
                             nullptr});
    controller->show(TessarelMode::audioSetup);
    controller->startAudio();
    waitForPendingWork();
    EXPECT_TRUE(controller->screenCapturePermissionRequired());
    EXPECT_EQ(controller->errorMessage(), QStringLiteral("An earlier failure."));
    EXPECT_EQ(controller->mode(), TessarelMode::home);
}

// A file-system error that speaks of permission is still a file-system error.
TEST_F(AudioAction, PermissionDeniedByTheFileSystemIsShownAsItIs) {
    capture.audio.setScript(
        {nullptr, makePlatformError(QStringLiteral("Permission denied")), nullptr});
    controller->show(TessarelMode::audioSetup);
    controller->startAudio();
    waitForPendingWork();
    EXPECT_EQ(controller->errorMessage(), QStringLiteral("Permission denied"));
    EXPECT_FALSE(controller->screenCapturePermissionRequired());
}

TEST_F(AudioAction, FullDiskBecomesErrorMessageExactly) {
    capture.audio.setScript(
        {nullptr, makePlatformError(QStringLiteral("No space left on device")), nullptr});
    controller->show(TessarelMode::audioSetup);
    controller->startAudio();
    waitForPendingWork();
    EXPECT_EQ(controller->errorMessage(), QStringLiteral("No space left on device"));
    EXPECT_FALSE(controller->screenCapturePermissionRequired());
    EXPECT_EQ(controller->mode(), TessarelMode::home);
}

TEST_F(AudioAction, EngineErrorsKeepTheirOwnPrefix) {
    capture.content.setDisplays({});
    controller->show(TessarelMode::audioSetup);
    controller->startAudio();
    waitForPendingWork();
    EXPECT_EQ(controller->errorMessage(),
              QStringLiteral("Tessarel could not find a display to capture."));
}

TEST_F(AudioAction, ThreeTicksAdvanceElapsedAndMeter) {
    startAudioRecording();
    ASSERT_EQ(fakes.timers.scheduled().size(), 1u);
    EXPECT_EQ(fakes.timers.scheduled()[0]->intervalSeconds, 0.1);

    const double expectedElapsed[] = {0.1, 0.2, 0.3};
    const double expectedMeter[] = {0.5964, 0.6677, 0.6737};
    for (int i = 0; i < 3; ++i) {
        fakes.timers.fire();
        EXPECT_DOUBLE_EQ(controller->elapsed(), expectedElapsed[i]);
        EXPECT_NEAR(controller->meterLevel(), expectedMeter[i], 0.00005);
    }
}

TEST_F(AudioAction, MeterFormulaStaysWithinItsWaves) {
    EXPECT_DOUBLE_EQ(TessarelController::meterLevelFor(0.0), 0.48);
    for (double e = 0.0; e < 100.0; e += 0.1) {
        const double level = TessarelController::meterLevelFor(e);
        EXPECT_GE(level, 0.24);
        EXPECT_LE(level, 0.72);
    }
}

TEST_F(AudioAction, StopKeepsElapsedOfTheLastTickWhileTheEngineFinishes) {
    startAudioRecording();
    fakes.timers.fire();
    fakes.timers.fire();
    controller->stopCapture();
    fakes.timers.fire();
    EXPECT_DOUBLE_EQ(controller->elapsed(), 0.2);
    EXPECT_EQ(controller->mode(), TessarelMode::recordingAudio);
    waitForPendingWork();
    EXPECT_DOUBLE_EQ(controller->elapsed(), 0.2);
    EXPECT_EQ(controller->mode(), TessarelMode::home);
}

TEST_F(AudioAction, SuccessfulStopRevealsTheRecordedFile) {
    startAudioRecording();
    const QUrl recorded = *controller->lastSavedURL();
    SampleBuffer sound;
    sound.samples.assign(2 * 480, 0.25f);
    capture.audio.lastStream()->pushAndWait(sound);
    controller->stopCapture();
    waitForPendingWork();
    EXPECT_EQ(fakes.workspace.revealed, std::vector<QList<QUrl>>{{recorded}});
    EXPECT_TRUE(QFile::exists(recorded.toLocalFile()));
}

TEST_F(AudioAction, FailedStopRevealsNothing) {
    capture.audio.setScript(
        {nullptr, nullptr, makePlatformError(QStringLiteral("The sound server went away."))});
    startAudioRecording();
    controller->stopCapture();
    waitForPendingWork();
    EXPECT_TRUE(fakes.workspace.revealed.empty());
    EXPECT_EQ(controller->errorMessage(), QStringLiteral("The sound server went away."));
}

TEST_F(AudioAction, StopOutsideARecordingModeRevealsNothing) {
    startAudioRecording();
    controller->show(TessarelMode::home);
    controller->stopCapture();
    waitForPendingWork();
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_TRUE(fakes.workspace.revealed.empty());
}

TEST_F(AudioAction, NewStartAfterFinishedRecordingResetsElapsed) {
    startAudioRecording();
    fakes.timers.fire();
    fakes.timers.fire();
    controller->stopCapture();
    waitForPendingWork();
    ASSERT_DOUBLE_EQ(controller->elapsed(), 0.2);

    fakes.clock.time = fakes.clock.time.addSecs(5);
    std::vector<double> elapsedSeen;
    auto subscription =
        controller->elapsed.subscribe([&](const double& value) { elapsedSeen.push_back(value); });
    startAudioRecording();
    EXPECT_EQ(controller->elapsed(), 0.0);
    EXPECT_EQ(elapsedSeen, (std::vector<double>{0.2, 0.0}));
    fakes.timers.fire();
    EXPECT_DOUBLE_EQ(controller->elapsed(), 0.1);
}

TEST_F(AudioAction, StartUsesTheChosenFormatAndExtension) {
    controller->audioFormat.set(AudioExportFormat::wav);
    startAudioRecording();
    EXPECT_TRUE(pathOf(controller->lastSavedURL()).endsWith(QStringLiteral(".wav")));
    EXPECT_TRUE(QFileInfo(pathOf(controller->lastSavedURL()))
                    .fileName()
                    .startsWith(QStringLiteral("Tessarel Audio ")));
    EXPECT_EQ(capture.audioWriters.lastWriter().settings.fileType, AudioFileType::wave);
}

TEST_F(AudioAction, TickAfterControllerIsGoneDoesNothing) {
    startAudioRecording();
    controller.reset();
    EXPECT_EQ(fakes.timers.runningCount(), 1u); // teardown does not invalidate the timer
    fakes.timers.fire();                        // and its tick finds no controller
}

TEST_F(AudioAction, ContinuationDoesNotRunOnceControllerIsGone) {
    controller->startAudio();
    ASSERT_TRUE(controller->hasPendingWork());
    controller.reset();
    QThreadPool::globalInstance()->waitForDone();
    QCoreApplication::processEvents();
    // A continuation that ran would have started the timer.
    EXPECT_TRUE(fakes.timers.scheduled().empty());
    EXPECT_EQ(capture.audio.streams().size(), 1u);
}

// The writer fails at the first sound: the recording ends there, without a Stop, and says
// why; the stream is stopped and nothing is revealed.
TEST_F(AudioAction, WriterThatCannotStartEndsTheRecordingWithTheReason) {
    capture.audioWriters.setScript({.startWritingError = QStringLiteral("No room.")});
    startAudioRecording();
    SampleBuffer sound;
    sound.samples.assign(2 * 480, 0.25f);
    capture.audio.lastStream()->pushAndWait(sound);

    ASSERT_TRUE(processEventsUntil([this] { return controller->mode() == TessarelMode::home; }));
    waitForPendingWork();
    EXPECT_EQ(controller->errorMessage(),
              QStringLiteral("The recording could not start: No room."));
    EXPECT_FALSE(controller->screenCapturePermissionRequired());
    EXPECT_EQ(capture.audio.lastStream()->stopCaptureCount(), 1);
    EXPECT_TRUE(fakes.workspace.revealed.empty());
}

// A stream that fails on its own ends the recording the same way, keeping what was written.
TEST_F(AudioAction, StreamFailingOnItsOwnEndsTheRecordingAndShowsWhy) {
    startAudioRecording();
    SampleBuffer sound;
    sound.samples.assign(2 * 480, 0.25f);
    capture.audio.lastStream()->pushAndWait(sound);
    capture.audio.lastStream()->stopOnItsOwn(
        makePlatformError(QStringLiteral("The sound server went away.")));

    ASSERT_TRUE(processEventsUntil([this] { return controller->mode() == TessarelMode::home; }));
    waitForPendingWork();
    EXPECT_EQ(controller->errorMessage(), QStringLiteral("The sound server went away."));
    EXPECT_EQ(capture.audioWriters.lastWriter().status, AudioWriterStatus::completed);
    EXPECT_TRUE(fakes.workspace.revealed.empty());
}
