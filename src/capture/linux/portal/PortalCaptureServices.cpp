#include "capture/linux/portal/PortalCaptureServices.h"

#include "capture/linux/MonotonicClock.h"
#include "capture/linux/VideoFrameConverter.h"
#include "capture/linux/VideoPacing.h"
#include "capture/linux/portal/DesktopPortal.h"
#include "capture/linux/portal/PipeWireScreenStream.h"

#include <QCoreApplication>
#include <QImage>
#include <QRect>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>

namespace {

constexpr std::chrono::seconds kFirstPictureTimeout{10};

// Every capture first: a portal must answer. Asked here rather than when the layer is
// chosen, since that may happen on the GUI thread.
void requirePortal(DesktopPortal& portal) {
    if (!portal.isReachable()) {
        throw PlatformError(QStringLiteral(
            "This Wayland desktop does not let applications copy the screen, and no desktop "
            "portal answers to ask it for the screen."));
    }
}

// The GUI's own thread, where nothing may wait for the portal's dialog.
bool onGuiThread() {
    const QCoreApplication* application = QCoreApplication::instance();
    return application != nullptr && application->inherits("QGuiApplication") &&
           QThread::currentThread() == application->thread();
}

// Where a display lies in the layout, in points: the portal's grants are kept by it and
// its shared screens say where they lie.
QPoint placeOf(const DisplayInfo& display) {
    return {static_cast<int>(std::lround(display.frame.x)),
            static_cast<int>(std::lround(display.frame.y))};
}

// The shared screen must be the display asked for, where the portal says which it shared.
void checkSharedScreen(const DesktopPortal::ScreenCast& cast, const DisplayInfo& display) {
    if (cast.position() && *cast.position() != placeOf(display)) {
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
    // The region overlay asks from the GUI thread for a still picture of the screen; it does
    // without one rather than freeze while the portal asks the user.
    if (onGuiThread()) {
        throw PlatformError(QStringLiteral("The desktop portal is not asked from the GUI."));
    }
    requirePortal(portal_);
    if (portal_.offersScreenCast()) {
        return fromScreenCast(filter, configuration.showsCursor);
    }
    return fromScreenshot(filter, configuration);
}

Image PortalScreenshotService::fromScreenCast(const ContentFilter& filter, bool withPointer) {
    const std::unique_ptr<DesktopPortal::ScreenCast> cast =
        portal_.shareMonitor(placeOf(filter.display), withPointer);
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

class PortalVideoStream final : public ScreenVideoStream {
public:
    PortalVideoStream(DesktopPortal& portal, ContentFilter filter,
                      VideoStreamConfiguration configuration, StreamDelegate* delegate)
        : ScreenVideoStream(configuration, delegate, "Tessarel.cast"), portal_(portal),
          filter_(std::move(filter)) {}

    ~PortalVideoStream() override { stopQuietly(); }

private:
    void setUp(int, int) override {
        requirePortal(portal_);
        auto cast = portal_.shareMonitor(placeOf(filter_.display), configuration().showsCursor);
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
        cast_ = std::move(cast);
        source_ = std::move(source);
        current_ = {};
        previous_ = {};
        hasPrevious_ = false;
        stopping_ = false;
    }

    void requestStop() override {
        {
            std::lock_guard guard(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
    }

    void release() override {
        source_.reset();
        cast_.reset(); // closes the session
    }

    // The area in the picture's pixels: the display-local points scaled by the picture's
    // size over the display's size in points, clipped to the picture. Where that is the
    // output size or one pixel more (the output is rounded down to even), the output size
    // is taken as it is rather than resampled.
    QRect pixelArea(const PipeWireScreenStream::Picture& picture) const {
        const double scaleX = picture.width / logicalSize_.width();
        const double scaleY = picture.height / logicalSize_.height();
        const Rect& source = configuration().sourceRect;
        QRect wanted(static_cast<int>(std::lround(source.x * scaleX)),
                     static_cast<int>(std::lround(source.y * scaleY)),
                     static_cast<int>(std::lround(source.width * scaleX)),
                     static_cast<int>(std::lround(source.height * scaleY)));
        wanted.setWidth(fittedToMovie(wanted.width(), configuration().width));
        wanted.setHeight(fittedToMovie(wanted.height(), configuration().height));
        return wanted.intersected(QRect(0, 0, picture.width, picture.height));
    }

    // The capture thread: at most one look per tick of a fixed grid; a tick missed entirely
    // is skipped rather than made up in a burst.
    void capture(int64_t startNs, int64_t intervalNs) override {
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
            converter().differs(grabOf(current_), previous ? &*previous : nullptr, mayDiffer);
            std::swap(previous_, current_);
            hasPrevious_ = true;
        } else if (hasPrevious_) {
            const VideoGrab last = grabOf(previous_);
            converter().differs(last, &last, PixelSpan{});
        } else {
            return;
        }
        passOnFrame(captureNs);
    }

    DesktopPortal& portal_;
    const ContentFilter filter_;
    std::unique_ptr<DesktopPortal::ScreenCast> cast_;
    std::unique_ptr<PipeWireScreenStream> source_;
    QSizeF logicalSize_;
    // The capture thread's while it runs.
    PipeWireScreenStream::Picture current_;
    PipeWireScreenStream::Picture previous_; // the last picture passed on
    bool hasPrevious_ = false;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::exception_ptr sourceEnded_;
};

} // namespace

std::shared_ptr<VideoCaptureStream> PortalVideoCaptureService::makeStream(
    const ContentFilter& filter, const VideoStreamConfiguration& config, StreamDelegate* delegate) {
    return std::make_shared<PortalVideoStream>(portal_, filter, config, delegate);
}
