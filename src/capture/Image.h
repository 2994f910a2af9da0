#pragma once

#include <QByteArray>

// A captured picture in memory: 32-bit pixels in B, G, R, X byte order (XCB's native
// order on little-endian machines), rows of `bytesPerRow` bytes, top row first.
// The pixel buffer is implicitly shared, so copies are cheap.
struct Image {
    int width = 0;
    int height = 0;
    int bytesPerRow = 0;
    QByteArray pixels;

    bool isNull() const { return width <= 0 || height <= 0; }
    const unsigned char* row(int y) const {
        return reinterpret_cast<const unsigned char*>(pixels.constData()) +
               static_cast<qsizetype>(y) * bytesPerRow;
    }
};
