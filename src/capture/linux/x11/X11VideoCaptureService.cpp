#include "capture/linux/x11/X11VideoCaptureService.h"

#include "capture/linux/MonotonicClock.h"
#include "capture/linux/VideoFrameConverter.h"
#include "capture/linux/VideoPacing.h"
#include "capture/linux/x11/X11AreaGrabber.h"
#include "capture/linux/x11/X11Connection.h"
#include "capture/linux/x11/X11Pointer.h"
#include "capture/linux/x11/X11ShmImage.h"

#include <xcb/xfixes.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>

namespace {

class X11VideoStream final : public ScreenVideoStream {
public:
    X11VideoStream(QByteArray displayName, ContentFilter filter,
                   VideoStreamConfiguration configuration, StreamDelegate* delegate)
        : ScreenVideoStream(configuration, delegate, "Tessarel.grab"),
          displayName_(std::move(displayName)), filter_(std::move(filter)) {}

    ~X11VideoStream() override { stopQuietly(); }

    X11VideoCaptureService::Counts counts() const {
        return {captured_,       screenReads_,    rowsRead_,       skippedIdentical_,
                droppedFrames(), encodedFrames(), windowListings_, captureCpuSeconds_};
    }

private:
    void setUp(int, int) override {
        auto connection = std::make_unique<X11Connection>(displayName_);
        const PixelRect area = pixelArea(connection->rootGeometry());
        if (area.isEmpty()) {
            throw PlatformError(QStringLiteral("The area to record lies outside the display."));
        }
        std::vector<int64_t> excluded;
        for (const RunningApplication& application : filter_.excludedApplications) {
            excluded.push_back(application.processID);
        }
        auto grabber = std::make_unique<X11AreaGrabber>(
            *connection, area, std::move(excluded), X11AreaGrabber::WithoutComposition::blackOut);
        std::array<std::unique_ptr<X11ShmImage>, 2> grabs{
            std::make_unique<X11ShmImage>(*connection), std::make_unique<X11ShmImage>(*connection)};
        if (configuration().showsCursor) {
            requirePointerImages(*connection);
        }
        connection_ = std::move(connection);
        grabber_ = std::move(grabber);
        grabs_ = std::move(grabs);
        previousGrab_.reset();
        lastPointer_.reset();
        staleRows_ = {PixelSpan{0, area.height}, PixelSpan{0, area.height}};
        pointerRows_ = {};
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
        grabs_ = {};
        grabber_.reset();
        connection_.reset();
    }

    // The source rectangle in root pixels: the display's origin plus the display-local
    // rectangle scaled to pixels, clipped to the display. Where that is the output size
    // or one pixel more (the output is rounded down to even), the output size is taken
    // as it is rather than resampled.
    PixelRect pixelArea(const PixelRect& root) const {
        const Rect& frame = filter_.display.frame;
        const Rect& source = configuration().sourceRect;
        const double scale =
            configuration().pixelsPerPoint > 0 ? configuration().pixelsPerPoint : 1.0;
        const PixelRect display{static_cast<int>(std::lround(frame.x)),
                                static_cast<int>(std::lround(frame.y)),
                                static_cast<int>(std::lround(frame.width)),
                                static_cast<int>(std::lround(frame.height))};
        PixelRect wanted{display.x + static_cast<int>(std::lround(source.x * scale)),
                         display.y + static_cast<int>(std::lround(source.y * scale)),
                         static_cast<int>(std::lround(source.width * scale)),
                         static_cast<int>(std::lround(source.height * scale))};
        wanted.width = fittedToMovie(wanted.width, configuration().width);
        wanted.height = fittedToMovie(wanted.height, configuration().height);
        return wanted.intersected(display).intersected(root);
    }

    // The capture thread: at most one grab per tick of a fixed grid. A grab that ran into
    // the next tick's interval is followed by that tick's at once; a tick missed entirely
    // is skipped rather than made up in a burst.
    void capture(int64_t startNs, int64_t intervalNs) override {
        lastPassedOnNs_ = startNs - kLongestFrameIntervalNs;
        for (int64_t tick = 0;;
             tick = std::max(tick + 1, (monotonicNowNs() - startNs) / intervalNs)) {
            const std::chrono::steady_clock::time_point deadline{
                std::chrono::nanoseconds(startNs + tick * intervalNs)};
            {
                std::unique_lock guard(mutex_);
                if (wake_.wait_until(guard, deadline, [this] { return stopping_; })) {
                    noteCpuTime();
                    return;
                }
            }
            grabFrame();
        }
    }

    // The capture thread, as it ends.
    void noteCpuTime() { captureCpuSeconds_ = threadCpuSeconds(); }

    // Where the pointer is and which image it shows, while that image touches the area.
    struct PointerState {
        int x = 0;
        int y = 0;
        uint32_t serial = 0;
        friend bool operator==(const PointerState&, const PointerState&) = default;
    };

    std::optional<PointerState>
    pointerInArea(const xcb_xfixes_get_cursor_image_reply_t* cursor) const {
        if (!cursor) {
            return std::nullopt;
        }
        const PixelRect image{cursor->x - cursor->xhot, cursor->y - cursor->yhot, cursor->width,
                              cursor->height};
        if (image.intersected(grabber_->area()).isEmpty()) {
            return std::nullopt;
        }
        return PointerState{cursor->x, cursor->y, cursor->cursor_serial};
    }

