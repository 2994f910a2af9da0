#pragma once

#include "capture/linux/PixelRect.h"
#include "capture/linux/PixelSpan.h"

#include <xcb/xfixes.h>

class X11Connection;
class X11ShmImage;

// The pointer's own image, which X servers never put into the pictures they are asked for,
// from XFixes.

// Readies `connection` for the pointer's image; throws PlatformError when the server cannot
// give it.
void requirePointerImages(X11Connection& connection);

// Blends the pointer's premultiplied ARGB image over `image`, a picture of `area`; returns
// the rows it covers.
PixelSpan drawPointer(const xcb_xfixes_get_cursor_image_reply_t& cursor, const PixelRect& area,
                      X11ShmImage& image);
