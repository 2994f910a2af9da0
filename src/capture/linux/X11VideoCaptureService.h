#pragma once

#include "capture/CapturePlatform.h"

#include <QByteArray>

// Cropped video streams of an X server, and their MPEG-4 file recorders.
//
// A stream grabs its area with shared memory on its own capture thread, at most 30 times a
// second on a fixed time grid of the monotonic clock, draws the pointer in (XFixes), scales
// to the output size, converts to I420 (libyuv) and passes the frame to its recorder
// through a queue of `queueDepth` preallocated frames. The recorder encodes on a thread of its own
// (VideoFileRecorder).
class X11VideoCaptureService final : public VideoCaptureService {
public:
    // An empty name means $DISPLAY.
    explicit X11VideoCaptureService(QByteArray displayName = {});

    std::vector<VideoCodec> availableVideoCodecTypes() override;
    std::shared_ptr<VideoCaptureStream> makeStream(const ContentFilter& filter,
                                                   const VideoStreamConfiguration& config,
                                                   StreamDelegate* delegate) override;
    std::shared_ptr<RecordingOutput>
    makeRecordingOutput(const RecordingOutputConfiguration& config,
                        RecordingOutputDelegate* delegate) override;

private:
    QByteArray displayName_;
};
