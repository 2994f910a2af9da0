#include "support/SoundServer.h"

#include "support/Pactl.h"

#include <QDeadlineTimer>
#include <QThread>

#include <signal.h>

#include <stdexcept>

SoundServer::SoundServer() {
    if (!runtimeDir_.isValid()) {
        throw std::runtime_error("no temporary folder for the sound server");
    }
    previousServer_ = qgetenv("PULSE_SERVER");
    qputenv("PULSE_SERVER", address().toUtf8());
    start();
}

void SoundServer::start() {
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
                       QStringLiteral(" rate=") + QString::number(kSampleRate) +
                       QStringLiteral(" channels=") + QString::number(kChannelCount),
                   QStringLiteral("--load=module-native-protocol-unix auth-anonymous=1 socket=") +
                       dir + QStringLiteral("/native")});
    if (!daemon_.waitForStarted(30000)) {
        throw std::runtime_error("pulseaudio did not start");
    }

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
        // Without an event loop only a wait notices that a process has ended.
        if (deadline.hasExpired() || daemon_.state() == QProcess::NotRunning ||
            daemon_.waitForFinished(0)) {
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

int SoundServer::recordingStreamCount() const {
    QProcess pactl;
    pactl.setProcessEnvironment(clientEnvironment());
    pactl.start(QStringLiteral("pactl"), {QStringLiteral("list"), QStringLiteral("short"),
                                          QStringLiteral("source-outputs")});
    if (!pactl.waitForFinished(30000) || pactl.exitCode() != 0) {
        throw std::runtime_error("pactl could not list the recording streams");
    }
    return static_cast<int>(pactl.readAllStandardOutput().count('\n'));
}

void SoundServer::stall(int milliseconds) {
    const auto pid = static_cast<pid_t>(daemon_.processId());
    ::kill(pid, SIGSTOP);
    QThread::msleep(static_cast<unsigned long>(milliseconds));
    ::kill(pid, SIGCONT);
}

void SoundServer::restartAfter(int milliseconds) {
    stopPlaying();
    kill();
    QThread::msleep(static_cast<unsigned long>(milliseconds));
    start();
}

QString SoundServer::pactl(const QStringList& arguments) const {
    return ::pactl(clientEnvironment(), arguments);
}

void SoundServer::kill() {
    if (daemon_.state() != QProcess::NotRunning) {
        daemon_.kill();
        daemon_.waitForFinished(10000);
    }
}
