// Quit while a capture runs: the recording is stopped and its file finished, MP3 conversion
// included, before the program ends; no temporary file is left. Real sound server, writers
// and MP3 encoder; the desktop services are stand-ins.

#include "capture/CaptureEngine.h"
#include "capture/linux/ApplicationResourceDirectories.h"
#include "capture/linux/AudioFileInspection.h"
#include "capture/linux/FfmpegAudioWriter.h"
#include "capture/linux/PulseAudioCaptureService.h"
#include "controller/TessarelController.h"
#include "region/RegionSelector.h"
#include "support/EventLoop.h"
#include "support/FakeCapturePlatform.h"
#include "support/FakeControllerPlatform.h"
#include "support/SoundServer.h"

#include <QDir>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <memory>

namespace {

class Quit : public testing::Test {
protected:
    Quit() : previousTemp_(qgetenv("TMPDIR")) {
        qputenv("TMPDIR", tempDir.path().toUtf8());
        fakes.locations.downloads = {QUrl::fromLocalFile(saveFolder.path())};
        controller = std::make_unique<TessarelController>(engine, selector, fakes.platform());
        server.playTone(1000, 60);
    }
    ~Quit() override {
        server.stopPlaying();
        qputenv("TMPDIR", previousTemp_);
    }

    // Records for a while, then quits as the program does once its event loop has ended.
    QString recordThenQuit(AudioExportFormat format, bool stopFirst) {
        controller->audioFormat.set(format);
        controller->show(TessarelMode::audioSetup);
        controller->startAudio();
        EXPECT_TRUE(processEventsUntil(
            [this] { return controller->mode() == TessarelMode::recordingAudio; }));
        QThread::msleep(1500);
        if (stopFirst) {
            controller->stopCapture();
        }
        controller->finishBeforeQuitting();
        EXPECT_FALSE(controller->hasPendingWork());
        EXPECT_EQ(server.recordingStreamCount(), 0) << "the recording still runs";
        const QString path =
            controller->lastSavedURL() ? controller->lastSavedURL()->toLocalFile() : QString();
        // What the program's end destroys: nothing of the capture may still be running.
        controller.reset();
        return path;
    }

    void expectFinishedToneFile(const QString& path, const QString& formatName) {
        const std::optional<AudioFileFacts> facts = probeAudioFile(path);
        ASSERT_TRUE(facts) << path.toStdString();
        EXPECT_EQ(facts->formatName, formatName);
        EXPECT_GT(facts->durationSeconds, 1.0);
        EXPECT_NEAR(dominantFrequencyHz(decodeMono(path), 48000), 1000.0, 10.0);
        EXPECT_TRUE(QDir(tempDir.path()).isEmpty()) << "a temporary file was left behind";
    }

    SoundServer server;
    QTemporaryDir tempDir;
    QTemporaryDir saveFolder;
    FakeCapturePlatform capture;
    PulseAudioCaptureService audio;
    FfmpegAudioWriterFactory writers;
    ApplicationResourceDirectories resources{{QStringLiteral(TESSAREL_BUILD_RESOURCE_DIR)}};
    CaptureEngine engine{
        {capture.content, audio, writers, capture.screenshots, capture.video, resources}};
    FakeSelectionOverlayHost overlays;
    RegionSelector selector{overlays};
    FakeControllerPlatform fakes;
    std::unique_ptr<TessarelController> controller;

private:
    QByteArray previousTemp_;
};

} // namespace

TEST_F(Quit, DuringARecordingFinishesTheFileFirst) {
    expectFinishedToneFile(recordThenQuit(AudioExportFormat::wav, false), QStringLiteral("wav"));
}

TEST_F(Quit, DuringAnMP3RecordingConvertsItFirst) {
    expectFinishedToneFile(recordThenQuit(AudioExportFormat::mp3, false), QStringLiteral("mp3"));
}

TEST_F(Quit, DuringTheMP3ConversionAfterStopWaitsForIt) {
    expectFinishedToneFile(recordThenQuit(AudioExportFormat::mp3, true), QStringLiteral("mp3"));
}
