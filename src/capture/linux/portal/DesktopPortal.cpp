#include "capture/linux/portal/DesktopPortal.h"

#include "capture/CaptureVocabulary.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>
#include <QDir>
#include <QFile>
#include <QSaveFile>
#include <QUrl>

#include <unistd.h>

#include <utility>
#include <vector>

namespace {

const QString kService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kObject = QStringLiteral("/org/freedesktop/portal/desktop");
const QString kScreenCast = QStringLiteral("org.freedesktop.portal.ScreenCast");
const QString kScreenshot = QStringLiteral("org.freedesktop.portal.Screenshot");
const QString kRequest = QStringLiteral("org.freedesktop.portal.Request");
constexpr int kCallTimeoutMs = 30000;

// Response codes and the enumerations of the ScreenCast interface.
constexpr uint32_t kResponseSuccess = 0;
constexpr uint32_t kResponseCancelled = 1;
constexpr uint32_t kSourceMonitor = 1;
constexpr uint32_t kCursorHidden = 1;
constexpr uint32_t kCursorEmbedded = 2;
constexpr uint32_t kCursorMetadata = 4;
constexpr uint32_t kPersistUntilRevoked = 2;
constexpr uint32_t kFirstVersionWithRestoreTokens = 4;

[[noreturn]] void declined() {
    throw ScreenCapturePermissionError(QStringLiteral(
        "Screen capture was declined. Tessarel needs your permission: allow it in the "
        "desktop's screen sharing dialog when it asks."));
}

QPoint pointOf(const QVariant& value) {
    const auto argument = value.value<QDBusArgument>();
    int x = 0;
    int y = 0;
    argument.beginStructure();
    argument >> x >> y;
    argument.endStructure();
    return {x, y};
}

} // namespace

// Receives the portal's signals on the portal's own thread.
class PortalSignals : public QObject {
    Q_OBJECT
public:
    explicit PortalSignals(DesktopPortal& portal) : portal_(portal) {}

public slots:
    void response(const QDBusMessage& message) {
        const QList<QVariant> arguments = message.arguments();
        DesktopPortal::Response answer;
        if (arguments.size() >= 2) {
            answer.code = arguments[0].toUInt();
            answer.results = qdbus_cast<QVariantMap>(arguments[1]);
        }
        portal_.deliver(message.path(), std::move(answer));
    }

    void ownerChanged(const QString& name, const QString&, const QString& newOwner) {
        if (name == kService && newOwner.isEmpty()) {
            portal_.portalLeft();
        }
    }

private:
    DesktopPortal& portal_;
};

DesktopPortal::ScreenCast::~ScreenCast() {
    if (remote_ >= 0) {
        close(remote_);
    }
    portal_.closeSession(session_);
}

int DesktopPortal::ScreenCast::takeRemote() {
    return std::exchange(remote_, -1);
}

DesktopPortal::DesktopPortal(const QString& busAddress, QString grantsDirectory)
    : connection_(
          busAddress.isEmpty()
              ? QDBusConnection::connectToBus(
                    QDBusConnection::SessionBus,
                    QStringLiteral("tessarel-portal-%1").arg(reinterpret_cast<quintptr>(this)))
              : QDBusConnection::connectToBus(
                    busAddress,
                    QStringLiteral("tessarel-portal-%1").arg(reinterpret_cast<quintptr>(this)))),
      grantsDirectory_(std::move(grantsDirectory)) {
    thread_.setObjectName(QStringLiteral("Tessarel.portal"));
    signals_ = new PortalSignals(*this);
    signals_->moveToThread(&thread_);
    QObject::connect(&thread_, &QThread::finished, signals_, &QObject::deleteLater);
    thread_.start();
    connection_.connect(QStringLiteral("org.freedesktop.DBus"),
                        QStringLiteral("/org/freedesktop/DBus"),
                        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameOwnerChanged"),
                        signals_, SLOT(ownerChanged(QString, QString, QString)));
}

