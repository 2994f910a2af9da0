#include "controller/linux/X11WindowBlur.h"

#include "controller/linux/X11Atoms.h"

#include <QWindow>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace {

constexpr QByteArrayView blurBehindRegion("_KDE_NET_WM_BLUR_BEHIND_REGION");

} // namespace

bool X11WindowBlur::available() const {
    xcb_connection_t* connection = x11Connection();
    if (connection == nullptr) {
        return false;
    }
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
    const std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> atom(
        xcb_intern_atom_reply(connection,
                              xcb_intern_atom(connection, 1,
                                              static_cast<uint16_t>(blurBehindRegion.size()),
                                              blurBehindRegion.data()),
                              nullptr),
        &std::free);
    if (!atom || atom->atom == XCB_NONE) {
        return false;
    }
    const std::unique_ptr<xcb_list_properties_reply_t, decltype(&std::free)> properties(
        xcb_list_properties_reply(connection, xcb_list_properties(connection, screen->root),
                                  nullptr),
        &std::free);
    if (!properties) {
        return false;
    }
    const xcb_atom_t* names = xcb_list_properties_atoms(properties.get());
    const int count = xcb_list_properties_atoms_length(properties.get());
    return std::find(names, names + count, atom->atom) != names + count;
}

void X11WindowBlur::blurBehind(QWindow& window) {
    xcb_connection_t* connection = x11Connection();
    const std::optional<xcb_atom_t> atom =
        connection != nullptr ? internAtom(connection, blurBehindRegion.toByteArray())
                              : std::nullopt;
    if (!atom) {
        return;
    }
    // An empty region means the whole window.
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE,
                        static_cast<xcb_window_t>(window.winId()), *atom, XCB_ATOM_CARDINAL, 32, 0,
                        nullptr);
    xcb_flush(connection);
}
