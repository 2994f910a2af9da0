#pragma once

#include "capture/Image.h"

#include <QByteArray>

#include <optional>

// An image's pixels as PNG scanlines (8-bit RGB, each row led by its filter byte) in one
// zlib stream. The PNG's IDAT data and the PDF's image stream (FlateDecode with the PNG
// predictor) are both this stream, unchanged.
//
// The rows are compressed in horizontal bands, one thread each; every band but the last
// ends on a byte boundary with an empty stored block, so the bands join into one stream.
// Any thread; the image must hold `height` rows of at least `width` pixels.
class ScanlineEncoder {
public:
    // One band per hardware thread, fewer for small images.
    static std::optional<QByteArray> encode(const Image& image);
    // Exactly `bandCount` bands (at most one per row).
    static std::optional<QByteArray> encode(const Image& image, int bandCount);

    // The filter every row carries: Up, which keeps the flat areas and repeated rows of a
    // desktop cheap and lets the bands be filtered independently.
    static constexpr unsigned char kRowFilter = 2;
};