    // Nothing is read while nobody draws in the area and the pointer there stays as it was;
    // the frame a second the recorder needs then repeats the last picture. Otherwise grabs
    // into the buffer the last frame passed on is not in, so the two can be compared without
    // a copy; an unchanged grab goes no further than that comparison.
    void grabFrame() {
        xcb_connection_t* c = connection_->get();
        const int64_t captureNs = monotonicNowNs();
        ++captured_;
        // Asked first, answered while the area is read.
        std::optional<xcb_xfixes_get_cursor_image_cookie_t> cursorRequest;
        if (configuration().showsCursor) {
            cursorRequest = xcb_xfixes_get_cursor_image(c);
        }
        XcbReply<xcb_xfixes_get_cursor_image_reply_t> cursor;
        const auto collectCursor = [&] {
            if (cursorRequest) {
                cursor.reset(xcb_xfixes_get_cursor_image_reply(c, *cursorRequest, nullptr));
                cursorRequest.reset();
            }
        };
        const bool heartbeat = captureNs - lastPassedOnNs_ >= kLongestFrameIntervalNs;
        const auto grabOf = [](const X11ShmImage& shm) {
            return VideoGrab{shm.pixels(), shm.width(), shm.height(), shm.bytesPerRow()};
        };
        bool unchanged = false;
        if (!grabber_->mayHaveChangedSinceLastGrab() && previousGrab_) {
            collectCursor();
            unchanged = pointerInArea(cursor.get()) == lastPointer_;
        }
        if (unchanged) {
            if (!heartbeat) {
                ++skippedIdentical_;
                return;
            }
            const VideoGrab last = grabOf(*grabs_[*previousGrab_]);
            converter().differs(last, &last, PixelSpan{});
        } else {
            const size_t current = previousGrab_ == 0u ? 1 : 0;
            X11ShmImage& image = *grabs_[current];
            PixelSpan stale = staleRows_[current];
            stale.unite(pointerRows_[current]);
            const X11AreaGrabber::Grab read = grabber_->grab(image, stale);
            windowListings_ = grabber_->windowListings();
            ++screenReads_;
            rowsRead_ += read.read.end - read.read.begin;
            const PixelSpan everyRow{0, image.height()};
            if (read.screenAsItIs) {
                staleRows_[current] = {};
                staleRows_[1 - current].unite(read.drawn);
            } else {
                staleRows_ = {everyRow, everyRow};
            }
            collectCursor();
            lastPointer_ = pointerInArea(cursor.get());
            pointerRows_[current] =
                lastPointer_ ? drawPointer(*cursor, grabber_->area(), image) : PixelSpan{};
            // Outside these rows both pictures are the screen as it is.
            PixelSpan mayDiffer = read.screenAsItIs ? read.read : everyRow;
            mayDiffer.unite(pointerRows_[current]);
            std::optional<VideoGrab> previous;
            if (previousGrab_) {
                previous = grabOf(*grabs_[*previousGrab_]);
                mayDiffer.unite(pointerRows_[*previousGrab_]);
                mayDiffer.unite(staleRows_[*previousGrab_]);
            }
            if (!converter().differs(grabOf(image), previous ? &*previous : nullptr, mayDiffer) &&
                !heartbeat) {
                ++skippedIdentical_;
                return;
            }
            previousGrab_ = current;
        }
        lastPassedOnNs_ = captureNs;
        passOnFrame(captureNs);
    }

    const QByteArray displayName_;
    const ContentFilter filter_;
    // Made by setUp, then used by the capture thread only until it is joined.
    std::unique_ptr<X11Connection> connection_;
    std::unique_ptr<X11AreaGrabber> grabber_;
    std::array<std::unique_ptr<X11ShmImage>, 2> grabs_;
    std::optional<size_t> previousGrab_;      // the grab the last frame passed on was made from
    std::optional<PointerState> lastPointer_; // drawn into the last grab, if it was
    // Per grab buffer: rows that may differ from the screen as it is now, and rows the
    // pointer was drawn over.
    std::array<PixelSpan, 2> staleRows_;
    std::array<PixelSpan, 2> pointerRows_;
    int64_t lastPassedOnNs_ = 0;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    // Written by the capture thread, read by any.
    std::atomic<long long> captured_{0};
    std::atomic<long long> screenReads_{0};
    std::atomic<long long> rowsRead_{0};
    std::atomic<long long> skippedIdentical_{0};
    std::atomic<long long> windowListings_{0};
    std::atomic<double> captureCpuSeconds_{0};
};

} // namespace

X11VideoCaptureService::X11VideoCaptureService(QByteArray displayName)
    : displayName_(std::move(displayName)) {}

std::shared_ptr<VideoCaptureStream> X11VideoCaptureService::makeStream(
    const ContentFilter& filter, const VideoStreamConfiguration& config, StreamDelegate* delegate) {
    return std::make_shared<X11VideoStream>(displayName_, filter, config, delegate);
}

X11VideoCaptureService::Counts X11VideoCaptureService::counts(const VideoCaptureStream& stream) {
    const auto* ours = dynamic_cast<const X11VideoStream*>(&stream);
    return ours ? ours->counts() : Counts{};
}
