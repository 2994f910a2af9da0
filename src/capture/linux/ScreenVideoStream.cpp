#include "capture/linux/ScreenVideoStream.h"

#include "capture/linux/MonotonicClock.h"
#include "capture/linux/VideoFileRecorder.h"
#include "capture/linux/VideoFrameConverter.h"
#include "capture/linux/VideoFrameQueue.h"
#include "capture/linux/VideoPacing.h"

#include <pthread.h>

ScreenVideoStream::ScreenVideoStream(VideoStreamConfiguration configuration,
                                     StreamDelegate* delegate, const char* threadName)
    : configuration_(configuration), delegate_(delegate), threadName_(threadName) {}

ScreenVideoStream::~ScreenVideoStream() = default;

void ScreenVideoStream::stopQuietly() noexcept {
    try {
        stopCapture();
    } catch (...) { // nobody is left to tell
    }
}

void ScreenVideoStream::addRecordingOutput(const std::shared_ptr<RecordingOutput>& output) {
    auto recorder = std::dynamic_pointer_cast<VideoFileRecorder>(output);
    if (!recorder || recorder_) {
        throw PlatformError(QStringLiteral("The stream cannot take this recorder."));
    }
    recorder_ = std::move(recorder);
}

void ScreenVideoStream::startCapture() {
    if (thread_.joinable()) {
        throw PlatformError(QStringLiteral("The stream is already capturing."));
    }
    const int width = static_cast<int>(configuration_.width);
    const int height = static_cast<int>(configuration_.height);
    if (width <= 0 || height <= 0 || width > INT16_MAX || height > INT16_MAX) {
        throw PlatformError(QStringLiteral("The movie size is not valid."));
    }
    setUp(width, height);
    std::unique_ptr<VideoFrameQueue> queue;
    std::unique_ptr<VideoFrameConverter> converter;
    int64_t intervalNs = 0;
    int64_t startNs = 0;
    try {
        queue = std::make_unique<VideoFrameQueue>(configuration_.queueDepth, width, height);
        converter = std::make_unique<VideoFrameConverter>(width, height);
        intervalNs = frameIntervalNs(configuration_.minimumFrameInterval);
        startNs = monotonicNowNs();
        if (recorder_) {
            recorder_->start(*queue, width, height, startNs, intervalNs);
        }
    } catch (...) {
        release();
        throw;
    }
    // From here the recorder's thread reads the queue; only the capture thread's creation
    // can still fail, and then that reader is ended before the queue may go.
    converter_ = std::move(converter);
    queue_ = std::move(queue);
    try {
        thread_ = std::thread([this, startNs, intervalNs] {
            pthread_setname_np(pthread_self(), threadName_);
            try {
                capture(startNs, intervalNs);
            } catch (...) {
                delegate_->streamDidStop(std::current_exception());
            }
        });
    } catch (...) {
        queue_->close(startNs);
        if (recorder_) {
            recorder_->abandon();
        }
        converter_.reset();
        release();
        rethrowExplained();
    }
}

void ScreenVideoStream::stopCapture() {
    const int64_t endNs = monotonicNowNs();
    if (!thread_.joinable()) {
        return;
    }
    requestStop();
    thread_.join();
    queue_->close(endNs);
    if (recorder_) {
        recorder_->finish();
    }
    converter_.reset();
    release();
}

void ScreenVideoStream::passOnFrame(int64_t captureNs) {
    VideoFrame& frame = queue_->acquire();
    converter_->convert(frame);
    frame.captureTimeNs = captureNs;
    queue_->publish(frame);
}

long long ScreenVideoStream::droppedFrames() const {
    return queue_ ? queue_->droppedFrames() : 0;
}

long long ScreenVideoStream::encodedFrames() const {
    return recorder_ ? recorder_->encodedFrames() : 0;
}

std::vector<VideoCodec> ScreenVideoCaptureService::availableVideoCodecTypes() {
    return VideoFileRecorder::availableCodecs();
}

std::shared_ptr<RecordingOutput>
ScreenVideoCaptureService::makeRecordingOutput(const RecordingOutputConfiguration& config,
                                               RecordingOutputDelegate* delegate) {
    return std::make_shared<VideoFileRecorder>(config, delegate);
}
