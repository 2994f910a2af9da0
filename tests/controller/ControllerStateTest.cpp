#include "ControllerFixture.h"

#include <vector>

using State = ControllerTest;

TEST_F(State, NewControllerHasInitialState) {
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_EQ(controller->audioFormat(), AudioExportFormat::m4a);
    EXPECT_EQ(controller->snapshotFormat(), SnapshotExportFormat::png);
    EXPECT_EQ(controller->saveFolder(), QUrl::fromLocalFile(folder.path()));
    EXPECT_EQ(controller->elapsed(), 0.0);
    EXPECT_EQ(controller->meterLevel(), 0.62);
    EXPECT_FALSE(controller->errorMessage().has_value());
    EXPECT_FALSE(controller->screenCapturePermissionRequired());
    EXPECT_FALSE(controller->lastSavedURL().has_value());
    EXPECT_FALSE(controller->hasPendingWork());
}

TEST_F(State, ConstructionTouchesNoPlatformServiceBeyondTheFolders) {
    EXPECT_EQ(fakes.permission.preflightCount, 0);
    EXPECT_TRUE(fakes.timers.scheduled().empty());
    EXPECT_TRUE(fakes.workspace.revealed.empty());
    EXPECT_TRUE(overlays.overlays.empty());
}

TEST_F(State, SaveFolderIsTheFirstDownloadsDirectory) {
    fakes.locations.downloads = {QUrl::fromLocalFile(QStringLiteral("/Users/a/Downloads")),
                                 QUrl::fromLocalFile(QStringLiteral("/Users/a/Other"))};
    TessarelController fresh(engine, selector, fakes.platform());
    EXPECT_EQ(fresh.saveFolder(), QUrl::fromLocalFile(QStringLiteral("/Users/a/Downloads")));
}

TEST_F(State, WithoutDownloadsDirectorySaveFolderIsHome) {
    fakes.locations.downloads.clear();
    fakes.locations.home = QUrl::fromLocalFile(QStringLiteral("/Users/a"));
    TessarelController fresh(engine, selector, fakes.platform());
    EXPECT_EQ(fresh.saveFolder(), QUrl::fromLocalFile(QStringLiteral("/Users/a")));
}

TEST_F(State, ShowHomeWhileRecordingAudioChangesOnlyMode) {
    startAudioRecording();
    fakes.timers.fire();
    const double elapsed = controller->elapsed();
    const auto lastSaved = controller->lastSavedURL();

    controller->show(TessarelMode::home);

    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_EQ(controller->lastSavedURL(), lastSaved);
    EXPECT_EQ(controller->elapsed(), elapsed);
    EXPECT_EQ(fakes.timers.runningCount(), 1u);
    EXPECT_EQ(capture.audio.lastStream()->stopCaptureCount(), 0);
    fakes.timers.fire();
    EXPECT_DOUBLE_EQ(controller->elapsed(), 0.2);
}

TEST_F(State, SettingModeToCurrentValueStillAnnounces) {
    int objectChanges = 0;
    std::vector<TessarelMode> announced;
    auto objectSubscription = controller->objectWillChange.subscribe([&] { ++objectChanges; });
    auto modeSubscription =
        controller->mode.subscribe([&](const TessarelMode& mode) { announced.push_back(mode); });
    ASSERT_EQ(announced, std::vector<TessarelMode>{TessarelMode::home}); // current value at once

    controller->show(TessarelMode::home);

    EXPECT_EQ(objectChanges, 1);
    EXPECT_EQ(announced, (std::vector<TessarelMode>{TessarelMode::home, TessarelMode::home}));
}

TEST_F(State, ChangesAreAnnouncedBeforeTheValueIsStored) {
    std::vector<TessarelMode> seenByObjectObservers;
    auto subscription = controller->objectWillChange.subscribe(
        [&] { seenByObjectObservers.push_back(controller->mode()); });

    controller->show(TessarelMode::videoSetup);

    EXPECT_EQ(seenByObjectObservers, std::vector<TessarelMode>{TessarelMode::home});
    EXPECT_EQ(controller->mode(), TessarelMode::videoSetup);
}

