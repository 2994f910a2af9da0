#include "EndToEndSession.h"

#include "support/EventLoop.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMap>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>

namespace {

// Deadlines against hangs only: a busy machine may take long to start an X client.
constexpr int kWindowDeadlineMs = 60000;
constexpr int kCaptureDeadlineMs = 180000;

QString saveFolderName() {
    return QString::fromUtf8("Téléchargements d’été");
}

// The window ids an `xdotool search` printed, one per line.
std::vector<uint32_t> windowIDs(const QByteArray& output) {
    std::vector<uint32_t> ids;
    for (const QByteArray& line : output.split('\n')) {
        bool ok = false;
        const uint32_t id = line.trimmed().toUInt(&ok);
        if (ok) {
            ids.push_back(id);
        }
    }
    return ids;
}

void startOrThrow(QProcess& process, const char* what) {
    process.start();
    if (!process.waitForStarted(30000)) {
        throw std::runtime_error(std::string(what) + " did not start");
    }
}

void endProcess(QProcess& process) {
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(30000);
    }
}

} // namespace

EndToEndSession::EndToEndSession(Options options) {
    if (!work_.isValid()) {
        throw std::runtime_error("no temporary folder for the session");
    }
    display_ = std::make_unique<VirtualDisplay>(
        options.screenSize.width(), options.screenSize.height(), options.withheldExtensions);
    for (size_t i = 0; i < options.monitors.size(); ++i) {
        display_->setMonitor(options.monitors[i].first, options.monitors[i].second,
                             i == 0 ? QStringLiteral("screen") : QStringLiteral("none"));
    }
    background_ = VirtualDisplay::testPattern(options.screenSize, 7);
    backgroundWindow_ = display_->showWindow(QRect(QPoint(0, 0), options.screenSize), background_);
    sound_ = std::make_unique<SoundServer>();

    bus_.setProgram(QStringLiteral("dbus-daemon"));
    bus_.setArguments({QStringLiteral("--session"), QStringLiteral("--nofork"),
                       QStringLiteral("--print-address")});
    startOrThrow(bus_, "dbus-daemon");
    if (!processEventsUntil([this] { return bus_.canReadLine(); }, kWindowDeadlineMs)) {
        throw std::runtime_error("dbus-daemon gave no address");
    }
    busAddress_ = QString::fromUtf8(bus_.readLine()).trimmed();
    fileManager_ = std::make_unique<FileManagerDouble>(busAddress_);

    // The XDG user directories name the Downloads folder, which becomes the save folder.
    const QString home = work_.filePath(QStringLiteral("home"));
    QDir().mkpath(saveFolder());
    QDir().mkpath(home + QStringLiteral("/.config"));
    QFile userDirs(home + QStringLiteral("/.config/user-dirs.dirs"));
    if (!userDirs.open(QIODevice::WriteOnly) ||
        userDirs.write((QStringLiteral("XDG_DOWNLOAD_DIR=\"$HOME/") + saveFolderName() +
                        QStringLiteral("\"\n"))
                           .toUtf8()) < 0) {
        throw std::runtime_error("user-dirs.dirs could not be written");
    }
    userDirs.close();
    const QString runtime = work_.filePath(QStringLiteral("runtime"));
    QDir().mkpath(runtime);
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    environment_ = sound_->clientEnvironment();
    for (const char* name :
         {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "WAYLAND_DISPLAY",
          "QT_SCALE_FACTOR", "QT_SCREEN_SCALE_FACTORS", "QT_ENABLE_HIGHDPI_SCALING",
          "QT_AUTO_SCREEN_SCALE_FACTOR", "QT_DEVICE_PIXEL_RATIO"}) {
        environment_.remove(QString::fromLatin1(name));
    }
    environment_.insert(QStringLiteral("DISPLAY"), QString::fromUtf8(display_->name()));
    environment_.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress_);
    environment_.insert(QStringLiteral("HOME"), home);
    environment_.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
    environment_.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    for (const auto& [name, value] : options.environment) {
        environment_.insert(name, value);
    }

    if (options.trayHost) {
        trayHost_.setProcessEnvironment(environment_);
        trayHost_.setStandardOutputFile(QProcess::nullDevice());
        trayHost_.setStandardErrorFile(QProcess::nullDevice());
        trayHost_.setProgram(QStringLiteral("trayer"));
        trayHost_.setArguments({QStringLiteral("--edge"), QStringLiteral("top"),
                                QStringLiteral("--align"), QStringLiteral("right"),
                                QStringLiteral("--widthtype"), QStringLiteral("pixel"),
                                QStringLiteral("--width"), QStringLiteral("120"),
                                QStringLiteral("--height"), QStringLiteral("32")});
        startOrThrow(trayHost_, "trayer");
        // The tray is there once its window shows.
        if (!waitForWindow(trayHost_.processId(), [](const WindowInfo&) { return true; })) {
            throw std::runtime_error("trayer showed no window");
        }
    }
}

