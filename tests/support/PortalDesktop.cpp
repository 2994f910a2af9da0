#include "support/PortalDesktop.h"

#include "support/PipeWireServer.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <sys/prctl.h>

#include <signal.h>

#include <csignal>
#include <stdexcept>

namespace {

constexpr int kStartTimeoutMs = 30000;
const QString kDesktopName = QStringLiteral("tessarel-test");

void writeFile(const QString& path, const QByteArray& text) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size()) {
        throw std::runtime_error("cannot write " + path.toStdString());
    }
}

} // namespace

PortalDesktop::PortalDesktop(const WaylandDesktop& desktop, Options options) : desktop_(desktop) {
    if (!directory_.isValid()) {
        throw std::runtime_error("no temporary folder");
    }
    const QDir root(directory_.path());
    for (const char* folder : {"portals", "control", "config", "run", "home", "services"}) {
        root.mkpath(QString::fromLatin1(folder));
    }
    control_ = QDir(root.filePath(QStringLiteral("control")));
    const QString runtime = root.filePath(QStringLiteral("run"));
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    busAddress_ = QStringLiteral("unix:path=") + runtime + QStringLiteral("/bus");
    try {
        // The desktop's display, but a bus, runtime folder and home of the portal's own.
        QProcessEnvironment environment = desktop.environment();
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
        environment.insert(QStringLiteral("HOME"), root.filePath(QStringLiteral("home")));
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress_);
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"),
                           root.filePath(QStringLiteral("config")));
        environment.insert(QStringLiteral("XDG_CURRENT_DESKTOP"), kDesktopName);
        environment.insert(QStringLiteral("XDG_DESKTOP_PORTAL_DIR"),
                           root.filePath(QStringLiteral("portals")));
        PipeWireServer::writeSessionManagerConfig(root.filePath(QStringLiteral("config")));

        // A bus that starts nothing but the permission store, where the frontend keeps
        // restore tokens: the desktop's other services (the document portal's file system
        // above all) stay out.
        writeFile(root.filePath(QStringLiteral("services/permission-store.service")),
                  "[D-BUS Service]\nName=org.freedesktop.impl.portal.PermissionStore\n"
                  "Exec=/usr/libexec/xdg-permission-store\n");
        writeFile(root.filePath(QStringLiteral("bus.conf")),
                  "<busconfig><type>session</type><listen>" + busAddress_.toUtf8() +
                      "</listen><servicedir>" + root.filePath(QStringLiteral("services")).toUtf8() +
                      "</servicedir><auth>EXTERNAL</auth><policy context=\"default\">"
                      "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                      "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n");
        startDaemon(QStringLiteral("dbus-daemon"),
                    {QStringLiteral("--config-file=") + root.filePath(QStringLiteral("bus.conf")),
                     QStringLiteral("--nofork")},
                    environment);
        awaitFile(runtime + QStringLiteral("/bus"));
        startDaemon(QStringLiteral("pipewire"), {}, environment);
        awaitFile(runtime + QStringLiteral("/pipewire-0"));
        startDaemon(QStringLiteral("wireplumber"), {}, environment);

        if (!options.withScreenCast) {
            // wlr's own portal file would also offer its ScreenCast, which needs a GPU.
            writeFile(root.filePath(QStringLiteral("portals/wlr.portal")),
                      "[portal]\nDBusName=org.freedesktop.impl.portal.desktop.wlr\n"
                      "Interfaces=org.freedesktop.impl.portal.Screenshot;\nUseIn=" +
                          kDesktopName.toUtf8() + "\n");
            startDaemon(QStringLiteral("/usr/libexec/xdg-desktop-portal-wlr"), {}, environment);
            awaitBusName(QStringLiteral("org.freedesktop.impl.portal.desktop.wlr"));
        }

        // The frontend offers Screenshot only beside an Access backend.
        writeFile(root.filePath(QStringLiteral("portals/tessarel-test.portal")),
                  "[portal]\nDBusName=org.freedesktop.impl.portal.desktop.tessarel_test\n"
                  "Interfaces=org.freedesktop.impl.portal.Access;" +
                      QByteArray(options.withScreenCast ? "org.freedesktop.impl.portal.ScreenCast;"
                                                        : "") +
                      "\nUseIn=" + kDesktopName.toUtf8() + "\n");
        QStringList arguments{control_.path()};
        if (options.fromScreen) {
            arguments.prepend(QStringLiteral("--from-screen"));
        }
        int seed = 1;
        for (const WaylandDesktop::Output& output : desktop.outputs()) {
            arguments << QStringLiteral("%1:%2:%3:%4:%5:%6:%7:%8:%9")
                             .arg(output.name)
                             .arg(output.logical.x())
                             .arg(output.logical.y())
                             .arg(output.logical.width())
                             .arg(output.logical.height())
                             .arg(output.pixels.width())
                             .arg(output.pixels.height())
                             .arg(seed)
                             .arg(options.turns.count(output.name) > 0
                                      ? options.turns.at(output.name)
                                      : QStringLiteral("0"));
            ++seed;
        }
        screenCastBackend_ =
            &startDaemon(QStringLiteral(PORTAL_SCREENCAST_BACKEND), arguments, environment);
        awaitBusName(QStringLiteral("org.freedesktop.impl.portal.desktop.tessarel_test"));
        frontend_ = &startDaemon(QStringLiteral("/usr/libexec/xdg-desktop-portal"),
                                 {QStringLiteral("-r")}, environment);
        awaitBusName(QStringLiteral("org.freedesktop.portal.Desktop"));
    } catch (...) {
        stop();
        throw;
    }
}

