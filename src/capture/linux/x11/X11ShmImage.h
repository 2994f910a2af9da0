#pragma once

#include "capture/linux/PixelSpan.h"
#include "capture/linux/x11/X11Connection.h"

#include <xcb/shm.h>

#include <cstddef>
#include <cstdint>
#include <memory>

// 32-bit pixels the X server copies into a shared-memory segment (MIT-SHM). The segment is
// kept from one grab to the next and grows when an area does not fit; it is readable by
// this user only and marked for removal as soon as the server has attached it, so it
// cannot outlive the process. Used from one thread at a time.
class X11ShmImage {
public:
    // Throws PlatformError when the server offers no shared memory.
    explicit X11ShmImage(X11Connection& connection);
    ~X11ShmImage();
    X11ShmImage(const X11ShmImage&) = delete;
    X11ShmImage& operator=(const X11ShmImage&) = delete;

    // The size of the last grab.
    int width() const { return width_; }
    int height() const { return height_; }
    int bytesPerRow() const { return width_ * 4; }
    // B, G, R, X pixels of the last grab. Writable, so overlays can be drawn in place.
    uint8_t* pixels() const;

    // Copies `area` (in `drawable`'s coordinates) into pixels(). Throws PlatformError when
    // the segment cannot grow or the server refuses.
    void grab(xcb_drawable_t drawable, const PixelRect& area);
    // Copies rows [rows.begin, rows.end) of `area` into the same rows of pixels() and leaves
    // the others as they are, when the last grab was of an area of that size; else grabs it
    // whole. Returns the rows copied.
    PixelSpan grabRows(xcb_drawable_t drawable, const PixelRect& area, PixelSpan rows);

private:
    class Segment;

    void read(xcb_drawable_t drawable, const PixelRect& rect, uint32_t offset);

    X11Connection& connection_;
    std::unique_ptr<Segment> segment_;
    int width_ = 0;
    int height_ = 0;
};
