#include "capture/CaptureEngine.h"
#include "capture/linux/ApplicationResourceDirectories.h"
#include "capture/linux/AudioEngineRecording.h"
#include "capture/linux/AudioFileInspection.h"
#include "capture/linux/AudioServerChanges.h"
#include "capture/linux/FfmpegAudioWriter.h"
#include "capture/linux/PulseAudioCaptureService.h"
#include "support/FakeCapturePlatform.h"
#include "support/ReadOnlyFolder.h"
#include "support/SmallFolder.h"
#include "support/SoundServer.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <chrono>
#include <future>

namespace {

using server_changes::Clock;
using server_changes::secondsBetween;

QStringList temporaryWaves(const QString& dir) {
    return QDir(dir).entryList({QStringLiteral("Tessarel-*.wav")}, QDir::Files);
}

// The engine with the real sound server, writers and resources; displays and the rest are
// stand-ins. Each test has its own server, save folder and temporary folder.
class AudioRecording : public testing::Test {
protected:
    AudioRecording() {
        previousTemp_ = qgetenv("TMPDIR");
        qputenv("TMPDIR", tempDir.path().toUtf8());
        saveFolder = saveRoot.path();
    }
    ~AudioRecording() override {
        server.stopPlaying();
        qputenv("TMPDIR", previousTemp_);
    }

    QString destination(AudioExportFormat format) const {
        return audioDestination(saveFolder, format);
    }

    double record(AudioExportFormat format, double seconds = 2.0) {
        return recordAudio(engine, destination(format), format, seconds);
    }

    void playTone() { server.playTone(1000, 60); }

