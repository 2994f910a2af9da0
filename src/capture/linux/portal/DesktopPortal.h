#pragma once

#include <QDBusConnection>
#include <QImage>
#include <QPoint>
#include <QSize>
#include <QString>
#include <QThread>
#include <QVariantMap>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

class PortalSignals;

// The desktop portal's ScreenCast and Screenshot, on a session-bus connection of its own.
//
// Every call blocks its caller until the portal answers, which may take as long as the user
// looks at the portal's dialog. The answers (Request.Response) arrive on a thread of this
// object's own with an event loop, so calls may come from any thread but that one, and
// the GUI thread stays free. Each call listens for its Response before it is made. When
// the portal leaves the bus every waiting call fails at once.
class DesktopPortal {
public:
    // One shared screen: the PipeWire node, the connection the portal opened for it (taken
    // over by whoever calls takeRemote), and where the screen lies in the layout's points.
    // The session closes with the object.
    class ScreenCast {
    public:
        ~ScreenCast();
        ScreenCast(const ScreenCast&) = delete;
        ScreenCast& operator=(const ScreenCast&) = delete;

        uint32_t nodeId() const { return nodeId_; }
        std::optional<QPoint> position() const { return position_; }
        std::optional<QSize> size() const { return size_; }
        bool pointerEmbedded() const { return pointerEmbedded_; }
        int takeRemote();

    private:
        friend class DesktopPortal;
        ScreenCast(DesktopPortal& portal, QString session) : portal_(portal), session_(session) {}
        DesktopPortal& portal_;
        QString session_;
        uint32_t nodeId_ = 0;
        std::optional<QPoint> position_;
        std::optional<QSize> size_;
        bool pointerEmbedded_ = false;
        int remote_ = -1;
    };

    // `busAddress` empty: the session bus of the environment. Restore tokens are kept in
    // `grantsDirectory`.
    DesktopPortal(const QString& busAddress, QString grantsDirectory);
    ~DesktopPortal();
    DesktopPortal(const DesktopPortal&) = delete;
    DesktopPortal& operator=(const DesktopPortal&) = delete;

    // Whether a portal answers with ScreenCast or Screenshot.
    bool isReachable();
    bool offersScreenCast();

    // Shares the monitor at `place` (its top left corner in the layout's points), with the
    // pointer drawn in or described when asked for. The grant for that monitor is asked for
    // once and then kept as a restore token across runs; a token the desktop no longer
    // honours is dropped and the user asked again. Throws PlatformError; when the user
    // declines, ScreenCapturePermissionError.
    std::unique_ptr<ScreenCast> shareMonitor(QPoint place, bool withPointer);

    // Whether the desktop granted the sharing of a monitor and the grant is kept.
    bool holdsGrant() const;
    // Asks the user, through the portal's dialog, to grant the sharing of a monitor, and
    // keeps the grant for the monitor chosen. False when the user declines; true without
    // asking where the desktop keeps no grants (the capture asks); throws PlatformError when
    // the portal cannot ask.
    bool askForGrant();

    // The whole layout as the portal's screenshot gives it. Throws PlatformError.
    QImage screenshot();

    // The directory restore tokens live in when none is given: the user's state directory.
    static QString defaultGrantsDirectory();

private:
    friend class PortalSignals;
    struct Response {
        uint32_t code = 2;
        QVariantMap results;
    };
    struct Pending {
        std::optional<Response> response;
    };

    Response request(const QString& interface, const QString& method, QVariantList arguments,
                     QVariantMap options);
    QString requestPath(const QString& token) const;
    void closeSession(const QString& session);
    std::optional<uint32_t> screenCastProperty(const char* name);
    std::optional<uint32_t> property(const QString& interface, const char* name);
    // Up to Start: `place` none asks for any monitor and keeps the grant where it lies.
    std::unique_ptr<ScreenCast> startSharing(std::optional<QPoint> place, uint32_t cursorMode);
    QString restoreToken(QPoint place) const;
    void keepRestoreToken(QPoint place, const QString& token) const;

    // The signal thread.
    void deliver(const QString& path, Response response);
    void portalLeft();

    QDBusConnection connection_;
    QString grantsDirectory_;
    QThread thread_;
    PortalSignals* signals_ = nullptr; // lives on thread_
    std::mutex mutex_;
    std::condition_variable answered_;
    std::map<QString, std::shared_ptr<Pending>> pending_;
    bool portalGone_ = false;
    std::atomic<unsigned> counter_{0};
};
