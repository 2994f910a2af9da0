#include "capture/linux/VideoFrameQueue.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

void publishAt(VideoFrameQueue& queue, int64_t timeNs) {
    VideoFrame& frame = queue.acquire();
    frame.captureTimeNs = timeNs;
    queue.publish(frame);
}

} // namespace

TEST(VideoFrameQueue, FramesArePreallocatedAtTheOutputSize) {
    VideoFrameQueue queue(6, 320, 240);
    VideoFrame& frame = queue.acquire();
    EXPECT_EQ(frame.width, 320);
    EXPECT_EQ(frame.height, 240);
    EXPECT_EQ(frame.y.size(), 320u * 240u);
    EXPECT_EQ(frame.u.size(), 160u * 120u);
    EXPECT_EQ(frame.v.size(), 160u * 120u);
    EXPECT_EQ(frame.changed.size(), 120u);
}

TEST(VideoFrameQueue, FrameTakenBackKeepsItsChangesAndAnyOtherComesWithNone) {
    VideoFrameQueue queue(1, 4, 4);
    VideoFrame& first = queue.acquire();
    first.changed[0] = {0, 4};
    queue.publish(first);

    VideoFrame& takenBack = queue.acquire(); // the queue is full: the waiting frame returns
    EXPECT_EQ(&takenBack, &first);
    EXPECT_EQ(takenBack.changed[0], (PixelSpan{0, 4}));
    queue.publish(takenBack);
    VideoFrame* consumed = queue.next();
    ASSERT_NE(consumed, nullptr);
    queue.recycle(*consumed);

    VideoFrame& recycled = queue.acquire();
    EXPECT_EQ(recycled.changed[0], PixelSpan{});
    EXPECT_EQ(recycled.changed[1], PixelSpan{});
}

TEST(VideoFrameQueue, FramesComeOutInCaptureOrder) {
    VideoFrameQueue queue(6, 2, 2);
    for (int64_t time = 1; time <= 3; ++time) {
        publishAt(queue, time);
    }
    for (int64_t time = 1; time <= 3; ++time) {
        VideoFrame* frame = queue.next();
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(frame->captureTimeNs, time);
        queue.recycle(*frame);
    }
    EXPECT_EQ(queue.droppedFrames(), 0);
}

TEST(VideoFrameQueue, WhenFullTheNewestFrameReplacesTheWaitingOneAndTheDropIsCounted) {
    VideoFrameQueue queue(6, 2, 2);
    for (int64_t time = 1; time <= 8; ++time) {
        publishAt(queue, time);
    }
    std::vector<int64_t> times;
    queue.close(100);
    while (VideoFrame* frame = queue.next()) {
        times.push_back(frame->captureTimeNs);
        queue.recycle(*frame);
    }
    EXPECT_EQ(times, (std::vector<int64_t>{1, 2, 3, 4, 5, 8}));
    EXPECT_EQ(queue.droppedFrames(), 2);
}

TEST(VideoFrameQueue, ClosingEndsTheConsumerAfterTheWaitingFrames) {
    VideoFrameQueue queue(6, 2, 2);
    publishAt(queue, 1);
    std::thread consumer([&] {
        int frames = 0;
        while (VideoFrame* frame = queue.next()) {
            ++frames;
            queue.recycle(*frame);
        }
        EXPECT_EQ(frames, 1);
    });
    queue.close(42);
    consumer.join();
    EXPECT_EQ(queue.endTimeNs(), 42);
}
