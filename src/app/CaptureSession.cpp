#include "app/CaptureSession.h"

#include "capture/linux/wayland/WaylandContentProvider.h"

#include <QGuiApplication>

ScreenSession screenSession() {
    const QString session = QGuiApplication::platformName();
    // Qt falls back to XWayland where it has no Wayland support; only a user who asked for
    // X11 gets XWayland's partial picture.
    if (session == QLatin1String("xcb")) {
        const bool fellBackToXWayland =
            qEnvironmentVariableIsSet("WAYLAND_DISPLAY") && qgetenv("QT_QPA_PLATFORM") != "xcb";
        return fellBackToXWayland ? ScreenSession::xwayland : ScreenSession::x11;
    }
    if (session == QLatin1String("wayland")) {
        return WaylandContentProvider::offersScreenCapture() ? ScreenSession::waylandCopy
                                                             : ScreenSession::waylandElsewise;
    }
    return ScreenSession::other;
}
