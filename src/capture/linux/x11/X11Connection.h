#pragma once

#include "capture/Geometry.h"
#include "capture/linux/PixelRect.h"

#include <QByteArray>

#include <xcb/xcb.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

// Owner of anything XCB hands out with malloc (replies, errors).
struct XcbFree {
    void operator()(void* pointer) const { std::free(pointer); }
};
template <typename T> using XcbReply = std::unique_ptr<T, XcbFree>;

// One RandR monitor. `name` is the monitor's name atom, which is also its display number.
struct X11Monitor {
    uint32_t name = 0;
    bool primary = false;
    PixelRect geometry;
};

// A top-level window (a child of the root).
struct X11TopLevel {
    xcb_window_t window = XCB_NONE;
    PixelRect outerGeometry; // border included
    bool viewable = false;
    bool inputOnly = false; // never drawn
    xcb_visualid_t visual = 0;
    // The owner's process id from _NET_WM_PID on the window or, below a window manager's
    // frame, on its client window. Never looked up for input-only windows.
    std::optional<int64_t> processID;

    bool isShown() const { return viewable && !inputOnly; }
};

// One connection to the X server with the screen it serves. Not thread-safe: each thread
// that talks to the server opens its own.
class X11Connection {
public:
    // An empty name means $DISPLAY. Throws PlatformError when the display cannot be opened.
    explicit X11Connection(const QByteArray& displayName);
    ~X11Connection();
    X11Connection(const X11Connection&) = delete;
    X11Connection& operator=(const X11Connection&) = delete;

    xcb_connection_t* get() const { return connection_; }
    const xcb_screen_t& screen() const { return *screen_; }
    xcb_window_t root() const { return screen_->root; }
    PixelRect rootGeometry() const {
        return {0, 0, screen_->width_in_pixels, screen_->height_in_pixels};
    }

    // Whether the server has `extension`. Ask before any of its requests: one the server
    // does not know closes the whole connection.
    bool offers(xcb_extension_t& extension) const;
    xcb_atom_t atom(const char* name);
    // Throws PlatformError when the server lacks RandR 1.5.
    std::vector<X11Monitor> monitors();
    // Every child of the root, bottom of the stacking order first.
    std::vector<X11TopLevel> topLevels();
    // Clients listed by the window manager, or none when no window manager runs.
    std::optional<std::vector<xcb_window_t>> managedClients();
    // The process ids of `windows`: _NET_WM_PID on each window or, for a window manager's
    // frame, on a window up to two levels below.
    std::vector<std::optional<int64_t>> owners(const std::vector<xcb_window_t>& windows);

private:
    xcb_connection_t* connection_ = nullptr;
    const xcb_screen_t* screen_ = nullptr;
    xcb_atom_t netWmPid_ = XCB_NONE;
};
