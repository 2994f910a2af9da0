#pragma once

#include <algorithm>

// A rectangle of whole pixels, top-left origin (X11: root-window coordinates; Wayland: a
// captured buffer's).
struct PixelRect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;

    bool isEmpty() const { return width <= 0 || height <= 0; }
    PixelRect intersected(const PixelRect& other) const {
        const int left = std::max(x, other.x);
        const int top = std::max(y, other.y);
        const int right = std::min(x + width, other.x + other.width);
        const int bottom = std::min(y + height, other.y + other.height);
        if (right <= left || bottom <= top) {
            return {};
        }
        return {left, top, right - left, bottom - top};
    }
    // The smallest rectangle holding both.
    PixelRect united(const PixelRect& other) const {
        if (isEmpty()) {
            return other;
        }
        if (other.isEmpty()) {
            return *this;
        }
        const int left = std::min(x, other.x);
        const int top = std::min(y, other.y);
        return {left, top, std::max(x + width, other.x + other.width) - left,
                std::max(y + height, other.y + other.height) - top};
    }
    friend bool operator==(const PixelRect&, const PixelRect&) = default;
};
