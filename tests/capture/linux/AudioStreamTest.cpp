#include "capture/linux/PulseAudioCaptureService.h"

#include "capture/CaptureEngine.h"
#include "capture/linux/AudioFileInspection.h"
#include "capture/linux/MonotonicClock.h"
#include "support/SoundServer.h"

#include <QDeadlineTimer>
#include <QProcess>
#include <QThread>

#include <gtest/gtest.h>

#include <pthread.h>

#include <mutex>
#include <string>

namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;

std::string currentThreadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

class Collector final : public AudioSampleHandler, public StreamDelegate {
public:
    void didOutputSampleBuffer(SampleBuffer buffer) override {
        std::lock_guard guard(mutex_);
        buffers_.push_back(std::move(buffer));
        threads_.push_back(currentThreadName());
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
    // The name of the thread each buffer came on.
    std::vector<std::string> threads() const {
        std::lock_guard guard(mutex_);
        return threads_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<SampleBuffer> buffers_;
    std::vector<std::string> threads_;
    std::vector<std::exception_ptr> stops_;
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
        stream->addAudioOutput(&collector);
        return stream;
    }

    SoundServer server;
    Collector collector;
    PulseAudioCaptureService service;
};

} // namespace

TEST_F(AudioStream, DeliversTimedStereoFloatBuffers) {
    server.playTone(1000, 30);
    auto stream = makeStream();
    const int64_t startNs = monotonicNowNs();
    stream->startCapture();
    ASSERT_TRUE(waitFor([&] { return collector.frames() >= 48000; }));
    stream->stopCapture();

    const std::vector<SampleBuffer> buffers = collector.buffers();
    ASSERT_FALSE(buffers.empty());
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

// Each hand-over is a write to the file: the server's 20 ms fragments go over collected into
// tenth-of-a-second buffers; only the rest at the stop is shorter.
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

// No hop to another thread: the thread that reads the sound from the server hands it over
// itself, and what is left at the stop goes over on the stopping thread, before stopCapture
// returns and never after.
TEST_F(AudioStream, HandsOverOnItsOwnSoundThreadAndTheRestOnTheStoppingThread) {
    server.playTone(1000, 30);
    auto stream = makeStream();
    stream->startCapture();
    ASSERT_TRUE(waitFor([&] { return collector.frames() >= 48000 / 2; }));
    stream->stopCapture();
    const size_t handedOver = collector.buffers().size();
    const std::string stoppingThread = currentThreadName();

    const std::vector<std::string> threads = collector.threads();
    ASSERT_GE(threads.size(), size_t{5});
    for (size_t i = 0; i + 1 < threads.size(); ++i) {
        EXPECT_EQ(threads[i], "Tessarel.sound") << "buffer " << i;
    }
    EXPECT_TRUE(threads.back() == "Tessarel.sound" || threads.back() == stoppingThread)
        << threads.back();
    QThread::msleep(300);
    EXPECT_EQ(collector.buffers().size(), handedOver);
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
