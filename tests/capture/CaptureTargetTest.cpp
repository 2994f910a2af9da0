// Display choice, own-process exclusion, the audio stream's settings and stop.

#include "EngineTestSupport.h"

#include <QCoreApplication>

namespace {

const RunningApplication kOwnApplication{QCoreApplication::applicationPid(), "Tessarel"};
const RunningApplication kOtherApplication{QCoreApplication::applicationPid() + 1, "Player"};

} // namespace

using CaptureTarget = EngineTest;

TEST_F(CaptureTarget, MainDisplayListedSecondIsChosen) {
    fakes.content.setDisplays({{7, {0, 0, 1920, 1080}}, {3, {1920, 0, 1440, 900}}});
    fakes.content.setMainDisplayID(3);

    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);

    ASSERT_EQ(fakes.audio.streams().size(), 1u);
    EXPECT_EQ(fakes.audio.lastStream()->filter().display.displayID, 3u);
}

TEST_F(CaptureTarget, FirstDisplayIsChosenWhenTheMainDisplayIsNotListed) {
    fakes.content.setDisplays({{7, {0, 0, 1920, 1080}}, {8, {1920, 0, 1440, 900}}});
    fakes.content.setMainDisplayID(3);

    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);

    EXPECT_EQ(fakes.audio.lastStream()->filter().display.displayID, 7u);
}

TEST_F(CaptureTarget, NoDisplaysThrowsNoDisplayAndCreatesNoStream) {
    fakes.content.setDisplays({});

    EXPECT_EQ(
        descriptionOfError([&] { engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav); }),
        "Tessarel could not find a display to capture.");
    EXPECT_THROW(engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav),
                 CaptureEngineError);
    EXPECT_TRUE(fakes.audio.streams().empty());
    EXPECT_EQ(fakes.audioWriters.makeWriterCount(), 0);
}

TEST_F(CaptureTarget, OwnProcessNotAmongApplicationsExcludesNoApplication) {
    fakes.content.setApplications({kOtherApplication});

    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);

    EXPECT_TRUE(fakes.audio.lastStream()->filter().excludedApplications.empty());
}

TEST_F(CaptureTarget, OwnProcessIsTheOnlyExcludedApplication) {
    RunningApplication ownAgain = kOwnApplication;
    ownAgain.name = "Tessarel Helper";
    fakes.content.setApplications({kOtherApplication, kOwnApplication, ownAgain});

    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);

    const auto excluded = fakes.audio.lastStream()->filter().excludedApplications;
    ASSERT_EQ(excluded.size(), 1u);
    EXPECT_EQ(excluded[0].processID, kOwnApplication.processID);
    EXPECT_EQ(excluded[0].name, "Tessarel");
}

TEST_F(CaptureTarget, ContentIsListedWithDesktopWindowsAndOnScreenWindowsOnly) {
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);

    const auto listings = fakes.content.listings();
    ASSERT_EQ(listings.size(), 1u);
    EXPECT_FALSE(listings[0].excludingDesktopWindows);
    EXPECT_TRUE(listings[0].onScreenWindowsOnly);
}

TEST_F(CaptureTarget, ListingErrorIsThrownUnchanged) {
    fakes.content.setListingError(makePlatformError("The user declined capture."));

    EXPECT_THROW(engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav), PlatformError);
    EXPECT_EQ(
        descriptionOfError([&] { engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav); }),
        "The user declined capture.");
    EXPECT_TRUE(fakes.audio.streams().empty());
}

TEST(AudioStreamSettings, TwoByTwoPixelsOnceASecondWithStereoSoundAt48000) {
    const AudioStreamConfiguration configuration = CaptureEngine::audioStreamConfiguration();
    EXPECT_EQ(configuration.width, 2);
    EXPECT_EQ(configuration.height, 2);
    EXPECT_EQ(configuration.minimumFrameInterval, (FrameInterval{1, 1}));
    EXPECT_TRUE(configuration.capturesAudio);
    EXPECT_TRUE(configuration.excludesCurrentProcessAudio);
    EXPECT_EQ(configuration.sampleRate, 48000);
    EXPECT_EQ(configuration.channelCount, 2);
}

TEST_F(CaptureTarget, AudioStreamGetsTheAudioSettingsAndDeliversToTheEngine) {
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);

    const auto stream = fakes.audio.lastStream();
    EXPECT_EQ(stream->configuration(), CaptureEngine::audioStreamConfiguration());
    EXPECT_EQ(stream->delegate(), &engine);
    EXPECT_EQ(stream->audioOutput(), &engine);
    EXPECT_EQ(stream->startCaptureCount(), 1);
}

TEST_F(CaptureTarget, StopWithNothingRunningReturnsNormally) {
    EXPECT_NO_THROW(engine.stop());
}

TEST_F(CaptureTarget, StopTwiceInARowSecondFindsNothingAndReturnsNormally) {
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    const auto stream = fakes.audio.lastStream();
    stream->pushAndWait(makeSampleBuffer(1000));

    EXPECT_NO_THROW(engine.stop());
    EXPECT_NO_THROW(engine.stop());

    EXPECT_EQ(stream->stopCaptureCount(), 1);
    const auto writers = fakes.audioWriters.writers();
    ASSERT_EQ(writers.size(), 1u);
    EXPECT_TRUE(writers[0].finishCalled);
}

TEST_F(CaptureTarget, StopCaptureErrorIsThrownAtOnceWithoutFinishingTheWriter) {
    fakes.audio.setScript({.stopCaptureError = makePlatformError("The stream did not stop.")});
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    fakes.audio.lastStream()->pushAndWait(makeSampleBuffer(1000));

    EXPECT_EQ(descriptionOfError([&] { engine.stop(); }), "The stream did not stop.");
    FakeWriterRecord writer = fakes.audioWriters.lastWriter();
    EXPECT_FALSE(writer.markedAsFinished);
    EXPECT_FALSE(writer.finishCalled);
    EXPECT_FALSE(writer.cancelCalled);

    // The stream was taken out all the same: the next stop only finishes the writer.
    EXPECT_NO_THROW(engine.stop());
    EXPECT_EQ(fakes.audio.lastStream()->stopCaptureCount(), 1);
    writer = fakes.audioWriters.lastWriter();
    EXPECT_TRUE(writer.finishCalled);
    EXPECT_EQ(writer.status, AudioWriterStatus::completed);
}

TEST_F(CaptureTarget, StreamStoppingOnItsOwnChangesNothing) {
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    const auto stream = fakes.audio.lastStream();
    stream->pushAndWait(makeSampleBuffer(1000));

    stream->stopOnItsOwn(makePlatformError("The sound server went away."));

    // Buffers are still written and stop still stops the stream and finishes the file.
    stream->pushAndWait(makeSampleBuffer(2000));
    EXPECT_EQ(fakes.audioWriters.lastWriter().appended.size(), 2u);
    EXPECT_EQ(stream->stopCaptureCount(), 0);
    EXPECT_NO_THROW(engine.stop());
    EXPECT_EQ(stream->stopCaptureCount(), 1);
    EXPECT_EQ(fakes.audioWriters.lastWriter().status, AudioWriterStatus::completed);
}
