// Audio recording: writer settings, writer creation, the sample-buffer handler and finishing.

#include "EngineTestSupport.h"

#include <QFileInfo>
#include <QRegularExpression>

using AudioRecording = EngineTest;

TEST(AudioWriterSettings, M4AIsAacAt192000BitsPerSecondWithExactlyFourEntries) {
    const AudioWriterSettings settings = CaptureEngine::audioWriterSettings(AudioExportFormat::m4a);
    EXPECT_EQ(settings.fileType, AudioFileType::appleM4A);
    EXPECT_EQ(settings.formatID, 0x61616320u);
    EXPECT_EQ(settings.sampleRate, 48000);
    EXPECT_EQ(settings.numberOfChannels, 2);
    EXPECT_EQ(settings.encoderBitRate, 192000);
    EXPECT_EQ(settings.linearPCMBitDepth, std::nullopt);
    EXPECT_EQ(settings.linearPCMIsFloat, std::nullopt);
    EXPECT_EQ(settings.entryCount(), 4);
}

TEST(AudioWriterSettings, WavIs16BitIntegerPcmWithExactlyFiveEntries) {
    const AudioWriterSettings settings = CaptureEngine::audioWriterSettings(AudioExportFormat::wav);
    EXPECT_EQ(settings.fileType, AudioFileType::wave);
    EXPECT_EQ(settings.formatID, 0x6C70636Du);
    EXPECT_EQ(settings.sampleRate, 48000);
    EXPECT_EQ(settings.numberOfChannels, 2);
    EXPECT_EQ(settings.encoderBitRate, std::nullopt);
    EXPECT_EQ(settings.linearPCMBitDepth, 16);
    EXPECT_EQ(settings.linearPCMIsFloat, false);
    EXPECT_EQ(settings.entryCount(), 5);
}

TEST(AudioWriterSettings, MP3RowIsIdenticalToWav) {
    EXPECT_EQ(CaptureEngine::audioWriterSettings(AudioExportFormat::mp3),
              CaptureEngine::audioWriterSettings(AudioExportFormat::wav));
}

TEST_F(AudioRecording, StopBeforeAnySoundBufferLeavesNoFileAndReportsNoError) {
    const QUrl destination = scratchURL("Silent.wav");
    engine.startAudio(destination, AudioExportFormat::wav);

    EXPECT_NO_THROW(engine.stop());

    const FakeWriterRecord writer = fakes.audioWriters.lastWriter();
    EXPECT_TRUE(writer.markedAsFinished);
    EXPECT_TRUE(writer.cancelCalled);
    EXPECT_FALSE(writer.finishCalled);
    EXPECT_FALSE(QFileInfo::exists(destination.toLocalFile()));
}

TEST_F(AudioRecording, MP3IsWrittenToTemporaryTessarelUuidWavNeverAtTheDestination) {
    const QUrl destination = scratchURL("Tessarel Audio 2026-03-09 at 07.03.04.mp3");
    engine.startAudio(destination, AudioExportFormat::mp3);

    const FakeWriterRecord writer = fakes.audioWriters.lastWriter();
    const QFileInfo temporary(writer.url.toLocalFile());
    EXPECT_TRUE(writer.url.isLocalFile());
    EXPECT_NE(writer.url, destination);
    EXPECT_EQ(temporary.absolutePath(), QFileInfo(QDir::tempPath()).absoluteFilePath());
    const QRegularExpression name("^Tessarel-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-"
                                  "[0-9A-F]{12}\\.wav$");
    EXPECT_TRUE(name.match(temporary.fileName()).hasMatch()) << temporary.fileName().toStdString();
    EXPECT_EQ(writer.settings, CaptureEngine::audioWriterSettings(AudioExportFormat::wav));

    fakes.audio.lastStream()->pushAndWait(makeSampleBuffer(1000));
    EXPECT_FALSE(QFileInfo::exists(destination.toLocalFile()));
    EXPECT_FALSE(temporary.exists());

    // Each recording gets a new name.
    // No encoder is bundled here: the conversion fails and the WAV is removed.
    EXPECT_THROW(engine.stop(), CaptureEngineError);
    engine.startAudio(destination, AudioExportFormat::mp3);
    EXPECT_NE(fakes.audioWriters.lastWriter().url, writer.url);
}

TEST_F(AudioRecording, ExistingFileAtAnMP3DestinationIsNotReplaced) {
    const QUrl destination = scratchURL("Tessarel Audio 2026-03-09 at 07.03.04.mp3");
    QFile existing(destination.toLocalFile());
    ASSERT_TRUE(existing.open(QIODevice::WriteOnly));
    existing.write("earlier recording");
    existing.close();

    EXPECT_EQ(descriptionOfError([&] { engine.startAudio(destination, AudioExportFormat::mp3); }),
              "The recording could not start: The file “Tessarel Audio 2026-03-09 at "
              "07.03.04.mp3” already exists.");
    EXPECT_EQ(fakes.audioWriters.makeWriterCount(), 0);
    ASSERT_TRUE(existing.open(QIODevice::ReadOnly));
    EXPECT_EQ(existing.readAll(), "earlier recording");
}

