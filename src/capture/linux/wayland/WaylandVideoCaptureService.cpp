#include "capture/linux/wayland/WaylandVideoCaptureService.h"

#include "capture/linux/MonotonicClock.h"
#include "capture/linux/VideoFrameConverter.h"
#include "capture/linux/VideoPacing.h"
#include "capture/linux/wayland/WaylandConnection.h"
#include "capture/linux/wayland/WaylandScreencopy.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <optional>
#include <vector>

namespace {

// A compositor that has not made the first copy by then is not going to.
constexpr std::chrono::seconds kFirstCopyTimeout{10};

std::chrono::steady_clock::time_point monotonicTimePoint(int64_t ns) {
    return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(ns));
}

class WaylandVideoStream final : public ScreenVideoStream {
public:
    WaylandVideoStream(QByteArray displayName, ContentFilter filter,
                       VideoStreamConfiguration configuration, StreamDelegate* delegate)
        : ScreenVideoStream(configuration, delegate, "Tessarel.grab"),
          displayName_(std::move(displayName)), filter_(std::move(filter)) {}

    ~WaylandVideoStream() override { stopQuietly(); }

    WaylandVideoCaptureService::Counts counts() const {
        return {ticks_,          copiesMade_,     skippedIdentical_,
                droppedFrames(), encodedFrames(), captureCpuSeconds_};
    }

private:
    void setUp(int width, int height) override {
        auto connection = std::make_unique<WaylandConnection>(displayName_);
        const WaylandOutput output = connection->output(filter_.display.displayID);
        std::array<std::unique_ptr<WaylandShmBuffer>, 2> copies;
        bool yInverted = false;
        {
            // The first copy tells the buffer's size; it is the movie's first picture too.
            WaylandFrameCopy first(*connection, output.output, configuration().showsCursor, false,
                                   copies[0]);
            if (!connection->dispatchUntil([&] { return first.finished(); },
                                           std::chrono::steady_clock::now() + kFirstCopyTimeout)) {
                throw PlatformError(
                    QStringLiteral("The compositor did not copy the screen in time."));
            }
            if (first.outcome() != WaylandFrameCopy::Outcome::ready) {
                first.throwFailure();
            }
            yInverted = first.yInverted();
        }
        const PixelRect area = pixelArea(copies[0]->layout(), output.logical);
        if (area.isEmpty()) {
            throw PlatformError(QStringLiteral("The area to record lies outside the display."));
        }
        const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wake < 0) {
            throw PlatformError(QStringLiteral("The stream cannot be started."));
        }
        connection_ = std::move(connection);
        output_ = output.output;
        copies_ = std::move(copies);
        yInverted_ = yInverted;
        area_ = area;
        // Straight from the shared memory where nothing needs turning or reordering.
        direct_ = !yInverted && copies_[0]->inCaptureOrder() && area.width == width &&
                  area.height == height;
        scratch_ = {};
        fresh_ = 0;
        previousGrab_.reset();
        wake_ = wake;
        stopping_ = false;
    }

    void requestStop() override {
        stopping_ = true;
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(wake_, &one, sizeof one);
    }

    void release() override {
        close(wake_);
        wake_ = -1;
        pending_.reset();
        copies_ = {};
        connection_.reset();
    }

    // The source rectangle in the buffer's pixels, clipped to it: points scale by the
    // buffer's size over the output's logical size. Where that is the output size or one
    // pixel more (the output is rounded down to even), the output size is taken as it is
    // rather than resampled.
    PixelRect pixelArea(const WaylandShmBuffer::Layout& buffer, const Rect& logical) const {
        const Rect& source = configuration().sourceRect;
        const double perPointX = buffer.width / logical.width;
        const double perPointY = buffer.height / logical.height;
        PixelRect wanted{static_cast<int>(std::lround(source.x * perPointX)),
                         static_cast<int>(std::lround(source.y * perPointY)),
                         static_cast<int>(std::lround(source.width * perPointX)),
                         static_cast<int>(std::lround(source.height * perPointY))};
        wanted.width = fittedToMovie(wanted.width, configuration().width);
        wanted.height = fittedToMovie(wanted.height, configuration().height);
        return wanted.intersected({0, 0, buffer.width, buffer.height});
    }

    // The capture thread: handles the compositor's events between the ticks of a fixed
    // grid and looks at the newest copy at each tick. A tick missed entirely is skipped
    // rather than made up in a burst. At most one copy is asked for at a time, into the
    // buffer the last frame passed on is not in.
    void capture(int64_t startNs, int64_t intervalNs) override {
        lastPassedOnNs_ = startNs - kLongestFrameIntervalNs;
        try {
            for (int64_t tick = 0;;
                 tick = std::max(tick + 1, (monotonicNowNs() - startNs) / intervalNs)) {
                connection_->dispatchUntil([this] { return stopping_.load(); },
                                           monotonicTimePoint(startNs + tick * intervalNs), wake_);
                if (stopping_) {
                    noteCpuTime();
                    return;
                }
                if (pending_ && pending_->finished()) {
                    if (pending_->outcome() != WaylandFrameCopy::Outcome::ready) {
                        pending_->throwFailure();
                    }
                    yInverted_ = pending_->yInverted();
                    fresh_ = pendingSlot_;
                    pending_.reset();
                    ++copiesMade_;
                }
                passOn();
                if (!pending_ && !fresh_) {
                    pendingSlot_ = previousGrab_ == 0u ? 1 : 0;
                    pending_ = std::make_unique<WaylandFrameCopy>(*connection_, output_,
                                                                  configuration().showsCursor, true,
                                                                  copies_[pendingSlot_]);
                }
            }
        } catch (...) {
            noteCpuTime();
            throw;
        }
    }

    // The capture thread, as it ends.
    void noteCpuTime() { captureCpuSeconds_ = threadCpuSeconds(); }

    VideoGrab grabOf(size_t slot) {
        const WaylandShmBuffer& copy = *copies_[slot];
        if (direct_) {
            return {copy.pixels() + static_cast<ptrdiff_t>(area_.y) * copy.layout().stride +
                        static_cast<ptrdiff_t>(area_.x) * 4,
                    area_.width, area_.height, copy.layout().stride};
        }
        std::vector<uint8_t>& pixels = scratch_[slot];
        pixels.resize(static_cast<size_t>(area_.width) * static_cast<size_t>(area_.height) * 4);
        copy.copyArea(area_, yInverted_, pixels.data(), area_.width * 4);
        return {pixels.data(), area_.width, area_.height, area_.width * 4};
    }

    // A new copy that differs from the last frame goes on to the recorder; without one, the
    // last frame is repeated once a second.
    void passOn() {
        const int64_t captureNs = monotonicNowNs();
        ++ticks_;
        const bool heartbeat = captureNs - lastPassedOnNs_ >= kLongestFrameIntervalNs;
        if (fresh_) {
            const size_t current = *std::exchange(fresh_, std::nullopt);
            const VideoGrab grab = grabOf(current);
            std::optional<VideoGrab> previous;
            if (previousGrab_) {
                previous = lastGrab_;
            }
            if (!converter().differs(grab, previous ? &*previous : nullptr) && !heartbeat) {
                ++skippedIdentical_;
                return;
            }
            previousGrab_ = current;
            lastGrab_ = grab;
        } else if (heartbeat && previousGrab_) {
            converter().differs(lastGrab_, &lastGrab_, PixelSpan{});
        } else {
            ++skippedIdentical_;
            return;
        }
        lastPassedOnNs_ = captureNs;
        passOnFrame(captureNs);
    }

    const QByteArray displayName_;
    const ContentFilter filter_;
    // Made by setUp, then used by the capture thread only until it is joined.
    std::unique_ptr<WaylandConnection> connection_;
    wl_output* output_ = nullptr;
    std::array<std::unique_ptr<WaylandShmBuffer>, 2> copies_;
    std::array<std::vector<uint8_t>, 2> scratch_; // the area, where it cannot be read in place
    bool yInverted_ = false;
    bool direct_ = false;
    PixelRect area_;
    std::unique_ptr<WaylandFrameCopy> pending_; // asked for, not yet made
    size_t pendingSlot_ = 0;
    std::optional<size_t> fresh_;        // a copy made but not looked at yet
    std::optional<size_t> previousGrab_; // the copy the last frame passed on was made from
    VideoGrab lastGrab_;
    int64_t lastPassedOnNs_ = 0;
    int wake_ = -1;
    std::atomic<bool> stopping_{false};
    // Written by the capture thread, read by any.
    std::atomic<long long> ticks_{0};
    std::atomic<long long> copiesMade_{0};
    std::atomic<long long> skippedIdentical_{0};
    std::atomic<double> captureCpuSeconds_{0};
};

} // namespace

WaylandVideoCaptureService::WaylandVideoCaptureService(QByteArray displayName)
    : displayName_(std::move(displayName)) {}

std::shared_ptr<VideoCaptureStream> WaylandVideoCaptureService::makeStream(
    const ContentFilter& filter, const VideoStreamConfiguration& config, StreamDelegate* delegate) {
    return std::make_shared<WaylandVideoStream>(displayName_, filter, config, delegate);
}

WaylandVideoCaptureService::Counts
WaylandVideoCaptureService::counts(const VideoCaptureStream& stream) {
    const auto* ours = dynamic_cast<const WaylandVideoStream*>(&stream);
    return ours ? ours->counts() : Counts{};
}