    // The server is killed and does not come back: the recording goes on for the 10 s a
    // restart may take, then ends with a message; the file keeps what was captured.
    void recordUntilTheServerIsGoneForGood(AudioExportFormat format) {
        std::promise<std::exception_ptr> reported;
        std::future<std::exception_ptr> failure = reported.get_future();
        engine.setFailureHandler(
            [&reported](std::exception_ptr error) { reported.set_value(error); });
        playTone();
        engine.startAudio(QUrl::fromLocalFile(destination(format)), format);
        const Clock::time_point started = Clock::now();
        QThread::msleep(1500);
        const Clock::time_point killed = Clock::now();
        server.kill();
        // Within the window the server may still come back; nothing is said.
        ASSERT_EQ(failure.wait_for(std::chrono::seconds(8)), std::future_status::timeout);
        ASSERT_EQ(failure.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_TRUE(localizedDescription(failure.get())
                        .startsWith(QStringLiteral("The sound server stopped the recording: ")));
        EXPECT_NO_THROW(engine.stop());
        const std::optional<AudioFileFacts> facts = probeAudioFile(destination(format));
        ASSERT_TRUE(facts);
        EXPECT_NEAR(facts->durationSeconds, secondsBetween(started, killed), 0.1);
        expectTone(destination(format));
    }

    SoundServer server;
    QTemporaryDir tempDir;
    QTemporaryDir saveRoot;
    QString saveFolder;
    FakeCapturePlatform fakes;
    PulseAudioCaptureService audio;
    FfmpegAudioWriterFactory writers;
    ApplicationResourceDirectories resources{{QStringLiteral(TESSAREL_BUILD_RESOURCE_DIR)}};
    QTemporaryDir emptyResources;
    ApplicationResourceDirectories noResources{{emptyResources.path()}};

    CaptureEngine engine{
        {fakes.content, audio, writers, fakes.screenshots, fakes.video, resources}};

private:
    QByteArray previousTemp_;
};

} // namespace

TEST_F(AudioRecording, ToneRecordedAsM4AIsAacAt192kbps48kHzStereo) {
    playTone();
    const double seconds = record(AudioExportFormat::m4a);
    const std::optional<AudioFileFacts> facts = probeAudioFile(destination(AudioExportFormat::m4a));
    ASSERT_TRUE(facts);
    EXPECT_TRUE(facts->formatName.contains(QStringLiteral("m4a")))
        << facts->formatName.toStdString();
    EXPECT_EQ(facts->majorBrand, QStringLiteral("M4A "));
    EXPECT_EQ(facts->codecName, QStringLiteral("aac"));
    EXPECT_EQ(facts->sampleRate, 48000);
    EXPECT_EQ(facts->channels, 2);
    EXPECT_NEAR(static_cast<double>(facts->bitRate), 192000.0, 192000.0 * 0.05);
    EXPECT_NEAR(facts->durationSeconds, seconds, 0.1);
    expectTone(destination(AudioExportFormat::m4a));
}

TEST_F(AudioRecording, ToneRecordedAsWavIs16BitPcm48kHzStereo) {
    playTone();
    const double seconds = record(AudioExportFormat::wav);
    expectWavTone(destination(AudioExportFormat::wav), seconds);
}

TEST_F(AudioRecording, ToneRecordedAsMp3IsMp3At192kbps48kHzStereo) {
    playTone();
    const double seconds = record(AudioExportFormat::mp3);
    const std::optional<AudioFileFacts> facts = probeAudioFile(destination(AudioExportFormat::mp3));
    ASSERT_TRUE(facts);
    EXPECT_EQ(facts->formatName, QStringLiteral("mp3"));
    EXPECT_EQ(facts->codecName, QStringLiteral("mp3"));
    EXPECT_EQ(facts->sampleRate, 48000);
    EXPECT_EQ(facts->channels, 2);
    EXPECT_EQ(facts->bitRate, 192000);
    EXPECT_NEAR(facts->durationSeconds, seconds, 0.1);
    expectTone(destination(AudioExportFormat::mp3));
}

TEST_F(AudioRecording, Mp3RecordingWritesATemporaryWavUntilTheStop) {
    playTone();
    const QString mp3 = destination(AudioExportFormat::mp3);
    engine.startAudio(QUrl::fromLocalFile(mp3), AudioExportFormat::mp3);
    QStringList waves;
    const QDeadlineTimer deadline(30000);
    while ((waves = temporaryWaves(tempDir.path())).isEmpty() && !deadline.hasExpired()) {
        QThread::msleep(10);
    }
    ASSERT_EQ(waves.size(), 1);
    EXPECT_TRUE(QRegularExpression(
                    QStringLiteral("^Tessarel-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-"
                                   "[0-9A-F]{12}\\.wav$"))
                    .match(waves.front())
                    .hasMatch())
        << waves.front().toStdString();
    QThread::msleep(1000);
    EXPECT_FALSE(QFile::exists(mp3));
    EXPECT_GT(QFileInfo(tempDir.filePath(waves.front())).size(), 48000 * 4 / 2);
    engine.stop();
    EXPECT_TRUE(QFile::exists(mp3));
    EXPECT_TRUE(temporaryWaves(tempDir.path()).isEmpty());
}

TEST_F(AudioRecording, MissingLameReportsTheBundledEncoderMissingAndLeavesNoTemporaryFile) {
    CaptureEngine withoutLame{
        {fakes.content, audio, writers, fakes.screenshots, fakes.video, noResources}};
    playTone();
    const QString mp3 = destination(AudioExportFormat::mp3);
    withoutLame.startAudio(QUrl::fromLocalFile(mp3), AudioExportFormat::mp3);
    QThread::msleep(500);
    try {
        withoutLame.stop();
        FAIL() << "the recording was converted without lame";
    } catch (const CaptureEngineError& error) {
        EXPECT_STREQ(error.what(),
                     "The capture could not be saved: The bundled MP3 encoder is missing.");
    }
    EXPECT_TRUE(temporaryWaves(tempDir.path()).isEmpty());
    EXPECT_FALSE(QFile::exists(mp3));
}

TEST_F(AudioRecording, StopBeforeAnySoundArrivesLeavesNoFileAndNoError) {
    // A suspended output sends nothing to its monitor.
    server.pactl({QStringLiteral("suspend-sink"), server.sinkName(), QStringLiteral("1")});
    for (AudioExportFormat format : AudioExportFormat::allCases()) {
        engine.startAudio(QUrl::fromLocalFile(destination(format)), format);
        QThread::msleep(300);
        EXPECT_NO_THROW(engine.stop());
        EXPECT_FALSE(QFile::exists(destination(format))) << format.rawValue().toStdString();
    }
    EXPECT_TRUE(QDir(saveFolder).isEmpty());
    EXPECT_TRUE(temporaryWaves(tempDir.path()).isEmpty());
}

TEST_F(AudioRecording, SecondStartAfterAFinishedRecordingWorks) {
    playTone();
    record(AudioExportFormat::wav, 1.0);
    ASSERT_TRUE(QFile::rename(destination(AudioExportFormat::wav), saveRoot.filePath("first.wav")));
    const double seconds = record(AudioExportFormat::wav, 1.0);
    const std::optional<AudioFileFacts> facts = probeAudioFile(destination(AudioExportFormat::wav));
    ASSERT_TRUE(facts);
    EXPECT_NEAR(facts->durationSeconds, seconds, 0.1);
    expectTone(destination(AudioExportFormat::wav));
}

TEST_F(AudioRecording, SaveFolderWithBlanksAndNonAsciiLettersWorks) {
    saveFolder = saveRoot.filePath(QStringLiteral("Aufnahmen für Jürgen – 录音 Ærø"));
    ASSERT_TRUE(QDir().mkpath(saveFolder));
    playTone();
    for (AudioExportFormat format : AudioExportFormat::allCases()) {
        record(format, 1.0);
        ASSERT_TRUE(probeAudioFile(destination(format))) << format.rawValue().toStdString();
        expectTone(destination(format));
    }
}

TEST_F(AudioRecording, ExistingFileAtTheDestinationIsNotOverwritten) {
    for (AudioExportFormat format : {AudioExportFormat::m4a, AudioExportFormat::wav}) {
        QFile existing(destination(format));
        ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
        existing.write("keep");
        existing.close();
        try {
            engine.startAudio(QUrl::fromLocalFile(destination(format)), format);
            FAIL() << "a recording started over an existing file";
        } catch (const CaptureEngineError& error) {
            EXPECT_EQ(QString::fromUtf8(error.what()),
                      QStringLiteral("The recording could not start: The file “%1” already exists.")
                          .arg(QFileInfo(destination(format)).fileName()));
        }
        ASSERT_TRUE(existing.open(QIODevice::ReadOnly));
        EXPECT_EQ(existing.readAll(), "keep");
    }
}

TEST_F(AudioRecording, NoSoundServerFailsTheStartWithAClearErrorAndLeavesNoFile) {
    server.kill();
    try {
        engine.startAudio(QUrl::fromLocalFile(destination(AudioExportFormat::m4a)),
                          AudioExportFormat::m4a);
        FAIL() << "a recording started without a sound server";
    } catch (const PlatformError& error) {
        EXPECT_TRUE(
            QString::fromUtf8(error.what())
                .startsWith(QStringLiteral("Tessarel could not connect to the sound server: ")))
            << error.what();
    }
    EXPECT_NO_THROW(engine.stop());
    EXPECT_TRUE(QDir(saveFolder).isEmpty());
}

TEST_F(AudioRecording, SoundServerKilledForGoodEndsTheRecordingAfterTenSecondsKeepingTheM4A) {
    recordUntilTheServerIsGoneForGood(AudioExportFormat::m4a);
}

TEST_F(AudioRecording, SoundServerKilledForGoodEndsTheRecordingAfterTenSecondsKeepingTheWav) {
    recordUntilTheServerIsGoneForGood(AudioExportFormat::wav);
}

TEST_F(AudioRecording, SoundServerRestartedMidRecordingLeavesSilenceInTheSameWav) {
    server_changes::expectTheRecordingToOutlastARestart(
        engine, server, destination(AudioExportFormat::wav), AudioExportFormat::wav);
}

TEST_F(AudioRecording, SoundServerRestartedMidRecordingLeavesSilenceInTheSameM4A) {
    server_changes::expectTheRecordingToOutlastARestart(
        engine, server, destination(AudioExportFormat::m4a), AudioExportFormat::m4a);
}

TEST_F(AudioRecording, ChangedDefaultOutputIsFollowedWithoutEndingTheRecording) {
    server_changes::expectTheRecordingToFollowTheDefaultOutput(engine, server,
                                                               destination(AudioExportFormat::wav));
}

TEST_F(AudioRecording, SoundMissingMidRecordingBecomesSilenceSoTheDurationFollowsTheClock) {
    playTone();
    const QString wav = destination(AudioExportFormat::wav);
    engine.startAudio(QUrl::fromLocalFile(wav), AudioExportFormat::wav);
    const Clock::time_point started = Clock::now();
    QThread::msleep(1000);
    // While the output is suspended its monitor sends nothing.
    server.pactl({QStringLiteral("suspend-sink"), server.sinkName(), QStringLiteral("1")});
    QThread::msleep(1000);
    server.pactl({QStringLiteral("suspend-sink"), server.sinkName(), QStringLiteral("0")});
    QThread::msleep(1000);
    const Clock::time_point stopping = Clock::now();
    engine.stop();

    const std::optional<AudioFileFacts> facts = probeAudioFile(wav);
    ASSERT_TRUE(facts);
    EXPECT_NEAR(facts->durationSeconds, secondsBetween(started, stopping), 0.1);
    const SilentRun silence = longestSilence(decodeMono(wav), 1e-4f);
    EXPECT_NEAR(static_cast<double>(silence.length) / 48000, 1.0, 0.15);
}

TEST_F(AudioRecording, EngineDestroyedWhileRecordingEndsItsStreamFirst) {
    playTone();
    auto local = std::make_unique<CaptureEngine>(
        CapturePlatform{fakes.content, audio, writers, fakes.screenshots, fakes.video, resources});
    local->startAudio(QUrl::fromLocalFile(saveRoot.filePath("dropped.wav")),
                      AudioExportFormat::wav);
    QThread::msleep(300);
    ASSERT_EQ(server.recordingStreamCount(), 1);

    // Sound keeps arriving until the stream is gone; none may reach a destroyed queue.
    local.reset();
    EXPECT_EQ(server.recordingStreamCount(), 0);
}

// The first buffer finds that the file cannot be created: the recording ends at once with
// the reason, before anyone presses Stop, and nothing is left in the folder.
TEST_F(AudioRecording, ReadOnlySaveFolderEndsTheRecordingAtTheFirstSoundWithTheReason) {
    const ReadOnlyFolder readOnly;
    ASSERT_TRUE(readOnly.isReadOnly());
    std::promise<std::exception_ptr> reported;
    std::future<std::exception_ptr> failure = reported.get_future();
    engine.setFailureHandler([&reported](std::exception_ptr error) { reported.set_value(error); });
    playTone();
    const QString path = audioDestination(readOnly.path(), AudioExportFormat::wav);
    engine.startAudio(QUrl::fromLocalFile(path), AudioExportFormat::wav);

    ASSERT_EQ(failure.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(localizedDescription(failure.get()),
              QStringLiteral("The recording could not start: Tessarel could not save “%1” in the "
                             "folder “%2”: %3")
                  .arg(QFileInfo(path).fileName(), readOnly.path(), readOnly.refusal()));
    EXPECT_NO_THROW(engine.stop());
    EXPECT_TRUE(readOnly.isEmpty());
    EXPECT_EQ(server.recordingStreamCount(), 0);
}

namespace {

// The disk fills up mid-recording: the recording ends then with the system's reason, and the
// file keeps what was written, playable.
void recordUntilTheDiskIsFull(CaptureEngine& engine, SoundServer& server, AudioExportFormat format,
                              int kilobytes) {
    const SmallFolder small(kilobytes);
    ASSERT_TRUE(small.isSmall());
    std::promise<std::exception_ptr> reported;
    std::future<std::exception_ptr> failure = reported.get_future();
    engine.setFailureHandler([&reported](std::exception_ptr error) { reported.set_value(error); });
    server.playTone(1000, 60);
    const QString path = audioDestination(small.path(), format);
    engine.startAudio(QUrl::fromLocalFile(path), format);

    ASSERT_EQ(failure.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    const QString message = localizedDescription(failure.get());
    EXPECT_TRUE(message.contains(QStringLiteral("No space left on device")))
        << message.toStdString();
    try {
        engine.stop();
    } catch (const std::exception&) { // the same failure, already shown
    }
    const std::optional<AudioFileFacts> facts = probeAudioFile(path);
    ASSERT_TRUE(facts);
    EXPECT_GT(facts->durationSeconds, 0.5);
    expectTone(path);
}

} // namespace

TEST_F(AudioRecording, DiskFullDuringAWavEndsTheRecordingAndKeepsWhatWasWritten) {
    recordUntilTheDiskIsFull(engine, server, AudioExportFormat::wav, 256);
}

TEST_F(AudioRecording, DiskFullDuringAnM4AEndsTheRecordingAndKeepsWhatWasWritten) {
    recordUntilTheDiskIsFull(engine, server, AudioExportFormat::m4a, 64);
}

// An MP3 is encoded only after the stop: a folder that refuses it is found out at the start.
TEST_F(AudioRecording, ReadOnlySaveFolderRefusesAnMP3RecordingAtTheStart) {
    const ReadOnlyFolder readOnly;
    ASSERT_TRUE(readOnly.isReadOnly());
    playTone();
    const QString path = audioDestination(readOnly.path(), AudioExportFormat::mp3);
    try {
        engine.startAudio(QUrl::fromLocalFile(path), AudioExportFormat::mp3);
        FAIL() << "the start should have failed";
    } catch (const CaptureEngineError& error) {
        EXPECT_EQ(QString::fromUtf8(error.what()),
                  QStringLiteral("The recording could not start: Tessarel could not save “%1” in "
                                 "the folder “%2”: %3")
                      .arg(QFileInfo(path).fileName(), readOnly.path(), readOnly.refusal()));
    }
    EXPECT_NO_THROW(engine.stop());
    EXPECT_TRUE(readOnly.isEmpty());
    EXPECT_TRUE(temporaryWaves(tempDir.path()).isEmpty());
}

namespace {

// What happens to the save folder while the recording runs.
enum class FolderLoss { removed, unmounted, replacedByAFile };

// The save folder goes away two seconds into a four-second recording. The stop tells where
// the recording is, and that file holds the whole recording, playable.
void recordWhileTheFolderGoesAway(CaptureEngine& engine, SoundServer& server,
                                  AudioExportFormat format, FolderLoss loss) {
    QTemporaryDir home;
    struct HomeFor {
        explicit HomeFor(const QString& path) : previous(qgetenv("HOME")) {
            qputenv("HOME", path.toUtf8());
        }
        ~HomeFor() { qputenv("HOME", previous); }
        QByteArray previous;
    } homeForTheTest(home.path());
    SmallFolder mounted(64 * 1024);
    QTemporaryDir parent;
    const QString folder = loss == FolderLoss::unmounted
                               ? mounted.path()
                               : QDir(parent.path()).filePath(QStringLiteral("Recordings"));
    ASSERT_TRUE(QDir().mkpath(folder));
    const QString path = audioDestination(folder, format);
    server.playTone(1000, 60);
    engine.startAudio(QUrl::fromLocalFile(path), format);
    const Clock::time_point started = Clock::now();
    QThread::msleep(2000);
    if (loss == FolderLoss::unmounted) {
        ASSERT_TRUE(mounted.detach());
    } else {
        ASSERT_TRUE(QDir(folder).removeRecursively());
    }
    if (loss == FolderLoss::replacedByAFile) {
        QFile standIn(folder);
        ASSERT_TRUE(standIn.open(QIODevice::WriteOnly));
    }
    ASSERT_FALSE(QFile::exists(path));
    const Clock::time_point gone = Clock::now();
    QThread::msleep(2000);

    const QString name = QFileInfo(path).fileName();
    const QString kept =
        loss == FolderLoss::replacedByAFile ? QDir(home.path()).filePath(name) : path;
    try {
        engine.stop();
        ADD_FAILURE() << "the stop should have said where the recording went";
    } catch (const std::exception& error) {
        const QString told =
            loss == FolderLoss::replacedByAFile
                ? QStringLiteral("The folder “%1” went away during the recording and could not "
                                 "be made again (File exists). Tessarel saved the recording as "
                                 "“%2” instead.")
                      .arg(folder, kept)
                : QStringLiteral("The folder “%1” went away during the recording. Tessarel made "
                                 "it again and saved “%2” in it.")
                      .arg(folder, name);
        EXPECT_EQ(QString::fromUtf8(error.what()), told);
    }
    const std::optional<AudioFileFacts> facts = probeAudioFile(kept);
    ASSERT_TRUE(facts);
    // The sound of the two seconds after the folder went away is there too.
    EXPECT_GT(facts->durationSeconds, secondsBetween(started, gone) + 1.5);
    expectTone(kept);
}

} // namespace

TEST_F(AudioRecording, SaveFolderRemovedDuringAWavIsMadeAgainWithTheWholeRecording) {
    recordWhileTheFolderGoesAway(engine, server, AudioExportFormat::wav, FolderLoss::removed);
}

TEST_F(AudioRecording, SaveFolderRemovedDuringAnM4AIsMadeAgainWithTheWholeRecording) {
    recordWhileTheFolderGoesAway(engine, server, AudioExportFormat::m4a, FolderLoss::removed);
}

// An MP3 is made only after the stop, from sound kept in the temporary folder.
TEST_F(AudioRecording, SaveFolderRemovedDuringAnMP3IsMadeAgainForTheWholeRecording) {
    recordWhileTheFolderGoesAway(engine, server, AudioExportFormat::mp3, FolderLoss::removed);
}

TEST_F(AudioRecording, SaveFolderUnmountedDuringAnM4AGetsTheWholeRecordingBack) {
    recordWhileTheFolderGoesAway(engine, server, AudioExportFormat::m4a, FolderLoss::unmounted);
}

TEST_F(AudioRecording, SaveFolderUnmountedDuringAWavGetsTheWholeRecordingBack) {
    recordWhileTheFolderGoesAway(engine, server, AudioExportFormat::wav, FolderLoss::unmounted);
}

TEST_F(AudioRecording, SaveFolderThatCannotBeMadeAgainSendsTheRecordingHome) {
    recordWhileTheFolderGoesAway(engine, server, AudioExportFormat::wav,
                                 FolderLoss::replacedByAFile);
}
