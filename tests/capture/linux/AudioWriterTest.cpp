#include "capture/linux/FfmpegAudioWriter.h"

#include "capture/CaptureEngine.h"
#include "capture/linux/AudioFileInspection.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

namespace {

constexpr int kRate = 48000;
constexpr int64_t kNsPerSecond = 1'000'000'000;

// `seconds` of a 1 kHz tone at half scale, starting at `startNs`.
SampleBuffer tone(int64_t startNs, double seconds) {
    SampleBuffer buffer;
    buffer.presentationTimeNs = startNs;
    const auto frames = static_cast<size_t>(seconds * kRate);
    buffer.samples.resize(frames * 2);
    for (size_t i = 0; i < frames; ++i) {
        const auto value = static_cast<float>(
            0.5 * std::sin(2 * std::numbers::pi * 1000.0 * static_cast<double>(i) / kRate));
        buffer.samples[2 * i] = value;
        buffer.samples[2 * i + 1] = value;
    }
    return buffer;
}

std::vector<int16_t> waveSamples(const QString& path) {
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray bytes = file.readAll();
    std::vector<int16_t> samples((static_cast<size_t>(bytes.size()) - 44) / 2);
    std::memcpy(samples.data(), bytes.constData() + 44, samples.size() * 2);
    return samples;
}

uint32_t littleEndian32(const QByteArray& bytes, int at) {
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i) {
        value = value << 8 | static_cast<uint8_t>(bytes[at + i]);
    }
    return value;
}

class AudioWriter : public testing::Test {
protected:
    std::unique_ptr<AudioFileWriter> startWriter(AudioExportFormat format, const QString& name) {
        path = dir.filePath(name);
        auto writer = factory.makeWriter(QUrl::fromLocalFile(path),
                                         CaptureEngine::audioWriterSettings(format));
        EXPECT_TRUE(writer->canAddInput());
        writer->addInput();
        EXPECT_TRUE(writer->startWriting());
        writer->startSession(0);
        return writer;
    }

    // Appends whole buffers, waiting for room (never long: the encoder keeps up).
    static void appendAll(AudioFileWriter& writer, SampleBuffer buffer) {
        const QDeadlineTimer deadline(30000);
        while (!writer.isReadyForMoreMediaData()) {
            ASSERT_FALSE(deadline.hasExpired());
            QThread::msleep(1);
        }
        ASSERT_TRUE(writer.append(std::move(buffer)));
    }

    QTemporaryDir dir;
    FfmpegAudioWriterFactory factory;
    QString path;
};

} // namespace

TEST_F(AudioWriter, GapBetweenBuffersBecomesSilenceSoTheDurationFollowsTheClock) {
    auto writer = startWriter(AudioExportFormat::wav, QStringLiteral("gap.wav"));
    appendAll(*writer, tone(0, 1.0));
    appendAll(*writer, tone(kNsPerSecond * 3 / 2, 0.5));
    writer->markAsFinished();
    writer->finishWriting();
    ASSERT_EQ(writer->status(), AudioWriterStatus::completed);

    const std::vector<int16_t> samples = waveSamples(path);
    ASSERT_EQ(samples.size(), size_t{2 * kRate * 2});
    for (size_t frame = kRate; frame < size_t{kRate * 3 / 2}; ++frame) {
        ASSERT_EQ(samples[2 * frame], 0) << frame;
    }
    EXPECT_NE(samples[2 * (kRate * 3 / 2) + 20], 0);
}

TEST_F(AudioWriter, OverlappingFramesAreWrittenOnce) {
    auto writer = startWriter(AudioExportFormat::wav, QStringLiteral("overlap.wav"));
    appendAll(*writer, tone(0, 1.0));
    appendAll(*writer, tone(kNsPerSecond / 2, 1.0));
    writer->markAsFinished();
    writer->finishWriting();
    ASSERT_EQ(writer->status(), AudioWriterStatus::completed);
    EXPECT_EQ(waveSamples(path).size(), size_t{kRate * 3 / 2 * 2});
}

TEST_F(AudioWriter, ExistingFileIsNotOverwritten) {
    path = dir.filePath(QStringLiteral("Tessarel Audio.m4a"));
    QFile existing(path);
    ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
    existing.write("keep");
    existing.close();
    try {
        factory.makeWriter(QUrl::fromLocalFile(path),
                           CaptureEngine::audioWriterSettings(AudioExportFormat::m4a));
        FAIL() << "a writer was made for an existing file";
    } catch (const PlatformError& error) {
        EXPECT_STREQ(error.what(), "The file “Tessarel Audio.m4a” already exists.");
    }
    ASSERT_TRUE(existing.open(QIODevice::ReadOnly));
    EXPECT_EQ(existing.readAll(), "keep");
}

TEST_F(AudioWriter, FileAppearingBeforeTheStartIsNotOverwritten) {
    path = dir.filePath(QStringLiteral("late.wav"));
    auto writer = factory.makeWriter(QUrl::fromLocalFile(path),
                                     CaptureEngine::audioWriterSettings(AudioExportFormat::wav));
    QFile existing(path);
    ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
    existing.write("keep");
    existing.close();
    EXPECT_FALSE(writer->startWriting());
    EXPECT_EQ(writer->status(), AudioWriterStatus::failed);
    EXPECT_EQ(writer->error(), QStringLiteral("Tessarel could not save “late.wav” in the folder "
                                              "“%1”: File exists")
                                   .arg(dir.path()));
    ASSERT_TRUE(existing.open(QIODevice::ReadOnly));
    EXPECT_EQ(existing.readAll(), "keep");
}

