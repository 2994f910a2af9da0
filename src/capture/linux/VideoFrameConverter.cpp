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
PixelSpan differingPixels(const uint8_t* row, const uint8_t* previous, int width) {
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

VideoFrameConverter::VideoFrameConverter(int width, int height) : width_(width), height_(height) {}

bool VideoFrameConverter::differs(const VideoGrab& grab, const VideoGrab* previous,
                                  PixelSpan mayDiffer) {
    grab_ = grab;
    previous_ = previous ? previous->pixels : nullptr;
    firstDifferingPair_ = 0;
    endOfDifferingPairs_ = (height_ + 1) / 2;
    if (!previous_) {
        return true;
    }
    if (grab.width != width_ || grab.height != height_) {
        if (std::memcmp(grab.pixels, previous_,
                        static_cast<size_t>(grab.bytesPerRow) * static_cast<size_t>(grab.height)) !=
            0) {
            previous_ = nullptr; // converted whole
            return true;
        }
        firstDifferingPair_ = (height_ + 1) / 2;
        return false;
    }
    firstDifferingPair_ = std::clamp(mayDiffer.begin / 2, 0, endOfDifferingPairs_);
    endOfDifferingPairs_ =
        std::clamp((std::min(mayDiffer.end, height_) + 1) / 2, 0, endOfDifferingPairs_);
    while (firstDifferingPair_ < endOfDifferingPairs_ &&
           differingColumns(firstDifferingPair_).isEmpty()) {
        ++firstDifferingPair_;
    }
    return firstDifferingPair_ < endOfDifferingPairs_;
}

PixelSpan VideoFrameConverter::differingColumns(int pair) const {
    PixelSpan span;
    for (int y = 2 * pair; y < std::min(height_, 2 * pair + 2); ++y) {
        const ptrdiff_t offset = static_cast<ptrdiff_t>(y) * grab_.bytesPerRow;
        span.unite(differingPixels(grab_.pixels + offset, previous_ + offset, width_));
    }
    if (span.isEmpty()) {
        return span;
    }
    // Even columns, so each chroma sample covers only converted pixels.
    return {span.begin & ~1, std::min(width_, (span.end + 1) & ~1)};
}

void VideoFrameConverter::convert(VideoFrame& frame) {
    const uint8_t* pixels = grab_.pixels;
    int bytesPerRow = grab_.bytesPerRow;
    if (grab_.width != width_ || grab_.height != height_) {
        scaled_.resize(static_cast<size_t>(width_) * static_cast<size_t>(height_) * 4);
        libyuv::ARGBScale(grab_.pixels, grab_.bytesPerRow, grab_.width, grab_.height,
                          scaled_.data(), width_ * 4, width_, height_, libyuv::kFilterBilinear);
        pixels = scaled_.data();
        bytesPerRow = width_ * 4;
    }
    const int chromaWidth = frame.chromaWidth();
    for (int pair = 0; pair < static_cast<int>(frame.changed.size()); ++pair) {
        PixelSpan& span = frame.changed[static_cast<size_t>(pair)];
        if (!previous_) {
            span = {0, width_};
        } else if (pair >= firstDifferingPair_ && pair < endOfDifferingPairs_) {
            span.unite(differingColumns(pair));
        }
        if (span.isEmpty()) {
            continue;
        }
        const int top = pair * 2;
        const ptrdiff_t luma = static_cast<ptrdiff_t>(top) * width_ + span.begin;
        const ptrdiff_t chroma = static_cast<ptrdiff_t>(pair) * chromaWidth + span.begin / 2;
        libyuv::ARGBToI420(pixels + static_cast<ptrdiff_t>(top) * bytesPerRow + span.begin * 4,
                           bytesPerRow, frame.y.data() + luma, width_, frame.u.data() + chroma,
                           chromaWidth, frame.v.data() + chroma, chromaWidth, span.end - span.begin,
                           std::min(2, height_ - top));
    }
}
