// Records the sound the computer plays into a file, for tests that kill or hold up the
// recording process. Usage: tessarel_audio_recorder_child M4A|WAV <file>
// Prints "recording <ns>" on its standard output once the recording has begun, <ns> being the
// monotonic clock's time just before the start. Stops the recording and ends when its standard
// input ends.

#include "capture/linux/MonotonicClock.h"
#include "support/AudioOnlyEngine.h"

#include <QCoreApplication>
#include <QStringList>

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
    const int64_t startNs = monotonicNowNs();
    try {
        engine.startAudio(QUrl::fromLocalFile(arguments[2]), *format);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    std::printf("recording %lld\n", static_cast<long long>(startNs));
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    try {
        engine.stop();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
