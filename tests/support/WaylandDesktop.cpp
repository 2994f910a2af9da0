#include "support/WaylandDesktop.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QThread>

#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace {

constexpr int kStartTimeoutMs = 20000;
const QString kDesktopUser = QStringLiteral("nobody");
const QString kDesktopGroup = QStringLiteral("nogroup");

bool runningAsRoot() {
    return geteuid() == 0;
}

// Hands `path` to the desktop's user, when there is one to hand it to.
void giveToDesktopUser(const QString& path) {
    if (!runningAsRoot()) {
        return;
    }
    const passwd* user = getpwnam(kDesktopUser.toLocal8Bit().constData());
    if (user == nullptr ||
        chown(QFile::encodeName(path).constData(), user->pw_uid, user->pw_gid) != 0) {
        throw std::runtime_error("cannot hand the desktop's folders to its user");
    }
}

// Waits for a file in `directory` whose name matches `pattern`; returns its path.
QString awaitFile(const QString& directory, const QString& pattern, const QString& unless = {}) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartTimeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        for (const QString& name :
             QDir(directory).entryList({pattern}, QDir::System | QDir::Files)) {
            if (unless.isEmpty() || !name.endsWith(unless)) {
                return QDir(directory).filePath(name);
            }
        }
        QThread::msleep(20);
    }
    throw std::runtime_error(("the desktop did not create " + pattern).toStdString());
}

QByteArray readLine(QProcess& process, const char* what) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartTimeoutMs);
    while (!process.canReadLine()) {
        if (std::chrono::steady_clock::now() > deadline ||
            process.state() == QProcess::NotRunning) {
            throw std::runtime_error(std::string(what) + " did not answer: " +
                                     process.readAllStandardError().toStdString());
        }
        process.waitForReadyRead(100);
    }
    return process.readLine().trimmed();
}

void startProgram(QProcess& process, const QStringList& commandLine,
                  const QProcessEnvironment& environment) {
    process.setProcessEnvironment(environment);
    process.start(commandLine.front(), commandLine.mid(1));
    if (!process.waitForStarted(kStartTimeoutMs)) {
        throw std::runtime_error(("cannot start " + commandLine.front()).toStdString());
    }
}

void endProgram(QProcess& process) {
    if (process.state() == QProcess::NotRunning) {
        return;
    }
    process.terminate();
    if (!process.waitForFinished(5000)) {
        process.kill();
        process.waitForFinished(5000);
    }
}

} // namespace

WaylandDesktop::Window::~Window() {
    endProgram(process_);
}

WaylandDesktop::Pointer::~Pointer() {
    process_.closeWriteChannel();
    endProgram(process_);
}

void WaylandDesktop::Pointer::command(const QByteArray& line) {
    process_.write(line + '\n');
    process_.waitForBytesWritten(kStartTimeoutMs);
    if (readLine(process_, "the virtual pointer") != "ok") {
        throw std::runtime_error("the virtual pointer refused " + line.toStdString());
    }
}

void WaylandDesktop::Pointer::move(QPoint point) {
    command("move " + QByteArray::number(point.x()) + ' ' + QByteArray::number(point.y()));
}

void WaylandDesktop::Pointer::press() {
    command("press");
}

void WaylandDesktop::Pointer::release() {
    command("release");
}

WaylandDesktop::WaylandDesktop() : WaylandDesktop(Options{}) {}

WaylandDesktop::WaylandDesktop(Options options) : options_(options) {
    try {
        start(options);
    } catch (...) {
        stop();
        throw;
    }
}

WaylandDesktop::~WaylandDesktop() {
    stop();
}

QString WaylandDesktop::runtimeDirectory() const {
    return runtimeDirectory_;
}

