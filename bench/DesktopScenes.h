#pragma once

// Desktop-like pictures the benchmarks show, the same for each capture layer.

#include <QImage>

// Flat areas, windows full of text, and a photo-like region of gradients and grain, laid out
// for 3840 × 2160 (a window's picture is cut off on a smaller one).
QImage desktopScene(int width, int height);

// Flat panels, rows of dark "text" strokes and a photo-like area with fine noise.
QImage desktopPicture(int width, int height);
