#pragma once

#include "capture/Image.h"

#include <QByteArray>

#include <optional>

// Baseline JPEG (4:2:0 chroma, the standard Huffman tables) on libjpeg-turbo, with a restart
// marker after every row of 16-pixel blocks. The rows are encoded in horizontal strips, one
// thread each; since every strip starts as a restart does, the strips' scans join into the
// one scan a single encoder would have written, byte for byte.
// Any thread; the image must hold `height` rows of at least `width` pixels.
class JpegStripEncoder {
public:
    // One strip per hardware thread, fewer for small images. `quality` 1 to 100.
    static std::optional<QByteArray> encode(const Image& image, int quality);
    // Exactly `stripCount` strips (at most one per block row).
    static std::optional<QByteArray> encode(const Image& image, int quality, int stripCount);
};