TEST_F(AudioRecording, ChoosingWavOrM4AWritesWithTheirEncodings) {
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    engine.stop();
    engine.startAudio(scratchURL("a.m4a"), AudioExportFormat::m4a);
    engine.stop();

    const auto writers = fakes.audioWriters.writers();
    ASSERT_EQ(writers.size(), 2u);
    EXPECT_EQ(writers[0].url, scratchURL("a.wav"));
    EXPECT_EQ(writers[0].settings.fileType, AudioFileType::wave);
    EXPECT_EQ(writers[0].settings.formatID, kAudioFormatLinearPCM);
    EXPECT_EQ(writers[0].settings.linearPCMBitDepth, 16);
    EXPECT_EQ(writers[0].settings.linearPCMIsFloat, false);
    EXPECT_EQ(writers[0].settings.sampleRate, 48000);
    EXPECT_EQ(writers[0].settings.numberOfChannels, 2);
    EXPECT_EQ(writers[1].url, scratchURL("a.m4a"));
    EXPECT_EQ(writers[1].settings.fileType, AudioFileType::appleM4A);
    EXPECT_EQ(writers[1].settings.formatID, kAudioFormatMPEG4AAC);
    EXPECT_EQ(writers[1].settings.encoderBitRate, 192000);
    EXPECT_EQ(writers[1].settings.sampleRate, 48000);
    EXPECT_EQ(writers[1].settings.numberOfChannels, 2);
    for (const FakeWriterRecord& writer : writers) {
        EXPECT_TRUE(writer.inputAdded);
    }
}

TEST_F(AudioRecording, WriterFailedWithoutErrorGivesUnknownEncodingError) {
    fakes.audioWriters.setScript({.finishStatus = AudioWriterStatus::failed});
    engine.startAudio(scratchURL("a.m4a"), AudioExportFormat::m4a);
    fakes.audio.lastStream()->pushAndWait(makeSampleBuffer(1000));

    EXPECT_EQ(descriptionOfError([&] { engine.stop(); }),
              "The capture could not be saved: Unknown encoding error");
}

TEST_F(AudioRecording, WriterFailedWithErrorGivesItsDescription) {
    fakes.audioWriters.setScript(
        {.finishStatus = AudioWriterStatus::failed, .finishError = "No space left on device."});
    engine.startAudio(scratchURL("a.m4a"), AudioExportFormat::m4a);
    fakes.audio.lastStream()->pushAndWait(makeSampleBuffer(1000));

    EXPECT_THROW(
        {
            try {
                engine.stop();
            } catch (const CaptureEngineError& error) {
                EXPECT_EQ(error.code(), CaptureEngineError::Code::cannotEncode);
                EXPECT_STREQ(error.what(),
                             "The capture could not be saved: No space left on device.");
                throw;
            }
        },
        CaptureEngineError);
}

TEST_F(AudioRecording, AddingTheStreamOutputFailsAfterPrepareKeepsTheWriterForNextStop) {
    fakes.audio.setScript({.addOutputError = makePlatformError("The stream has no sound.")});

    EXPECT_EQ(
        descriptionOfError([&] { engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav); }),
        "The stream has no sound.");
    EXPECT_FALSE(fakes.audioWriters.lastWriter().cancelCalled);

    EXPECT_NO_THROW(engine.stop());
    const FakeWriterRecord writer = fakes.audioWriters.lastWriter();
    EXPECT_TRUE(writer.cancelCalled);
    EXPECT_FALSE(writer.finishCalled);
    EXPECT_EQ(fakes.audio.lastStream()->stopCaptureCount(), 0); // never stored
}

TEST_F(AudioRecording, StartingCaptureFailsAfterPrepareKeepsWriterAndNextStartReplacesIt) {
    fakes.audio.setScript({.startCaptureError = makePlatformError("The stream did not start.")});

    EXPECT_EQ(
        descriptionOfError([&] { engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav); }),
        "The stream did not start.");

    fakes.audio.setScript({});
    engine.startAudio(scratchURL("b.wav"), AudioExportFormat::wav);
    fakes.audio.lastStream()->pushAndWait(makeSampleBuffer(1000));
    EXPECT_NO_THROW(engine.stop());

    const auto writers = fakes.audioWriters.writers();
    ASSERT_EQ(writers.size(), 2u);
    // The first writer was simply replaced: neither cancelled nor finished.
    EXPECT_FALSE(writers[0].cancelCalled);
    EXPECT_FALSE(writers[0].finishCalled);
    EXPECT_TRUE(writers[1].finishCalled);
    EXPECT_EQ(writers[1].appended.size(), 1u);
}