EndToEndSession::~EndToEndSession() {
    for (const auto& application : applications_) {
        endProcess(*application);
    }
    endProcess(trayHost_);
    fileManager_.reset();
    endProcess(bus_);
    if (testing::Test::HasFailure()) {
        work_.setAutoRemove(false);
        std::fprintf(stderr, "Screenshots, captures and logs kept in %s\n",
                     qPrintable(work_.path()));
    }
}

QString EndToEndSession::saveFolder() const {
    return work_.filePath(QStringLiteral("home/") + saveFolderName());
}

QProcess& EndToEndSession::startTessarel() {
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(environment_);
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setStandardOutputFile(
        work_.filePath(QStringLiteral("tessarel-%1.log").arg(applications_.size() + 1)));
    process->setProgram(QStringLiteral(TESSAREL_PROGRAM));
    startOrThrow(*process, "tessarel");
    applications_.push_back(std::move(process));
    return *applications_.back();
}

void EndToEndSession::click(const QPoint& at) {
    display_->run(QStringLiteral("xdotool"),
                  {QStringLiteral("mousemove"), QString::number(at.x()), QString::number(at.y()),
                   QStringLiteral("click"), QStringLiteral("1")});
}

void EndToEndSession::key(const QString& keys) {
    display_->run(QStringLiteral("xdotool"), {QStringLiteral("key"), keys});
}

void EndToEndSession::drag(const QPoint& from, const QPoint& to) {
    const QPoint middle = (from + to) / 2;
    display_->run(QStringLiteral("xdotool"),
                  {QStringLiteral("mousemove"), QString::number(from.x()),
                   QString::number(from.y()), QStringLiteral("mousedown"), QStringLiteral("1"),
                   QStringLiteral("mousemove"), QString::number(middle.x()),
                   QString::number(middle.y()), QStringLiteral("mousemove"),
                   QString::number(to.x()), QString::number(to.y()), QStringLiteral("mouseup"),
                   QStringLiteral("1")});
}

QByteArray EndToEndSession::xdotool(const QStringList& arguments) {
    try {
        return display_->run(QStringLiteral("xdotool"), arguments);
    } catch (const std::runtime_error&) {
        // A search that finds nothing, or a window that went away meanwhile.
        return {};
    }
}

std::vector<EndToEndSession::WindowInfo> EndToEndSession::visibleWindows(qint64 processID) {
    std::vector<WindowInfo> windows;
    for (const uint32_t id :
         windowIDs(xdotool({QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                            QStringLiteral("--pid"), QString::number(processID)}))) {
        // X=, Y=, WIDTH=, HEIGHT= lines; the position is relative to the root window.
        QMap<QString, int> values;
        for (const QByteArray& line : xdotool({QStringLiteral("getwindowgeometry"),
                                               QStringLiteral("--shell"), QString::number(id)})
                                          .split('\n')) {
            const auto parts = line.split('=');
            if (parts.size() == 2) {
                values.insert(QString::fromLatin1(parts[0]), parts[1].toInt());
            }
        }
        if (values.contains(QStringLiteral("WIDTH"))) {
            windows.push_back(
                {id, QRect(values.value(QStringLiteral("X")), values.value(QStringLiteral("Y")),
                           values.value(QStringLiteral("WIDTH")),
                           values.value(QStringLiteral("HEIGHT")))});
        }
    }
    return windows;
}

