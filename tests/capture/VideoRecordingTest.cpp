// Video recording of a screen area: geometry, stream and recorder settings, and the hand-over
// of the recorder's outcome to stop.

#include "EngineTestSupport.h"

#include <QCoreApplication>

#include <thread>

namespace {

const Rect kPrimaryFrame{0, 0, 1440, 900};

} // namespace

class VideoRecording : public EngineTest {
protected:
    void SetUp() override { fakes.video.setScript({.onStop = FakeRecorderOnStop::nothing}); }

    void startOnPrimary(const Rect& region = {100, 200, 301, 151}, double scale = 2.0) {
        engine.startVideo(scratchURL("Tessarel Video.mov"), region,
                          FakeCapturePlatform::kDefaultDisplayID, kPrimaryFrame, scale);
    }
};

TEST(VideoGeometry, AreaOnPrimaryDisplayAtScale2) {
    const Rect source = CaptureEngine::videoSourceRect({100, 200, 301, 151}, {0, 0, 1440, 900});
    EXPECT_EQ(source, (Rect{100, 549, 301, 151}));
    EXPECT_EQ(CaptureEngine::videoOutputSize({301, 151}, 2.0), (PixelSize{602, 302}));
}

TEST(VideoGeometry, AreaOnSecondDisplayBelowTheOriginAtScale1) {
    const Rect source =
        CaptureEngine::videoSourceRect({1500, 0, 400, 300}, {1440, -200, 1920, 1080});
    EXPECT_EQ(source, (Rect{60, 580, 400, 300}));
    EXPECT_EQ(CaptureEngine::videoOutputSize({400, 300}, 1.0), (PixelSize{400, 300}));
}

TEST(VideoGeometry, TinyAreaGetsTheMinimumOfTwoPixels) {
    EXPECT_EQ(CaptureEngine::videoOutputSize({0.6, 0.6}, 2.0), (PixelSize{2, 2}));
}

TEST(VideoGeometry, OddWidthIsTruncatedThenRoundedDownToEven) {
    EXPECT_EQ(CaptureEngine::videoOutputSize({301.9, 200}, 1.0).width, 300);
}

TEST(VideoGeometry, OutputSizeRulesForEachDimensionSeparately) {
    EXPECT_EQ(CaptureEngine::videoOutputSize({0, 3.9}, 1.0), (PixelSize{2, 2}));
    EXPECT_EQ(CaptureEngine::videoOutputSize({1.5, 5.2}, 1.0), (PixelSize{2, 4}));
    EXPECT_EQ(CaptureEngine::videoOutputSize({640.4, 479.9}, 1.5), (PixelSize{960, 718}));
}

TEST(VideoStreamSettings, ThirtyFramesASecondQueueDepthSixPointerShown) {
    const VideoStreamConfiguration configuration =
        CaptureEngine::videoStreamConfiguration({60, 580, 400, 300}, {400, 300}, 1.0);
    EXPECT_EQ(configuration.sourceRect, (Rect{60, 580, 400, 300}));
    EXPECT_EQ(configuration.width, 400);
    EXPECT_EQ(configuration.height, 300);
    EXPECT_EQ(configuration.pixelsPerPoint, 1.0);
    EXPECT_EQ(configuration.minimumFrameInterval, (FrameInterval{1, 30}));
    EXPECT_EQ(configuration.queueDepth, 6);
    EXPECT_TRUE(configuration.showsCursor);
}

TEST_F(VideoRecording, StreamIsCroppedToTheAreaOnTheChosenDisplay) {
    fakes.content.setDisplays({{1, {0, 0, 1440, 900}}, {2, {1440, -200, 1920, 1080}}});

    engine.startVideo(scratchURL("v.mov"), {1500, 0, 400, 300}, 2, {1440, -200, 1920, 1080}, 1.0);

    const auto stream = fakes.video.lastStream();
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->filter().display.displayID, 2u);
    EXPECT_EQ(stream->configuration(),
              CaptureEngine::videoStreamConfiguration({60, 580, 400, 300}, {400, 300}, 1.0));
    EXPECT_EQ(stream->delegate(), &engine);
    EXPECT_EQ(stream->startCaptureCount(), 1);
    const auto excluded = stream->filter().excludedApplications;
    ASSERT_EQ(excluded.size(), 1u);
    EXPECT_EQ(excluded[0].processID, QCoreApplication::applicationPid());
}

