#include "capture/linux/wayland/WaylandContentProvider.h"

#include "capture/linux/wayland/WaylandConnection.h"

#include <QCoreApplication>

WaylandContentProvider::WaylandContentProvider(QByteArray displayName)
    : displayName_(std::move(displayName)) {}

ShareableContent WaylandContentProvider::shareableContent(bool /*excludingDesktopWindows*/,
                                                          bool /*onScreenWindowsOnly*/) {
    const WaylandConnection connection(displayName_);
    ShareableContent content;
    for (const WaylandOutput& output : connection.outputs()) {
        content.displays.push_back({output.displayID, output.logical});
    }
    content.applications.push_back(
        {QCoreApplication::applicationPid(), QCoreApplication::applicationName()});
    return content;
}

uint32_t WaylandContentProvider::mainDisplayID() {
    const WaylandConnection connection(displayName_);
    const auto& outputs = connection.outputs();
    return outputs.empty() ? 0 : outputs.front().displayID;
}

bool WaylandContentProvider::offersScreenCapture(const QByteArray& displayName) {
    try {
        return WaylandConnection(displayName).offersScreencopy();
    } catch (const PlatformError&) {
        return false;
    }
}
