#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>

// Plays test tones into one sink of a PulseAudio server (or of PipeWire's PulseAudio service)
// with sox and pacat, and listens on the sink's monitor with parec.
//
// Threads: the thread that made it.
class TonePlayer {
public:
    // `environment` points the PulseAudio tools at the server.
    TonePlayer(QProcessEnvironment environment, QString sinkName);
    ~TonePlayer();
    TonePlayer(const TonePlayer&) = delete;
    TonePlayer& operator=(const TonePlayer&) = delete;

    // Plays a sine of the given frequency at half of full scale into the sink for the given
    // time. Returns once the tone can be heard on the sink's monitor, so that a recording
    // started then begins with it. A tone still playing is stopped first.
    void play(double frequencyHz, double seconds);
    // The same for a sine sweeping linearly from `fromHz` to `toHz`, played by a client that
    // keeps `latencyMs` of sound buffered.
    void playSweep(double fromHz, double toHz, double seconds, int latencyMs);
    void stop();

private:
    void start(const QString& sine, double seconds, int latencyMs);
    void waitUntilAudible();

    QProcessEnvironment environment_;
    QString sinkName_;
    QProcess generator_;
    QProcess player_;
};
