#include "capture/linux/VideoFileRecorder.h"

#include "capture/linux/VideoFrameQueue.h"
#include "capture/linux/VideoPacing.h"

#include "MovieInspection.h"

#include <QTemporaryDir>
#include <QUrl>

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <thread>

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr int kDepth = 6;

// Fills `frame` with noise, every pixel changed: a picture that costs the encoder a lot.
void fillWithNoise(VideoFrame& frame, std::mt19937& random, int64_t timeNs) {
    for (auto* plane : {&frame.y, &frame.u, &frame.v}) {
        for (uint8_t& sample : *plane) {
            sample = static_cast<uint8_t>(random());
        }
    }
    std::fill(frame.changed.begin(), frame.changed.end(), PixelSpan{0, frame.width});
    frame.captureTimeNs = timeNs;
}

struct Movie {
    QTemporaryDir directory;
    QString path = directory.filePath(QStringLiteral("movie.mp4"));
    RecorderEvents events;
    VideoFrameQueue queue{kDepth, kWidth, kHeight};
    VideoFileRecorder recorder{{QUrl::fromLocalFile(path), VideoFileType::mpeg4, VideoCodec::h264},
                               &events};
};

} // namespace

TEST(VideoFileRecorder, EncoderFindingFramesPiledUpSpendsLessEffortAndKeepsEveryFrame) {
    Movie movie;
    std::mt19937 random(1);
    // All waiting before the encoder starts, as when it has fallen behind.
    for (int frame = 0; frame < kDepth; ++frame) {
        VideoFrame& next = movie.queue.acquire();
        fillWithNoise(next, random, frame * kShortestFrameIntervalNs);
        movie.queue.publish(next);
    }
    movie.recorder.start(movie.queue, kWidth, kHeight, 0, kShortestFrameIntervalNs);
    movie.queue.close(kDepth * kShortestFrameIntervalNs);
    movie.recorder.finish();
    ASSERT_TRUE(movie.events.finished());

    EXPECT_EQ(movie.recorder.leastEffortStep(), 2);
    const Probe probe = ::probe(movie.path);
    EXPECT_EQ(probe.frames, kDepth);
    EXPECT_EQ(probe.width, kWidth);
    EXPECT_EQ(probe.height, kHeight);
}

TEST(VideoFileRecorder, EncoderThatKeepsUpWorksAtFullEffort) {
    Movie movie;
    std::mt19937 random(1);
    movie.recorder.start(movie.queue, kWidth, kHeight, 0, kShortestFrameIntervalNs);
    for (int frame = 0; frame < kDepth; ++frame) {
        VideoFrame& next = movie.queue.acquire();
        fillWithNoise(next, random, frame * kShortestFrameIntervalNs);
        movie.queue.publish(next);
        // The next frame comes once this one is encoded: nothing ever waits behind it.
        while (movie.recorder.encodedFrames() <= frame) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    movie.queue.close(kDepth * kShortestFrameIntervalNs);
    movie.recorder.finish();
    ASSERT_TRUE(movie.events.finished());

    EXPECT_EQ(movie.recorder.leastEffortStep(), 0);
    EXPECT_EQ(::probe(movie.path).frames, kDepth);
}
