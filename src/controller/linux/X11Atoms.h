#pragma once

#include <QByteArray>

#include <xcb/xcb.h>

#include <optional>

// Qt's own connection to the X server; null when Qt does not run on X11.
xcb_connection_t* x11Connection();
// The atom named `name`, made if the server has none yet; nothing when the server fails.
std::optional<xcb_atom_t> internAtom(xcb_connection_t* connection, const QByteArray& name);