void WaylandDesktop::start(const Options& options) {
    if (!directory_.isValid()) {
        throw std::runtime_error("no temporary folder");
    }
    // The desktop's user walks into the folder but lists nothing in it.
    QFile::setPermissions(directory_.path(), QFile::ReadOwner | QFile::WriteOwner |
                                                 QFile::ExeOwner | QFile::ExeGroup |
                                                 QFile::ExeOther);
    runtimeDirectory_ = directory_.filePath(QStringLiteral("run"));
    home_ = directory_.filePath(QStringLiteral("home"));
    QDir().mkpath(runtimeDirectory_);
    QDir().mkpath(home_);
    QFile::setPermissions(runtimeDirectory_,
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    giveToDesktopUser(runtimeDirectory_);
    giveToDesktopUser(home_);
    if (options.compositor == Compositor::weston) {
        startWeston();
        return;
    }

    busAddress_ = QStringLiteral("unix:path=") + runtimeDirectory_ + QStringLiteral("/bus");
    QProcess* bus = startDaemon(asDesktopUser(
        QStringLiteral("dbus-daemon"),
        {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
         QStringLiteral("--address=") + busAddress_, QStringLiteral("--print-address=1")}));
    readLine(*bus, "the session bus");

    if (options.compositor == Compositor::kwin) {
        startKWin(options);
    } else {
        startSway(options);
    }
}

void WaylandDesktop::startSway(const Options& options) {
    const QString size =
        QStringLiteral("%1x%2").arg(options.outputSize.width()).arg(options.outputSize.height());
    QString config = QStringLiteral("xwayland disable\n"
                                    "default_border none\n"
                                    "default_floating_border none\n"
                                    "focus_follows_mouse no\n"
                                    "mouse_warping none\n"
                                    "output HEADLESS-1 mode %1 position 0 0 scale 1\n"
                                    "output HEADLESS-2 mode %1 position %2 0 scale 2\n"
                                    "workspace 1 output HEADLESS-1\n"
                                    "workspace 2 output HEADLESS-2\n")
                         .arg(size)
                         .arg(options.outputSize.width());
    if (options.withBar) {
        config += QStringLiteral("bar {\n  position top\n  tray_output *\n}\n");
    }
    const QString configPath = directory_.filePath(QStringLiteral("sway.conf"));
    QFile configFile(configPath);
    if (!configFile.open(QIODevice::WriteOnly) || configFile.write(config.toUtf8()) < 0) {
        throw std::runtime_error("cannot write the sway configuration");
    }
    configFile.close();
    configFile.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther);

    QProcess* sway = startDaemon(asDesktopUser(
        QStringLiteral("env"),
        {QStringLiteral("WLR_BACKENDS=headless"), QStringLiteral("WLR_RENDERER=pixman"),
         QStringLiteral("WLR_LIBINPUT_NO_DEVICES=1"), QStringLiteral("sway"), QStringLiteral("-c"),
         configPath}));
    sway->setStandardOutputFile(directory_.filePath(QStringLiteral("sway.log")));
    socket_ = QFile::encodeName(
        awaitFile(runtimeDirectory_, QStringLiteral("wayland-*"), QStringLiteral(".lock")));
    swaySocket_ = awaitFile(runtimeDirectory_, QStringLiteral("sway-ipc.*.sock"));
    // sway answers on its socket once its configuration has been read.
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartTimeoutMs);
    for (;;) {
        try {
            swaymsg({QStringLiteral("-t"), QStringLiteral("get_version")});
            break;
        } catch (const std::runtime_error&) {
            if (std::chrono::steady_clock::now() > deadline) {
                throw;
            }
            QThread::msleep(50);
        }
    }
    swaymsg({QStringLiteral("create_output")});
    while (outputs().size() < 2 || output(QStringLiteral("HEADLESS-2")).scale != 2) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("sway did not make the second output");
        }
        QThread::msleep(50);
    }
}

void WaylandDesktop::startKWin(const Options& options) {
    // Software rendering makes KWin leave its blur off unless told.
    const QString configDirectory = home_ + QStringLiteral("/.config");
    QDir().mkpath(configDirectory);
    giveToDesktopUser(configDirectory);
    QFile config(configDirectory + QStringLiteral("/kwinrc"));
    if (!config.open(QIODevice::WriteOnly) || config.write("[Plugins]\nblurEnabled=true\n") < 0) {
        throw std::runtime_error("cannot write the KWin configuration");
    }
    config.close();
    giveToDesktopUser(config.fileName());
    // A copy without the program's file capabilities, which a container may not grant; KWin
    // takes its own Qt platform only under the program's own name.
    const QString programDirectory = directory_.filePath(QStringLiteral("kwin"));
    QDir().mkpath(programDirectory);
    const QString program = programDirectory + QStringLiteral("/kwin_wayland");
    const QString installed = QStandardPaths::findExecutable(QStringLiteral("kwin_wayland"));
    if (installed.isEmpty() || !QFile::copy(installed, program)) {
        throw std::runtime_error("kwin_wayland is not installed");
    }
    QFile::setPermissions(programDirectory, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                                QFile::ReadOther | QFile::ExeOther);
    QFile::setPermissions(program,
                          QFile::ReadOwner | QFile::ExeOwner | QFile::ReadOther | QFile::ExeOther);

    QProcess* kwin = startDaemon(
        asDesktopUser(QStringLiteral("env"),
                      {QStringLiteral("KWIN_COMPOSE=O2"), program, QStringLiteral("--virtual"),
                       QStringLiteral("--width"), QString::number(options.outputSize.width()),
                       QStringLiteral("--height"), QString::number(options.outputSize.height()),
                       QStringLiteral("--no-lockscreen"), QStringLiteral("--no-global-shortcuts"),
                       QStringLiteral("--no-kactivities")}));
    kwin->setStandardOutputFile(directory_.filePath(QStringLiteral("kwin.log")));
    socket_ = QFile::encodeName(
        awaitFile(runtimeDirectory_, QStringLiteral("wayland-*"), QStringLiteral(".lock")));
    // KWin offers its blur once its effects have loaded, a while after its socket shows.
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartTimeoutMs);
    while (!run(QStringLiteral("wayland-info"), {}).contains("org_kde_kwin_blur_manager")) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("KWin offers no blur");
        }
        QThread::msleep(100);
    }
}

