#include "capture/linux/portal/PortalCaptureServices.h"

#include "capture/linux/MonotonicClock.h"
#include "capture/linux/VideoFileRecorder.h"
#include "capture/linux/VideoFrameConverter.h"
#include "capture/linux/VideoFrameQueue.h"
#include "capture/linux/portal/DesktopPortal.h"
#include "capture/linux/portal/PipeWireScreenStream.h"

#include <QImage>
#include <QRect>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace {

constexpr int64_t kShortestFrameIntervalNs = 1'000'000'000 / 30;
constexpr std::chrono::seconds kFirstPictureTimeout{10};

// The grant of a display is kept under its number.
QString grantKey(const DisplayInfo& display) {
    return QString::number(display.displayID);
}

// The shared screen must be the display asked for, where the portal says which it shared.
void checkSharedScreen(const DesktopPortal::ScreenCast& cast, const DisplayInfo& display) {
    const QPoint origin(static_cast<int>(std::lround(display.frame.x)),
                        static_cast<int>(std::lround(display.frame.y)));
    if (cast.position() && *cast.position() != origin) {
        throw PlatformError(QStringLiteral(
            "The desktop shared another screen than the one Tessarel asked for. Choose the "
            "screen the capture is on."));
    }
}

// The display's size in points: what the portal reports, else what the display list says.
QSizeF logicalSize(const DesktopPortal::ScreenCast& cast, const DisplayInfo& display) {
    if (cast.size() && !cast.size()->isEmpty()) {
        return QSizeF(*cast.size());
    }
    return {display.frame.width, display.frame.height};
}

} // namespace

// ---- Snapshots ----------------------------------------------------------------------------

Image PortalScreenshotService::captureImage(const ContentFilter& filter,
                                            const ScreenshotConfiguration& configuration) {
    if (portal_.offersScreenCast()) {
        return fromScreenCast(filter, configuration.showsCursor);
    }
    return fromScreenshot(filter, configuration);
}

Image PortalScreenshotService::fromScreenCast(const ContentFilter& filter, bool withPointer) {
    const std::unique_ptr<DesktopPortal::ScreenCast> cast =
        portal_.shareMonitor(grantKey(filter.display), withPointer);
    checkSharedScreen(*cast, filter.display);
    PipeWireScreenStream stream(cast->takeRemote(), cast->nodeId(), !cast->pointerEmbedded(), {});
    stream.awaitFirstPicture(kFirstPictureTimeout);
    PipeWireScreenStream::Picture picture;
    stream.takeNewest(picture);
    Image image;
    image.width = picture.width;
    image.height = picture.height;
    image.bytesPerRow = picture.bytesPerRow;
    image.pixels = QByteArray(reinterpret_cast<const char*>(picture.pixels.data()),
                              static_cast<qsizetype>(picture.pixels.size()));
    return image;
}

Image PortalScreenshotService::fromScreenshot(const ContentFilter& filter,
                                              const ScreenshotConfiguration& configuration) {
    const QImage layoutPicture = portal_.screenshot();
    QRectF layout;
    for (const DisplayInfo& display : content_.shareableContent(false, true).displays) {
        layout = layout.united(
            QRectF(display.frame.x, display.frame.y, display.frame.width, display.frame.height));
    }
    if (layout.isEmpty()) {
        throw PlatformError(QStringLiteral("The desktop portal took no screenshot."));
    }
    // The screenshot spans the layout at one scale, that of its densest screen.
    const double scale = layoutPicture.width() / layout.width();
    const Rect& frame = filter.display.frame;
    const QRect part(static_cast<int>(std::lround((frame.x - layout.x()) * scale)),
                     static_cast<int>(std::lround((frame.y - layout.y()) * scale)),
                     static_cast<int>(std::lround(frame.width * scale)),
                     static_cast<int>(std::lround(frame.height * scale)));
    QImage picture = layoutPicture.copy(part);
    const QSize wanted(static_cast<int>(configuration.width),
                       static_cast<int>(configuration.height));
    if (!wanted.isEmpty() && wanted != picture.size()) {
        picture = picture.scaled(wanted, Qt::IgnoreAspectRatio, Qt::FastTransformation);
    }
    picture = picture.convertToFormat(QImage::Format_RGB32);
    Image image;
    image.width = picture.width();
    image.height = picture.height();
    image.bytesPerRow = image.width * 4;
    image.pixels.resize(static_cast<qsizetype>(image.bytesPerRow) * image.height);
    for (int y = 0; y < image.height; ++y) {
        std::memcpy(image.pixels.data() + static_cast<qsizetype>(y) * image.bytesPerRow,
                    picture.constScanLine(y), static_cast<size_t>(image.bytesPerRow));
    }
    return image;
}

