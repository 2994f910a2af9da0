#include "capture/linux/VideoPicture.h"

#include <libyuv.h>

#include <algorithm>
#include <cstring>

namespace {

// The first and one past the last pixel in which two rows of `width` pixels differ, or an
// empty span when they are equal.
std::pair<int, int> differingSpan(const uint8_t* row, const uint8_t* previous, int width) {
    const auto* a = reinterpret_cast<const uint32_t*>(row);
    const auto* b = reinterpret_cast<const uint32_t*>(previous);
    if (std::memcmp(a, b, static_cast<size_t>(width) * 4) == 0) {
        return {0, 0};
    }
    const int first = static_cast<int>(std::mismatch(a, a + width, b).first - a);
    int end = width;
    while (a[end - 1] == b[end - 1]) {
        --end;
    }
    return {first, end};
}

} // namespace

VideoPicture::VideoPicture(int width, int height) {
    picture_.width = width;
    picture_.height = height;
    picture_.y.resize(static_cast<size_t>(width) * static_cast<size_t>(height));
    const size_t chroma =
        static_cast<size_t>(picture_.chromaWidth()) * static_cast<size_t>(picture_.chromaHeight());
    picture_.u.resize(chroma);
    picture_.v.resize(chroma);
}

bool VideoPicture::update(const uint8_t* grab, int bytesPerRow, int grabWidth, int grabHeight,
                          const uint8_t* previousGrab) {
    const int width = picture_.width;
    const int height = picture_.height;
    if (grabWidth != width || grabHeight != height) {
        if (previousGrab &&
            std::memcmp(grab, previousGrab, static_cast<size_t>(bytesPerRow) * grabHeight) == 0) {
            return false;
        }
        scaled_.resize(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
        libyuv::ARGBScale(grab, bytesPerRow, grabWidth, grabHeight, scaled_.data(), width * 4,
                          width, height, libyuv::kFilterBilinear);
        convert(scaled_.data(), width * 4, 0, 0, width, height);
        return true;
    }
    if (!previousGrab) {
        convert(grab, bytesPerRow, 0, 0, width, height);
        return true;
    }
    // Pairs of rows, as the chroma planes have one row for two; runs of changed pairs are
    // converted together, across the columns where any of their rows changed.
    bool changed = false;
    int bandTop = -1;
    int bandLeft = width;
    int bandRight = 0;
    const auto flush = [&](int bandBottom) {
        if (bandTop < 0) {
            return;
        }
        // Even columns, so each chroma sample covers only converted pixels.
        const int left = bandLeft & ~1;
        const int right = std::min(width, (bandRight + 1) & ~1);
        convert(grab, bytesPerRow, left, bandTop, right - left, bandBottom - bandTop);
        bandTop = -1;
        bandLeft = width;
        bandRight = 0;
        changed = true;
    };
    for (int top = 0; top < height; top += 2) {
        const int bottom = std::min(height, top + 2);
        int left = width;
        int right = 0;
        for (int y = top; y < bottom; ++y) {
            const size_t offset = static_cast<size_t>(y) * static_cast<size_t>(bytesPerRow);
            const auto [first, end] = differingSpan(grab + offset, previousGrab + offset, width);
            if (first < end) {
                left = std::min(left, first);
                right = std::max(right, end);
            }
        }
        if (left >= right) {
            flush(top);
            continue;
        }
        if (bandTop < 0) {
            bandTop = top;
        }
        bandLeft = std::min(bandLeft, left);
        bandRight = std::max(bandRight, right);
    }
    flush(height);
    return changed;
}

void VideoPicture::convert(const uint8_t* grab, int bytesPerRow, int left, int top, int width,
                           int height) {
    const int chromaWidth = picture_.chromaWidth();
    const size_t lumaOffset =
        static_cast<size_t>(top) * static_cast<size_t>(picture_.width) + static_cast<size_t>(left);
    const size_t chromaOffset = static_cast<size_t>(top / 2) * static_cast<size_t>(chromaWidth) +
                                static_cast<size_t>(left / 2);
    libyuv::ARGBToI420(grab + static_cast<size_t>(top) * static_cast<size_t>(bytesPerRow) +
                           static_cast<size_t>(left) * 4,
                       bytesPerRow, picture_.y.data() + lumaOffset, picture_.width,
                       picture_.u.data() + chromaOffset, chromaWidth,
                       picture_.v.data() + chromaOffset, chromaWidth, width, height);
}