std::optional<EndToEndSession::WindowInfo>
EndToEndSession::waitForWindow(qint64 processID,
                               const std::function<bool(const WindowInfo&)>& accept) {
    std::optional<WindowInfo> found;
    processEventsUntil(
        [&] {
            for (const WindowInfo& window : visibleWindows(processID)) {
                if (accept(window)) {
                    found = window;
                    return true;
                }
            }
            return false;
        },
        kWindowDeadlineMs);
    return found;
}

std::optional<EndToEndSession::WindowInfo> EndToEndSession::waitForWindowOfSize(qint64 processID,
                                                                                const QSize& size) {
    return waitForWindow(
        processID, [&size](const WindowInfo& window) { return window.geometry.size() == size; });
}

std::optional<EndToEndSession::WindowInfo> EndToEndSession::waitForTrayIcon(qint64 processID) {
    return waitForWindow(processID, [this](const WindowInfo& window) {
        QByteArray tree;
        try {
            tree = display_->run(
                QStringLiteral("xwininfo"),
                {QStringLiteral("-tree"), QStringLiteral("-id"), QString::number(window.id)});
        } catch (const std::runtime_error&) {
            return false;
        }
        static const QRegularExpression rootPattern(
            QStringLiteral("Root window id: (0x[0-9a-f]+)"));
        static const QRegularExpression parentPattern(
            QStringLiteral("Parent window id: (0x[0-9a-f]+)"));
        const QString text = QString::fromLatin1(tree);
        const auto root = rootPattern.match(text);
        const auto parent = parentPattern.match(text);
        return root.hasMatch() && parent.hasMatch() && root.captured(1) != parent.captured(1);
    });
}

std::vector<uint32_t> EndToEndSession::stackingOrder() {
    // xwininfo lists the root's children from the top of the stack down.
    std::vector<uint32_t> windows;
    static const QRegularExpression childPattern(QStringLiteral("^\\s+(0x[0-9a-f]+) "));
    for (const QByteArray& line : display_
                                      ->run(QStringLiteral("xwininfo"),
                                            {QStringLiteral("-root"), QStringLiteral("-children")})
                                      .split('\n')) {
        const auto match = childPattern.match(QString::fromLatin1(line));
        if (match.hasMatch()) {
            windows.insert(windows.begin(), match.captured(1).toUInt(nullptr, 16));
        }
    }
    return windows;
}

bool EndToEndSession::waitForReveals(size_t count) {
    return processEventsUntil(
        [this, count] { return fileManager_->showItemsCalls().size() >= count; },
        kCaptureDeadlineMs);
}

void EndToEndSession::screenshot(const QString& name) {
    display_->run(QStringLiteral("import"), {QStringLiteral("-window"), QStringLiteral("root"),
                                             work_.filePath(name + QStringLiteral(".png"))});
}

QJsonObject EndToEndSession::probe(const QString& path) {
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-show_entries"),
                   QStringLiteral("stream=codec_name,codec_type,sample_rate,channels,width,height:"
                                  "format=format_name"),
                   QStringLiteral("-of"), QStringLiteral("json"), path});
    if (!ffprobe.waitForFinished(60000) || ffprobe.exitCode() != 0) {
        return {};
    }
    const QJsonObject report = QJsonDocument::fromJson(ffprobe.readAllStandardOutput()).object();
    const QJsonArray streams = report.value(QStringLiteral("streams")).toArray();
    if (streams.isEmpty()) {
        return {};
    }
    QJsonObject stream = streams.first().toObject();
    stream.insert(
        QStringLiteral("format_name"),
        report.value(QStringLiteral("format")).toObject().value(QStringLiteral("format_name")));
    return stream;
}

std::optional<double> EndToEndSession::peakLevel(const QString& path) {
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {QStringLiteral("-nostdin"), QStringLiteral("-hide_banner"), QStringLiteral("-i"),
                  path, QStringLiteral("-af"), QStringLiteral("volumedetect"), QStringLiteral("-f"),
                  QStringLiteral("null"), QStringLiteral("-")});
    if (!ffmpeg.waitForFinished(60000) || ffmpeg.exitCode() != 0) {
        return std::nullopt;
    }
    static const QRegularExpression peak(QStringLiteral("max_volume: (-?[0-9.]+) dB"));
    const auto match = peak.match(QString::fromUtf8(ffmpeg.readAllStandardError()));
    if (!match.hasMatch()) {
        return std::nullopt;
    }
    return match.captured(1).toDouble();
}
