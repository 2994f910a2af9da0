#pragma once

#include "capture/linux/X11Connection.h"
#include "capture/linux/X11ShmImage.h"

#include <xcb/render.h>

#include <cstdint>
#include <memory>
#include <vector>

// Grabs one area of the root window, leaving out the windows of the excluded processes.
// While none of them overlaps the area the screen is read as it is. While one does, the
// picture is composed on the server from the other top-level windows (their Composite
// pixmaps, stacked with Render) and the root's wallpaper, so the excluded windows never
// have to be hidden and nothing on screen flickers. Used from one thread at a time.
class X11AreaGrabber {
public:
    // Throws PlatformError when the area cannot be read.
    X11AreaGrabber(X11Connection& connection, const PixelRect& area,
                   std::vector<int64_t> excludedProcessIDs);
    ~X11AreaGrabber();
    X11AreaGrabber(const X11AreaGrabber&) = delete;
    X11AreaGrabber& operator=(const X11AreaGrabber&) = delete;

    const PixelRect& area() const { return area_; }
    // The grabbed B, G, R, X pixels, rows of image().bytesPerRow() bytes.
    X11ShmImage& image() { return image_; }

    // Throws PlatformError when the server refuses, or when an excluded window overlaps
    // the area and the server cannot compose without it.
    void grab();

private:
    struct Composer;

    bool excludedWindowOverlaps(const std::vector<X11TopLevel>& windows) const;
    void compose(const std::vector<X11TopLevel>& windows);

    X11Connection& connection_;
    PixelRect area_;
    std::vector<int64_t> excluded_;
    X11ShmImage image_;
    std::unique_ptr<Composer> composer_; // made the first time it is needed
};
