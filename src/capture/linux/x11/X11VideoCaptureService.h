#pragma once

#include "capture/linux/ScreenVideoStream.h"

#include <QByteArray>

// Cropped video streams of an X server, and their MPEG-4 file recorders.
//
// A stream grabs its area with shared memory on its own capture thread, at most 30 times a
// second on a fixed time grid of the monotonic clock, and draws the pointer in (XFixes). A
// grab equal to the one before is dropped there, but for one a second; any other is
// brought to the output size in I420 (libyuv, only where it changed) and passed to the
// recorder through a queue of `queueDepth` preallocated frames, which never makes the
// capture thread wait. The recorder encodes on a thread of its own (VideoFileRecorder).
class X11VideoCaptureService final : public ScreenVideoCaptureService {
public:
    // What a stream has done so far.
    struct Counts {
        long long captured = 0;         // ticks of the frame clock looked at
        long long screenReads = 0;      // of those, the ones that read the area from the server
        long long rowsRead = 0;         // rows of the area those reads copied
        long long skippedIdentical = 0; // ticks whose picture was the last frame passed on
        long long droppedByQueue = 0;   // frames overwritten while the encoder was behind
        long long encoded = 0;          // frames the recorder encoded
        long long windowListings = 0;   // times the top-level windows were read
        double captureCpuSeconds = 0;   // the capture thread's, once it has stopped
    };

    // An empty name means $DISPLAY.
    explicit X11VideoCaptureService(QByteArray displayName = {});

    std::shared_ptr<VideoCaptureStream> makeStream(const ContentFilter& filter,
                                                   const VideoStreamConfiguration& config,
                                                   StreamDelegate* delegate) override;

    // Any thread, but not while the stream starts; zeros for a stream of another service.
    static Counts counts(const VideoCaptureStream& stream);

private:
    QByteArray displayName_;
};