TEST_F(AudioWriter, MissingFolderIsRefused) {
    const QString missing = dir.filePath(QStringLiteral("missing/a.wav"));
    EXPECT_THROW(factory.makeWriter(QUrl::fromLocalFile(missing),
                                    CaptureEngine::audioWriterSettings(AudioExportFormat::wav)),
                 PlatformError);
}

TEST_F(AudioWriter, CancelledWritingLeavesNoFile) {
    auto writer = startWriter(AudioExportFormat::m4a, QStringLiteral("cancelled.m4a"));
    appendAll(*writer, tone(0, 0.5));
    writer->markAsFinished();
    writer->cancelWriting();
    EXPECT_EQ(writer->status(), AudioWriterStatus::cancelled);
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(AudioWriter, WaveHeaderCountsTheDataWhileTheFileGrows) {
    auto writer = startWriter(AudioExportFormat::wav, QStringLiteral("growing.wav"));
    appendAll(*writer, tone(0, 1.0));
    QByteArray bytes;
    const QDeadlineTimer deadline(30000);
    while (bytes.size() < 44 + kRate * 4) {
        ASSERT_FALSE(deadline.hasExpired());
        QThread::msleep(5);
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        bytes = file.readAll();
    }
    EXPECT_EQ(littleEndian32(bytes, 4), uint32_t(bytes.size() - 8));
    EXPECT_EQ(littleEndian32(bytes, 40), uint32_t(bytes.size() - 44));
    const std::optional<AudioFileFacts> facts = probeAudioFile(path);
    ASSERT_TRUE(facts);
    EXPECT_NEAR(facts->durationSeconds, 1.0, 0.001);
}

// A WAVE buffer costs a conversion and a write: it is written by append itself, with no
// thread of the writer's own to wake for it.
TEST_F(AudioWriter, WaveIsWrittenByAppendItselfWithoutAThreadOfItsOwn) {
    auto writer = startWriter(AudioExportFormat::wav, QStringLiteral("direct.wav"));
    ASSERT_TRUE(writer->isReadyForMoreMediaData());
    ASSERT_TRUE(writer->append(tone(0, 0.25)));
    EXPECT_EQ(QFileInfo(path).size(), 44 + kRate / 4 * 4);
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile name(tasks.filePath(task + QStringLiteral("/comm")));
        ASSERT_TRUE(name.open(QIODevice::ReadOnly));
        EXPECT_NE(name.readAll().trimmed(), QByteArray("Tessarel.audio"));
    }
    writer->markAsFinished();
    writer->finishWriting();
    EXPECT_EQ(writer->status(), AudioWriterStatus::completed);
    EXPECT_EQ(waveSamples(path).size(), size_t{kRate / 4 * 2});
}

TEST_F(AudioWriter, UnfinishedM4AIsReadableUpToItsLastFragment) {
    auto writer = startWriter(AudioExportFormat::m4a, QStringLiteral("unfinished.m4a"));
    appendAll(*writer, tone(0, 1.0));
    appendAll(*writer, tone(kNsPerSecond, 1.0));
    std::optional<AudioFileFacts> facts;
    const QDeadlineTimer deadline(30000);
    while (!facts || facts->durationSeconds < 1.4) {
        ASSERT_FALSE(deadline.hasExpired());
        QThread::msleep(20);
        facts = probeAudioFile(path);
    }
    EXPECT_EQ(facts->codecName, QStringLiteral("aac"));
    EXPECT_NEAR(dominantFrequencyHz(decodeMono(path), kRate), 1000.0, 10.0);
    writer->markAsFinished();
    writer->finishWriting();
    EXPECT_EQ(writer->status(), AudioWriterStatus::completed);
}

TEST_F(AudioWriter, WriterEndsItsFileWhenDroppedWhileWriting) {
    {
        auto writer = startWriter(AudioExportFormat::m4a, QStringLiteral("dropped.m4a"));
        appendAll(*writer, tone(0, 1.0));
    }
    const std::optional<AudioFileFacts> facts = probeAudioFile(path);
    ASSERT_TRUE(facts);
    EXPECT_NEAR(facts->durationSeconds, 1.0, 0.05);
}

// FFmpeg explains its refusals only in its log; that explanation reaches the writer's error
// instead of the console, and the file the start created is gone again.
TEST_F(AudioWriter, EncoderRefusalCarriesFFmpegsOwnWords) {
    AudioWriterSettings settings = CaptureEngine::audioWriterSettings(AudioExportFormat::m4a);
    settings.sampleRate = 1234;
    path = dir.filePath(QStringLiteral("odd rate.m4a"));
    auto writer = factory.makeWriter(QUrl::fromLocalFile(path), settings);
    writer->addInput();

    EXPECT_FALSE(writer->startWriting());
    EXPECT_EQ(writer->status(), AudioWriterStatus::failed);
    const QString error = writer->error().value_or(QString());
    EXPECT_TRUE(error.startsWith(QStringLiteral("The audio file could not be written: ")))
        << error.toStdString();
    EXPECT_TRUE(error.contains(QStringLiteral("(aac: ")) && error.contains(QStringLiteral("1234")))
        << error.toStdString();
    EXPECT_FALSE(QFile::exists(path));
}
