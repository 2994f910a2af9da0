// Records a known signal, a 1 kHz sine played into the null sink of a private PulseAudio
// server, through Tessarel's whole audio path (PulseAudio stream, engine, WAV writer) and,
// in the same run and from the same monitor, with parec. Reports for each: recorded frames
// against 48000 × the recording's seconds, gaps (silent runs of 1 ms or more inside the
// tone), CPU seconds and context switches per recorded minute and peak memory, then their
// ratios. The CPU and the switches are given for the whole process and, for Tessarel, for the
// recording alone: the app records from a process that is already running, the benchmark's
// child has to start one first.
// With --format m4a or mp3 Tessarel writes that format instead and only the CPU and memory
// are compared (parec still writes WAV).
//
// Usage: audio_accuracy [--seconds N] [--format wav|m4a|mp3]   (defaults 600, wav)
// Run by hand; it takes N seconds and a few more.

#include "support/AudioOnlyEngine.h"
#include "support/SoundServer.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRate = 48000;

struct Recording {
    double seconds = 0; // the time the recorder was recording, by the clock
    long long frames = 0;
    int gaps = 0;
    double cpuSeconds = 0;
    double switches = 0; // voluntary and involuntary context switches of all its threads
    // Tessarel only: from the start to the end of the stop.
    double recordingCpuSeconds = 0;
    double recordingSwitches = 0;
    double peakMiB = 0;
};

double cpuSeconds(const rusage& usage) {
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double contextSwitches(const rusage& usage) {
    return static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw);
}

rusage processUsage() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage;
}

// ---- The recorder child: Tessarel's path into a WAV file ----------------------------------

int recordChild(double seconds, const QString& path, AudioExportFormat format) {
    AudioOnlyEngine recorder;
    CaptureEngine& engine = recorder.engine;
    const rusage atStart = processUsage();
    engine.startAudio(QUrl::fromLocalFile(path), format);
    const Clock::time_point started = Clock::now();
    std::this_thread::sleep_until(started + std::chrono::duration<double>(seconds));
    const Clock::time_point stopping = Clock::now();
    engine.stop();
    const rusage atEnd = processUsage();
    std::printf("%.6f %.6f %.0f\n", std::chrono::duration<double>(stopping - started).count(),
                cpuSeconds(atEnd) - cpuSeconds(atStart),
                contextSwitches(atEnd) - contextSwitches(atStart));
    return 0;
}

// ---- Parent ---------------------------------------------------------------------------

class Child {
public:
    explicit Child(const std::vector<std::string>& arguments, const QString& stdoutPath = {}) {
        std::vector<char*> argv;
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        const QByteArray out = QFile::encodeName(stdoutPath.isEmpty() ? "/dev/null" : stdoutPath);
        posix_spawn_file_actions_addopen(&actions, 1, out.constData(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        const int result = posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (result != 0) {
            throw std::runtime_error(arguments[0] + ": " + std::strerror(result));
        }
    }

    void signal(int number) const { ::kill(pid_, number); }

    // Waits for the end; fills in CPU time and peak memory.
    void wait(Recording& recording) const {
        int status = 0;
        rusage usage{};
        if (wait4(pid_, &status, 0, &usage) != pid_) {
            throw std::runtime_error("lost a child");
        }
        recording.cpuSeconds = cpuSeconds(usage);
        recording.switches = contextSwitches(usage);
        recording.peakMiB = static_cast<double>(usage.ru_maxrss) / 1024.0;
    }

private:
    pid_t pid_ = 0;
};

// Counts the frames of a 16-bit stereo WAV file and its silent runs inside the tone.
void analyse(const QString& path, Recording& recording) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        throw std::runtime_error("no file at " + path.toStdString());
    }
    const QByteArray bytes = file.readAll();
    qsizetype at = 12;
    while (at + 8 <= bytes.size() && std::memcmp(bytes.constData() + at, "data", 4) != 0) {
        uint32_t size = 0;
        std::memcpy(&size, bytes.constData() + at + 4, 4);
        at += 8 + size + (size & 1);
    }
    if (at + 8 > bytes.size()) {
        throw std::runtime_error("no sound in " + path.toStdString());
    }
    const auto* samples = reinterpret_cast<const int16_t*>(bytes.constData() + at + 8);
    recording.frames = (bytes.size() - at - 8) / 4;
    long long run = 0;
    for (long long frame = 0; frame < recording.frames; ++frame) {
        if (std::abs(samples[2 * frame]) < 2) {
            if (++run == kRate / 1000) {
                ++recording.gaps;
            }
        } else {
            run = 0;
        }
    }
}

