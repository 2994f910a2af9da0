#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include "support/TonePlayer.h"

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

    // See TonePlayer::play() and TonePlayer::stop().
    void playTone(double frequencyHz, double seconds) { tone_.play(frequencyHz, seconds); }
    void playSweep(double fromHz, double toHz, double seconds, int latencyMs) {
        tone_.playSweep(fromHz, toHz, seconds, latencyMs);
    }
    void stopPlaying() { tone_.stop(); }

    // Recording streams the server has now (`pactl list short source-outputs`).
    int recordingStreamCount() const;

    // Stops the server for `milliseconds`, as a loaded machine may: it then catches up, and
    // its clients get that time's sound late, in one go.
    void stall(int milliseconds);

    // Kills the server outright, as a crash would.
    void kill();

    // Kills the server, as an update restarts it, and starts it again after `milliseconds`
    // with the same address and null sink. Nothing plays afterwards until a tone is played
    // again. Throws as the constructor does.
    void restartAfter(int milliseconds);

    // `pactl` run against the server; its standard output. Throws when it fails.
    QString pactl(const QStringList& arguments) const;

private:
    void start();

    QTemporaryDir runtimeDir_;
    QProcess daemon_;
    TonePlayer tone_{clientEnvironment(), sinkName()};
    QByteArray previousServer_;
};
