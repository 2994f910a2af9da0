#pragma once

#include "capture/linux/VideoFrameQueue.h"

#include <cstdint>
#include <limits>
#include <vector>

// A grab of B, G, R, X pixels, rows of `bytesPerRow` bytes.
struct VideoGrab {
    const uint8_t* pixels = nullptr;
    int width = 0;
    int height = 0;
    int bytesPerRow = 0;
};

// Turns grabs into I420 video frames of the output size, converting only what differs from
// the grab before, so an unchanged screen costs one comparison and a small change little
// more. Each pair of rows is compared and, where it differs, converted at once, while its
// pixels are still in the cache. A grab of another size than the output is scaled whole.
// Used from one thread.
class VideoFrameConverter {
public:
    VideoFrameConverter(int width, int height);

    // Takes up `grab`, which is compared with `previous`, a grab of the same size, or
    // differs everywhere when there is none. Rows outside `mayDiffer` are taken to be equal
    // without a look. Returns whether the two differ, having compared them only as far as
    // the first difference. Both must stay as they are until the next call.
    bool differs(const VideoGrab& grab, const VideoGrab* previous,
                 PixelSpan mayDiffer = {0, std::numeric_limits<int>::max()});

    // Converts into `frame` what of the grab taken up last differs, and what `frame`
    // already marks as changed, and marks it all.
    void convert(VideoFrame& frame);

private:
    PixelSpan differingColumns(int pair) const;

    int width_;
    int height_;
    VideoGrab grab_;
    const uint8_t* previous_ = nullptr;
    int firstDifferingPair_ = 0;  // pairs of rows above it are equal
    int endOfDifferingPairs_ = 0; // nor do pairs from it on differ
    std::vector<uint8_t> scaled_; // a grab at the output size, when it has another size
};