void printTable(const Recording& ours, const Recording& parec, bool framesCounted) {
    const auto row = [](const char* name, double a, double b, const char* format, bool ratio) {
        std::printf("%-26s", name);
        std::printf(format, a);
        std::printf(format, b);
        if (ratio && b != 0) {
            std::printf("%12.2f", a / b);
        }
        std::printf("\n");
    };
    const auto expected = [](const Recording& r) { return r.seconds * kRate; };
    const auto accuracy = [&](const Recording& r) {
        return 100.0 * (static_cast<double>(r.frames) - expected(r)) / expected(r);
    };
    std::printf("%-26s%14s%14s%12s\n", "", "tessarel", "parec", "ratio");
    row("recording seconds", ours.seconds, parec.seconds, "%14.3f", false);
    const auto perMinute = [](const Recording& r, double cpuSeconds) {
        return cpuSeconds / (r.seconds / 60);
    };
    row("CPU s per recorded minute", perMinute(ours, ours.cpuSeconds),
        perMinute(parec, parec.cpuSeconds), "%14.3f", true);
    row("  recording alone", perMinute(ours, ours.recordingCpuSeconds),
        perMinute(parec, parec.cpuSeconds), "%14.3f", true);
    row("switches per minute", perMinute(ours, ours.switches), perMinute(parec, parec.switches),
        "%14.0f", true);
    row("  recording alone", perMinute(ours, ours.recordingSwitches),
        perMinute(parec, parec.switches), "%14.0f", true);
    row("peak memory (MiB)", ours.peakMiB, parec.peakMiB, "%14.1f", true);
    if (!framesCounted) {
        return;
    }
    row("frames", static_cast<double>(ours.frames), static_cast<double>(parec.frames), "%14.0f",
        false);
    row("expected frames", expected(ours), expected(parec), "%14.0f", false);
    row("frame count error (%)", accuracy(ours), accuracy(parec), "%14.4f", false);
    row("gaps (>= 1 ms silent)", ours.gaps, parec.gaps, "%14.0f", false);
}

int benchmark(double seconds, const QString& format) {
    SoundServer server;
    server.playTone(1000, seconds + 60);
    QTemporaryDir dir;
    const QString ourFile = dir.filePath(QStringLiteral("tessarel.") + format);
    const QString parecFile = dir.filePath(QStringLiteral("parec.wav"));
    const QString ourReport = dir.filePath(QStringLiteral("tessarel.txt"));

    Recording ours;
    Recording parec;
    const Child ourRecorder({QCoreApplication::applicationFilePath().toStdString(),
                             "--record-child", std::to_string(seconds), ourFile.toStdString(),
                             format.toStdString()},
                            ourReport);
    const Clock::time_point parecStarted = Clock::now();
    const Child parecRecorder({"parec", "--device=" + server.monitorSourceName().toStdString(),
                               "--format=s16le", "--rate=48000", "--channels=2",
                               "--latency-msec=20", "--file-format=wav", parecFile.toStdString()});
    std::this_thread::sleep_until(parecStarted + std::chrono::duration<double>(seconds));
    parecRecorder.signal(SIGINT);
    parec.seconds = std::chrono::duration<double>(Clock::now() - parecStarted).count();
    parecRecorder.wait(parec);
    ourRecorder.wait(ours);

    QFile report(ourReport);
    if (!report.open(QIODevice::ReadOnly)) {
        throw std::runtime_error("the recorder reported nothing");
    }
    const QList<QByteArray> reported = report.readAll().trimmed().split(' ');
    if (reported.size() != 3) {
        throw std::runtime_error("the recorder reported nothing");
    }
    ours.seconds = reported[0].toDouble();
    ours.recordingCpuSeconds = reported[1].toDouble();
    ours.recordingSwitches = reported[2].toDouble();
    const bool framesCounted = format == QStringLiteral("wav");
    if (framesCounted) {
        analyse(ourFile, ours);
        analyse(parecFile, parec);
    }
    printTable(ours, parec, framesCounted);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    try {
        // Named as the app names them, in any case: wav, m4a, mp3.
        const auto formatNamed = [](const QString& name) {
            return AudioExportFormat::fromRawValue(name.toUpper());
        };
        if (arguments.size() == 5 && arguments[1] == QStringLiteral("--record-child")) {
            return recordChild(arguments[2].toDouble(), arguments[3],
                               formatNamed(arguments[4]).value_or(AudioExportFormat::wav));
        }
        double seconds = 600;
        QString format = QStringLiteral("wav");
        bool understood = true;
        for (qsizetype at = 1; at < arguments.size(); at += 2) {
            const QString value = at + 1 < arguments.size() ? arguments[at + 1] : QString();
            if (arguments[at] == QStringLiteral("--seconds") && value.toDouble() > 0) {
                seconds = value.toDouble();
            } else if (arguments[at] == QStringLiteral("--format") && formatNamed(value)) {
                format = value.toLower();
            } else {
                understood = false;
            }
        }
        if (!understood) {
            std::fputs("usage: audio_accuracy [--seconds N] [--format wav|m4a|mp3]\n", stderr);
            return 2;
        }
        return benchmark(seconds, format);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "audio_accuracy: %s\n", error.what());
        return 1;
    }
}