PortalDesktop::~PortalDesktop() {
    stop();
}

QProcess& PortalDesktop::startDaemon(const QString& program, const QStringList& arguments,
                                     const QProcessEnvironment& environment) {
    auto& daemon = *daemons_.emplace_back(std::make_unique<QProcess>());
    daemon.setProcessEnvironment(environment);
    // A test that is killed takes its portal with it.
    daemon.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGKILL); });
    const QString name = QFileInfo(program).fileName();
    daemon.setStandardOutputFile(directory_.filePath(name + QStringLiteral(".log")));
    daemon.setStandardErrorFile(directory_.filePath(name + QStringLiteral(".err")));
    daemon.start(program, arguments);
    if (!daemon.waitForStarted(kStartTimeoutMs)) {
        throw std::runtime_error("cannot start " + program.toStdString());
    }
    return daemon;
}

void PortalDesktop::awaitBusName(const QString& name) {
    // Named after this desktop's bus: a name once used keeps its connection.
    QDBusConnection bus = QDBusConnection::connectToBus(busAddress_, busAddress_);
    const QDeadlineTimer deadline(kStartTimeoutMs);
    while (!bus.interface() || !bus.interface()->isServiceRegistered(name)) {
        for (const auto& daemon : daemons_) {
            if (daemon->state() == QProcess::NotRunning || daemon->waitForFinished(0)) {
                QFile log(directory_.filePath(QFileInfo(daemon->program()).fileName() +
                                              QStringLiteral(".err")));
                log.open(QIODevice::ReadOnly);
                throw std::runtime_error((daemon->program() + QStringLiteral(" ended before ") +
                                          name + QStringLiteral(" came: ") +
                                          QString::fromUtf8(log.readAll().right(2000)))
                                             .toStdString());
            }
        }
        if (deadline.hasExpired()) {
            throw std::runtime_error("no " + name.toStdString() + " on the bus");
        }
        QThread::msleep(50);
    }
}

void PortalDesktop::awaitFile(const QString& path) {
    const QDeadlineTimer deadline(kStartTimeoutMs);
    while (!QFileInfo::exists(path)) {
        if (deadline.hasExpired()) {
            throw std::runtime_error("no " + path.toStdString());
        }
        QThread::msleep(50);
    }
}

void PortalDesktop::stop() {
    QDBusConnection::disconnectFromBus(busAddress_);
    for (auto daemon = daemons_.rbegin(); daemon != daemons_.rend(); ++daemon) {
        if ((*daemon)->state() != QProcess::NotRunning) {
            ::kill(static_cast<pid_t>((*daemon)->processId()), SIGCONT);
            (*daemon)->terminate();
            if (!(*daemon)->waitForFinished(5000)) {
                (*daemon)->kill();
                (*daemon)->waitForFinished(5000);
            }
        }
    }
    daemons_.clear();
}

int PortalDesktop::linesOf(const QString& file, const QByteArray& line) const {
    QFile lines(control_.filePath(file));
    if (!lines.open(QIODevice::ReadOnly)) {
        return 0;
    }
    return static_cast<int>(lines.readAll().split('\n').count(line));
}

int PortalDesktop::grantsGiven() const {
    return linesOf(QStringLiteral("grants"), "granted");
}

int PortalDesktop::requestsReceived() const {
    QFile lines(control_.filePath(QStringLiteral("requests")));
    return lines.open(QIODevice::ReadOnly) ? static_cast<int>(lines.readAll().count('\n')) : 0;
}

int PortalDesktop::openSessions() const {
    return linesOf(QStringLiteral("sessions"), "opened") -
           linesOf(QStringLiteral("sessions"), "closed");
}

void PortalDesktop::declineGrants(bool decline) {
    const QString path = control_.filePath(QStringLiteral("decline"));
    if (decline) {
        writeFile(path, {});
    } else {
        QFile::remove(path);
    }
}

void PortalDesktop::takeTimeInTheDialog(int milliseconds) {
    writeFile(control_.filePath(QStringLiteral("dialog-ms")), QByteArray::number(milliseconds));
}

void PortalDesktop::chooseOutput(const QString& name) {
    writeFile(control_.filePath(QStringLiteral("choose")), name.toUtf8());
}

qint64 PortalDesktop::screenCastBackendProcessId() const {
    return screenCastBackend_->processId();
}

void PortalDesktop::killScreenCastBackend() {
    if (screenCastBackend_) {
        screenCastBackend_->kill();
        screenCastBackend_->waitForFinished(5000);
    }
}

void PortalDesktop::freezeFrontend() {
    ::kill(static_cast<pid_t>(frontend_->processId()), SIGSTOP);
}