// ---- Mode transitions, one row each ------------------------------------------------------------

using Transition = ControllerTest;

TEST_F(Transition, HomeListChoiceEntersEachSetupMode) {
    for (TessarelMode setup :
         {TessarelMode::audioSetup, TessarelMode::videoSetup, TessarelMode::snapshotSetup}) {
        controller->show(TessarelMode::home);
        controller->show(setup);
        EXPECT_EQ(controller->mode(), setup);
    }
    EXPECT_FALSE(controller->screenCapturePermissionRequired());
    EXPECT_FALSE(controller->hasPendingWork());
}

TEST_F(Transition, CloseControlReturnsSetupModeToHome) {
    controller->show(TessarelMode::snapshotSetup);
    controller->show(TessarelMode::home);
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_FALSE(controller->hasPendingWork());
}

TEST_F(Transition, AudioStartWithoutPermissionStaysInAudioSetup) {
    fakes.permission.allowed = false;
    controller->show(TessarelMode::audioSetup);
    controller->startAudio();
    EXPECT_EQ(controller->mode(), TessarelMode::audioSetup);
    EXPECT_TRUE(controller->screenCapturePermissionRequired());
}

TEST_F(Transition, AudioStartedEntersRecordingAudio) {
    startAudioRecording();
    EXPECT_EQ(controller->mode(), TessarelMode::recordingAudio);
    ASSERT_TRUE(controller->lastSavedURL());
    EXPECT_EQ(capture.audioWriters.lastWriter().url, *controller->lastSavedURL());
    EXPECT_EQ(fakes.timers.runningCount(), 1u);
}

TEST_F(Transition, AudioEngineFailureReturnsHome) {
    capture.audio.setScript(
        {nullptr, makePlatformError(QStringLiteral("The stream broke.")), nullptr});
    controller->show(TessarelMode::audioSetup);
    controller->startAudio();
    EXPECT_EQ(controller->mode(), TessarelMode::audioSetup); // until the engine has answered
    waitForPendingWork();
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_EQ(controller->errorMessage(), QStringLiteral("The stream broke."));
    EXPECT_FALSE(controller->lastSavedURL());
}

TEST_F(Transition, VideoStartWithoutPermissionStaysInVideoSetup) {
    fakes.permission.allowed = false;
    controller->show(TessarelMode::videoSetup);
    controller->beginVideoSelection();
    EXPECT_EQ(controller->mode(), TessarelMode::videoSetup);
    EXPECT_TRUE(controller->screenCapturePermissionRequired());
}

TEST_F(Transition, VideoSelectionWithoutAreaOrDisplayNumberStaysInVideoSetup) {
    controller->show(TessarelMode::videoSetup);
    controller->beginVideoSelection();
    overlays.pressEscape();
    EXPECT_EQ(controller->mode(), TessarelMode::videoSetup);

    overlays.attached = {ScreenDescription{QVariant(), Rect{0, 0, 1920, 1080}, 1.0}};
    controller->beginVideoSelection();
    overlays.select(0, Rect{0, 0, 200, 200});
    EXPECT_EQ(controller->mode(), TessarelMode::videoSetup);
    EXPECT_FALSE(controller->hasPendingWork());
    EXPECT_TRUE(capture.video.streams().empty());
}

TEST_F(Transition, VideoStartedEntersRecordingVideo) {
    startVideoRecording();
    ASSERT_TRUE(controller->lastSavedURL());
    EXPECT_EQ(capture.video.lastRecordingOutput()->configuration().outputURL,
              *controller->lastSavedURL());
    EXPECT_EQ(fakes.timers.runningCount(), 1u);
}

TEST_F(Transition, VideoEngineFailureReturnsHome) {
    capture.content.setListingError(makePlatformError(QStringLiteral("No windows to list.")));
    controller->show(TessarelMode::videoSetup);
    controller->beginVideoSelection();
    overlays.select(0, Rect{100, 100, 400, 300});
    waitForPendingWork();
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_EQ(controller->errorMessage(), QStringLiteral("No windows to list."));
}

