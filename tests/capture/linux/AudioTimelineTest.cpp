// The recorded sound is exactly what the server delivered: a tone playing from before the
// start is recorded again and again through the engine, with both cores kept busy, and each
// file is compared with what parec, started earlier, heard from the same monitor: the file
// must be one unbroken stretch of parec's sound (no silence parec lacks, no shift) whose first
// sample was heard within 100 ms of the start. Midway the server stalls for a moment, so
// that its sound reaches every client later than the clock expects; or the recording process
// is held up now and then, so that its sound reaches it later than the clock expects.

#include "capture/CaptureEngine.h"
#include "capture/linux/ApplicationResourceDirectories.h"
#include "capture/linux/AudioFileInspection.h"
#include "capture/linux/FfmpegAudioWriter.h"
#include "capture/linux/MonotonicClock.h"
#include "capture/linux/PulseAudioCaptureService.h"
#include "support/FakeCapturePlatform.h"
#include "support/SoundServer.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <signal.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

namespace {

constexpr int kRate = SoundServer::kSampleRate;
constexpr int kRecordings = 20;
constexpr int64_t kRecordingNs = 1'500'000'000;
constexpr int kStallMs = 150;
// The recording process is held up kHolds times for kHoldNs, kBetweenHoldsNs apart; the first
// time right after the start, before its stream has had word of the server's timing.
constexpr int kHeldUpRecordings = 10;
constexpr int kHolds = 4;
constexpr int64_t kHoldNs = 100'000'000;
constexpr int64_t kBetweenHoldsNs = 250'000'000;
constexpr int64_t kFirstHoldNs = 10'000'000;
constexpr int64_t kStartToleranceNs = 100'000'000;
// Both sides carry the server's samples; ours went through 16-bit PCM.
constexpr float kSampleTolerance = 1e-3f;
constexpr int kProbeFrames = kRate / 10;

// parec on the monitor, read as it arrives: every frame gets the clock time it was heard.
class Listener {
public:
    explicit Listener(const SoundServer& server) {
        process_.setProcessEnvironment(server.clientEnvironment());
        process_.setStandardErrorFile(QProcess::nullDevice());
        process_.start(QStringLiteral("parec"),
                       {QStringLiteral("--device=") + server.monitorSourceName(),
                        QStringLiteral("--format=float32le"),
                        QStringLiteral("--rate=") + QString::number(kRate),
                        QStringLiteral("--channels=2"), QStringLiteral("--latency-msec=10")});
        EXPECT_TRUE(process_.waitForStarted(30000));
    }
    ~Listener() {
        process_.kill();
        process_.waitForFinished(30000);
    }

    // Reads until `untilNs`.
    void listen(int64_t untilNs) {
        while (monotonicNowNs() < untilNs) {
            process_.waitForReadyRead(5);
            pending_ += process_.readAllStandardOutput();
            // Stereo frames; the left channel is kept.
            const qsizetype whole = pending_.size() / 8 * 8;
            if (whole == 0) {
                continue;
            }
            for (qsizetype at = 0; at < whole; at += 8) {
                float left = 0;
                std::memcpy(&left, pending_.constData() + at, sizeof left);
                samples_.push_back(left);
            }
            pending_.remove(0, whole);
            // A frame is heard no later than when it is read.
            heardNs_.push_back({monotonicNowNs(), static_cast<int64_t>(samples_.size())});
        }
    }

    const std::vector<float>& samples() const { return samples_; }

