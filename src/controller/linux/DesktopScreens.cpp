#include "controller/linux/DesktopScreens.h"

#include "capture/OutputNumbering.h"
#include "controller/linux/X11Atoms.h"
#include "screen/ScreenCoordinates.h"

#include <QGuiApplication>
#include <QScreen>
#include <QWindow>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace {

QVariant displayNumber(const QScreen& screen) {
    // On Wayland the screen's name is its output's name.
    if (DesktopScreens::wayland()) {
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

ScreenDescription DesktopScreens::describe(const QScreen& screen) const {
    const QScreen* primary = QGuiApplication::primaryScreen();
    const QRectF primaryGeometry = primary != nullptr ? primary->geometry() : screen.geometry();
    return {displayNumber(screen),
            ScreenCoordinates::globalFrame(screen.geometry(), primaryGeometry),
            screen.devicePixelRatio()};
}

bool DesktopScreens::wayland() {
    return QGuiApplication::platformName() == QLatin1String("wayland");
}

bool DesktopScreens::compositing() const {
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
    const QWindow* window = QGuiApplication::focusWindow();
    if (window == nullptr) {
        // On Wayland a click does not always bring the keyboard along (a seat without one, a
        // compositor that keeps it elsewhere): the window shown is where the user works.
        const QWindowList windows = QGuiApplication::topLevelWindows();
        const auto shown = std::find_if(windows.begin(), windows.end(), [](const QWindow* each) {
            return each->isVisible() && each->type() != Qt::Popup && each->type() != Qt::ToolTip;
        });
        window = shown != windows.end() ? *shown : nullptr;
    }
    const QScreen* screen = window != nullptr ? window->screen() : QGuiApplication::primaryScreen();
    if (screen == nullptr) {
        return std::nullopt;
    }
    return describe(*screen);
}
