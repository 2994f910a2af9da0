// Records the sound the computer plays into a file until it is killed, for the crash tests,
// or until its standard input closes: then it stops the recording and exits.
// Usage: tessarel_audio_recorder_child M4A|WAV <file>
// Prints "recording" on its standard output once the recording has begun.

#include "support/AudioOnlyEngine.h"

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
    AudioOnlyEngine recorder;
    CaptureEngine& engine = recorder.engine;
    try {
        engine.startAudio(QUrl::fromLocalFile(arguments[2]), *format);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    std::puts("recording");
    std::fflush(stdout);
    char ignored = 0;
    while (::read(STDIN_FILENO, &ignored, 1) > 0) {
    }
    try {
        engine.stop();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