    // The clock time at which frame `index` was heard: read at the first read that held it,
    // less the time of the frames read with it after it.
    int64_t heardAtNs(int64_t index) const {
        for (const auto& [readNs, framesSoFar] : heardNs_) {
            if (framesSoFar > index) {
                return readNs - (framesSoFar - 1 - index) * 1'000'000'000 / kRate;
            }
        }
        return std::numeric_limits<int64_t>::max();
    }

private:
    QProcess process_;
    QByteArray pending_;
    std::vector<float> samples_;
    std::vector<std::pair<int64_t, int64_t>> heardNs_;
};

// The left channel of a 16-bit stereo WAV file, as written: no decoder between.
std::vector<float> leftChannel(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    const QByteArray bytes = file.readAll();
    qsizetype at = 12;
    while (at + 8 <= bytes.size() && std::memcmp(bytes.constData() + at, "data", 4) != 0) {
        uint32_t size = 0;
        std::memcpy(&size, bytes.constData() + at + 4, 4);
        at += 8 + size + (size & 1);
    }
    std::vector<float> samples;
    for (at += 8; at + 4 <= bytes.size(); at += 4) {
        int16_t left = 0;
        std::memcpy(&left, bytes.constData() + at, sizeof left);
        samples.push_back(static_cast<float>(left) / 32768.0f);
    }
    return samples;
}

// Where `recording` lies in `heard`: the offset at which the whole recording matches, or -1.
// Short windows find candidates; the whole length decides between them (a tone repeats
// itself over a short window, never over the whole).
int64_t placeIn(const std::vector<float>& heard, const std::vector<float>& recording) {
    if (recording.size() < static_cast<size_t>(kProbeFrames) || heard.size() < recording.size()) {
        return -1;
    }
    for (size_t offset = 0; offset + recording.size() <= heard.size(); ++offset) {
        bool matches = true;
        for (int i = 0; matches && i < kProbeFrames; ++i) {
            matches = std::fabs(heard[offset + i] - recording[i]) <= kSampleTolerance;
        }
        if (!matches) {
            continue;
        }
        size_t i = kProbeFrames;
        while (i < recording.size() &&
               std::fabs(heard[offset + i] - recording[i]) <= kSampleTolerance) {
            ++i;
        }
        if (i == recording.size()) {
            return static_cast<int64_t>(offset);
        }
    }
    return -1;
}

class AudioTimeline : public testing::Test {
protected:
    // Keeps both cores busy while the recordings run.
    class BusyCores {
    public:
        BusyCores() {
            for (int core = 0; core < 2; ++core) {
                threads_.emplace_back([this] {
                    volatile double sink = 0;
                    while (!done_) {
                        sink = sink + std::sqrt(sink + 1.0);
                    }
                });
            }
        }
        ~BusyCores() {
            done_ = true;
            for (std::thread& thread : threads_) {
                thread.join();
            }
        }

    private:
        std::atomic<bool> done_{false};
        std::vector<std::thread> threads_;
    };

    void recordAndCompare() {
        Listener listener(server);
        listener.listen(monotonicNowNs() + 300'000'000);
        const BusyCores busy;
        for (int run = 0; run < kRecordings; ++run) {
            SCOPED_TRACE("recording " + std::to_string(run + 1));
            const QString path = folder.filePath(QStringLiteral("run%1.wav").arg(run));
            const int64_t startNs = monotonicNowNs();
            engine.startAudio(QUrl::fromLocalFile(path), AudioExportFormat::wav);
            listener.listen(startNs + kRecordingNs / 2);
            // The server's sound then reaches every client late: nothing of it is lost.
            server.stall(kStallMs);
            listener.listen(startNs + kRecordingNs);
            engine.stop();
            listener.listen(monotonicNowNs() + 200'000'000);
            expectOneStretchOfWhatWasHeard(listener, path, startNs);
        }
    }