TEST_F(VideoRecording, HighDensityAreaGivesTheWorkedPixelSize) {
    startOnPrimary({100, 200, 301, 151}, 2.0);

    const VideoStreamConfiguration configuration = fakes.video.lastStream()->configuration();
    EXPECT_EQ(configuration.sourceRect, (Rect{100, 549, 301, 151}));
    EXPECT_EQ(configuration.width, 602);
    EXPECT_EQ(configuration.height, 302);
    EXPECT_EQ(configuration.pixelsPerPoint, 2.0);
}

TEST_F(VideoRecording, RecorderWritesMPEG4WithH264WhenOffered) {
    startOnPrimary();

    const auto recorder = fakes.video.lastRecordingOutput();
    ASSERT_NE(recorder, nullptr);
    EXPECT_EQ(recorder->configuration().outputURL, scratchURL("Tessarel Video.mov"));
    EXPECT_EQ(recorder->configuration().outputFileType, VideoFileType::mpeg4);
    EXPECT_EQ(recorder->configuration().videoCodecType, VideoCodec::h264);
    EXPECT_EQ(recorder->delegate(), &engine);
    const auto attached = fakes.video.lastStream()->recordingOutputs();
    ASSERT_EQ(attached.size(), 1u);
    EXPECT_EQ(attached[0], recorder);
}

TEST_F(VideoRecording, WithoutH264TheDefaultCodecIsKeptSilently) {
    fakes.video.setAvailableVideoCodecTypes({VideoCodec::hevc, VideoCodec::mpeg4Part2});

    EXPECT_NO_THROW(startOnPrimary());

    EXPECT_EQ(fakes.video.lastRecordingOutput()->configuration().videoCodecType, std::nullopt);
}

TEST_F(VideoRecording, UnlistedScreenIDFailsWithNoDisplayAndCreatesNoStream) {
    EXPECT_EQ(descriptionOfError([&] {
                  engine.startVideo(scratchURL("v.mov"), {0, 0, 100, 100}, 42, kPrimaryFrame, 1.0);
              }),
              "Tessarel could not find a display to capture.");
    EXPECT_THROW(engine.startVideo(scratchURL("v.mov"), {0, 0, 100, 100}, 42, kPrimaryFrame, 1.0),
                 CaptureEngineError);
    EXPECT_TRUE(fakes.video.streams().empty());
    EXPECT_TRUE(fakes.video.recordingOutputs().empty());
}

TEST_F(VideoRecording, RecorderCompletesBeforeStopWaits) {
    startOnPrimary();
    fakes.video.lastRecordingOutput()->reportStarted();
    fakes.video.lastRecordingOutput()->reportFinished();

    auto stopping = std::async(std::launch::async, [&] { engine.stop(); });

    ASSERT_TRUE(finishesInTime(stopping));
    EXPECT_NO_THROW(stopping.get());
    EXPECT_EQ(fakes.video.lastStream()->stopCaptureCount(), 1);
}

TEST_F(VideoRecording, StopWaitsUntilTheRecorderReports) {
    startOnPrimary();
    const auto stream = fakes.video.lastStream();

    auto stopping = std::async(std::launch::async, [&] { engine.stop(); });
    while (stream->stopCaptureCount() == 0) {
        std::this_thread::yield();
    }
    // Nothing has been reported, so stop cannot have returned.
    EXPECT_EQ(stopping.wait_for(std::chrono::seconds(0)), std::future_status::timeout);

    fakes.video.lastRecordingOutput()->reportFinished();
    ASSERT_TRUE(finishesInTime(stopping));
    EXPECT_NO_THROW(stopping.get());
}

TEST_F(VideoRecording, StopWaitingFirstThrowsTheRecordersFailure) {
    startOnPrimary();
    const auto stream = fakes.video.lastStream();

    auto stopping = std::async(std::launch::async, [&] { engine.stop(); });
    while (stream->stopCaptureCount() == 0) {
        std::this_thread::yield();
    }
    fakes.video.lastRecordingOutput()->reportFailure(makePlatformError("The disk is full."));

    ASSERT_TRUE(finishesInTime(stopping));
    EXPECT_EQ(descriptionOfError([&] { stopping.get(); }), "The disk is full.");
}

TEST_F(VideoRecording, RecorderFailureIsThrownByStopAndAFollowingStartVideoStillWorks) {
    fakes.video.setScript({.onStop = FakeRecorderOnStop::fail,
                           .onStopError = makePlatformError("The recording failed.")});
    startOnPrimary();

    EXPECT_THROW(engine.stop(), PlatformError);

    fakes.video.setScript({});
    startOnPrimary({0, 0, 640, 480}, 1.0);
    EXPECT_EQ(fakes.video.streams().size(), 2u);
    EXPECT_NO_THROW(engine.stop());
    EXPECT_EQ(fakes.video.lastStream()->stopCaptureCount(), 1);
}