void WaylandDesktop::startWeston() {
    QProcess* weston = startDaemon(asDesktopUser(
        QStringLiteral("weston"),
        {QStringLiteral("--backend=headless-backend.so"), QStringLiteral("--use-pixman"),
         QStringLiteral("--width=%1").arg(options_.outputSize.width()),
         QStringLiteral("--height=%1").arg(options_.outputSize.height()),
         QStringLiteral("--socket=wayland-1"), QStringLiteral("--idle-time=0"),
         // Lets weston-screenshooter take the screen.
         QStringLiteral("--debug")}));
    weston->setStandardOutputFile(directory_.filePath(QStringLiteral("weston.log")));
    socket_ = QFile::encodeName(awaitFile(runtimeDirectory_, QStringLiteral("wayland-1")));
}

QProcess* WaylandDesktop::startDaemon(const QStringList& commandLine) {
    auto process = std::make_unique<QProcess>();
    process->setStandardErrorFile(directory_.filePath(
        commandLine.contains(QStringLiteral("dbus-daemon")) ? QStringLiteral("bus.err")
                                                            : QStringLiteral("compositor.err")));
    startProgram(*process, commandLine, environment());
    daemons_.push_back(std::move(process));
    return daemons_.back().get();
}

void WaylandDesktop::stop() {
    pointer_.reset();
    // The compositor first, then the bus it used.
    for (auto daemon = daemons_.rbegin(); daemon != daemons_.rend(); ++daemon) {
        endProgram(**daemon);
    }
    daemons_.clear();
}

void WaylandDesktop::killCompositor() {
    QProcess& sway = *daemons_.back();
    sway.kill();
    sway.waitForFinished(kStartTimeoutMs);
}

QProcessEnvironment WaylandDesktop::environment() const {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtimeDirectory_);
    environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress_);
    if (!socket_.isEmpty()) {
        environment.insert(QStringLiteral("WAYLAND_DISPLAY"), QFile::decodeName(socket_));
    }
    if (!swaySocket_.isEmpty()) {
        environment.insert(QStringLiteral("SWAYSOCK"), swaySocket_);
    }
    environment.remove(QStringLiteral("DISPLAY"));
    return environment;
}

QStringList WaylandDesktop::asDesktopUser(const QString& program,
                                          const QStringList& arguments) const {
    QStringList commandLine;
    if (runningAsRoot()) {
        commandLine << QStringLiteral("setpriv") << QStringLiteral("--reuid=") + kDesktopUser
                    << QStringLiteral("--regid=") + kDesktopGroup
                    << QStringLiteral("--clear-groups") << QStringLiteral("--");
    }
    // Nothing of the test's own environment but what the desktop defines.
    commandLine << QStringLiteral("env") << QStringLiteral("-i")
                << QStringLiteral("PATH=") + qEnvironmentVariable("PATH")
                << QStringLiteral("LANG=C.UTF-8") << QStringLiteral("HOME=") + home_
                << QStringLiteral("XDG_RUNTIME_DIR=") + runtimeDirectory_
                << QStringLiteral("DBUS_SESSION_BUS_ADDRESS=") + busAddress_;
    if (!socket_.isEmpty()) {
        commandLine << QStringLiteral("WAYLAND_DISPLAY=") + QFile::decodeName(socket_);
    }
    if (!swaySocket_.isEmpty()) {
        commandLine << QStringLiteral("SWAYSOCK=") + swaySocket_;
    }
    // The sanitizers' settings of the test run hold for what it starts too.
    for (const char* name : {"ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        if (qEnvironmentVariableIsSet(name)) {
            commandLine << QString::fromLatin1(name) + QLatin1Char('=') +
                               qEnvironmentVariable(name);
        }
    }
    return commandLine << program << arguments;
}

