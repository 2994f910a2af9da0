#include "capture/CaptureVocabulary.h"
#include "capture/linux/AudioFileInspection.h"
#include "support/SoundServer.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;

// A recording process killed outright leaves a file that plays, holding all but at most
// the last second of what it recorded.
void expectPlayableAfterKill(AudioExportFormat format) {
    SoundServer server;
    server.playTone(1000, 60);
    QTemporaryDir dir;
    const QString path =
        dir.filePath(QStringLiteral("Tessarel Audio killed.") + format.fileExtension());

    QProcess recorder;
    recorder.setProcessEnvironment(server.clientEnvironment());
    recorder.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    recorder.start(QStringLiteral(TESSAREL_RECORDER_CHILD), {format.rawValue(), path});
    ASSERT_TRUE(recorder.waitForStarted(30000));
    ASSERT_TRUE(recorder.waitForReadyRead(30000));
    ASSERT_TRUE(recorder.readLine().startsWith("recording "));
    const Clock::time_point started = Clock::now();
    QThread::msleep(3000);
    const Clock::time_point killed = Clock::now();
    ASSERT_EQ(::kill(static_cast<pid_t>(recorder.processId()), SIGKILL), 0);
    ASSERT_TRUE(recorder.waitForFinished(30000));
    EXPECT_EQ(recorder.exitStatus(), QProcess::CrashExit);

    const double recordedSeconds = std::chrono::duration<double>(killed - started).count();
    const std::optional<AudioFileFacts> facts = probeAudioFile(path);
    ASSERT_TRUE(facts);
    EXPECT_GE(facts->durationSeconds, recordedSeconds - 1.0);
    EXPECT_LE(facts->durationSeconds, recordedSeconds + 0.1);
    EXPECT_NEAR(dominantFrequencyHz(decodeMono(path), 48000), 1000.0, 10.0);
}

} // namespace

TEST(AudioCrash, KilledRecordingLeavesAPlayableM4AMissingAtMostTheLastSecond) {
    expectPlayableAfterKill(AudioExportFormat::m4a);
}

TEST(AudioCrash, KilledRecordingLeavesAPlayableWavMissingAtMostTheLastSecond) {
    expectPlayableAfterKill(AudioExportFormat::wav);
}

// FFmpeg's libraries log to the console unless told otherwise (the AAC encoder's closing
// statistics, for one); a whole M4A recording leaves the console empty.
TEST(AudioConsole, M4ARecordingWritesNothingToTheConsole) {
    SoundServer server;
    server.playTone(1000, 60);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("Tessarel Audio quiet.m4a"));

    QProcess recorder;
    recorder.setProcessEnvironment(server.clientEnvironment());
    recorder.start(QStringLiteral(TESSAREL_RECORDER_CHILD),
                   {AudioExportFormat(AudioExportFormat::m4a).rawValue(), path});
    ASSERT_TRUE(recorder.waitForStarted(30000));
    ASSERT_TRUE(recorder.waitForReadyRead(30000));
    ASSERT_TRUE(recorder.readLine().startsWith("recording "));
    QThread::msleep(2000);
    recorder.closeWriteChannel();
    ASSERT_TRUE(recorder.waitForFinished(30000));

    EXPECT_EQ(recorder.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(recorder.exitCode(), 0);
    EXPECT_EQ(QString::fromLocal8Bit(recorder.readAllStandardError()).toStdString(), "");
    const std::optional<AudioFileFacts> facts = probeAudioFile(path);
    ASSERT_TRUE(facts);
    EXPECT_GT(facts->durationSeconds, 1.5);
}
