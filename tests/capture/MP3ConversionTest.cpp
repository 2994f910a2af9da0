// The MP3 hand-off to the bundled encoder, with real child processes: the real lame and
// stand-in scripts.

#include "EngineTestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <gmock/gmock.h>

#include <cmath>
#include <numbers>
#include <thread>

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr auto kDestinationName = "Tessarel Audio 2026-03-09 at 07.03.04.mp3";

} // namespace

// Each test gets its own temporary directory, so that leftovers can be seen.
class MP3Conversion : public EngineTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(scratch.isValid());
        ASSERT_TRUE(temporaryDirectory.isValid());
        previousTMPDIR = qgetenv("TMPDIR");
        hadTMPDIR = qEnvironmentVariableIsSet("TMPDIR");
        qputenv("TMPDIR", temporaryDirectory.path().toUtf8());
        ASSERT_EQ(QDir::tempPath(), temporaryDirectory.path());
    }
    void TearDown() override {
        if (hadTMPDIR) {
            qputenv("TMPDIR", previousTMPDIR);
        } else {
            qunsetenv("TMPDIR");
        }
    }

    // Writes an executable shell script standing in for the encoder.
    QString standIn(const QString& name, const QString& body) {
        const QString path = QDir(scratch.path()).filePath(name);
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("#!/bin/sh\n" + body.toUtf8() + "\n");
        file.close();
        EXPECT_TRUE(file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        return path;
    }

    // Records an MP3 with some sound in it and returns the temporary WAV's path.
    QString recordMP3(const QUrl& destination) {
        engine.startAudio(destination, AudioExportFormat::mp3);
        const auto stream = fakes.audio.lastStream();
        // A quarter of a second of a 440 Hz tone, in 20 ms buffers.
        for (int buffer = 0; buffer < 12; ++buffer) {
            SampleBuffer samples = makeSampleBuffer(buffer * 20'000'000LL, 960);
            for (size_t i = 0; i < samples.samples.size(); ++i) {
                const double t = (buffer * 960 + static_cast<double>(i / 2)) / 48000.0;
                samples.samples[i] =
                    static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * 440 * t));
            }
            stream->push(std::move(samples));
        }
        stream->drain();
        return fakes.audioWriters.lastWriter().url.toLocalFile();
    }

    void expectNoTemporaryWav(const QString& temporaryWav) const {
        EXPECT_FALSE(QFileInfo::exists(temporaryWav)) << temporaryWav.toStdString();
        EXPECT_TRUE(QDir(temporaryDirectory.path())
                        .entryList({QStringLiteral("Tessarel-*.wav")}, QDir::Files)
                        .isEmpty());
    }

    QTemporaryDir temporaryDirectory;
    QByteArray previousTMPDIR;
    bool hadTMPDIR = false;
};

TEST_F(MP3Conversion, RealEncoderProducesAnMP3AndRemovesTheTemporaryWav) {
    const QString lame = QStandardPaths::findExecutable(QStringLiteral("lame"));
    ASSERT_FALSE(lame.isEmpty()) << "lame is not installed";
    fakes.resources.setResource(QStringLiteral("lame"), lame);
    const QUrl destination = scratchURL(kDestinationName);
    const QString temporaryWav = recordMP3(destination);

    EXPECT_NO_THROW(engine.stop());

    const QByteArray mp3 = fileContents(destination.toLocalFile());
    ASSERT_GE(mp3.size(), 4);
    const bool id3 = mp3.startsWith("ID3");
    const bool frameSync = static_cast<unsigned char>(mp3[0]) == 0xFF &&
                           (static_cast<unsigned char>(mp3[1]) & 0xE0) == 0xE0;
    EXPECT_TRUE(id3 || frameSync);
    EXPECT_EQ(fakes.resources.lookups(), std::vector<QString>{QStringLiteral("lame")});
    expectNoTemporaryWav(temporaryWav);
}