TEST_F(VideoRecording, AudioRecordingAfterAFailedVideoStopStopsNormally) {
    fakes.video.setScript({.onStop = FakeRecorderOnStop::fail,
                           .onStopError = makePlatformError("The recording failed.")});
    startOnPrimary();
    EXPECT_THROW(engine.stop(), PlatformError);

    QTemporaryDir folder;
    engine.startAudio(QUrl::fromLocalFile(folder.filePath("after.wav")), AudioExportFormat::wav);
    auto stopping = std::async(std::launch::async, [&] { engine.stop(); });
    ASSERT_TRUE(finishesInTime(stopping));
    EXPECT_NO_THROW(stopping.get());
    EXPECT_TRUE(fakes.audioWriters.lastWriter().cancelCalled);
}

TEST_F(VideoRecording, FailureReportedEarlyIsThrownWhenStopAsks) {
    startOnPrimary();
    fakes.video.lastRecordingOutput()->reportFailure(makePlatformError("The encoder stopped."));

    EXPECT_EQ(descriptionOfError([&] { engine.stop(); }), "The encoder stopped.");
}

TEST_F(VideoRecording, LaterOutcomeReplacesAnEarlierUnclaimedOne) {
    startOnPrimary();
    const auto recorder = fakes.video.lastRecordingOutput();
    recorder->reportFailure(makePlatformError("The encoder stopped."));
    recorder->reportFinished();

    EXPECT_NO_THROW(engine.stop());
}

TEST_F(VideoRecording, StreamRefusingTheRecorderLeavesTheEngineIdle) {
    fakes.video.setScript({.stream = {.addOutputError = makePlatformError("No recorder.")}});

    EXPECT_EQ(descriptionOfError([&] { startOnPrimary(); }), "No recorder.");

    // Nothing was stored: stop neither stops a stream nor waits for a recorder.
    EXPECT_NO_THROW(engine.stop());
    EXPECT_EQ(fakes.video.lastStream()->stopCaptureCount(), 0);
}

TEST_F(VideoRecording, CaptureThatCannotStartClearsStreamAndRecorder) {
    fakes.video.setScript({.stream = {.startCaptureError = makePlatformError("No capture.")},
                           .onStop = FakeRecorderOnStop::nothing});

    EXPECT_EQ(descriptionOfError([&] { startOnPrimary(); }), "No capture.");

    EXPECT_NO_THROW(engine.stop());
    EXPECT_EQ(fakes.video.lastStream()->stopCaptureCount(), 0);
}

TEST_F(VideoRecording, StopCaptureErrorIsThrownWithoutWaitingForTheRecorder) {
    fakes.video.setScript({.stream = {.stopCaptureError = makePlatformError("Did not stop.")},
                           .onStop = FakeRecorderOnStop::nothing});
    startOnPrimary();

    // The recorder never reports; stop must not wait for it.
    auto stopping = std::async(std::launch::async, [&] { engine.stop(); });
    ASSERT_TRUE(finishesInTime(stopping));
    EXPECT_EQ(descriptionOfError([&] { stopping.get(); }), "Did not stop.");
}

TEST_F(VideoRecording, NextStartDiscardsAnOutcomeNobodyClaimed) {
    startOnPrimary();
    fakes.video.lastRecordingOutput()->reportFailure(makePlatformError("Stale failure."));

    startOnPrimary();
    const auto stream = fakes.video.lastStream();
    auto stopping = std::async(std::launch::async, [&] { engine.stop(); });
    while (stream->stopCaptureCount() == 0) {
        std::this_thread::yield();
    }
    fakes.video.lastRecordingOutput()->reportFinished();

    ASSERT_TRUE(finishesInTime(stopping));
    EXPECT_NO_THROW(stopping.get());
}

TEST_F(VideoRecording, StopAfterAFailedStopGivesTheSameFailureAtOnce) {
    fakes.video.setScript({.onStop = FakeRecorderOnStop::fail,
                           .onStopError = makePlatformError("The disk is full.")});
    startOnPrimary();
    EXPECT_EQ(descriptionOfError([&] { engine.stop(); }), "The disk is full.");

    auto again = std::async(std::launch::async, [&] { engine.stop(); });
    ASSERT_TRUE(finishesInTime(again));
    EXPECT_EQ(descriptionOfError([&] { again.get(); }), "The disk is full.");
}
