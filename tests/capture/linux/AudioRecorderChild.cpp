// Records the sound the computer plays into a file until it is killed, for the crash tests.
// Usage: tessarel_audio_recorder_child M4A|WAV <file>
// Prints "recording" on its standard output once the recording has begun.

#include "capture/CaptureEngine.h"
#include "capture/linux/ApplicationResourceDirectories.h"
#include "capture/linux/FfmpegAudioWriter.h"
#include "capture/linux/PulseAudioCaptureService.h"
#include "support/FakeCapturePlatform.h"

#include <QCoreApplication>
#include <QStringList>

#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const std::optional<AudioExportFormat> format =
        arguments.size() == 3 ? AudioExportFormat::fromRawValue(arguments[1]) : std::nullopt;
    if (!format) {
        std::fputs("usage: tessarel_audio_recorder_child M4A|WAV <file>\n", stderr);
        return 2;
    }
    FakeCapturePlatform fakes;
    PulseAudioCaptureService audio;
    FfmpegAudioWriterFactory writers;
    ApplicationResourceDirectories resources;
    CaptureEngine engine{
        {fakes.content, audio, writers, fakes.screenshots, fakes.video, resources}};
    try {
        engine.startAudio(QUrl::fromLocalFile(arguments[2]), *format);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    std::puts("recording");
    std::fflush(stdout);
    for (;;) {
        ::pause();
    }
}
