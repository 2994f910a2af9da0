#pragma once

#include "support/FileManagerDouble.h"
#include "support/SoundServer.h"
#include "support/VirtualDisplay.h"

#include <QImage>
#include <QJsonObject>
#include <QPoint>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRect>
#include <QSize>
#include <QString>
#include <QTemporaryDir>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

// One run of Tessarel on a private desktop: a virtual X display showing a known picture as
// its background, a session bus whose file manager is a double, a sound server with a silent
// output, optionally a tray host, and a throw-away home whose Downloads folder (a name with
// blanks and non-ASCII letters) receives the captures. Tessarel is driven with synthetic
// pointer and key input only.
//
// Threads: the test's main thread, whose event loop runs while the session waits. Waits have
// generous deadlines against hangs and never decide a result by themselves.
class EndToEndSession {
public:
    struct Options {
        QSize screenSize{1600, 1000};
        bool trayHost = true;
        // Monitors to make with `xrandr --setmonitor` before anything starts; the first takes
        // the server's one output, the others have none.
        std::vector<std::pair<QString, QRect>> monitors;
        // Set in Tessarel's environment on top of the session's own.
        std::vector<std::pair<QString, QString>> environment;
        // Extensions the X server leaves out.
        QStringList withheldExtensions;
    };

    struct WindowInfo {
        uint32_t id = 0;
        QRect geometry;
    };

    explicit EndToEndSession(Options options);
    // Keeps the session's folder (screenshots, captures, logs) when the test failed.
    ~EndToEndSession();
    EndToEndSession(const EndToEndSession&) = delete;
    EndToEndSession& operator=(const EndToEndSession&) = delete;

    VirtualDisplay& display() { return *display_; }
    SoundServer& sound() { return *sound_; }
    const FileManagerDouble& fileManager() const { return *fileManager_; }
    const QImage& background() const { return background_; }
    QString saveFolder() const;

    // Starts one more Tessarel process and returns once it runs; the session ends it.
    QProcess& startTessarel();

    // Synthetic input, as a person gives it.
    void click(const QPoint& at);
    void key(const QString& keys);
    void drag(const QPoint& from, const QPoint& to);

    // `xdotool` with its output; an empty answer when it finds nothing.
    QByteArray xdotool(const QStringList& arguments);
    // Mapped windows whose _NET_WM_PID is the process's.
    std::vector<WindowInfo> visibleWindows(qint64 processID);
    // Waits until a mapped window of the process passes `accept`.
    std::optional<WindowInfo> waitForWindow(qint64 processID,
                                            const std::function<bool(const WindowInfo&)>& accept);
    std::optional<WindowInfo> waitForWindowOfSize(qint64 processID, const QSize& size);
    // The process's window docked in the tray: mapped, its parent not the root window.
    std::optional<WindowInfo> waitForTrayIcon(qint64 processID);
    // Windows of the whole display from bottom to top of the stacking order.
    std::vector<uint32_t> stackingOrder();

    // Waits until the file manager has been asked to show `count` files in all.
    bool waitForReveals(size_t count);
    // A picture of the whole display in the session's folder, to look at after a failure.
    void screenshot(const QString& name);

    // The first stream and the container of a media file, as ffprobe reports them: the
    // stream's fields plus "format_name".
    static QJsonObject probe(const QString& path);
    // The loudest sample of a sound file in dB below full scale, as ffmpeg measures it.
    static std::optional<double> peakLevel(const QString& path);

private:
    QTemporaryDir work_;
    std::unique_ptr<VirtualDisplay> display_;
    QImage background_;
    std::unique_ptr<VirtualDisplay::Window> backgroundWindow_;
    std::unique_ptr<SoundServer> sound_;
    QProcess bus_;
    QString busAddress_;
    std::unique_ptr<FileManagerDouble> fileManager_;
    QProcess trayHost_;
    QProcessEnvironment environment_;
    std::vector<std::unique_ptr<QProcess>> applications_;
};
