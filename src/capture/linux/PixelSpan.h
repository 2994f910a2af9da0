#pragma once

#include <algorithm>

// Pixels [begin, end) along a row (columns) or a column (rows).
struct PixelSpan {
    int begin = 0;
    int end = 0;

    bool isEmpty() const { return end <= begin; }
    void unite(const PixelSpan& other) {
        if (other.isEmpty()) {
            return;
        }
        if (isEmpty()) {
            *this = other;
            return;
        }
        begin = std::min(begin, other.begin);
        end = std::max(end, other.end);
    }
    friend bool operator==(const PixelSpan&, const PixelSpan&) = default;
};