TEST_F(AudioRecording, StartingCaptureFailsLeavesTheStreamToBeStoppedByNextStop) {
    fakes.audio.setScript({.startCaptureError = makePlatformError("The stream did not start.")});
    EXPECT_THROW(engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav), PlatformError);

    EXPECT_NO_THROW(engine.stop());

    EXPECT_EQ(fakes.audio.lastStream()->stopCaptureCount(), 1);
    EXPECT_TRUE(fakes.audioWriters.lastWriter().cancelCalled);
}

TEST_F(AudioRecording, UnavailableEncoderIsWrappedTwice) {
    fakes.audioWriters.setScript({.canAddInput = false});

    EXPECT_EQ(
        descriptionOfError([&] { engine.startAudio(scratchURL("a.m4a"), AudioExportFormat::m4a); }),
        "The recording could not start: The recording could not start: The M4A encoder is "
        "unavailable on this Mac.");
    EXPECT_TRUE(fakes.audio.streams().empty());
    EXPECT_FALSE(fakes.audioWriters.lastWriter().inputAdded);
}

TEST_F(AudioRecording, UnavailableEncoderForMP3NamesTheWavWriter) {
    fakes.audioWriters.setScript({.canAddInput = false});

    EXPECT_EQ(
        descriptionOfError([&] { engine.startAudio(scratchURL("a.mp3"), AudioExportFormat::mp3); }),
        "The recording could not start: The recording could not start: The WAV encoder is "
        "unavailable on this Mac.");
}

TEST_F(AudioRecording, WriterCreationErrorIsWrappedOnce) {
    fakes.audioWriters.setScript({.makeWriterError = makePlatformError("Permission denied.")});

    try {
        engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
        FAIL() << "startAudio did not throw";
    } catch (const CaptureEngineError& error) {
        EXPECT_EQ(error.code(), CaptureEngineError::Code::cannotCreateWriter);
        EXPECT_STREQ(error.what(), "The recording could not start: Permission denied.");
    }
    EXPECT_TRUE(fakes.audio.streams().empty());
}

TEST_F(AudioRecording, SessionStartsAtTheFirstBuffersTimeAndEveryReadyBufferIsAppended) {
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    const auto stream = fakes.audio.lastStream();
    stream->pushAndWait(makeSampleBuffer(5'000'000));
    stream->pushAndWait(makeSampleBuffer(15'000'000));
    stream->pushAndWait(makeSampleBuffer(25'000'000));

    const FakeWriterRecord writer = fakes.audioWriters.lastWriter();
    EXPECT_EQ(writer.startWritingCalls, 1);
    EXPECT_EQ(writer.sessionStartTimeNs, 5'000'000);
    ASSERT_EQ(writer.appended.size(), 3u);
    EXPECT_EQ(writer.appended[2].presentationTimeNs, 25'000'000);
}

TEST_F(AudioRecording, FailedStartWritingIsRetriedOnEachBufferAndSessionStartsAtTheFirstWritten) {
    fakes.audioWriters.setScript({.startWritingFailures = 2});
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    const auto stream = fakes.audio.lastStream();
    for (int64_t time : {1000, 2000, 3000, 4000}) {
        stream->pushAndWait(makeSampleBuffer(time));
    }

    const FakeWriterRecord writer = fakes.audioWriters.lastWriter();
    EXPECT_EQ(writer.startWritingCalls, 3);
    EXPECT_EQ(writer.sessionStartTimeNs, 3000);
    ASSERT_EQ(writer.appended.size(), 2u);
    EXPECT_EQ(writer.appended[0].presentationTimeNs, 3000);
}

TEST_F(AudioRecording, WriterThatNeverStartsIsCancelledWithoutError) {
    fakes.audioWriters.setScript({.startWritingFailures = 1000});
    const QUrl destination = scratchURL("a.wav");
    engine.startAudio(destination, AudioExportFormat::wav);
    fakes.audio.lastStream()->pushAndWait(makeSampleBuffer(1000));
    fakes.audio.lastStream()->pushAndWait(makeSampleBuffer(2000));

    EXPECT_NO_THROW(engine.stop());
    const FakeWriterRecord writer = fakes.audioWriters.lastWriter();
    EXPECT_EQ(writer.startWritingCalls, 2);
    EXPECT_TRUE(writer.cancelCalled);
    EXPECT_FALSE(QFileInfo::exists(destination.toLocalFile()));
}

