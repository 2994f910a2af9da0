#include "capture/linux/wayland/WaylandScreenshotService.h"

#include "capture/linux/wayland/WaylandConnection.h"
#include "capture/linux/wayland/WaylandScreencopy.h"

#include <libyuv.h>

#include <chrono>
#include <cstdint>
#include <vector>

namespace {

// A compositor that has not copied an output by then is not going to.
constexpr std::chrono::seconds kCopyTimeout{10};

} // namespace

WaylandScreenshotService::WaylandScreenshotService(QByteArray displayName)
    : displayName_(std::move(displayName)) {}

WaylandScreenshotService::~WaylandScreenshotService() = default;

Image WaylandScreenshotService::captureImage(const ContentFilter& filter,
                                             const ScreenshotConfiguration& configuration) {
    if (configuration.width <= 0 || configuration.height <= 0 || configuration.width > INT16_MAX ||
        configuration.height > INT16_MAX) {
        throw PlatformError(QStringLiteral("The snapshot size is not valid."));
    }
    std::lock_guard guard(mutex_);
    try {
        if (!connection_) {
            connection_ = std::make_unique<WaylandConnection>(displayName_);
        } else {
            connection_->refreshOutputs();
        }
        return copyOutput(filter, configuration);
    } catch (...) {
        connection_.reset(); // the next snapshot starts afresh
        throw;
    }
}

Image WaylandScreenshotService::copyOutput(const ContentFilter& filter,
                                           const ScreenshotConfiguration& configuration) {
    const WaylandOutput& output = connection_->output(filter.display.displayID);
    std::unique_ptr<WaylandShmBuffer> buffer;
    WaylandFrameCopy copy(*connection_, output.output, configuration.showsCursor, false, buffer);
    if (!connection_->dispatchUntil([&] { return copy.finished(); },
                                    std::chrono::steady_clock::now() + kCopyTimeout)) {
        throw PlatformError(QStringLiteral("The compositor did not copy the screen in time."));
    }
    if (copy.outcome() != WaylandFrameCopy::Outcome::ready) {
        copy.throwFailure();
    }
    const WaylandShmBuffer::Layout& layout = buffer->layout();
    const PixelRect whole{0, 0, layout.width, layout.height};
    Image image;
    image.width = static_cast<int>(configuration.width);
    image.height = static_cast<int>(configuration.height);
    image.bytesPerRow = image.width * 4;
    image.pixels =
        QByteArray(static_cast<qsizetype>(image.bytesPerRow) * image.height, Qt::Uninitialized);
    auto* destination = reinterpret_cast<uint8_t*>(image.pixels.data());
    if (image.width == layout.width && image.height == layout.height) {
        buffer->copyArea(whole, copy.yInverted(), destination, image.bytesPerRow);
    } else {
        std::vector<uint8_t> full(static_cast<size_t>(layout.width) * layout.height * 4);
        buffer->copyArea(whole, copy.yInverted(), full.data(), layout.width * 4);
        libyuv::ARGBScale(full.data(), layout.width * 4, layout.width, layout.height, destination,
                          image.bytesPerRow, image.width, image.height, libyuv::kFilterBox);
    }
    return image;
}
