#include "support/TonePlayer.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QStringList>

#include <cmath>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace {

constexpr int kDeadlineMs = 30000;
constexpr int kSampleRate = 48000;
constexpr int kChannelCount = 2;

} // namespace

TonePlayer::TonePlayer(QProcessEnvironment environment, QString sinkName)
    : environment_(std::move(environment)), sinkName_(std::move(sinkName)) {}

TonePlayer::~TonePlayer() {
    stop();
}

void TonePlayer::play(double frequencyHz, double seconds) {
    start(QString::number(frequencyHz), seconds, 100);
}

void TonePlayer::playSweep(double fromHz, double toHz, double seconds, int latencyMs) {
    start(QString::number(fromHz) + QLatin1Char('-') + QString::number(toHz), seconds, latencyMs);
}

void TonePlayer::start(const QString& sine, double seconds, int latencyMs) {
    stop();
    // sox makes the samples, pacat plays them as they come, with enough buffered not to run
    // dry on a busy machine.
    generator_.setStandardOutputProcess(&player_);
    generator_.setStandardErrorFile(QProcess::nullDevice());
    player_.setProcessEnvironment(environment_);
    player_.setStandardOutputFile(QProcess::nullDevice());
    player_.setStandardErrorFile(QProcess::nullDevice());
    const QString rate = QString::number(kSampleRate);
    const QString channels = QString::number(kChannelCount);
    generator_.start(QStringLiteral("sox"),
                     {QStringLiteral("-n"), QStringLiteral("-r"), rate, QStringLiteral("-c"),
                      channels, QStringLiteral("-e"), QStringLiteral("floating-point"),
                      QStringLiteral("-b"), QStringLiteral("32"), QStringLiteral("-t"),
                      QStringLiteral("raw"), QStringLiteral("-"), QStringLiteral("synth"),
                      QString::number(seconds), QStringLiteral("sine"), sine, QStringLiteral("vol"),
                      QStringLiteral("0.5")});
    player_.start(QStringLiteral("pacat"),
                  {QStringLiteral("--playback"), QStringLiteral("--device=") + sinkName_,
                   QStringLiteral("--format=float32le"), QStringLiteral("--rate=") + rate,
                   QStringLiteral("--channels=") + channels,
                   QStringLiteral("--latency-msec=") + QString::number(latencyMs)});
    if (!generator_.waitForStarted(kDeadlineMs) || !player_.waitForStarted(kDeadlineMs)) {
        throw std::runtime_error("the tone could not be played");
    }
    waitUntilAudible();
}

// A sink does not play at once: an idle PulseAudio null sink renders ahead in blocks of
// seconds, and PipeWire's session manager suspends a sink idle for a few seconds, which then
// takes a moment to resume. A recording started before the tone is heard would begin late.
void TonePlayer::waitUntilAudible() {
    QProcess listener;
    listener.setProcessEnvironment(environment_);
    listener.setStandardErrorFile(QProcess::nullDevice());
    listener.start(QStringLiteral("parec"),
                   {QStringLiteral("--device=") + sinkName_ + QStringLiteral(".monitor"),
                    QStringLiteral("--format=float32le"),
                    QStringLiteral("--rate=") + QString::number(kSampleRate),
                    QStringLiteral("--channels=1"), QStringLiteral("--latency-msec=20")});
    listener.waitForStarted(kDeadlineMs);
    const QDeadlineTimer deadline(kDeadlineMs);
    QByteArray pending;
    bool heard = false;
    while (!heard && !deadline.hasExpired() && listener.state() == QProcess::Running) {
        listener.waitForReadyRead(100);
        pending += listener.readAllStandardOutput();
        for (qsizetype at = 0; !heard && at + 4 <= pending.size(); at += 4) {
            float sample = 0;
            std::memcpy(&sample, pending.constData() + at, sizeof sample);
            heard = std::fabs(sample) > 0.25f;
        }
        pending.remove(0, pending.size() / 4 * 4);
    }
    listener.kill();
    listener.waitForFinished(kDeadlineMs);
    if (!heard) {
        throw std::runtime_error(
            (QStringLiteral("the tone never reached the monitor of ") + sinkName_).toStdString());
    }
}

void TonePlayer::stop() {
    for (QProcess* process : {&generator_, &player_}) {
        if (process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished(kDeadlineMs);
        }
    }
}