// ---- Movies -------------------------------------------------------------------------------

namespace {

class PortalVideoStream final : public VideoCaptureStream {
public:
    PortalVideoStream(DesktopPortal& portal, ContentFilter filter,
                      VideoStreamConfiguration configuration, StreamDelegate* delegate)
        : portal_(portal), filter_(std::move(filter)), configuration_(configuration),
          delegate_(delegate) {}

    ~PortalVideoStream() override {
        try {
            stopCapture();
        } catch (...) { // nobody is left to tell
        }
    }

    void addRecordingOutput(const std::shared_ptr<RecordingOutput>& output) override {
        auto recorder = std::dynamic_pointer_cast<VideoFileRecorder>(output);
        if (!recorder || recorder_) {
            throw PlatformError(QStringLiteral("The stream cannot take this recorder."));
        }
        recorder_ = std::move(recorder);
    }

    void startCapture() override {
        if (thread_.joinable()) {
            throw PlatformError(QStringLiteral("The stream is already capturing."));
        }
        const int width = static_cast<int>(configuration_.width);
        const int height = static_cast<int>(configuration_.height);
        if (width <= 0 || height <= 0 || width > INT16_MAX || height > INT16_MAX) {
            throw PlatformError(QStringLiteral("The movie size is not valid."));
        }
        auto cast = portal_.shareMonitor(grantKey(filter_.display), configuration_.showsCursor);
        checkSharedScreen(*cast, filter_.display);
        logicalSize_ = logicalSize(*cast, filter_.display);
        auto source = std::make_unique<PipeWireScreenStream>(cast->takeRemote(), cast->nodeId(),
                                                             !cast->pointerEmbedded(),
                                                             [this](std::exception_ptr error) {
                                                                 {
                                                                     std::lock_guard guard(mutex_);
                                                                     sourceEnded_ = error;
                                                                 }
                                                                 wake_.notify_one();
                                                             });
        source->awaitFirstPicture(kFirstPictureTimeout);
        auto queue = std::make_unique<VideoFrameQueue>(configuration_.queueDepth, width, height);
        const int64_t intervalNs = frameIntervalNs();
        const int64_t startNs = monotonicNowNs();
        if (recorder_) {
            recorder_->start(*queue, width, height, startNs, intervalNs);
        }
        cast_ = std::move(cast);
        source_ = std::move(source);
        converter_ = std::make_unique<VideoFrameConverter>(width, height);
        current_ = {};
        previous_ = {};
        hasPrevious_ = false;
        queue_ = std::move(queue);
        stopping_ = false;
        thread_ = std::thread([this, startNs, intervalNs] { capture(startNs, intervalNs); });
    }

