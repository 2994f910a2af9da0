#pragma once

#include <QImage>

#include <xcb/xcb.h>

#include <memory>

// Shows a picture as the root window's background of an X display for as long as it lives,
// also to a compositor, which paints the pixmap the root's _XROOTPMAP_ID names.
class Wallpaper {
public:
    // `display` as xcb_connect takes it (nullptr: $DISPLAY); false from shown() when the
    // display cannot be reached.
    Wallpaper(const char* display, const QImage& picture);

    bool shown() const { return shown_; }

private:
    struct Disconnect {
        void operator()(xcb_connection_t* c) const { xcb_disconnect(c); }
    };
    // Holds the pixmap: it goes with the connection.
    std::unique_ptr<xcb_connection_t, Disconnect> connection_;
    bool shown_ = false;
};
