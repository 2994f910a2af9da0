#pragma once

// Which screen layer serves the session Qt runs on; both capture modules ask.
enum class ScreenSession {
    x11,             // an X11 session, or X11 the user asked for on a Wayland desktop
    waylandCopy,     // a Wayland compositor that lets applications copy the screen (wlroots)
    waylandElsewise, // a Wayland desktop that may offer the screen through the desktop portal
    xwayland,        // Qt fell back to XWayland, which sees only XWayland's windows
    other,           // no screen to capture (offscreen, VNC...)
};

ScreenSession screenSession();
