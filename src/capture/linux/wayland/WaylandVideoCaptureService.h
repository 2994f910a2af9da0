#pragma once

#include "capture/linux/ScreenVideoStream.h"

#include <QByteArray>

// Cropped video streams of a Wayland output by wlr-screencopy, and their MPEG-4 file
// recorders.
//
// A stream asks the compositor for a copy of the whole output with the pointer drawn in,
// into shared memory, and crops the area from it: the area's points map to the buffer's
// pixels by the buffer's size over the output's logical size. After the first copy each
// one waits for the output's damage (copy_with_damage), so a still screen costs no copies.
// On a fixed 30-a-second grid of the monotonic clock the newest copy is compared with the
// last frame passed on and, where it differs, converted and queued for the recorder
// (VideoFileRecorder); otherwise the last frame is repeated once a second so the movie keeps
// its pace and its fragments. The compositor going away stops the stream through its
// delegate; the recorder then finishes the file.
class WaylandVideoCaptureService final : public ScreenVideoCaptureService {
public:
    // What a stream has done so far.
    struct Counts {
        long long ticks = 0;            // ticks of the frame clock looked at
        long long copies = 0;           // copies the compositor made
        long long skippedIdentical = 0; // ticks whose picture was the last frame passed on
        long long droppedByQueue = 0;   // frames overwritten while the encoder was behind
        long long encoded = 0;          // frames the recorder encoded
        double captureCpuSeconds = 0;   // the capture thread's, once it has stopped
    };

    // An empty name means $WAYLAND_DISPLAY.
    explicit WaylandVideoCaptureService(QByteArray displayName = {});

    std::shared_ptr<VideoCaptureStream> makeStream(const ContentFilter& filter,
                                                   const VideoStreamConfiguration& config,
                                                   StreamDelegate* delegate) override;

    // Any thread, but not while the stream starts; zeros for a stream of another service.
    static Counts counts(const VideoCaptureStream& stream);

private:
    QByteArray displayName_;
};
