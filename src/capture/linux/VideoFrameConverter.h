#pragma once

#include "capture/linux/VideoFrameQueue.h"

#include <cstdint>
#include <vector>

// Turns grabs of B, G, R, X pixels into I420 video frames of the output size, converting
// only what differs from the grab before, so an unchanged screen costs one comparison and
// a small change little more. A grab of another size than the output is scaled whole.
// Used from one thread.
class VideoFrameConverter {
public:
    VideoFrameConverter(int width, int height);

    // Finds what differs between `grab` (`grabWidth` × `grabHeight` pixels, rows of
    // `bytesPerRow` bytes) and `previousGrab` of the same size, or everything when that is
    // null. Returns false when nothing does.
    bool compare(const uint8_t* grab, int bytesPerRow, int grabWidth, int grabHeight,
                 const uint8_t* previousGrab);

    // Converts into `frame`, from the grab last compared, what that comparison found and
    // what `frame` already marks as changed, and marks it all.
    void convert(const uint8_t* grab, int bytesPerRow, int grabWidth, int grabHeight,
                 VideoFrame& frame);

private:
    int width_;
    int height_;
    std::vector<ColumnSpan> changes_; // of the last comparison, one per pair of output rows
    std::vector<uint8_t> scaled_;     // a grab at the output size, when it has another size
};
