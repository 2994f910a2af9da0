#include "DesktopPattern.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace desktop_pattern {

namespace {

constexpr unsigned char kJunk = 0xa5;

Image blank(int width, int height, int bytesPerRow) {
    Image image;
    image.width = width;
    image.height = height;
    image.bytesPerRow = bytesPerRow > 0 ? bytesPerRow : 4 * width;
    image.pixels =
        QByteArray(static_cast<qsizetype>(image.bytesPerRow) * height, static_cast<char>(kJunk));
    return image;
}

unsigned char* pixel(Image& image, int x, int y) {
    return reinterpret_cast<unsigned char*>(image.pixels.data()) +
           static_cast<qsizetype>(y) * image.bytesPerRow + 4 * x;
}

void put(Image& image, int x, int y, int red, int green, int blue) {
    unsigned char* p = pixel(image, x, y);
    p[0] = static_cast<unsigned char>(std::clamp(blue, 0, 255));
    p[1] = static_cast<unsigned char>(std::clamp(green, 0, 255));
    p[2] = static_cast<unsigned char>(std::clamp(red, 0, 255));
    p[3] = kJunk;
}

void fill(Image& image, int x0, int y0, int x1, int y1, int red, int green, int blue) {
    for (int y = std::max(y0, 0); y < std::min(y1, image.height); ++y)
        for (int x = std::max(x0, 0); x < std::min(x1, image.width); ++x)
            put(image, x, y, red, green, blue);
}

} // namespace

Image desktopLike(int width, int height, int bytesPerRow) {
    Image image = blank(width, height, bytesPerRow);
    std::mt19937 random(1234);
    fill(image, 0, 0, width, height, 46, 52, 64);
    // Windows: a light body, a grey title bar, lines of glyph-like strokes.
    for (int w = 0; w < 4; ++w) {
        const int x0 = width * w / 6;
        const int y0 = height * w / 7 + 3;
        const int x1 = x0 + width / 2;
        const int y1 = y0 + height / 2;
        fill(image, x0, y0, x1, y1, 250, 250, 250);
        fill(image, x0, y0, x1, y0 + 12, 220, 220, 224);
        for (int line = y0 + 18; line + 9 < y1; line += 14) {
            for (int x = x0 + 6; x + 8 < x1;) {
                const int glyphs = 2 + static_cast<int>(random() % 8);
                for (int g = 0; g < glyphs && x + 6 < x1; ++g, x += 6) {
                    const unsigned shape = random();
                    for (int gy = 0; gy < 9; ++gy)
                        for (int gx = 0; gx < 5; ++gx)
                            if ((shape >> ((gy * 5 + gx) % 31)) & 1U) {
                                const int ink = 20 + static_cast<int>(random() % 90);
                                put(image, x + gx, line + gy, ink, ink, ink + (w == 2 ? 120 : 0));
                            }
                }
                x += 6;
            }
        }
    }
    // A photo: smooth colour ramps with grain.
    for (int y = height * 2 / 3; y < height; ++y)
        for (int x = width * 2 / 3; x < width; ++x) {
            const int grain = static_cast<int>(random() % 13) - 6;
            put(image, x, y, 60 + 150 * x / width + grain, 40 + 180 * y / height + grain,
                static_cast<int>(120 + 100 * std::sin(x * 0.01)) + grain);
        }
    return image;
}

Image noise(int width, int height) {
    Image image = blank(width, height, 0);
    std::mt19937 random(99);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const unsigned value = random();
            put(image, x, y, value & 0xff, (value >> 8) & 0xff, (value >> 16) & 0xff);
        }
    return image;
}

QByteArray rgbOf(const Image& image) {
    QByteArray rgb;
    rgb.reserve(3LL * image.width * image.height);
    for (int y = 0; y < image.height; ++y) {
        const unsigned char* row = image.row(y);
        for (int x = 0; x < image.width; ++x) {
            rgb.append(static_cast<char>(row[4 * x + 2]));
            rgb.append(static_cast<char>(row[4 * x + 1]));
            rgb.append(static_cast<char>(row[4 * x]));
        }
    }
    return rgb;
}

} // namespace desktop_pattern
