#pragma once

#include "capture/linux/PixelSpan.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

// What changed in a picture since the frame before, in I420 (a full-size luma plane, then
// two chroma planes of half the width and height, rows packed), and the monotonic time it
// was taken at. Only the changed columns of each pair of rows hold pixels; the rest of the
// picture is that of the frames before.
struct VideoFrame {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> y;
    std::vector<uint8_t> u;
    std::vector<uint8_t> v;
    std::vector<PixelSpan> changed; // one per pair of rows, even columns but at the right edge
    int64_t captureTimeNs = 0;

    int chromaWidth() const { return (width + 1) / 2; }
    int chromaHeight() const { return (height + 1) / 2; }
};

// A bounded queue of preallocated frames between one producer (the capture thread) and one
// consumer (the encoder thread). The producer never waits: when `depth` frames are already
// waiting, the newest of them is taken back and overwritten, and the drop is counted.
// Since frames carry only what changed, a frame taken back keeps its changed columns, to
// which the producer adds its own; any other frame comes with none.
class VideoFrameQueue {
public:
    VideoFrameQueue(int depth, int width, int height);

    // Producer: a frame to fill, then hand it over with publish().
    VideoFrame& acquire();
    void publish(VideoFrame& frame);
    // Producer: no more frames; the movie ends at `endTimeNs`.
    void close(int64_t endTimeNs);

    // Consumer: the oldest waiting frame, blocking; none once closed and drained. Give each
    // frame back with recycle() before asking for the next.
    VideoFrame* next();
    void recycle(VideoFrame& frame);
    // Consumer, after next() returned none.
    int64_t endTimeNs() const;
    // Consumer: frames waiting behind the one it holds, which tells how far it is behind.
    size_t waiting() const;

    // Any thread.
    long long droppedFrames() const;

private:
    const size_t depth_;
    mutable std::mutex mutex_;
    std::condition_variable ready_;
    std::vector<std::unique_ptr<VideoFrame>> storage_;
    std::vector<VideoFrame*> free_;
    std::deque<VideoFrame*> waiting_;
    std::optional<int64_t> endTimeNs_;
    long long dropped_ = 0;
};