TEST_F(AudioRecording, BufferIsDroppedWhenTheInputIsNotReady) {
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    const auto stream = fakes.audio.lastStream();
    stream->pushAndWait(makeSampleBuffer(1000));
    fakes.audioWriters.setReadyForMoreMediaData(false);
    stream->pushAndWait(makeSampleBuffer(2000));
    fakes.audioWriters.setReadyForMoreMediaData(true);
    stream->pushAndWait(makeSampleBuffer(3000));

    EXPECT_NO_THROW(engine.stop());
    const FakeWriterRecord writer = fakes.audioWriters.lastWriter();
    ASSERT_EQ(writer.appended.size(), 2u);
    EXPECT_EQ(writer.appended[0].presentationTimeNs, 1000);
    EXPECT_EQ(writer.appended[1].presentationTimeNs, 3000);
}

TEST_F(AudioRecording, InvalidOrUnreadyBuffersAreDroppedBeforeTheWriterStarts) {
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    const auto stream = fakes.audio.lastStream();
    SampleBuffer invalid = makeSampleBuffer(1000);
    invalid.isValid = false;
    SampleBuffer unready = makeSampleBuffer(2000);
    unready.dataIsReady = false;
    stream->pushAndWait(invalid);
    stream->pushAndWait(unready);

    FakeWriterRecord writer = fakes.audioWriters.lastWriter();
    EXPECT_EQ(writer.startWritingCalls, 0);
    EXPECT_EQ(writer.sessionStartTimeNs, std::nullopt);

    stream->pushAndWait(makeSampleBuffer(3000));
    writer = fakes.audioWriters.lastWriter();
    EXPECT_EQ(writer.sessionStartTimeNs, 3000);
    EXPECT_EQ(writer.appended.size(), 1u);
}

TEST_F(AudioRecording, WavRecordingIsCompleteAtTheDestinationWhenStopReturns) {
    const QUrl destination = scratchURL("Tessarel Audio 2026-03-09 at 07.03.04.wav");
    engine.startAudio(destination, AudioExportFormat::wav);
    const auto stream = fakes.audio.lastStream();
    stream->push(makeSampleBuffer(1000, 480));
    stream->push(makeSampleBuffer(11'000'000, 480));
    stream->drain();

    engine.stop();

    const QByteArray file = fileContents(destination.toLocalFile());
    EXPECT_TRUE(file.startsWith("RIFF"));
    EXPECT_EQ(file.size(), 44 + 2 * 480 * 2 * 2);
    EXPECT_EQ(fakes.resources.lookups().size(), 0u);
}

TEST_F(AudioRecording, BuffersAfterStopFindNoWriterAndAreDropped) {
    engine.startAudio(scratchURL("a.wav"), AudioExportFormat::wav);
    const auto stream = fakes.audio.lastStream();
    stream->pushAndWait(makeSampleBuffer(1000));
    engine.stop();

    stream->pushAndWait(makeSampleBuffer(2000));

    const FakeWriterRecord writer = fakes.audioWriters.lastWriter();
    EXPECT_EQ(writer.appended.size(), 1u);
    EXPECT_EQ(writer.appendsAfterMarkAsFinished, 0);
}

TEST_F(AudioRecording, FailedWavOfAnMP3RecordingIsNotConverted) {
    fakes.audioWriters.setScript({.finishStatus = AudioWriterStatus::failed});
    engine.startAudio(scratchURL("a.mp3"), AudioExportFormat::mp3);
    fakes.audio.lastStream()->pushAndWait(makeSampleBuffer(1000));

    EXPECT_EQ(descriptionOfError([&] { engine.stop(); }),
              "The capture could not be saved: Unknown encoding error");
    EXPECT_TRUE(fakes.resources.lookups().empty());
}

TEST(WriterErrorDescription, NoErrorIsUnknownWriterError) {
    EXPECT_EQ(CaptureEngine::writerErrorDescription(std::nullopt), "Unknown writer error");
}

TEST(WriterErrorDescription, ReasonFollowsAnEmDash) {
    const CaptureEngine::WriterErrorInfo error{"The operation could not be completed.",
                                               QStringLiteral("The disk is full."),
                                               "AVFoundationErrorDomain", -11800};
    EXPECT_EQ(CaptureEngine::writerErrorDescription(error),
              QStringLiteral("The operation could not be completed. \u2014 The disk is full. "
                             "(AVFoundationErrorDomain -11800)"));
}

TEST(WriterErrorDescription, WithoutReasonOnlyDomainAndCode) {
    const CaptureEngine::WriterErrorInfo error{"Cannot write.", std::nullopt,
                                               "NSOSStatusErrorDomain", 28};
    EXPECT_EQ(CaptureEngine::writerErrorDescription(error),
              "Cannot write. (NSOSStatusErrorDomain 28)");
}