TEST_F(MP3Conversion, MissingEncoderIsReportedAndLeavesNoTemporaryWav) {
    const QUrl destination = scratchURL(kDestinationName);
    const QString temporaryWav = recordMP3(destination);
    ASSERT_TRUE(temporaryWav.startsWith(temporaryDirectory.path()));

    EXPECT_EQ(descriptionOfError([&] { engine.stop(); }),
              "The capture could not be saved: The bundled MP3 encoder is missing.");

    expectNoTemporaryWav(temporaryWav);
    EXPECT_FALSE(QFileInfo::exists(destination.toLocalFile()));
}

TEST_F(MP3Conversion, EncoderExitingWithNonZeroStatusFails) {
    fakes.resources.setResource(QStringLiteral("lame"), standIn("lame", "exit 1"));
    const QString temporaryWav = recordMP3(scratchURL(kDestinationName));

    EXPECT_EQ(descriptionOfError([&] { engine.stop(); }),
              "The capture could not be saved: macOS could not convert the recording to MP3.");
    expectNoTemporaryWav(temporaryWav);
}

TEST_F(MP3Conversion, EncoderExitingZeroWithoutWritingTheOutputIsAFailure) {
    fakes.resources.setResource(QStringLiteral("lame"), standIn("lame", "exit 0"));
    const QUrl destination = scratchURL(kDestinationName);
    const QString temporaryWav = recordMP3(destination);

    EXPECT_THROW(
        {
            try {
                engine.stop();
            } catch (const CaptureEngineError& error) {
                EXPECT_EQ(error.code(), CaptureEngineError::Code::cannotEncode);
                EXPECT_EQ(error.detail(), "macOS could not convert the recording to MP3.");
                throw;
            }
        },
        CaptureEngineError);
    EXPECT_FALSE(QFileInfo::exists(destination.toLocalFile()));
    expectNoTemporaryWav(temporaryWav);
}

TEST_F(MP3Conversion, EncoderKilledBySignalFails) {
    fakes.resources.setResource(QStringLiteral("lame"),
                                standIn("lame", "printf x > \"$5\"\nkill -9 $$"));
    const QString temporaryWav = recordMP3(scratchURL(kDestinationName));

    EXPECT_EQ(descriptionOfError([&] { engine.stop(); }),
              "The capture could not be saved: macOS could not convert the recording to MP3.");
    expectNoTemporaryWav(temporaryWav);
}

TEST_F(MP3Conversion, PartialOutputOfAFailedEncoderIsLeftInPlace) {
    fakes.resources.setResource(QStringLiteral("lame"),
                                standIn("lame", "printf part > \"$5\"\nexit 3"));
    const QUrl destination = scratchURL(kDestinationName);
    const QString temporaryWav = recordMP3(destination);

    EXPECT_THROW(engine.stop(), CaptureEngineError);
    EXPECT_EQ(fileContents(destination.toLocalFile()), "part");
    expectNoTemporaryWav(temporaryWav);
}

TEST_F(MP3Conversion, EncoderThatCannotBeExecutedThrowsTheLaunchErrorUnwrapped) {
    const QString path = standIn("lame", "exit 0");
    ASSERT_TRUE(QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner));
    fakes.resources.setResource(QStringLiteral("lame"), path);
    const QString temporaryWav = recordMP3(scratchURL(kDestinationName));

    try {
        engine.stop();
        FAIL() << "stop did not throw";
    } catch (const CaptureEngineError& error) {
        FAIL() << "the launch error was wrapped: " << error.what();
    } catch (const PlatformError& error) {
        EXPECT_THAT(error.what(), HasSubstr("Permission denied"));
        EXPECT_THAT(error.what(), Not(HasSubstr("could not convert")));
    }
    expectNoTemporaryWav(temporaryWav);
}

