#include "capture/linux/VideoFileRecorder.h"

#include "capture/linux/VideoFrameQueue.h"
#include "capture/linux/VideoPacing.h"

#include "MovieInspection.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QUrl>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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
    explicit Movie(int width = kWidth, int height = kHeight) : queue(kDepth, width, height) {}

    QTemporaryDir directory;
    QString path = directory.filePath(QStringLiteral("movie.mp4"));
    RecorderEvents events;
    VideoFrameQueue queue;
    VideoFileRecorder recorder{{QUrl::fromLocalFile(path), VideoFileType::mpeg4, VideoCodec::h264},
                               &events};

    // Ends the movie after `frames` frame intervals and waits for the file.
    void finishAfter(int frames) {
        queue.close(frames * kShortestFrameIntervalNs);
        recorder.finish();
    }
};

// Fills the queue before the encoder starts, as when it has fallen behind.
void pileUp(Movie& movie, std::mt19937& random) {
    for (int frame = 0; frame < kDepth; ++frame) {
        VideoFrame& next = movie.queue.acquire();
        fillWithNoise(next, random, frame * kShortestFrameIntervalNs);
        movie.queue.publish(next);
    }
}

// Hands the recorder one frame, of noise or else unchanged, and waits until it is encoded, so
// nothing ever waits behind it.
void encodeAlone(Movie& movie, std::mt19937* noise, int frame) {
    VideoFrame& next = movie.queue.acquire();
    if (noise) {
        fillWithNoise(next, *noise, frame * kShortestFrameIntervalNs);
    } else {
        next.captureTimeNs = frame * kShortestFrameIntervalNs;
    }
    movie.queue.publish(next);
    while (movie.recorder.encodedFrames() <= frame) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace

TEST(VideoFileRecorder, EncoderFindingFramesPiledUpSpendsLessEffortAndKeepsEveryFrame) {
    Movie movie;
    std::mt19937 random(1);
    pileUp(movie, random);
    movie.recorder.start(movie.queue, kWidth, kHeight, 0, kShortestFrameIntervalNs);
    movie.finishAfter(kDepth);
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
        encodeAlone(movie, &random, frame);
    }
    movie.finishAfter(kDepth);
    ASSERT_TRUE(movie.events.finished());

    EXPECT_EQ(movie.recorder.leastEffortStep(), 0);
    EXPECT_EQ(::probe(movie.path).frames, kDepth);
}

TEST(VideoFileRecorder, EncoderThatCaughtUpGoesBackToFullEffortStepByStep) {
    Movie movie;
    std::mt19937 random(1);
    pileUp(movie, random);
    movie.recorder.start(movie.queue, kWidth, kHeight, 0, kShortestFrameIntervalNs);
    while (movie.recorder.encodedFrames() < kDepth) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // Two seconds of frames, none waiting behind another once the pile is gone: one step
    // back after each second.
    constexpr int kFrames = kDepth + 2 * 30;
    std::vector<int> steps;
    for (int frame = kDepth; frame < kFrames; ++frame) {
        encodeAlone(movie, nullptr, frame);
        steps.push_back(movie.recorder.effortStep());
    }
    movie.finishAfter(kFrames);
    ASSERT_TRUE(movie.events.finished());

    EXPECT_EQ(movie.recorder.leastEffortStep(), 2);
    EXPECT_EQ(steps.front(), 2);
    EXPECT_EQ(std::count(steps.begin(), steps.end(), 1), 30);
    EXPECT_EQ(steps.back(), 0);
    EXPECT_EQ(::probe(movie.path).frames, kFrames);
}

TEST(VideoFileRecorder, EncoderAtLessEffortWritesNoLargerMovieThanAtFullEffort) {
    // The same pictures, once piled up and once each on its own.
    Movie piled;
    std::mt19937 random(1);
    pileUp(piled, random);
    piled.recorder.start(piled.queue, kWidth, kHeight, 0, kShortestFrameIntervalNs);
    piled.finishAfter(kDepth);
    Movie alone;
    random.seed(1);
    alone.recorder.start(alone.queue, kWidth, kHeight, 0, kShortestFrameIntervalNs);
    for (int frame = 0; frame < kDepth; ++frame) {
        encodeAlone(alone, &random, frame);
    }
    alone.finishAfter(kDepth);
    ASSERT_TRUE(piled.events.finished());
    ASSERT_TRUE(alone.events.finished());

    ASSERT_EQ(piled.recorder.leastEffortStep(), 2);
    ASSERT_EQ(alone.recorder.leastEffortStep(), 0);
    const qint64 piledBytes = QFileInfo(piled.path).size();
    const qint64 aloneBytes = QFileInfo(alone.path).size();
    std::printf("movie at less effort: %lld bytes, at full effort: %lld bytes\n",
                static_cast<long long>(piledBytes), static_cast<long long>(aloneBytes));
    EXPECT_LE(piledBytes, aloneBytes);
}

