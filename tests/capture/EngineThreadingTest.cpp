// The engine under real concurrency: the recorder's outcome racing stop, and sound buffers
// arriving while stop finishes the file. Also run under ThreadSanitizer.

#include "EngineTestSupport.h"

#include <atomic>
#include <barrier>
#include <future>
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

TEST_F(EngineThreading, EngineDestroyedWithBuffersStillToBeDelivered) {
    auto local = std::make_unique<CaptureEngine>(fakes.platform());
    local->startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    const auto stream = fakes.audio.lastStream();
    for (int i = 0; i < 200; ++i) {
        stream->push(makeSampleBuffer(i * 1'000'000LL, 48));
    }

    local.reset();

    // The stream is stopped first: what it still had to deliver reaches the writer while the
    // writer exists.
    EXPECT_EQ(fakes.audioWriters.lastWriter().appended.size(), 200u);
}

// No hop to a thread of the engine's own: each buffer is appended on the thread the stream
// delivers it on.
TEST_F(EngineThreading, SoundBuffersAreAppendedOnTheStreamsOwnThread) {
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    const auto stream = fakes.audio.lastStream();
    for (int i = 0; i < 20; ++i) {
        stream->push(makeSampleBuffer(i * 10'000'000LL));
    }
    engine.stop();

    const FakeWriterRecord writer = fakes.audioWriters.lastWriter();
    ASSERT_EQ(writer.appendThreadIDs.size(), 20u);
    for (const std::thread::id thread : writer.appendThreadIDs) {
        EXPECT_EQ(thread, stream->deliveryThreadID());
    }
}

// An append is a write to the file and may be slow; meanwhile the engine goes on taking
// reports from its other threads.
TEST_F(EngineThreading, AnAppendUnderWayHoldsUpNoReportFromAnotherThread) {
    std::promise<void> failureSeen;
    engine.setFailureHandler([&](std::exception_ptr) { failureSeen.set_value(); });
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    const auto stream = fakes.audio.lastStream();
    // Outlives the append, so that a report held up by it ends the test instead of hanging.
    std::future<void> report;
    std::atomic<bool> reportWaited = false;
    FakeWriterScript script = fakes.audioWriters.script();
    script.duringAppend = [&] {
        // A sound server gone, reported on another thread while this append writes.
        report = std::async(std::launch::async, [&] {
            stream->stopOnItsOwn(makePlatformError("The sound server went away."));
        });
        reportWaited = !finishesInTime(report);
    };
    fakes.audioWriters.setScript(script);

    stream->pushAndWait(makeSampleBuffer(1000));
    report.wait();

    EXPECT_FALSE(reportWaited.load());
    EXPECT_EQ(failureSeen.get_future().wait_for(std::chrono::seconds(0)),
              std::future_status::ready);
    script.duringAppend = nullptr;
    fakes.audioWriters.setScript(script);
    EXPECT_NO_THROW(engine.stop());
}
