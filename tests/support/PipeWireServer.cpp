#include "support/PipeWireServer.h"

#include "support/Pactl.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <stdexcept>
#include <utility>

namespace {

constexpr int kDeadlineMs = 30000;

QString logPath(const QString& dir, const QString& program) {
    return QDir(dir).filePath(program + QStringLiteral(".log"));
}

} // namespace

PipeWireServer::PipeWireServer() {
    if (!runtimeDir_.isValid()) {
        throw std::runtime_error("no temporary folder for PipeWire");
    }
    previousServer_ = qgetenv("PULSE_SERVER");
    try {
        start();
    } catch (const std::runtime_error& error) {
        fail(QString::fromUtf8(error.what()));
    }
}

void PipeWireServer::start() {
    environment_ = daemonEnvironment();
    startSessionBus(environment_);
    writeSessionManagerConfig(QDir(runtimeDir_.path()).filePath(QStringLiteral("config")));
    qputenv("PULSE_SERVER", address().toUtf8());
    startSoundDaemons();
}

void PipeWireServer::startSoundDaemons() {
    soundDaemonsFrom_ = daemons_.size();
    // A killed PipeWire leaves its socket behind; the new one is the sign that it is up.
    const QString graphSocket = QDir(runtimeDir_.path()).filePath(QStringLiteral("pipewire-0"));
    QFile::remove(graphSocket);
    startDaemon(QStringLiteral("pipewire"), {}, environment_);
    waitFor(QStringLiteral("PipeWire's socket"), [&] { return QFileInfo::exists(graphSocket); });
    startDaemon(QStringLiteral("wireplumber"), {}, environment_);
    startDaemon(QStringLiteral("pipewire-pulse"), {}, environment_);

    waitFor(QStringLiteral("the PulseAudio service of PipeWire"), [&] {
        try {
            return pactl({QStringLiteral("info")})
                .contains(QStringLiteral("Server Name: PulseAudio (on PipeWire "));
        } catch (const std::runtime_error&) {
            return false;
        }
    });

    pactl({QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
           QStringLiteral("sink_name=") + sinkName(),
           QStringLiteral("rate=") + QString::number(kSampleRate),
           QStringLiteral("channels=") + QString::number(kChannelCount)});
    // The sink's node appears a moment later; until then it cannot be chosen.
    waitFor(QStringLiteral("the null sink as the default output"), [&] {
        try {
            pactl({QStringLiteral("set-default-sink"), sinkName()});
            return pactl({QStringLiteral("get-default-sink")}).trimmed() == sinkName();
        } catch (const std::runtime_error&) {
            return false;
        }
    });
}

void PipeWireServer::restartAfter(int milliseconds) {
    stopPlaying();
    while (daemons_.size() > soundDaemonsFrom_) {
        daemons_.back()->kill();
        daemons_.back()->waitForFinished(kDeadlineMs);
        daemons_.pop_back();
    }
    QThread::msleep(static_cast<unsigned long>(milliseconds));
    try {
        startSoundDaemons();
    } catch (const std::runtime_error& error) {
        fail(QString::fromUtf8(error.what()));
    }
}

PipeWireServer::~PipeWireServer() {
    stopAll();
}

QString PipeWireServer::address() const {
    return QStringLiteral("unix:") + runtimeDir_.path() + QStringLiteral("/pulse/native");
}

QProcessEnvironment PipeWireServer::clientEnvironment() const {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PULSE_SERVER"), address());
    return environment;
}

QString PipeWireServer::pactl(const QStringList& arguments) const {
    return ::pactl(clientEnvironment(), arguments);
}

// Everything the daemons find on their own (configuration, state, sockets, the session bus)
// lies in the runtime folder, so neither a desktop's sound server nor its settings take part.
QProcessEnvironment PipeWireServer::daemonEnvironment() const {
    const QDir dir(runtimeDir_.path());
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name :
         {"PULSE_SERVER", "PULSE_RUNTIME_PATH", "PIPEWIRE_REMOTE", "PIPEWIRE_RUNTIME_DIR",
          "PIPEWIRE_CONFIG_DIR", "DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS"}) {
        environment.remove(QString::fromLatin1(name));
    }
    environment.insert(QStringLiteral("HOME"), dir.path());
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir.path());
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.filePath(QStringLiteral("config")));
    environment.insert(QStringLiteral("XDG_STATE_HOME"), dir.filePath(QStringLiteral("state")));
    environment.insert(QStringLiteral("XDG_DATA_HOME"), dir.filePath(QStringLiteral("data")));
    return environment;
}

