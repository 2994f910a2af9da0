#include "capture/linux/x11/X11ContentProvider.h"

#include "capture/linux/x11/X11Connection.h"

#include <QFile>

#include <algorithm>
#include <set>

namespace {

QString processName(int64_t processID) {
    QFile comm(QStringLiteral("/proc/%1/comm").arg(processID));
    if (comm.open(QIODevice::ReadOnly)) {
        return QString::fromUtf8(comm.readAll()).trimmed();
    }
    return {};
}

} // namespace

X11ContentProvider::X11ContentProvider(QByteArray displayName)
    : displayName_(std::move(displayName)) {}

X11ContentProvider::~X11ContentProvider() = default;

X11Connection& X11ContentProvider::liveConnection() {
    if (!connection_ || xcb_connection_has_error(connection_->get())) {
        connection_.reset();
        connection_ = std::make_unique<X11Connection>(displayName_);
    }
    return *connection_;
}

ShareableContent X11ContentProvider::shareableContent(bool /*excludingDesktopWindows*/,
                                                      bool onScreenWindowsOnly) {
    std::lock_guard guard(mutex_);
    X11Connection& connection = liveConnection();
    ShareableContent content;
    for (const X11Monitor& monitor : connection.monitors()) {
        const PixelRect& g = monitor.geometry;
        content.displays.push_back(
            {monitor.name, Rect{static_cast<double>(g.x), static_cast<double>(g.y),
                                static_cast<double>(g.width), static_cast<double>(g.height)}});
    }
    // The window manager's clients, and every top-level window as well: override-redirect
    // windows (popups, selection overlays) are in no client list.
    std::set<int64_t> processIDs;
    if (const auto clients = connection.managedClients()) {
        for (const auto& processID : connection.owners(*clients)) {
            if (processID) {
                processIDs.insert(*processID);
            }
        }
    }
    for (const X11TopLevel& window : connection.topLevels()) {
        if (window.processID && (window.viewable || !onScreenWindowsOnly)) {
            processIDs.insert(*window.processID);
        }
    }
    for (int64_t processID : processIDs) {
        content.applications.push_back({processID, processName(processID)});
    }
    return content;
}

uint32_t X11ContentProvider::mainDisplayID() {
    std::lock_guard guard(mutex_);
    const auto monitors = liveConnection().monitors();
    const auto primary = std::find_if(monitors.begin(), monitors.end(),
                                      [](const X11Monitor& monitor) { return monitor.primary; });
    if (primary != monitors.end()) {
        return primary->name;
    }
    return monitors.empty() ? 0 : monitors.front().name;
}
