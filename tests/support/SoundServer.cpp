#include "support/SoundServer.h"

#include <QDeadlineTimer>
#include <QThread>

#include <cmath>
#include <cstring>
#include <stdexcept>

SoundServer::SoundServer() {
    if (!runtimeDir_.isValid()) {
        throw std::runtime_error("no temporary folder for the sound server");
    }
    const QString dir = runtimeDir_.path();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name :
         {"HOME", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "PULSE_RUNTIME_PATH", "PULSE_STATE_PATH"}) {
        environment.insert(QString::fromLatin1(name), dir);
    }
    environment.remove(QStringLiteral("PULSE_SERVER"));
    daemon_.setProcessEnvironment(environment);
    daemon_.setStandardOutputFile(QProcess::nullDevice());
    daemon_.setStandardErrorFile(QProcess::nullDevice());
    daemon_.start(QStringLiteral("pulseaudio"),
                  {QStringLiteral("-n"), QStringLiteral("--daemonize=no"),
                   QStringLiteral("--use-pid-file=no"), QStringLiteral("--exit-idle-time=-1"),
                   QStringLiteral("--realtime=no"), QStringLiteral("--high-priority=no"),
                   QStringLiteral("--load=module-null-sink sink_name=") + sinkName() +
                       QStringLiteral(" rate=48000 channels=2"),
                   QStringLiteral("--load=module-native-protocol-unix auth-anonymous=1 socket=") +
                       dir + QStringLiteral("/native")});
    if (!daemon_.waitForStarted(30000)) {
        throw std::runtime_error("pulseaudio did not start");
    }
    previousServer_ = qgetenv("PULSE_SERVER");
    qputenv("PULSE_SERVER", address().toUtf8());

    // Ready once a client gets an answer.
    const QDeadlineTimer deadline(30000);
    for (;;) {
        QProcess probe;
        probe.setProcessEnvironment(clientEnvironment());
        probe.setStandardOutputFile(QProcess::nullDevice());
        probe.setStandardErrorFile(QProcess::nullDevice());
        probe.start(QStringLiteral("pactl"), {QStringLiteral("info")});
        if (probe.waitForFinished(10000) && probe.exitStatus() == QProcess::NormalExit &&
            probe.exitCode() == 0) {
            return;
        }
        if (deadline.hasExpired() || daemon_.state() == QProcess::NotRunning) {
            kill();
            throw std::runtime_error("pulseaudio did not answer");
        }
        QThread::msleep(50);
    }
}

SoundServer::~SoundServer() {
    stopPlaying();
    kill();
    if (previousServer_.isEmpty()) {
        qunsetenv("PULSE_SERVER");
    } else {
        qputenv("PULSE_SERVER", previousServer_);
    }
}

QString SoundServer::address() const {
    return QStringLiteral("unix:") + runtimeDir_.path() + QStringLiteral("/native");
}

QProcessEnvironment SoundServer::clientEnvironment() const {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PULSE_SERVER"), address());
    return environment;
}

void SoundServer::playTone(double frequencyHz, double seconds) {
    stopPlaying();
    // sox makes the samples, pacat plays them as they come, with enough buffered not to run
    // dry on a busy machine.
    generator_.setStandardOutputProcess(&player_);
    generator_.setStandardErrorFile(QProcess::nullDevice());
    player_.setProcessEnvironment(clientEnvironment());
    player_.setStandardOutputFile(QProcess::nullDevice());
    player_.setStandardErrorFile(QProcess::nullDevice());
    const QString rate = QString::number(kSampleRate);
    const QString channels = QString::number(kChannelCount);
    generator_.start(QStringLiteral("sox"),
                     {QStringLiteral("-n"), QStringLiteral("-r"), rate, QStringLiteral("-c"),
                      channels, QStringLiteral("-e"), QStringLiteral("floating-point"),
                      QStringLiteral("-b"), QStringLiteral("32"), QStringLiteral("-t"),
                      QStringLiteral("raw"), QStringLiteral("-"), QStringLiteral("synth"),
                      QString::number(seconds), QStringLiteral("sine"),
                      QString::number(frequencyHz), QStringLiteral("vol"), QStringLiteral("0.5")});
    player_.start(QStringLiteral("pacat"),
                  {QStringLiteral("--playback"), QStringLiteral("--device=") + sinkName(),
                   QStringLiteral("--format=float32le"), QStringLiteral("--rate=") + rate,
                   QStringLiteral("--channels=") + channels, QStringLiteral("--latency-msec=100")});
    if (!generator_.waitForStarted(10000) || !player_.waitForStarted(10000)) {
        throw std::runtime_error("the tone could not be played");
    }
    waitUntilAudible();
}

void SoundServer::waitUntilAudible() {
    QProcess listener;
    listener.setProcessEnvironment(clientEnvironment());
    listener.setStandardErrorFile(QProcess::nullDevice());
    listener.start(QStringLiteral("parec"),
                   {QStringLiteral("--device=") + monitorSourceName(),
                    QStringLiteral("--format=float32le"), QStringLiteral("--rate=48000"),
                    QStringLiteral("--channels=1"), QStringLiteral("--latency-msec=20")});
    listener.waitForStarted(10000);
    const QDeadlineTimer deadline(30000);
    QByteArray pending;
    while (!deadline.hasExpired() && listener.state() == QProcess::Running) {
        listener.waitForReadyRead(100);
        pending += listener.readAllStandardOutput();
        for (qsizetype at = 0; at + 4 <= pending.size(); at += 4) {
            float sample = 0;
            std::memcpy(&sample, pending.constData() + at, sizeof sample);
            if (std::fabs(sample) > 0.25f) {
                listener.kill();
                listener.waitForFinished(10000);
                return;
            }
        }
        pending.remove(0, pending.size() / 4 * 4);
    }
    listener.kill();
    listener.waitForFinished(10000);
    throw std::runtime_error("the tone never reached the sound server's output");
}

void SoundServer::stopPlaying() {
    for (QProcess* process : {&generator_, &player_}) {
        if (process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished(10000);
        }
    }
}

void SoundServer::kill() {
    if (daemon_.state() != QProcess::NotRunning) {
        daemon_.kill();
        daemon_.waitForFinished(10000);
    }
}
