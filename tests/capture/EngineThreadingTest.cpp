// The engine under real concurrency: the recorder's outcome racing stop, and sound buffers
// arriving while stop finishes the file. Also run under ThreadSanitizer.

#include "EngineTestSupport.h"

#include <atomic>
#include <barrier>
#include <thread>

using EngineThreading = EngineTest;

TEST_F(EngineThreading, RecorderOutcomeAndStopMeetInEitherOrder) {
    fakes.video.setScript({.onStop = FakeRecorderOnStop::nothing});
    constexpr int kIterations = 2000;
    int failuresSeen = 0;
    for (int iteration = 0; iteration < kIterations; ++iteration) {
        engine.startVideo(scratchURL("v.mov"), {0, 0, 64, 64},
                          FakeCapturePlatform::kDefaultDisplayID, {0, 0, 1440, 900}, 1.0);
        const auto recorder = fakes.video.lastRecordingOutput();
        const bool fails = iteration % 2 == 1;
        // Both sides are released together; the pauses spread the reports over both orders.
        std::barrier start(2);
        std::exception_ptr stopError;
        std::thread stopper([&] {
            start.arrive_and_wait();
            try {
                engine.stop();
            } catch (...) {
                stopError = std::current_exception();
            }
        });
        std::thread reporter([&] {
            start.arrive_and_wait();
            for (int pause = 0; pause < iteration % 4; ++pause) {
                std::this_thread::yield();
            }
            if (fails) {
                recorder->reportFailure(makePlatformError("The recording failed."));
            } else {
                recorder->reportFinished();
            }
        });
        reporter.join();
        stopper.join();
        if (fails) {
            ASSERT_TRUE(stopError) << "iteration " << iteration;
            EXPECT_EQ(localizedDescription(stopError), "The recording failed.");
            ++failuresSeen;
        } else {
            ASSERT_FALSE(stopError) << "iteration " << iteration << ": "
                                    << localizedDescription(stopError).toStdString();
        }
    }
    EXPECT_EQ(failuresSeen, kIterations / 2);
}

TEST_F(EngineThreading, SoundBuffersArrivingDuringStopAreAppendedOrDropped) {
    constexpr int kRounds = 50;
    for (int round = 0; round < kRounds; ++round) {
        const QUrl destination = scratchURL(QStringLiteral("a%1.wav").arg(round));
        engine.startAudio(destination, AudioExportFormat::wav);
        const auto stream = fakes.audio.lastStream();
        stream->pushAndWait(makeSampleBuffer(0, 48));

        std::atomic<bool> stopped = false;
        std::thread deliverer([&] {
            // Keeps delivering until well after stop has returned.
            int64_t time = 1'000'000;
            int afterStop = 0;
            while (afterStop < 20) {
                stream->push(makeSampleBuffer(time, 48));
                time += 1'000'000;
                if (stopped.load()) {
                    ++afterStop;
                }
                std::this_thread::yield();
            }
            stream->drain();
        });
        EXPECT_NO_THROW(engine.stop());
        stopped = true;
        deliverer.join();

        const FakeWriterRecord writer = fakes.audioWriters.lastWriter();
        EXPECT_TRUE(writer.finishCalled);
        EXPECT_EQ(writer.status, AudioWriterStatus::completed);
        EXPECT_EQ(writer.appendsAfterMarkAsFinished, 0);
    }
}

TEST_F(EngineThreading, EngineDestroyedWithBuffersStillQueued) {
    auto local = std::make_unique<CaptureEngine>(fakes.platform());
    local->startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    const auto stream = fakes.audio.lastStream();
    for (int i = 0; i < 200; ++i) {
        stream->push(makeSampleBuffer(i * 1'000'000LL, 48));
    }

    local.reset();

    // The writing queue runs what was queued while the writer still exists.
    EXPECT_EQ(fakes.audioWriters.lastWriter().appended.size(), 200u);
}
