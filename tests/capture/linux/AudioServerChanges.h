#pragma once

// The sound server changing under a recording, the same on PulseAudio and on PipeWire's
// PulseAudio service: restarted (as updates do), or another output made the default (as
// plugging in headphones does). `Server` is SoundServer or PipeWireServer.

#include "capture/CaptureEngine.h"
#include "capture/linux/AudioEngineRecording.h"
#include "capture/linux/AudioFileInspection.h"
#include "support/TonePlayer.h"

#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

namespace server_changes {

using Clock = std::chrono::steady_clock;
constexpr int kRate = 48000;
// The tone of the first output, and of the one that becomes the default.
constexpr double kToneHz = 1000;
constexpr double kOtherToneHz = 1500;
// Silence in a decoded file; AAC leaves a little around sound.
constexpr float kSilence = 1e-3f;
// How far the file's timeline may be from the clock's.
constexpr double kTimelineTolerance = 0.1;
// A moment at each edge of a stretch, for the server's and the decoder's ramps.
constexpr double kEdge = 0.2;

inline double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// Counts the failures the engine reports.
inline std::shared_ptr<std::atomic<int>> countFailures(CaptureEngine& engine) {
    auto failures = std::make_shared<std::atomic<int>>(0);
    engine.setFailureHandler([failures](std::exception_ptr) { ++*failures; });
    return failures;
}

// The file lasts as long as the recording took, and its first stretch, up to the change,
// carries the tone of before; returns the decoded samples for what the caller checks next.
struct RecordedFile {
    std::vector<float> samples;
    double durationSeconds = 0;
};
inline RecordedFile expectDurationAndToneUntil(const QString& path, Clock::time_point started,
                                               Clock::time_point stopping, double changedAt) {
    const std::optional<AudioFileFacts> facts = probeAudioFile(path);
    EXPECT_TRUE(facts);
    if (!facts) {
        return {};
    }
    EXPECT_NEAR(facts->durationSeconds, secondsBetween(started, stopping), kTimelineTolerance);
    RecordedFile file{decodeMono(path), facts->durationSeconds};
    EXPECT_NEAR(dominantFrequencyHz(stretch(file.samples, kRate, kEdge, changedAt - kEdge), kRate),
                kToneHz, 10.0);
    return file;
}

// The server is killed 1.5 s into a recording and is back 2 s later; the tone plays again
// from then. The recording goes on into the same file without a word: the tone, then silence
// for as long as there was no server, then the tone again where the clock says, so the file
// is as long as the recording took.
template <typename Server>
void expectTheRecordingToOutlastARestart(CaptureEngine& engine, Server& server, const QString& path,
                                         AudioExportFormat format) {
    const auto failures = countFailures(engine);
    server.playTone(kToneHz, 60);
    engine.startAudio(QUrl::fromLocalFile(path), format);
    const Clock::time_point started = Clock::now();
    QThread::msleep(1500);
    const Clock::time_point killed = Clock::now();
    server.restartAfter(2000);
    server.playTone(kToneHz, 60);
    const Clock::time_point audibleAgain = Clock::now();
    QThread::msleep(1500);
    const Clock::time_point stopping = Clock::now();
    EXPECT_NO_THROW(engine.stop());
    EXPECT_EQ(*failures, 0);

    const double killedAt = secondsBetween(started, killed);
    const double audibleAt = secondsBetween(started, audibleAgain);
    const RecordedFile file = expectDurationAndToneUntil(path, started, stopping, killedAt);
    ASSERT_FALSE(file.samples.empty());
    EXPECT_NEAR(
        dominantFrequencyHz(
            stretch(file.samples, kRate, audibleAt + kEdge, file.durationSeconds - kEdge), kRate),
        kToneHz, 10.0);
    const SilentRun gap = longestSilence(file.samples, kSilence);
    EXPECT_NEAR(static_cast<double>(gap.start) / kRate, killedAt, kTimelineTolerance);
    // The server was away for 2 s and more; the tone is heard again when it plays again.
    EXPECT_GE(static_cast<double>(gap.length) / kRate, 2.0 - kTimelineTolerance);
    EXPECT_NEAR(static_cast<double>(gap.start + gap.length) / kRate, audibleAt, kTimelineTolerance);
}

// Two outputs, each playing its own tone; 1.5 s into a recording the second becomes the
// default. The recording goes on without a word, from then on with the second one's tone.
template <typename Server>
void expectTheRecordingToFollowTheDefaultOutput(CaptureEngine& engine, Server& server,
                                                const QString& path) {
    const QString headphones = QStringLiteral("tessarel_headphones");
    server.pactl({QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                  QStringLiteral("sink_name=") + headphones,
                  QStringLiteral("rate=") + QString::number(kRate), QStringLiteral("channels=2")});
    TonePlayer headphonesTone(server.clientEnvironment(), headphones);
    server.playTone(kToneHz, 60);
    headphonesTone.play(kOtherToneHz, 60);
    const auto failures = countFailures(engine);
    engine.startAudio(QUrl::fromLocalFile(path), AudioExportFormat::wav);
    const Clock::time_point started = Clock::now();
    QThread::msleep(1500);
    const Clock::time_point switched = Clock::now();
    server.pactl({QStringLiteral("set-default-sink"), headphones});
    QThread::msleep(1500);
    const Clock::time_point stopping = Clock::now();
    EXPECT_NO_THROW(engine.stop());
    EXPECT_EQ(*failures, 0);

    const double switchedAt = secondsBetween(started, switched);
    const RecordedFile file = expectDurationAndToneUntil(path, started, stopping, switchedAt);
    ASSERT_FALSE(file.samples.empty());
    EXPECT_NEAR(dominantFrequencyHz(stretch(file.samples, kRate, switchedAt + 2 * kEdge,
                                            file.durationSeconds - kEdge),
                                    kRate),
                kOtherToneHz, 10.0);
}

} // namespace server_changes
