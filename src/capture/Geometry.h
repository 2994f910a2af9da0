#pragma once

#include <algorithm>
#include <cmath>

// Global screen coordinates: double-precision points, origin at the bottom-left of the
// primary display, y growing upwards. Display-local rectangles reuse the type with a
// top-left origin; the name of each value says which space it is in.
struct Point {
    double x = 0;
    double y = 0;
    friend bool operator==(const Point&, const Point&) = default;
};

struct Size {
    double width = 0;
    double height = 0;
    friend bool operator==(const Size&, const Size&) = default;
};

struct Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;

    double minX() const { return x; }
    double minY() const { return y; }
    double maxX() const { return x + width; }
    double maxY() const { return y + height; }
    Size size() const { return {width, height}; }
    Rect offsetBy(double dx, double dy) const { return {x + dx, y + dy, width, height}; }
    friend bool operator==(const Rect&, const Rect&) = default;
};

struct PixelSize {
    long long width = 0;
    long long height = 0;
    friend bool operator==(const PixelSize&, const PixelSize&) = default;
};