DesktopPortal::~DesktopPortal() {
    connection_.disconnect(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameOwnerChanged"), signals_,
        SLOT(ownerChanged(QString, QString, QString)));
    thread_.quit();
    thread_.wait();
    QDBusConnection::disconnectFromBus(connection_.name());
}

QString DesktopPortal::defaultGrantsDirectory() {
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (state.isEmpty()) {
        state = QDir::homePath() + QStringLiteral("/.local/state");
    }
    return state + QStringLiteral("/tessarel");
}

bool DesktopPortal::isReachable() {
    return connection_.isConnected() && (screenCastProperty("version").has_value() ||
                                         property(kScreenshot, "version").has_value());
}

bool DesktopPortal::offersScreenCast() {
    return screenCastProperty("AvailableSourceTypes").value_or(0) & kSourceMonitor;
}

std::optional<uint32_t> DesktopPortal::screenCastProperty(const char* name) {
    return property(kScreenCast, name);
}

std::optional<uint32_t> DesktopPortal::property(const QString& interface, const char* name) {
    QDBusMessage get = QDBusMessage::createMethodCall(
        kService, kObject, QStringLiteral("org.freedesktop.DBus.Properties"),
        QStringLiteral("Get"));
    get << interface << QString::fromLatin1(name);
    const QDBusMessage reply = connection_.call(get, QDBus::Block, kCallTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        return std::nullopt;
    }
    return reply.arguments().front().value<QDBusVariant>().variant().toUInt();
}

QString DesktopPortal::requestPath(const QString& token) const {
    QString sender = connection_.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    return kObject + QStringLiteral("/request/") + sender + QLatin1Char('/') + token;
}

DesktopPortal::Response DesktopPortal::request(const QString& interface, const QString& method,
                                               QVariantList arguments, QVariantMap options) {
    auto pending = std::make_shared<Pending>();
    QString token;
    {
        std::lock_guard guard(mutex_);
        if (portalGone_) {
            throw PlatformError(QStringLiteral("The desktop portal has gone away."));
        }
        token = QStringLiteral("tessarel%1").arg(++counter_);
    }
    options.insert(QStringLiteral("handle_token"), token);
    QString path = requestPath(token);
    const auto listen = [&](const QString& at) {
        {
            std::lock_guard guard(mutex_);
            pending_[at] = pending;
        }
        connection_.connect(kService, at, kRequest, QStringLiteral("Response"), signals_,
                            SLOT(response(QDBusMessage)));
    };
    const auto forget = [&](const QString& at) {
        connection_.disconnect(kService, at, kRequest, QStringLiteral("Response"), signals_,
                               SLOT(response(QDBusMessage)));
        std::lock_guard guard(mutex_);
        pending_.erase(at);
    };
    listen(path);
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kObject, interface, method);
    call.setArguments(arguments << options);
    const QDBusMessage reply = connection_.call(call, QDBus::Block, kCallTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        forget(path);
        throw PlatformError(QStringLiteral("The desktop portal refused to share the screen: ") +
                            reply.errorMessage());
    }
    // Portals older than the request-path convention answer on a path of their own.
    if (const QString handle = reply.arguments().value(0).value<QDBusObjectPath>().path();
        !handle.isEmpty() && handle != path) {
        listen(handle);
        forget(path);
        path = handle;
    }
    std::unique_lock guard(mutex_);
    answered_.wait(guard, [&] { return pending->response.has_value() || portalGone_; });
    guard.unlock();
    forget(path);
    if (!pending->response) {
        throw PlatformError(QStringLiteral("The desktop portal has gone away."));
    }
    return *pending->response;
}

void DesktopPortal::deliver(const QString& path, Response response) {
    {
        std::lock_guard guard(mutex_);
        const auto found = pending_.find(path);
        if (found == pending_.end()) {
            return;
        }
        found->second->response = std::move(response);
    }
    answered_.notify_all();
}

