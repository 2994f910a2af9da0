#pragma once

#include "capture/Image.h"

// Desktop-like test pictures in the capture's own layout (B, G, R, X). The fourth byte
// and any row padding hold junk, which no encoder may let through.
namespace desktop_pattern {

// A flat background, windows with title bars and lines of dark glyph strokes, and a
// photo-like corner of gradients and grain. `bytesPerRow` 0 means tightly packed.
Image desktopLike(int width, int height, int bytesPerRow = 0);
// Random bytes: nothing for deflate to find.
Image noise(int width, int height);

// The expected R, G, B bytes of every pixel, row after row.
QByteArray rgbOf(const Image& image);

} // namespace desktop_pattern
