#include "capture/CaptureEngine.h"
#include "capture/linux/ApplicationResourceDirectories.h"
#include "capture/linux/AudioEngineRecording.h"
#include "capture/linux/AudioFileInspection.h"
#include "capture/linux/AudioServerChanges.h"
#include "capture/linux/FfmpegAudioWriter.h"
#include "capture/linux/PulseAudioCaptureService.h"
#include "support/FakeCapturePlatform.h"
#include "support/PipeWireServer.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

// The engine with the real sound service, writers and resources against PipeWire's PulseAudio
// service, as GNOME desktops have it; displays and the rest are stand-ins.
class AudioPipeWire : public testing::Test {
protected:
    AudioPipeWire() { server.playTone(1000, 60); }
    ~AudioPipeWire() override { server.stopPlaying(); }

    QString destination(AudioExportFormat format) const {
        return audioDestination(saveRoot.path(), format);
    }

    double record(AudioExportFormat format) {
        return recordAudio(engine, destination(format), format, 2.0);
    }

    PipeWireServer server;
    QTemporaryDir saveRoot;
    FakeCapturePlatform fakes;
    PulseAudioCaptureService audio;
    FfmpegAudioWriterFactory writers;
    ApplicationResourceDirectories resources{{QStringLiteral(TESSAREL_BUILD_RESOURCE_DIR)}};
    CaptureEngine engine{
        {fakes.content, audio, writers, fakes.screenshots, fakes.video, resources}};
};

} // namespace

TEST_F(AudioPipeWire, ToneRecordedAsWavIs16BitPcm48kHzStereoAt1kHz) {
    const double seconds = record(AudioExportFormat::wav);
    expectWavTone(destination(AudioExportFormat::wav), seconds);
}

TEST_F(AudioPipeWire, ToneRecordedAsM4AIsAac48kHzStereoAt1kHz) {
    const double seconds = record(AudioExportFormat::m4a);
    const std::optional<AudioFileFacts> facts = probeAudioFile(destination(AudioExportFormat::m4a));
    ASSERT_TRUE(facts);
    EXPECT_EQ(facts->majorBrand, QStringLiteral("M4A "));
    EXPECT_EQ(facts->codecName, QStringLiteral("aac"));
    EXPECT_EQ(facts->sampleRate, 48000);
    EXPECT_EQ(facts->channels, 2);
    EXPECT_NEAR(facts->durationSeconds, seconds, 0.1);
    expectTone(destination(AudioExportFormat::m4a));
}

TEST_F(AudioPipeWire, RestartedPipeWireMidRecordingLeavesSilenceInTheSameWav) {
    server_changes::expectTheRecordingToOutlastARestart(
        engine, server, destination(AudioExportFormat::wav), AudioExportFormat::wav);
}

TEST_F(AudioPipeWire, ChangedDefaultOutputIsFollowedWithoutEndingTheRecording) {
    server_changes::expectTheRecordingToFollowTheDefaultOutput(engine, server,
                                                               destination(AudioExportFormat::wav));
}