    void stopCapture() override {
        const int64_t endNs = monotonicNowNs();
        if (!thread_.joinable()) {
            return;
        }
        {
            std::lock_guard guard(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        thread_.join();
        queue_->close(endNs);
        if (recorder_) {
            recorder_->finish();
        }
        converter_.reset();
        source_.reset();
        cast_.reset(); // closes the session
    }

private:
    int64_t frameIntervalNs() const {
        const FrameInterval& interval = configuration_.minimumFrameInterval;
        const int64_t requested =
            interval.timescale > 0 ? interval.value * 1'000'000'000 / interval.timescale : 0;
        return std::max(requested, kShortestFrameIntervalNs);
    }

    // The area in the picture's pixels: the display-local points scaled by the picture's
    // size over the display's size in points, clipped to the picture. Where that is the
    // output size or one pixel more (the output is rounded down to even), the output size
    // is taken as it is rather than resampled.
    QRect pixelArea(const PipeWireScreenStream::Picture& picture) const {
        const double scaleX = picture.width / logicalSize_.width();
        const double scaleY = picture.height / logicalSize_.height();
        const Rect& source = configuration_.sourceRect;
        QRect wanted(static_cast<int>(std::lround(source.x * scaleX)),
                     static_cast<int>(std::lround(source.y * scaleY)),
                     static_cast<int>(std::lround(source.width * scaleX)),
                     static_cast<int>(std::lround(source.height * scaleY)));
        if (wanted.width() - configuration_.width == 1) {
            wanted.setWidth(static_cast<int>(configuration_.width));
        }
        if (wanted.height() - configuration_.height == 1) {
            wanted.setHeight(static_cast<int>(configuration_.height));
        }
        return wanted.intersected(QRect(0, 0, picture.width, picture.height));
    }

    // The capture thread: at most one look per tick of a fixed grid; a tick missed entirely
    // is skipped rather than made up in a burst.
    void capture(int64_t startNs, int64_t intervalNs) {
        pthread_setname_np(pthread_self(), "Tessarel.cast");
        try {
            for (int64_t tick = 0;;
                 tick = std::max(tick + 1, (monotonicNowNs() - startNs) / intervalNs)) {
                const std::chrono::steady_clock::time_point deadline{
                    std::chrono::nanoseconds(startNs + tick * intervalNs)};
                {
                    std::unique_lock guard(mutex_);
                    if (wake_.wait_until(guard, deadline,
                                         [this] { return stopping_ || sourceEnded_; })) {
                        if (stopping_) {
                            return;
                        }
                        std::rethrow_exception(sourceEnded_);
                    }
                }
                passOn();
            }
        } catch (...) {
            delegate_->streamDidStop(std::current_exception());
        }
    }

    VideoGrab grabOf(const PipeWireScreenStream::Picture& picture) const {
        const QRect area = pixelArea(picture);
        return {picture.pixels.data() + static_cast<ptrdiff_t>(area.y()) * picture.bytesPerRow +
                    static_cast<ptrdiff_t>(area.x()) * 4,
                area.width(), area.height(), picture.bytesPerRow};
    }

    // Passes on the newest picture at every tick, the last one again when none came, so
    // the movie keeps its pace whatever the desktop sends. Only what differs from the
    // picture passed on before is converted.
    void passOn() {
        const int64_t captureNs = monotonicNowNs();
        if (source_->takeNewest(current_)) {
            const QRect area = pixelArea(current_);
            if (area.isEmpty()) {
                throw PlatformError(QStringLiteral("The area to record lies outside the display."));
            }
            const bool comparable = hasPrevious_ && previous_.width == current_.width &&
                                    previous_.height == current_.height;
            std::optional<VideoGrab> previous;
            if (comparable) {
                previous = grabOf(previous_);
            }
            const PixelSpan mayDiffer{current_.changedRows.begin - area.y(),
                                      current_.changedRows.end - area.y()};
            converter_->differs(grabOf(current_), previous ? &*previous : nullptr, mayDiffer);
            std::swap(previous_, current_);
            hasPrevious_ = true;
        } else if (hasPrevious_) {
            const VideoGrab last = grabOf(previous_);
            converter_->differs(last, &last, PixelSpan{});
        } else {
            return;
        }
        VideoFrame& frame = queue_->acquire();
        converter_->convert(frame);
        frame.captureTimeNs = captureNs;
        queue_->publish(frame);
    }

    DesktopPortal& portal_;
    const ContentFilter filter_;
    const VideoStreamConfiguration configuration_;
    StreamDelegate* const delegate_;
    std::shared_ptr<VideoFileRecorder> recorder_;
    std::unique_ptr<VideoFrameQueue> queue_;
    std::unique_ptr<DesktopPortal::ScreenCast> cast_;
    std::unique_ptr<PipeWireScreenStream> source_;
    QSizeF logicalSize_;
    // The capture thread's while it runs.
    std::unique_ptr<VideoFrameConverter> converter_;
    PipeWireScreenStream::Picture current_;
    PipeWireScreenStream::Picture previous_; // the last picture passed on
    bool hasPrevious_ = false;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::exception_ptr sourceEnded_;
    std::thread thread_;
};

} // namespace

std::vector<VideoCodec> PortalVideoCaptureService::availableVideoCodecTypes() {
    return VideoFileRecorder::availableCodecs();
}

std::shared_ptr<VideoCaptureStream> PortalVideoCaptureService::makeStream(
    const ContentFilter& filter, const VideoStreamConfiguration& config, StreamDelegate* delegate) {
    return std::make_shared<PortalVideoStream>(portal_, filter, config, delegate);
}

std::shared_ptr<RecordingOutput>
PortalVideoCaptureService::makeRecordingOutput(const RecordingOutputConfiguration& config,
                                               RecordingOutputDelegate* delegate) {
    return std::make_shared<VideoFileRecorder>(config, delegate);
}
