#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>

// A private PulseAudio server with one null sink as its default output, in a temporary
// runtime folder. While it exists, this process's PulseAudio clients (and the child processes
// started with clientEnvironment()) talk to it and to nothing else.
//
// Threads: the thread that made it.
class SoundServer {
public:
    static constexpr int kSampleRate = 48000;
    static constexpr int kChannelCount = 2;

    // Returns once the server answers; throws std::runtime_error when it never does.
    SoundServer();
    ~SoundServer();
    SoundServer(const SoundServer&) = delete;
    SoundServer& operator=(const SoundServer&) = delete;

    // "unix:" and the server's socket.
    QString address() const;
    QString sinkName() const { return QStringLiteral("tessarel_null"); }
    QString monitorSourceName() const { return sinkName() + QStringLiteral(".monitor"); }
    QProcessEnvironment clientEnvironment() const;

    // Plays a sine of the given frequency at half of full scale into the sink for the given
    // time. Returns once the tone can be heard on the sink's monitor: an idle null sink renders
    // ahead in blocks of seconds, and a recording started before it has woken up would begin
    // late. A tone still playing is stopped first.
    void playTone(double frequencyHz, double seconds);
    void stopPlaying();

    // Kills the server outright, as a crash would.
    void kill();

private:
    void waitUntilAudible();

    QTemporaryDir runtimeDir_;
    QProcess daemon_;
    QProcess generator_;
    QProcess player_;
    QByteArray previousServer_;
};