TEST_F(Transition, SnapshotWithoutPermissionStaysInSnapshotSetup) {
    fakes.permission.allowed = false;
    controller->show(TessarelMode::snapshotSetup);
    controller->takeSnapshot();
    EXPECT_EQ(controller->mode(), TessarelMode::snapshotSetup);
    EXPECT_TRUE(controller->screenCapturePermissionRequired());
}

TEST_F(Transition, SnapshotWithoutMainScreenOrDisplayNumberStaysInSnapshotSetup) {
    controller->show(TessarelMode::snapshotSetup);
    fakes.screens.main.reset();
    controller->takeSnapshot();
    EXPECT_EQ(controller->mode(), TessarelMode::snapshotSetup);

    fakes.screens.main = ScreenDescription{QVariant(QStringLiteral("1")), Rect{0, 0, 800, 600}, 1};
    controller->takeSnapshot();
    EXPECT_EQ(controller->mode(), TessarelMode::snapshotSetup);
    EXPECT_FALSE(controller->hasPendingWork());
    EXPECT_FALSE(controller->errorMessage());
    EXPECT_TRUE(capture.screenshots.captures().empty());
}

TEST_F(Transition, SnapshotSavedReturnsHomeAndRevealsTheFile) {
    takeSnapshotAndWait();
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    ASSERT_TRUE(controller->lastSavedURL());
    EXPECT_TRUE(QFile::exists(pathOf(controller->lastSavedURL())));
    ASSERT_EQ(fakes.workspace.revealed.size(), 1u);
    EXPECT_EQ(fakes.workspace.revealed[0], QList<QUrl>{*controller->lastSavedURL()});
}

TEST_F(Transition, SnapshotCaptureOrSavingFailureReturnsHome) {
    capture.screenshots.setError(makePlatformError(QStringLiteral("The screen went away.")));
    takeSnapshotAndWait();
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_EQ(controller->errorMessage(), QStringLiteral("The screen went away."));

    capture.screenshots.setError(nullptr);
    fakes.encoders.pngFails = true;
    takeSnapshotAndWait();
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_EQ(controller->errorMessage(),
              QStringLiteral("The capture could not be saved: Image encoder unavailable"));
    EXPECT_FALSE(controller->lastSavedURL());
    EXPECT_TRUE(fakes.workspace.revealed.empty());
}

TEST_F(Transition, StopOfEitherRecordingReturnsHomeAndReveals) {
    startAudioRecording();
    const QUrl audio = *controller->lastSavedURL();
    controller->stopCapture();
    EXPECT_EQ(fakes.timers.runningCount(), 0u);
    waitForPendingWork();
    EXPECT_EQ(controller->mode(), TessarelMode::home);

    startVideoRecording();
    const QUrl video = *controller->lastSavedURL();
    controller->stopCapture();
    EXPECT_EQ(fakes.timers.runningCount(), 0u);
    waitForPendingWork();
    EXPECT_EQ(controller->mode(), TessarelMode::home);

    EXPECT_EQ(fakes.workspace.revealed, (std::vector<QList<QUrl>>{{audio}, {video}}));
}

TEST_F(Transition, StopFailureReturnsHomeAndPresents) {
    capture.audio.setScript({nullptr, nullptr, makePlatformError(QStringLiteral("Stuck."))});
    startAudioRecording();
    controller->stopCapture();
    EXPECT_EQ(fakes.timers.runningCount(), 0u);
    waitForPendingWork();
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_EQ(controller->errorMessage(), QStringLiteral("Stuck."));
}

TEST_F(Transition, FailedStopOfVideoRecordingReturnsHome) {
    FakeVideoScript failing;
    failing.onStop = FakeRecorderOnStop::fail;
    failing.onStopError = makePlatformError(QStringLiteral("The disk went away."));
    capture.video.setScript(failing);
    startVideoRecording();
    controller->stopCapture();
    waitForPendingWork();
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_EQ(controller->errorMessage(), QStringLiteral("The disk went away."));
    EXPECT_TRUE(fakes.workspace.revealed.empty());
}