void DesktopPortal::portalLeft() {
    {
        std::lock_guard guard(mutex_);
        portalGone_ = true;
    }
    answered_.notify_all();
}

void DesktopPortal::closeSession(const QString& session) {
    if (session.isEmpty()) {
        return;
    }
    const QDBusMessage close = QDBusMessage::createMethodCall(
        kService, session, QStringLiteral("org.freedesktop.portal.Session"),
        QStringLiteral("Close"));
    connection_.call(close, QDBus::Block, kCallTimeoutMs);
}

namespace {

const QString kGrantPrefix = QStringLiteral("screencast-");

// A grant is kept under where its monitor lies.
QString grantFile(QPoint place) {
    return kGrantPrefix + QStringLiteral("%1,%2").arg(place.x()).arg(place.y());
}

} // namespace

QString DesktopPortal::restoreToken(QPoint place) const {
    QFile file(QDir(grantsDirectory_).filePath(grantFile(place)));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).trimmed() : QString();
}

void DesktopPortal::keepRestoreToken(QPoint place, const QString& token) const {
    const QString path = QDir(grantsDirectory_).filePath(grantFile(place));
    if (token.isEmpty()) {
        QFile::remove(path);
        return;
    }
    QDir().mkpath(grantsDirectory_);
    QSaveFile file(path);
    // A grant not kept is asked for again next time; nothing else depends on it.
    if (file.open(QIODevice::WriteOnly)) {
        file.write(token.toUtf8());
        file.commit();
    }
}

bool DesktopPortal::holdsGrant() const {
    return !QDir(grantsDirectory_)
                .entryList({kGrantPrefix + QLatin1Char('*')}, QDir::Files)
                .isEmpty();
}

bool DesktopPortal::askForGrant() {
    // A desktop that keeps no grants would ask once here and again at the capture.
    if (screenCastProperty("version").value_or(0) < kFirstVersionWithRestoreTokens) {
        return true;
    }
    try {
        startSharing(std::nullopt, kCursorHidden); // the session closes at once
        return true;
    } catch (const ScreenCapturePermissionError&) {
        return false;
    }
}

std::unique_ptr<DesktopPortal::ScreenCast> DesktopPortal::shareMonitor(QPoint place,
                                                                       bool withPointer) {
    const uint32_t cursorModes = screenCastProperty("AvailableCursorModes").value_or(0);
    uint32_t cursorMode = 0;
    if (withPointer) {
        cursorMode =
            (cursorModes & kCursorEmbedded) ? kCursorEmbedded : (cursorModes & kCursorMetadata);
    } else {
        cursorMode = cursorModes & kCursorHidden;
    }
    std::unique_ptr<ScreenCast> cast = startSharing(place, cursorMode);
    QDBusMessage open = QDBusMessage::createMethodCall(kService, kObject, kScreenCast,
                                                       QStringLiteral("OpenPipeWireRemote"));
    open << QVariant::fromValue(QDBusObjectPath(cast->session_)) << QVariantMap();
    const QDBusMessage remote = connection_.call(open, QDBus::Block, kCallTimeoutMs);
    const auto descriptor = remote.arguments().value(0).value<QDBusUnixFileDescriptor>();
    if (remote.type() != QDBusMessage::ReplyMessage || !descriptor.isValid()) {
        throw PlatformError(QStringLiteral("The desktop portal gave no video connection."));
    }
    cast->remote_ = dup(descriptor.fileDescriptor());
    return cast;
}

