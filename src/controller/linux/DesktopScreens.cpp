#include "controller/linux/DesktopScreens.h"

#include "region/ScreenCoordinates.h"

#include <QGuiApplication>
#include <QScreen>
#include <QWindow>
#include <QtGui/qguiapplication_platform.h>

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

namespace {

QVariant displayNumber(const QScreen& screen) {
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (x11 == nullptr || x11->connection() == nullptr) {
        return {};
    }
    const QByteArray name = screen.name().toUtf8();
    xcb_connection_t* connection = x11->connection();
    const xcb_intern_atom_cookie_t cookie =
        xcb_intern_atom(connection, 0, static_cast<uint16_t>(name.size()), name.constData());
    const std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> reply(
        xcb_intern_atom_reply(connection, cookie, nullptr), &std::free);
    if (!reply) {
        return {};
    }
    return QVariant::fromValue(static_cast<uint32_t>(reply->atom));
}

} // namespace

ScreenDescription DesktopScreens::describe(const QScreen& screen) {
    const QScreen* primary = QGuiApplication::primaryScreen();
    const QRectF primaryGeometry = primary != nullptr ? primary->geometry() : screen.geometry();
    return {displayNumber(screen),
            ScreenCoordinates::globalFrame(screen.geometry(), primaryGeometry),
            screen.devicePixelRatio()};
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
