#include "capture/linux/VideoFrameConverter.h"

#include <libyuv.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr int kBlockPixels = 16;

bool sameBlock(const uint8_t* a, const uint8_t* b, int from, int to) {
    return std::memcmp(a + static_cast<ptrdiff_t>(from) * 4, b + static_cast<ptrdiff_t>(from) * 4,
                       static_cast<size_t>(to - from) * 4) == 0;
}

// The pixels of two rows of `width` pixels from the first to one past the last that
// differ, or an empty span when the rows are equal. Blocks are compared with memcmp,
// which is much faster than a loop over pixels.
ColumnSpan differingColumns(const uint8_t* row, const uint8_t* previous, int width) {
    if (std::memcmp(row, previous, static_cast<size_t>(width) * 4) == 0) {
        return {};
    }
    const auto* a = reinterpret_cast<const uint32_t*>(row);
    const auto* b = reinterpret_cast<const uint32_t*>(previous);
    int begin = 0;
    while (begin + kBlockPixels <= width && sameBlock(row, previous, begin, begin + kBlockPixels)) {
        begin += kBlockPixels;
    }
    while (a[begin] == b[begin]) {
        ++begin;
    }
    int end = width;
    while (end - kBlockPixels >= begin && sameBlock(row, previous, end - kBlockPixels, end)) {
        end -= kBlockPixels;
    }
    while (a[end - 1] == b[end - 1]) {
        --end;
    }
    return {begin, end};
}

} // namespace

VideoFrameConverter::VideoFrameConverter(int width, int height)
    : width_(width), height_(height), changes_(static_cast<size_t>((height + 1) / 2)) {}

bool VideoFrameConverter::compare(const uint8_t* grab, int bytesPerRow, int grabWidth,
                                  int grabHeight, const uint8_t* previousGrab) {
    const ColumnSpan whole{0, width_};
    if (!previousGrab) {
        std::fill(changes_.begin(), changes_.end(), whole);
        return true;
    }
    if (grabWidth != width_ || grabHeight != height_) {
        const bool same =
            std::memcmp(grab, previousGrab, static_cast<size_t>(bytesPerRow) * grabHeight) == 0;
        std::fill(changes_.begin(), changes_.end(), same ? ColumnSpan{} : whole);
        return !same;
    }
    bool changed = false;
    for (int pair = 0; pair < static_cast<int>(changes_.size()); ++pair) {
        ColumnSpan span;
        for (int y = 2 * pair; y < std::min(height_, 2 * pair + 2); ++y) {
            const ptrdiff_t offset = static_cast<ptrdiff_t>(y) * bytesPerRow;
            span.unite(differingColumns(grab + offset, previousGrab + offset, width_));
        }
        if (!span.isEmpty()) {
            // Even columns, so each chroma sample covers only converted pixels.
            span = {span.begin & ~1, std::min(width_, (span.end + 1) & ~1)};
            changed = true;
        }
        changes_[static_cast<size_t>(pair)] = span;
    }
    return changed;
}

void VideoFrameConverter::convert(const uint8_t* grab, int bytesPerRow, int grabWidth,
                                  int grabHeight, VideoFrame& frame) {
    if (grabWidth != width_ || grabHeight != height_) {
        scaled_.resize(static_cast<size_t>(width_) * static_cast<size_t>(height_) * 4);
        libyuv::ARGBScale(grab, bytesPerRow, grabWidth, grabHeight, scaled_.data(), width_ * 4,
                          width_, height_, libyuv::kFilterBilinear);
        grab = scaled_.data();
        bytesPerRow = width_ * 4;
    }
    const int chromaWidth = frame.chromaWidth();
    for (size_t pair = 0; pair < changes_.size(); ++pair) {
        ColumnSpan& span = frame.changed[pair];
        span.unite(changes_[pair]);
        if (span.isEmpty()) {
            continue;
        }
        const int top = static_cast<int>(pair) * 2;
        const ptrdiff_t luma = static_cast<ptrdiff_t>(top) * width_ + span.begin;
        const ptrdiff_t chroma = static_cast<ptrdiff_t>(pair) * chromaWidth + span.begin / 2;
        libyuv::ARGBToI420(grab + static_cast<ptrdiff_t>(top) * bytesPerRow + span.begin * 4,
                           bytesPerRow, frame.y.data() + luma, width_, frame.u.data() + chroma,
                           chromaWidth, frame.v.data() + chroma, chromaWidth, span.end - span.begin,
                           std::min(2, height_ - top));
    }
}
