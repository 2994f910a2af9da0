#include "controller/linux/DesktopScreens.h"

#include "capture/OutputNumbering.h"
#include "region/ScreenCoordinates.h"

#include <QGuiApplication>
#include <QScreen>
#include <QWindow>
#include <QtGui/qguiapplication_platform.h>

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

namespace {

xcb_connection_t* x11Connection() {
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    return x11 != nullptr ? x11->connection() : nullptr;
}

std::optional<xcb_atom_t> internAtom(xcb_connection_t* connection, const QByteArray& name) {
    const std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> reply(
        xcb_intern_atom_reply(
            connection,
            xcb_intern_atom(connection, 0, static_cast<uint16_t>(name.size()), name.constData()),
            nullptr),
        &std::free);
    if (!reply) {
        return std::nullopt;
    }
    return reply->atom;
}

QVariant displayNumber(const QScreen& screen) {
    // On Wayland the screen's name is its output's name.
    if (QGuiApplication::platformName() == QLatin1String("wayland")) {
        return QVariant::fromValue(displayNumberOfOutput(screen.name()));
    }
    xcb_connection_t* connection = x11Connection();
    if (connection == nullptr) {
        return {};
    }
    const std::optional<xcb_atom_t> atom = internAtom(connection, screen.name().toUtf8());
    return atom ? QVariant::fromValue(static_cast<uint32_t>(*atom)) : QVariant();
}

} // namespace

ScreenDescription DesktopScreens::describe(const QScreen& screen) {
    const QScreen* primary = QGuiApplication::primaryScreen();
    const QRectF primaryGeometry = primary != nullptr ? primary->geometry() : screen.geometry();
    return {displayNumber(screen),
            ScreenCoordinates::globalFrame(screen.geometry(), primaryGeometry),
            screen.devicePixelRatio()};
}

bool DesktopScreens::compositing() {
    xcb_connection_t* connection = x11Connection();
    if (connection == nullptr) {
        return true;
    }
    const std::optional<xcb_atom_t> selection =
        internAtom(connection, QByteArrayLiteral("_NET_WM_CM_S0"));
    if (!selection) {
        return false;
    }
    const std::unique_ptr<xcb_get_selection_owner_reply_t, decltype(&std::free)> owner(
        xcb_get_selection_owner_reply(connection, xcb_get_selection_owner(connection, *selection),
                                      nullptr),
        &std::free);
    return owner && owner->owner != XCB_NONE;
}

std::optional<ScreenDescription> DesktopScreens::mainScreen() {
    const QWindow* focused = QGuiApplication::focusWindow();
    const QScreen* screen =
        focused != nullptr ? focused->screen() : QGuiApplication::primaryScreen();
    if (screen == nullptr) {
        return std::nullopt;
    }
    return describe(*screen);
}