std::unique_ptr<DesktopPortal::ScreenCast> DesktopPortal::startSharing(std::optional<QPoint> place,
                                                                       uint32_t cursorMode) {
    const std::optional<uint32_t> version = screenCastProperty("version");
    if (!version) {
        throw PlatformError(QStringLiteral("The desktop offers no screen sharing."));
    }
    const bool persists = *version >= kFirstVersionWithRestoreTokens;
    QString token = persists && place ? restoreToken(*place) : QString();

    for (;;) {
        const QString sessionToken = QStringLiteral("tessarel_session%1").arg(counter_ + 1);
        Response created = request(kScreenCast, QStringLiteral("CreateSession"), {},
                                   {{QStringLiteral("session_handle_token"), sessionToken}});
        if (created.code != kResponseSuccess) {
            throw PlatformError(QStringLiteral("The desktop portal could not start sharing."));
        }
        std::unique_ptr<ScreenCast> cast(new ScreenCast(
            *this, created.results.value(QStringLiteral("session_handle")).toString()));
        const QVariant session = QVariant::fromValue(QDBusObjectPath(cast->session_));
        QVariantMap selection{{QStringLiteral("types"), kSourceMonitor},
                              {QStringLiteral("multiple"), false}};
        if (cursorMode != 0) {
            selection.insert(QStringLiteral("cursor_mode"), cursorMode);
        }
        if (persists) {
            selection.insert(QStringLiteral("persist_mode"), kPersistUntilRevoked);
            if (!token.isEmpty()) {
                selection.insert(QStringLiteral("restore_token"), token);
            }
        }
        const Response selected =
            request(kScreenCast, QStringLiteral("SelectSources"), {session}, selection);
        if (selected.code == kResponseCancelled) {
            declined();
        }
        Response started =
            selected.code == kResponseSuccess
                ? request(kScreenCast, QStringLiteral("Start"), {session, QString()}, {})
                : selected;
        if (started.code == kResponseCancelled) {
            if (place) {
                keepRestoreToken(*place, {});
            }
            declined();
        }
        if (started.code != kResponseSuccess) {
            if (!token.isEmpty()) { // a token the desktop no longer honours: ask again
                keepRestoreToken(*place, {});
                token.clear();
                continue;
            }
            throw PlatformError(QStringLiteral("The desktop portal could not share the screen."));
        }
        // One monitor was asked for; the first stream is it.
        const auto streams =
            started.results.value(QStringLiteral("streams")).value<QDBusArgument>();
        std::vector<std::pair<uint32_t, QVariantMap>> shared;
        streams.beginArray();
        while (!streams.atEnd()) {
            auto& [node, properties] = shared.emplace_back();
            streams.beginStructure();
            streams >> node >> properties;
            streams.endStructure();
        }
        streams.endArray();
        if (shared.empty()) {
            throw PlatformError(QStringLiteral("The desktop portal shared no screen."));
        }
        const auto& [node, properties] = shared.front();
        cast->nodeId_ = node;
        if (properties.contains(QStringLiteral("position"))) {
            cast->position_ = pointOf(properties.value(QStringLiteral("position")));
        }
        if (properties.contains(QStringLiteral("size"))) {
            const QPoint size = pointOf(properties.value(QStringLiteral("size")));
            cast->size_ = QSize(size.x(), size.y());
        }
        cast->pointerEmbedded_ = cursorMode != kCursorMetadata;
        if (persists) {
            // A desktop that does not say where its monitor lies has the one at the origin.
            keepRestoreToken(cast->position_.value_or(place.value_or(QPoint())),
                             started.results.value(QStringLiteral("restore_token")).toString());
        }
        return cast;
    }
}

QImage DesktopPortal::screenshot() {
    const Response answer = request(kScreenshot, QStringLiteral("Screenshot"), {QString()},
                                    {{QStringLiteral("interactive"), false}});
    if (answer.code == kResponseCancelled) {
        declined();
    }
    const QUrl uri(answer.results.value(QStringLiteral("uri")).toString());
    QImage picture;
    if (answer.code != kResponseSuccess || !uri.isLocalFile() || !picture.load(uri.toLocalFile())) {
        throw PlatformError(QStringLiteral("The desktop portal took no screenshot."));
    }
    return picture.convertToFormat(QImage::Format_RGB32);
}

#include "DesktopPortal.moc"
