#include "capture/linux/PulseAudioCaptureService.h"

#include "capture/CaptureEngine.h"
#include "capture/SerialQueue.h"
#include "capture/linux/AudioFileInspection.h"
#include "capture/linux/MonotonicClock.h"
#include "support/SoundServer.h"

#include <QDeadlineTimer>
#include <QProcess>
#include <QThread>

#include <gtest/gtest.h>

#include <mutex>

namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;

class Collector final : public AudioSampleHandler, public StreamDelegate {
public:
    explicit Collector(SerialQueue& queue) : queue_(queue) {}

    void didOutputSampleBuffer(SampleBuffer buffer) override {
        std::lock_guard guard(mutex_);
        onQueue_ = onQueue_ && queue_.isCurrent();
        buffers_.push_back(std::move(buffer));
    }
    void streamDidStop(std::exception_ptr error) override {
        std::lock_guard guard(mutex_);
        stops_.push_back(error);
    }

    std::vector<SampleBuffer> buffers() const {
        std::lock_guard guard(mutex_);
        return buffers_;
    }
    int64_t frames() const {
        std::lock_guard guard(mutex_);
        int64_t total = 0;
        for (const SampleBuffer& buffer : buffers_) {
            total += buffer.frameCount();
        }
        return total;
    }
    std::vector<std::exception_ptr> stops() const {
        std::lock_guard guard(mutex_);
        return stops_;
    }
    bool allOnQueue() const {
        std::lock_guard guard(mutex_);
        return onQueue_;
    }

private:
    SerialQueue& queue_;
    mutable std::mutex mutex_;
    std::vector<SampleBuffer> buffers_;
    std::vector<std::exception_ptr> stops_;
    bool onQueue_ = true;
};

bool waitFor(const std::function<bool()>& done) {
    const QDeadlineTimer deadline(30000);
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QThread::msleep(10);
    }
    return true;
}

void pactl(const SoundServer& server, const QStringList& arguments) {
    QProcess process;
    process.setProcessEnvironment(server.clientEnvironment());
    process.start(QStringLiteral("pactl"), arguments);
    ASSERT_TRUE(process.waitForFinished(30000));
    ASSERT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
}

std::vector<float> leftChannel(const std::vector<SampleBuffer>& buffers) {
    std::vector<float> left;
    for (const SampleBuffer& buffer : buffers) {
        for (size_t i = 0; i < buffer.samples.size(); i += 2) {
            left.push_back(buffer.samples[i]);
        }
    }
    return left;
}

class AudioStream : public testing::Test {
protected:
    std::shared_ptr<AudioCaptureStream> makeStream() {
        auto stream = service.makeStream({}, CaptureEngine::audioStreamConfiguration(), &collector);
        stream->addAudioOutput(&collector, queue);
        return stream;
    }

    SoundServer server;
    SerialQueue queue{QStringLiteral("Tessarel.capture.writer")};
    Collector collector{queue};
    PulseAudioCaptureService service;
};

} // namespace

TEST_F(AudioStream, DeliversTimedStereoFloatBuffersOnTheGivenQueue) {
    server.playTone(1000, 30);
    auto stream = makeStream();
    const int64_t startNs = monotonicNowNs();
    stream->startCapture();
    ASSERT_TRUE(waitFor([&] { return collector.frames() >= 48000; }));
    stream->stopCapture();

    const std::vector<SampleBuffer> buffers = collector.buffers();
    ASSERT_FALSE(buffers.empty());
    EXPECT_TRUE(collector.allOnQueue());
    // The first frame was captured around the start, not before it was asked for.
    EXPECT_GT(buffers.front().presentationTimeNs, startNs - kNsPerSecond / 10);
    int64_t expectedNs = buffers.front().presentationTimeNs;
    for (const SampleBuffer& buffer : buffers) {
        EXPECT_TRUE(buffer.isValid && buffer.dataIsReady);
        EXPECT_EQ(buffer.sampleRate, 48000);
        EXPECT_EQ(buffer.channelCount, 2);
        EXPECT_NEAR(static_cast<double>(buffer.presentationTimeNs), static_cast<double>(expectedNs),
                    1.0);
        expectedNs = buffer.presentationTimeNs + buffer.frameCount() * kNsPerSecond / 48000;
    }
    // The time line ends where the clock is, give or take the server's latency estimate.
    EXPECT_NEAR(static_cast<double>(expectedNs), static_cast<double>(monotonicNowNs()),
                static_cast<double>(kNsPerSecond) / 4);
    EXPECT_NEAR(dominantFrequencyHz(leftChannel(buffers), 48000), 1000.0, 10.0);
}

// Each hand-over wakes the queue and the writer behind it: the server's 20 ms fragments go
// over collected into tenth-of-a-second buffers; only the rest at the stop is shorter.
TEST_F(AudioStream, HandsOverTenthOfASecondBuffersRatherThanEachFragment) {
    server.playTone(1000, 30);
    auto stream = makeStream();
    stream->startCapture();
    ASSERT_TRUE(waitFor([&] { return collector.frames() >= 48000; }));
    stream->stopCapture();

    const std::vector<SampleBuffer> buffers = collector.buffers();
    ASSERT_GE(buffers.size(), size_t{2});
    for (size_t i = 0; i + 1 < buffers.size(); ++i) {
        EXPECT_GE(buffers[i].frameCount(), 48000 / 10) << "buffer " << i;
    }
}

TEST_F(AudioStream, RecordsTheDefaultOutputEvenWhenTheDefaultInputIsElsewhere) {
    pactl(server, {QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                   QStringLiteral("sink_name=other")});
    pactl(server, {QStringLiteral("set-default-source"), QStringLiteral("other.monitor")});
    server.playTone(1000, 30);
    auto stream = makeStream();
    stream->startCapture();
    ASSERT_TRUE(waitFor([&] { return collector.frames() >= 48000; }));
    stream->stopCapture();
    EXPECT_NEAR(dominantFrequencyHz(leftChannel(collector.buffers()), 48000), 1000.0, 10.0);
}

TEST_F(AudioStream, NoSoundServerGivesAClearError) {
    server.kill();
    auto stream = makeStream();
    try {
        stream->startCapture();
        FAIL() << "capture started without a sound server";
    } catch (const PlatformError& error) {
        EXPECT_TRUE(
            QString::fromUtf8(error.what())
                .startsWith(QStringLiteral("Tessarel could not connect to the sound server: ")))
            << error.what();
    }
    EXPECT_NO_THROW(stream->stopCapture());
    EXPECT_TRUE(collector.stops().empty());
}

TEST_F(AudioStream, ServerGoneReportsTheStopOnceAndChangesNothingElse) {
    auto stream = makeStream();
    stream->startCapture();
    ASSERT_TRUE(waitFor([&] { return collector.frames() > 0; }));
    server.kill();
    ASSERT_TRUE(waitFor([&] { return !collector.stops().empty(); }));
    EXPECT_NO_THROW(stream->stopCapture());
    ASSERT_EQ(collector.stops().size(), 1u);
    EXPECT_TRUE(localizedDescription(collector.stops().front())
                    .startsWith(QStringLiteral("The sound server stopped the recording: ")));
}

TEST_F(AudioStream, SuspendedOutputDeliversNothing) {
    pactl(server, {QStringLiteral("suspend-sink"), server.sinkName(), QStringLiteral("1")});
    auto stream = makeStream();
    stream->startCapture();
    QThread::msleep(300);
    stream->stopCapture();
    EXPECT_EQ(collector.frames(), 0);
}
