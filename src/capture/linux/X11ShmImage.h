#pragma once

#include "capture/linux/X11Connection.h"

#include <xcb/shm.h>

#include <cstdint>

// A 32-bit image the X server fills through a shared-memory segment (MIT-SHM). The segment
// is readable by this user only and marked for removal as soon as the server has attached
// it, so it cannot outlive the process. Used from one thread at a time.
class X11ShmImage {
public:
    // Throws PlatformError when the server offers no shared memory or the segment fails.
    X11ShmImage(X11Connection& connection, int width, int height);
    ~X11ShmImage();
    X11ShmImage(const X11ShmImage&) = delete;
    X11ShmImage& operator=(const X11ShmImage&) = delete;

    int width() const { return width_; }
    int height() const { return height_; }
    int bytesPerRow() const { return width_ * 4; }
    // B, G, R, X pixels of the last grab. Writable, so overlays can be drawn in place.
    uint8_t* pixels() const { return pixels_; }

    // Copies `width` × `height` pixels at (x, y) of `drawable` into pixels(). Throws
    // PlatformError when the server refuses.
    void grab(xcb_drawable_t drawable, int x, int y);

private:
    X11Connection& connection_;
    int width_;
    int height_;
    int segmentID_ = -1;
    uint8_t* pixels_ = nullptr;
    xcb_shm_seg_t segment_ = XCB_NONE;
};