namespace {

// The settings x264 wrote into a movie of `width` × `height` pixels, one flat grey picture
// long, as it names them in its stream ("... threads=2 ... rc_lookahead=4 ...").
QByteArray encoderSettings(int width, int height) {
    Movie movie(width, height);
    VideoFrame& frame = movie.queue.acquire();
    std::fill(frame.changed.begin(), frame.changed.end(), PixelSpan{0, width});
    movie.queue.publish(frame);
    movie.recorder.start(movie.queue, width, height, 0, kShortestFrameIntervalNs);
    movie.finishAfter(1);
    EXPECT_TRUE(movie.events.finished());
    QFile file(movie.path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray bytes = file.readAll();
    const qsizetype begin = bytes.indexOf("x264 - core");
    return begin < 0 ? QByteArray() : bytes.mid(begin, bytes.indexOf('\0', begin) - begin);
}

} // namespace

TEST(VideoFileRecorder, AreaLargerThan1080pIsEncodedOnTwoThreadsWithAShorterLookahead) {
    const QByteArray large = encoderSettings(3840, 2160);
    const QByteArray hd = encoderSettings(1920, 1080);

    EXPECT_TRUE(large.contains(" threads=2 ")) << large.constData();
    EXPECT_TRUE(large.contains(" rc_lookahead=4 ")) << large.constData();
    EXPECT_TRUE(large.contains(" crf=20.0 ")) << large.constData();
    EXPECT_TRUE(hd.contains(" threads=1 ")) << hd.constData();
    EXPECT_TRUE(hd.contains(" rc_lookahead=10 ")) << hd.constData();
    EXPECT_TRUE(hd.contains(" crf=22.0 ")) << hd.constData();
}

namespace {

long long residentBytes() {
    QFile statm(QStringLiteral("/proc/self/statm"));
    EXPECT_TRUE(statm.open(QIODevice::ReadOnly));
    const QList<QByteArray> pages = statm.readAll().split(' ');
    return pages.value(1).toLongLong() * sysconf(_SC_PAGESIZE);
}

// A grey ramp moved `shift` pixels along: every picture changed, in a small file.
void fillWithRamp(VideoFrame& frame, int shift, int64_t timeNs) {
    for (int y = 0; y < frame.height; ++y) {
        for (int x = 0; x < frame.width; ++x) {
            frame.y[static_cast<size_t>(y) * static_cast<size_t>(frame.width) +
                    static_cast<size_t>(x)] = static_cast<uint8_t>((x + y + shift) / 4);
        }
    }
    std::fill(frame.u.begin(), frame.u.end(), uint8_t{128});
    std::fill(frame.v.begin(), frame.v.end(), uint8_t{128});
    std::fill(frame.changed.begin(), frame.changed.end(), PixelSpan{0, frame.width});
    frame.captureTimeNs = timeNs;
}

// How much the process's resident memory grew while the recorder started, and while it
// then encoded a second of frames, of a movie of `width` × `height` pixels, which must
// come out as those frames alone.
std::pair<long long, long long> memoryTakenStartingAndEncoding(int width, int height) {
    constexpr int kFrames = 30;
    Movie movie(width, height);
    const long long beforeStart = residentBytes();
    movie.recorder.start(movie.queue, width, height, 0, kShortestFrameIntervalNs);
    const long long started = residentBytes();
    for (int frame = 0; frame < kFrames; ++frame) {
        VideoFrame& next = movie.queue.acquire();
        fillWithRamp(next, 8 * frame, frame * kShortestFrameIntervalNs);
        movie.queue.publish(next);
        while (movie.recorder.encodedFrames() <= frame) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    const long long encoded = residentBytes();
    movie.finishAfter(kFrames);
    EXPECT_TRUE(movie.events.finished());
    const Probe probe = ::probe(movie.path);
    EXPECT_EQ(probe.frames, kFrames);
    EXPECT_EQ(probe.keyframes, 1);
    EXPECT_NEAR(probe.duration, kFrames / 30.0, 0.001);
    return {started - beforeStart, encoded - started};
}

} // namespace

TEST(VideoFileRecorder, EncoderHasTakenItsMemoryBeforeTheFirstFrameAndWritesOnlyTheMoviesFrames) {
    for (const auto& [width, height] : {std::pair{2560, 1440}, {1920, 1080}}) {
        SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
        const auto [starting, encoding] = memoryTakenStartingAndEncoding(width, height);
        const long long picture = 3LL * width * height / 2;
        std::printf("%dx%d: resident memory grew %.1f MB starting the recorder, %.1f MB "
                    "encoding a second of frames\n",
                    width, height, static_cast<double>(starting) / 1e6,
                    static_cast<double>(encoding) / 1e6);
        EXPECT_GT(starting, 4 * picture);
        EXPECT_LT(encoding, picture);
    }
}

namespace {

// The niceness of each of this process's threads named `name`.
std::vector<int> nicenessOfThreads(const QByteArray& name) {
    std::vector<int> niceness;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile stat(tasks.filePath(task + QStringLiteral("/stat")));
        if (!stat.open(QIODevice::ReadOnly)) {
            continue; // gone meanwhile
        }
        const QByteArray line = stat.readAll();
        const qsizetype open = line.indexOf('(');
        const qsizetype close = line.lastIndexOf(')');
        if (line.mid(open + 1, close - open - 1) != name) {
            continue;
        }
        // After the name: state, then the 17th field on is the niceness.
        niceness.push_back(line.mid(close + 2).split(' ').value(16).toInt());
    }
    return niceness;
}

} // namespace

TEST(VideoFileRecorder, EncoderAndX264sThreadsYieldToTheCapture) {
    const auto niceness = [] { return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())); };
    const int starting = niceness();
    Movie movie(2560, 1440);
    movie.recorder.start(movie.queue, 2560, 1440, 0, kShortestFrameIntervalNs);
    const std::vector<int> encoding = nicenessOfThreads("Tessarel.encode");
    movie.finishAfter(0);

    // The encoder's own thread and x264's (two frame threads and the lookahead's at this size).
    EXPECT_GE(encoding.size(), 3u);
    for (const int thread : encoding) {
        EXPECT_EQ(thread, std::min(starting + 10, 19));
    }
    // The thread that started the recorder, as the capture's, keeps its own.
    EXPECT_EQ(niceness(), starting);
}