QByteArray WaylandDesktop::run(const QString& program, const QStringList& arguments) const {
    QProcess process;
    process.setProcessEnvironment(environment());
    process.start(program, arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        throw std::runtime_error((program + QLatin1Char(' ') + arguments.join(QLatin1Char(' ')) +
                                  QStringLiteral(": ") +
                                  QString::fromUtf8(process.readAllStandardError()))
                                     .toStdString());
    }
    return process.readAllStandardOutput();
}

QByteArray WaylandDesktop::swaymsg(const QStringList& arguments) const {
    return run(QStringLiteral("swaymsg"),
               QStringList{QStringLiteral("-s"), swaySocket_} + arguments);
}

std::vector<WaylandDesktop::Output> WaylandDesktop::outputs() const {
    if (options_.compositor == Compositor::weston) {
        return {{QStringLiteral("headless"), QRect(QPoint(0, 0), options_.outputSize), 1,
                 options_.outputSize}};
    }
    std::vector<Output> result;
    const QJsonArray listed =
        QJsonDocument::fromJson(
            swaymsg({QStringLiteral("-r"), QStringLiteral("-t"), QStringLiteral("get_outputs")}))
            .array();
    for (const auto entry : listed) {
        const QJsonObject object = entry.toObject();
        const QJsonObject rect = object[QStringLiteral("rect")].toObject();
        const QJsonObject mode = object[QStringLiteral("current_mode")].toObject();
        result.push_back(
            {object[QStringLiteral("name")].toString(),
             QRect(rect[QStringLiteral("x")].toInt(), rect[QStringLiteral("y")].toInt(),
                   rect[QStringLiteral("width")].toInt(), rect[QStringLiteral("height")].toInt()),
             object[QStringLiteral("scale")].toDouble(),
             QSize(mode[QStringLiteral("width")].toInt(), mode[QStringLiteral("height")].toInt())});
    }
    return result;
}

WaylandDesktop::Output WaylandDesktop::output(const QString& name) const {
    for (const Output& candidate : outputs()) {
        if (candidate.name == name) {
            return candidate;
        }
    }
    return {};
}

QImage WaylandDesktop::grim(const QString& output, bool withPointer) const {
    QStringList arguments{QStringLiteral("-t"), QStringLiteral("ppm")};
    if (withPointer) {
        arguments << QStringLiteral("-c");
    }
    if (!output.isEmpty()) {
        arguments << QStringLiteral("-o") << output;
    }
    const QImage picture =
        QImage::fromData(run(QStringLiteral("grim"), arguments << QStringLiteral("-")));
    if (picture.isNull()) {
        throw std::runtime_error("grim gave no picture");
    }
    return picture.convertToFormat(QImage::Format_RGB32);
}

std::unique_ptr<WaylandDesktop::Window>
WaylandDesktop::showWindow(const QString& output, int seed, Motion motion, const QString& picture) {
    static const char* const kMotionNames[] = {"still", "band", "glow", "slide"};
    // New windows open on the focused output.
    swaymsg({QStringLiteral("focus"), QStringLiteral("output"), output});
    std::unique_ptr<Window> window(new Window);
    startProgram(window->process_,
                 QStringList{QStringLiteral(WAYLAND_TEST_WINDOW), QString::number(seed),
                             QString::fromLatin1(kMotionNames[static_cast<int>(motion)])} +
                     (picture.isEmpty() ? QStringList() : QStringList{picture}),
                 environment());
    if (readLine(window->process_, "the test window") != "shown") {
        throw std::runtime_error("the test window did not show");
    }
    return window;
}

WaylandDesktop::Pointer& WaylandDesktop::pointer() {
    if (!pointer_) {
        QRect layout;
        for (const Output& candidate : outputs()) {
            layout = layout.united(candidate.logical);
        }
        pointer_.reset(new Pointer);
        startProgram(pointer_->process_,
                     {QStringLiteral(WAYLAND_POINTER), QString::number(layout.right() + 1),
                      QString::number(layout.bottom() + 1)},
                     environment());
    }
    return *pointer_;
}
