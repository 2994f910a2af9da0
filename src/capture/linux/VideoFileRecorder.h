#pragma once

#include "capture/CapturePlatform.h"

#include <atomic>
#include <cstdint>
#include <future>
#include <memory>
#include <thread>
#include <vector>

class RecordingFile;
class VideoFrameQueue;

// Writes the frames of a video stream into an MPEG-4 file on its own thread, and tells its
// delegate from that thread that the movie has started, finished or failed.
//
// H.264 goes through libx264 with preset "veryfast", whole-pixel motion search only and
// constant rate factor 22, no tune (lookahead and macroblock tree stay on) and no B-frames;
// each picture tells x264 which of its macroblocks did not change, which x264 then skips
// without searching them. MPEG-4
// Visual, when asked for, goes through libavcodec. A keyframe comes every ten seconds of
// capture time. The file is fragmented MP4 (an empty moov, then a fragment at each keyframe
// and at least every quarter second, whatever frame it starts with, flushed to disk at once),
// so a process killed mid-recording leaves a movie that plays up to its last fragment; a
// normal stop writes the index at the end as well. A movie whose folder went away while it
// was written is put back when it ends (see RecordingFile), and the delegate is told where.
// When frames pile up in the queue, the H.264 encoder spends less effort on each picture
// (a smaller motion search, fewer block sizes, then no deblocking and a higher rate factor),
// changed between two pictures, and goes back once it has kept up for a second: a busy
// machine gets a lighter movie at full pace rather than dropped frames. Areas larger than
// 1080p are encoded on two threads, with a shorter lookahead at rate factor 20.
// Each frame's time stamp is its capture time, so late, dropped or skipped frames never
// shift the rest: a frame is shown until the next one's capture time.
class VideoFileRecorder final : public RecordingOutput {
public:
    VideoFileRecorder(RecordingOutputConfiguration configuration,
                      RecordingOutputDelegate* delegate);
    ~VideoFileRecorder() override;
    VideoFileRecorder(const VideoFileRecorder&) = delete;
    VideoFileRecorder& operator=(const VideoFileRecorder&) = delete;

    // Any thread.
    static std::vector<VideoCodec> availableCodecs();

    // The stream's thread: creates the file, readies the encoder (for H.264 this takes the
    // encoder's memory, some 260 MB and half a second at 4K, so that the first frames find
    // it there) and starts encoding what arrives in `queue`, whose frames are `width` ×
    // `height` pixels, stamped from `startTimeNs` on; frames come at most every
    // `frameIntervalNs`. Throws PlatformError when the file or the encoder cannot be made.
    void start(VideoFrameQueue& queue, int width, int height, int64_t startTimeNs,
               int64_t frameIntervalNs);
    // The stream's thread, after the queue was closed: blocks until the file is complete or
    // has failed and the delegate has been told which.
    void finish();
    // The same where the capture could not start after all: no file is left.
    void abandon();

    // Any thread: frames handed to the encoder so far.
    long long encodedFrames() const;
    // Any thread: the most steps below its full effort the encoder has worked at so far
    // (0: never behind).
    int leastEffortStep() const;
    // Any thread: how many steps below its full effort the encoder works now.
    int effortStep() const;

private:
    class Encoder;
    // What start() was given for the movie.
    struct Movie {
        QString path;
        int width = 0;
        int height = 0;
        int64_t startTimeNs = 0;
        int64_t frameIntervalNs = 0;
    };
    // Starts the encoder's thread, which makes the movie's encoder and tells `made` how that
    // went before it encodes.
    void startEncoding(VideoFrameQueue& queue, const Movie& movie, std::promise<void> made);

    RecordingOutputConfiguration configuration_;
    RecordingOutputDelegate* delegate_;
    std::unique_ptr<RecordingFile> file_;
    std::unique_ptr<Encoder> encoder_;
    std::thread thread_;
    std::atomic<long long> encodedFrames_{0};
    std::atomic<int> leastEffortStep_{0};
    std::atomic<int> effortStep_{0};
};
