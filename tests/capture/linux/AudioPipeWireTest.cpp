#include "capture/CaptureEngine.h"
#include "capture/linux/ApplicationResourceDirectories.h"
#include "capture/linux/AudioFileInspection.h"
#include "capture/linux/FfmpegAudioWriter.h"
#include "capture/linux/PulseAudioCaptureService.h"
#include "support/FakeCapturePlatform.h"
#include "support/PipeWireServer.h"

#include <QDir>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <chrono>

namespace {

// The engine with the real sound service, writers and resources against PipeWire's PulseAudio
// service, as GNOME desktops have it; displays and the rest are stand-ins.
class AudioPipeWire : public testing::Test {
protected:
    AudioPipeWire() { server.playTone(1000, 60); }
    ~AudioPipeWire() override { server.stopPlaying(); }

    QString destination(AudioExportFormat format) const {
        return saveRoot.filePath(QStringLiteral("Tessarel Audio 2026-03-09 at 07.03.04.") +
                                 format.fileExtension());
    }

    // Records the playing tone for about two seconds; returns the time between the start's
    // return and the stop.
    double record(AudioExportFormat format) {
        engine.startAudio(QUrl::fromLocalFile(destination(format)), format);
        const auto started = std::chrono::steady_clock::now();
        QThread::msleep(2000);
        const auto stopping = std::chrono::steady_clock::now();
        engine.stop();
        return std::chrono::duration<double>(stopping - started).count();
    }

    void expectTone(const QString& path) {
        EXPECT_NEAR(dominantFrequencyHz(decodeMono(path), 48000), 1000.0, 10.0);
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
    const std::optional<AudioFileFacts> facts = probeAudioFile(destination(AudioExportFormat::wav));
    ASSERT_TRUE(facts);
    EXPECT_EQ(facts->formatName, QStringLiteral("wav"));
    EXPECT_EQ(facts->codecName, QStringLiteral("pcm_s16le"));
    EXPECT_EQ(facts->bitsPerSample, 16);
    EXPECT_EQ(facts->sampleRate, 48000);
    EXPECT_EQ(facts->channels, 2);
    EXPECT_NEAR(facts->durationSeconds, seconds, 0.1);
    expectTone(destination(AudioExportFormat::wav));
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