void PipeWireServer::startDaemon(const QString& program, const QStringList& arguments,
                                 const QProcessEnvironment& environment) {
    auto& daemon = *daemons_.emplace_back(std::make_unique<QProcess>());
    daemon.setProcessEnvironment(environment);
    daemon.setProcessChannelMode(QProcess::MergedChannels);
    daemon.setStandardOutputFile(logPath(runtimeDir_.path(), program));
    daemon.start(program, arguments);
    if (!daemon.waitForStarted(kDeadlineMs)) {
        throw std::runtime_error(
            (program + QStringLiteral(" did not start: ") + daemon.errorString()).toStdString());
    }
}

// The session manager asks for a session bus; the desktop's must not see it.
void PipeWireServer::startSessionBus(QProcessEnvironment& environment) {
    const QString socket = QDir(runtimeDir_.path()).filePath(QStringLiteral("bus"));
    const QString address = QStringLiteral("unix:path=") + socket;
    startDaemon(QStringLiteral("dbus-daemon"),
                {QStringLiteral("--session"), QStringLiteral("--nofork"),
                 QStringLiteral("--address=") + address},
                environment);
    waitFor(QStringLiteral("the session bus"), [&] { return QFileInfo::exists(socket); });
    environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address);
}

// No sound cards, cameras or Bluetooth: the null sink is the only device.
void PipeWireServer::writeSessionManagerConfig(const QString& configHome) {
    const QDir config(QDir(configHome).filePath(QStringLiteral("wireplumber")));
    const QString fileName = QStringLiteral("51-no-hardware.lua");
    for (const auto& [folder, text] :
         {std::pair{QStringLiteral("main.lua.d"),
                    QByteArrayLiteral("alsa_monitor.enabled = false\n"
                                      "v4l2_monitor.enabled = false\n"
                                      "libcamera_monitor.enabled = false\n")},
          std::pair{QStringLiteral("bluetooth.lua.d"),
                    QByteArrayLiteral("bluez_monitor.enabled = false\n")}}) {
        QFile file(config.filePath(folder + QLatin1Char('/') + fileName));
        if (!config.mkpath(folder) || !file.open(QIODevice::WriteOnly) ||
            file.write(text) != text.size()) {
            throw std::runtime_error("the session manager's configuration could not be written");
        }
    }
}

void PipeWireServer::waitFor(const QString& what, const std::function<bool()>& ready) {
    const QDeadlineTimer deadline(kDeadlineMs);
    while (!ready()) {
        for (const auto& daemon : daemons_) {
            // Without an event loop only a wait notices that a process has ended.
            if (daemon->state() == QProcess::NotRunning || daemon->waitForFinished(0)) {
                throw std::runtime_error(
                    (daemon->program() + QStringLiteral(" ended while waiting for ") + what)
                        .toStdString());
            }
        }
        if (deadline.hasExpired()) {
            throw std::runtime_error((QStringLiteral("no sign of ") + what).toStdString());
        }
        QThread::msleep(50);
    }
}

void PipeWireServer::fail(const QString& why) {
    stopAll();
    QString message = why;
    for (const auto& daemon : daemons_) {
        QFile log(logPath(runtimeDir_.path(), daemon->program()));
        if (log.open(QIODevice::ReadOnly)) {
            message += QStringLiteral("\n--- ") + daemon->program() + QStringLiteral(":\n") +
                       QString::fromLocal8Bit(log.readAll().right(2000));
        }
    }
    throw std::runtime_error(message.toStdString());
}

void PipeWireServer::stopAll() {
    stopPlaying();
    for (auto daemon = daemons_.rbegin(); daemon != daemons_.rend(); ++daemon) {
        if ((*daemon)->state() != QProcess::NotRunning) {
            (*daemon)->kill();
            (*daemon)->waitForFinished(kDeadlineMs);
        }
    }
    if (previousServer_.isEmpty()) {
        qunsetenv("PULSE_SERVER");
    } else {
        qputenv("PULSE_SERVER", previousServer_);
    }
}
