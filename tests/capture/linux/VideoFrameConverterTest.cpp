#include "capture/linux/VideoFrameConverter.h"

#include <libyuv.h>

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

std::vector<uint8_t> noise(int width, int height, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
    for (auto& byte : pixels) {
        byte = static_cast<uint8_t>(random());
    }
    return pixels;
}

// A frame as the queue hands it out: nothing marked changed yet.
VideoFrame emptyFrame(int width, int height) {
    VideoFrame frame;
    frame.width = width;
    frame.height = height;
    frame.y.assign(static_cast<size_t>(width) * static_cast<size_t>(height), 0);
    const size_t chroma =
        static_cast<size_t>(frame.chromaWidth()) * static_cast<size_t>(frame.chromaHeight());
    frame.u.assign(chroma, 0);
    frame.v.assign(chroma, 0);
    frame.changed.resize(static_cast<size_t>(frame.chromaHeight()));
    return frame;
}

// The picture a whole conversion of `grab` gives.
VideoFrame wholeConversion(const std::vector<uint8_t>& grab, int width, int height) {
    VideoFrame frame = emptyFrame(width, height);
    libyuv::ARGBToI420(grab.data(), width * 4, frame.y.data(), width, frame.u.data(),
                       frame.chromaWidth(), frame.v.data(), frame.chromaWidth(), width, height);
    return frame;
}

// `frame`'s changed columns copied over `picture`, as the recorder applies them.
void apply(const VideoFrame& frame, VideoFrame& picture) {
    for (size_t pair = 0; pair < frame.changed.size(); ++pair) {
        const PixelSpan& span = frame.changed[pair];
        for (int x = span.begin; x < span.end; ++x) {
            for (size_t y = 2 * pair; y < std::min<size_t>(frame.height, 2 * pair + 2); ++y) {
                picture.y[y * frame.width + x] = frame.y[y * frame.width + x];
            }
            const size_t chroma = pair * frame.chromaWidth() + x / 2;
            picture.u[chroma] = frame.u[chroma];
            picture.v[chroma] = frame.v[chroma];
        }
    }
}

VideoGrab grabOf(const std::vector<uint8_t>& pixels, int width, int height) {
    return {pixels.data(), width, height, width * 4};
}

void expectSamePicture(const VideoFrame& got, const VideoFrame& want) {
    EXPECT_EQ(got.y, want.y);
    EXPECT_EQ(got.u, want.u);
    EXPECT_EQ(got.v, want.v);
}

} // namespace

TEST(VideoFrameConverter, FirstGrabIsConvertedWhole) {
    const auto grab = noise(64, 48, 1);
    VideoFrameConverter converter(64, 48);
    VideoFrame frame = emptyFrame(64, 48);

    EXPECT_TRUE(converter.differs(grabOf(grab, 64, 48), nullptr));
    converter.convert(frame);

    expectSamePicture(frame, wholeConversion(grab, 64, 48));
    for (const PixelSpan& span : frame.changed) {
        EXPECT_EQ(span, (PixelSpan{0, 64}));
    }
}

TEST(VideoFrameConverter, GrabEqualToThePreviousOneIsNoChange) {
    const auto first = noise(64, 48, 2);
    const auto second = first;
    VideoFrameConverter converter(64, 48);

    const VideoGrab previous = grabOf(first, 64, 48);
    EXPECT_FALSE(converter.differs(grabOf(second, 64, 48), &previous));
}

TEST(VideoFrameConverter, UnchangedGrabPassedOnAllTheSameMarksNothing) {
    const auto grab = noise(64, 48, 7);
    VideoFrameConverter converter(64, 48);
    VideoFrame frame = emptyFrame(64, 48);
    const VideoGrab same = grabOf(grab, 64, 48);

    ASSERT_FALSE(converter.differs(same, &same));
    converter.convert(frame);

    for (const PixelSpan& span : frame.changed) {
        EXPECT_TRUE(span.isEmpty());
    }
}

TEST(VideoFrameConverter, OnlyTheChangedColumnsOfChangedRowsAreMarked) {
    const auto first = noise(96, 64, 3);
    auto second = first;
    // An odd-sized patch at odd coordinates: columns 7 to 19 of rows 13 to 29.
    for (int y = 13; y < 30; ++y) {
        for (int x = 7; x < 20; ++x) {
            second[static_cast<size_t>(y * 96 + x) * 4 + 1] ^= 0x5a;
        }
    }
    VideoFrameConverter converter(96, 64);
    VideoFrame frame = emptyFrame(96, 64);

    const VideoGrab previous = grabOf(first, 96, 64);
    ASSERT_TRUE(converter.differs(grabOf(second, 96, 64), &previous));
    converter.convert(frame);

    for (size_t pair = 0; pair < frame.changed.size(); ++pair) {
        const bool inPatch = pair >= 6 && pair <= 14;
        EXPECT_EQ(frame.changed[pair], (inPatch ? PixelSpan{6, 20} : PixelSpan{})) << pair;
    }
}

