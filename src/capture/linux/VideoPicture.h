#pragma once

#include "capture/linux/VideoFrameQueue.h"

#include <cstdint>
#include <vector>

// The latest picture of a video stream in I420 at the output size, kept up to date from
// successive grabs of B, G, R, X pixels. Where a grab has the output size, only the rows
// and columns that differ from the grab before are converted again, so an unchanged screen
// costs one comparison and a small change costs little more. Used from one thread.
class VideoPicture {
public:
    VideoPicture(int width, int height);

    // Brings the picture up to `grab` (`grabWidth` × `grabHeight` pixels, rows of
    // `bytesPerRow` bytes), given the grab it was last brought up to, or null when there
    // is none. Returns false, leaving the picture as it was, when the two grabs are equal.
    bool update(const uint8_t* grab, int bytesPerRow, int grabWidth, int grabHeight,
                const uint8_t* previousGrab);

    const VideoFrame& frame() const { return picture_; }

private:
    void convert(const uint8_t* grab, int bytesPerRow, int left, int top, int width, int height);

    VideoFrame picture_;
    std::vector<uint8_t> scaled_; // a grab at the output size, when it has another size
};