TEST_F(MP3Conversion, FiveArgumentsArriveWholeWithBlanksAndNonAsciiLetters) {
    const QString argumentsFile = QDir(scratch.path()).filePath("arguments");
    fakes.resources.setResource(
        QStringLiteral("lame"),
        standIn("lame", QStringLiteral("printf '%s\\n' \"$#\" \"$@\" > '%1'\nprintf mp3 > \"$5\"")
                            .arg(argumentsFile)));
    ASSERT_TRUE(QDir(scratch.path()).mkdir(QStringLiteral("Mäpp Ordner")));
    const QUrl destination = scratchURL(QStringLiteral("Mäpp Ordner/") + kDestinationName);
    const QString temporaryWav = recordMP3(destination);

    EXPECT_NO_THROW(engine.stop());

    const QStringList arguments =
        QString::fromUtf8(fileContents(argumentsFile)).split('\n', Qt::SkipEmptyParts);
    EXPECT_EQ(
        arguments,
        (QStringList{
            "5", "--silent", "-b", "192", temporaryWav,
            QDir(scratch.path()).filePath(QStringLiteral("Mäpp Ordner/") + kDestinationName)}));
    EXPECT_EQ(fileContents(destination.toLocalFile()), "mp3");
    expectNoTemporaryWav(temporaryWav);
}

TEST_F(MP3Conversion, EncoderReadsTheFinishedWav) {
    fakes.resources.setResource(QStringLiteral("lame"), standIn("lame", "cp \"$4\" \"$5\""));
    const QUrl destination = scratchURL(kDestinationName);
    const QString temporaryWav = recordMP3(destination);

    EXPECT_NO_THROW(engine.stop());

    const QByteArray copied = fileContents(destination.toLocalFile());
    EXPECT_TRUE(copied.startsWith("RIFF"));
    EXPECT_EQ(copied.size(), 44 + 12 * 960 * 2 * 2);
    expectNoTemporaryWav(temporaryWav);
}

TEST_F(MP3Conversion, EmptyMP3RecordingRunsNoEncoder) {
    fakes.resources.setResource(QStringLiteral("lame"), standIn("lame", "exit 1"));
    const QUrl destination = scratchURL(kDestinationName);
    engine.startAudio(destination, AudioExportFormat::mp3);

    EXPECT_NO_THROW(engine.stop());

    // That no temporary file is left is checked with the real writer, which creates one.
    EXPECT_TRUE(fakes.resources.lookups().empty());
    EXPECT_FALSE(QFileInfo::exists(destination.toLocalFile()));
}

// The conversion runs inside stop without the engine's lock: sound arriving meanwhile (or
// any other engine call) is not held up by the encoder.
TEST_F(MP3Conversion, ConversionHoldsNoEngineLock) {
    const QString started = QDir(scratch.path()).filePath(QStringLiteral("started"));
    const QString go = QDir(scratch.path()).filePath(QStringLiteral("go"));
    fakes.resources.setResource(
        QStringLiteral("lame"),
        standIn("lame", QStringLiteral("touch \"%1\"; while [ ! -e \"%2\" ]; do sleep 0.01; done; "
                                       "cp \"$4\" \"$5\"")
                            .arg(started, go)));
    const QUrl destination = scratchURL(kDestinationName);
    const QString temporaryWav = recordMP3(destination);

    auto stopping = std::async(std::launch::async, [&] { engine.stop(); });
    while (!QFileInfo::exists(started)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    auto buffer = std::async(std::launch::async,
                             [&] { engine.didOutputSampleBuffer(makeSampleBuffer(0, 960)); });
    const bool bufferPassed = finishesInTime(buffer);
    QFile(go).open(QIODevice::WriteOnly);
    EXPECT_TRUE(bufferPassed) << "the encoder held the engine's lock";

    ASSERT_TRUE(finishesInTime(stopping));
    EXPECT_NO_THROW(stopping.get());
    EXPECT_TRUE(fileContents(destination.toLocalFile()).startsWith("RIFF"));
    expectNoTemporaryWav(temporaryWav);
}