TEST(VideoFrameConverter, ChangesAppliedToThePictureBeforeGiveTheNewPicture) {
    const auto first = noise(96, 64, 4);
    auto second = first;
    for (int y = 13; y < 30; ++y) {
        for (int x = 7; x < 20; ++x) {
            second[static_cast<size_t>(y * 96 + x) * 4 + 1] ^= 0x5a;
        }
    }
    second[static_cast<size_t>(63 * 96 + 95) * 4] ^= 0xff; // the last pixel
    VideoFrameConverter converter(96, 64);
    VideoFrame frame = emptyFrame(96, 64);
    VideoFrame picture = wholeConversion(first, 96, 64);

    const VideoGrab previous = grabOf(first, 96, 64);
    ASSERT_TRUE(converter.differs(grabOf(second, 96, 64), &previous));
    converter.convert(frame);
    apply(frame, picture);

    expectSamePicture(picture, wholeConversion(second, 96, 64));
}

TEST(VideoFrameConverter, FrameTakenBackFromTheQueueKeepsItsEarlierChanges) {
    // The encoder never saw the frame that changed rows 0 to 9; the one that replaces it
    // in the queue changes rows 40 to 49 and must carry both.
    const auto first = noise(64, 64, 5);
    auto second = first;
    auto third = first;
    for (int x = 0; x < 64 * 10 * 4; ++x) {
        second[static_cast<size_t>(x)] ^= 0x11;
        third[static_cast<size_t>(x)] ^= 0x11;
    }
    for (int x = 64 * 40 * 4; x < 64 * 50 * 4; ++x) {
        third[static_cast<size_t>(x)] ^= 0x22;
    }
    VideoFrameConverter converter(64, 64);
    VideoFrame frame = emptyFrame(64, 64);
    VideoFrame picture = wholeConversion(first, 64, 64);

    const VideoGrab firstGrab = grabOf(first, 64, 64);
    const VideoGrab secondGrab = grabOf(second, 64, 64);
    ASSERT_TRUE(converter.differs(secondGrab, &firstGrab));
    converter.convert(frame);
    ASSERT_TRUE(converter.differs(grabOf(third, 64, 64), &secondGrab));
    converter.convert(frame);
    apply(frame, picture);

    expectSamePicture(picture, wholeConversion(third, 64, 64));
}

TEST(VideoFrameConverter, GrabOfAnotherSizeIsScaledToTheOutputSize) {
    const auto grab = noise(65, 49, 6);
    VideoFrameConverter converter(64, 48);
    VideoFrame frame = emptyFrame(64, 48);

    ASSERT_TRUE(converter.differs(grabOf(grab, 65, 49), nullptr));
    converter.convert(frame);
    const VideoGrab same = grabOf(grab, 65, 49);
    EXPECT_FALSE(converter.differs(same, &same));

    std::vector<uint8_t> scaled(64 * 48 * 4);
    libyuv::ARGBScale(grab.data(), 65 * 4, 65, 49, scaled.data(), 64 * 4, 64, 48,
                      libyuv::kFilterBilinear);
    expectSamePicture(frame, wholeConversion(scaled, 64, 48));
}

TEST(VideoFrameConverter, RowsOutsideTheOnesThatMayDifferAreTakenAsEqual) {
    const int width = 64;
    const int height = 48;
    const auto before = noise(width, height, 7);
    auto after = before;
    after[static_cast<size_t>(10 * width + 5) * 4] ^= 0xff; // row 10
    after[static_cast<size_t>(30 * width + 9) * 4] ^= 0xff; // row 30
    VideoFrameConverter converter(width, height);
    const VideoGrab previous = grabOf(before, width, height);

    EXPECT_FALSE(converter.differs(grabOf(after, width, height), &previous, {12, 30}));
    EXPECT_TRUE(converter.differs(grabOf(after, width, height), &previous, {12, 31}));
    VideoFrame frame = emptyFrame(width, height);
    converter.convert(frame);
    // Only the pair of rows 30 and 31 is converted; row 10 lay outside.
    for (size_t pair = 0; pair < frame.changed.size(); ++pair) {
        EXPECT_EQ(frame.changed[pair].isEmpty(), pair != 15) << "pair " << pair;
    }
}