    // The recording runs in a process of its own, which is held up (stopped) now and then, as
    // a busy machine's scheduler may hold it: the server goes on recording for it and hands
    // the backlog over in one go when it runs again.
    void recordInAHeldUpProcessAndCompare() {
        Listener listener(server);
        listener.listen(monotonicNowNs() + 300'000'000);
        const BusyCores busy;
        for (int run = 0; run < kHeldUpRecordings; ++run) {
            SCOPED_TRACE("recording " + std::to_string(run + 1));
            const QString path = folder.filePath(QStringLiteral("held%1.wav").arg(run));
            QProcess recorder;
            recorder.setProcessEnvironment(server.clientEnvironment());
            recorder.setProcessChannelMode(QProcess::ForwardedErrorChannel);
            recorder.start(QStringLiteral(TESSAREL_RECORDER_CHILD), {QStringLiteral("WAV"), path});
            ASSERT_TRUE(recorder.waitForStarted(30000));
            const int64_t deadlineNs = monotonicNowNs() + 30'000'000'000;
            while (!recorder.canReadLine() && monotonicNowNs() < deadlineNs) {
                listener.listen(monotonicNowNs() + 5'000'000);
                recorder.waitForReadyRead(0);
            }
            const QList<QByteArray> started = recorder.readLine().trimmed().split(' ');
            ASSERT_EQ(started.size(), 2);
            ASSERT_EQ(started[0], "recording");
            const int64_t startNs = started[1].toLongLong();
            const auto pid = static_cast<pid_t>(recorder.processId());
            for (int hold = 0; hold < kHolds; ++hold) {
                listener.listen(monotonicNowNs() + (hold == 0 ? kFirstHoldNs : kBetweenHoldsNs));
                ::kill(pid, SIGSTOP);
                listener.listen(monotonicNowNs() + kHoldNs);
                ::kill(pid, SIGCONT);
            }
            listener.listen(monotonicNowNs() + kBetweenHoldsNs);
            recorder.closeWriteChannel();
            while (!recorder.waitForFinished(5) && monotonicNowNs() < deadlineNs) {
                listener.listen(monotonicNowNs() + 5'000'000);
            }
            ASSERT_EQ(recorder.exitStatus(), QProcess::NormalExit);
            ASSERT_EQ(recorder.exitCode(), 0);
            listener.listen(monotonicNowNs() + 200'000'000);
            expectOneStretchOfWhatWasHeard(listener, path, startNs);
        }
    }

    // The file is one unbroken stretch of what parec heard, whose first sample was heard
    // within 100 ms of the start.
    static void expectOneStretchOfWhatWasHeard(const Listener& listener, const QString& path,
                                               int64_t startNs) {
        const std::vector<float> recording = leftChannel(path);
        ASSERT_GT(recording.size(), static_cast<size_t>(kRate));
        const int64_t offset = placeIn(listener.samples(), recording);
        ASSERT_GE(offset, 0) << "the file is not one unbroken stretch of the server's sound; "
                                "its longest silence (which the sweep never has) is "
                             << longestSilence(recording, kSampleTolerance).length * 1000 / kRate
                             << " ms";
        const int64_t firstHeardNs = listener.heardAtNs(offset);
        EXPECT_LT(std::llabs(firstHeardNs - startNs), kStartToleranceNs)
            << "first sample " << (firstHeardNs - startNs) / 1'000'000 << " ms from the start";
    }

    SoundServer server;
    QTemporaryDir folder;
    FakeCapturePlatform fakes;
    PulseAudioCaptureService audio;
    FfmpegAudioWriterFactory writers;
    ApplicationResourceDirectories resources{{}};
    CaptureEngine engine{
        {fakes.content, audio, writers, fakes.screenshots, fakes.video, resources}};
};

} // namespace

TEST_F(AudioTimeline, ToneFromBeforeTheStartIsRecordedExactlyAsTheServerHadIt) {
    server.playSweep(300, 3000, 600, 100);
    recordAndCompare();
}

TEST_F(AudioTimeline, ToneFromAClientWithATwoSecondBufferIsRecordedExactly) {
    server.playSweep(300, 3000, 600, 2000);
    recordAndCompare();
}

// The player keeps 2 s buffered, as paplay does by default.
TEST_F(AudioTimeline, ToneRecordedByAProcessHeldUpNowAndThenIsRecordedExactly) {
    server.playSweep(300, 3000, 600, 2000);
    recordInAHeldUpProcessAndCompare();
}
