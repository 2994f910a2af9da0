#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include "support/TonePlayer.h"

#include <functional>
#include <memory>
#include <vector>

// A private PipeWire with its session manager and its PulseAudio service, as GNOME desktops run
// them, in a temporary runtime folder with its own session bus and no sound hardware. One null
// sink is the default output. While it exists, this process's PulseAudio clients (and the child
// processes started with clientEnvironment()) talk to it and to nothing else.
//
// Threads: the thread that made it.
class PipeWireServer {
public:
    static constexpr int kSampleRate = 48000;
    static constexpr int kChannelCount = 2;

    // Returns once the PulseAudio service answers with the null sink as its default output;
    // throws std::runtime_error, with the daemons' last words, when it never does.
    PipeWireServer();
    ~PipeWireServer();
    PipeWireServer(const PipeWireServer&) = delete;
    PipeWireServer& operator=(const PipeWireServer&) = delete;

    // "unix:" and the PulseAudio service's socket.
    QString address() const;
    QString sinkName() const { return QStringLiteral("tessarel_null"); }
    QString monitorSourceName() const { return sinkName() + QStringLiteral(".monitor"); }
    QProcessEnvironment clientEnvironment() const;

    // Configures WirePlumber under `configHome` (its XDG_CONFIG_HOME) to look for no
    // hardware. Throws when the files cannot be written.
    static void writeSessionManagerConfig(const QString& configHome);

    // `pactl` run against the server; its standard output. Throws when it fails.
    QString pactl(const QStringList& arguments) const;

    // Kills PipeWire, its session manager and its PulseAudio service, as an update restarts
    // them, and starts them again after `milliseconds` with the null sink as the default
    // output. Nothing plays afterwards until a tone is played again. Throws as the
    // constructor does.
    void restartAfter(int milliseconds);

    // See TonePlayer::play() and TonePlayer::stop().
    void playTone(double frequencyHz, double seconds) { tone_.play(frequencyHz, seconds); }
    void stopPlaying() { tone_.stop(); }

private:
    void start();
    void startSoundDaemons();
    QProcessEnvironment daemonEnvironment() const;
    void startDaemon(const QString& program, const QStringList& arguments,
                     const QProcessEnvironment& environment);
    void startSessionBus(QProcessEnvironment& environment);
    // Throws when `ready` is still false after a generous deadline or a daemon has ended.
    void waitFor(const QString& what, const std::function<bool()>& ready);
    // Stops everything and throws `why` with the daemons' logs.
    [[noreturn]] void fail(const QString& why);
    void stopAll();

    QTemporaryDir runtimeDir_;
    // In start order; stopped in reverse.
    std::vector<std::unique_ptr<QProcess>> daemons_;
    // The session bus stays when the sound daemons restart; they come after it.
    size_t soundDaemonsFrom_ = 0;
    QProcessEnvironment environment_;
    TonePlayer tone_{clientEnvironment(), sinkName()};
    QByteArray previousServer_;
};
