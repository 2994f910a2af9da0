#pragma once

#include "capture/CapturePlatform.h"

#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

class VideoFileRecorder;
class VideoFrameConverter;
class VideoFrameQueue;

// What every screen layer's video stream shares: the recorder it feeds, the frame queue and
// converter between them, and the capture thread's start and stop. A layer says how it sets
// up its source, how it grabs on the capture thread and how that thread is told to stop.
//
// The start is all or nothing: where the recorder or the capture thread cannot start, what
// the layer set up is released again and a recorder already started is ended
// without leaving its file. A second
// stop does nothing. A failure on the capture thread reaches the delegate from there.
class ScreenVideoStream : public VideoCaptureStream {
public:
    ScreenVideoStream(const ScreenVideoStream&) = delete;
    ScreenVideoStream& operator=(const ScreenVideoStream&) = delete;

    void addRecordingOutput(const std::shared_ptr<RecordingOutput>& output) final;
    void startCapture() final;
    void stopCapture() final;

protected:
    ScreenVideoStream(VideoStreamConfiguration configuration, StreamDelegate* delegate,
                      const char* threadName);
    ~ScreenVideoStream() override;

    // A layer's destructor calls this first: the capture thread uses the layer's members.
    void stopQuietly() noexcept;

    // Sets up the layer's source for a movie of `width` × `height` pixels; throws
    // PlatformError, holding nothing, where it cannot.
    virtual void setUp(int width, int height) = 0;
    // Runs on the capture thread until `requestStop`; what it throws reaches the delegate.
    virtual void capture(int64_t startNs, int64_t intervalNs) = 0;
    // Any thread but the capture thread: makes `capture` return soon.
    virtual void requestStop() = 0;
    // What `setUp` made, once the capture thread is gone.
    virtual void release() = 0;

    const VideoStreamConfiguration& configuration() const { return configuration_; }
    // The capture thread's while it runs.
    VideoFrameConverter& converter() { return *converter_; }
    // The capture thread: converts what the converter took up last and queues it for the
    // recorder, stamped `captureNs`.
    void passOnFrame(int64_t captureNs);

    // Any thread, but not while the stream starts.
    long long droppedFrames() const;
    long long encodedFrames() const;

private:
    const VideoStreamConfiguration configuration_;
    StreamDelegate* const delegate_;
    const char* const threadName_;
    std::shared_ptr<VideoFileRecorder> recorder_;
    std::unique_ptr<VideoFrameQueue> queue_;
    // Made by startCapture, then the capture thread's until it is joined.
    std::unique_ptr<VideoFrameConverter> converter_;
    std::thread thread_;
};

// Video services whose streams write through VideoFileRecorder.
class ScreenVideoCaptureService : public VideoCaptureService {
public:
    std::vector<VideoCodec> availableVideoCodecTypes() final;
    std::shared_ptr<RecordingOutput> makeRecordingOutput(const RecordingOutputConfiguration& config,
                                                         RecordingOutputDelegate* delegate) final;
};
