#include "capture/linux/x11/X11ScreenshotService.h"

#include "capture/linux/x11/X11AreaGrabber.h"
#include "capture/linux/x11/X11Connection.h"
#include "capture/linux/x11/X11Pointer.h"
#include "capture/linux/x11/X11ShmImage.h"

#include <libyuv.h>
#include <sys/mman.h>

#include <cmath>
#include <cstdint>
#include <optional>

namespace {

// A buffer for an image's pixels whose pages, once touched, come in huge pages where the
// system allows it: the first snapshot after an idle pause otherwise spends more on a
// fault per 4 KiB page of a 4K image than on copying its pixels.
QByteArray freshPixelBuffer(qsizetype size) {
    QByteArray buffer(size, Qt::Uninitialized);
    constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;
    const auto start = reinterpret_cast<std::uintptr_t>(buffer.data());
    const std::uintptr_t first = (start + kHugePage - 1) & ~(kHugePage - 1);
    const std::uintptr_t end = (start + static_cast<std::uintptr_t>(size)) & ~(kHugePage - 1);
    if (end > first) {
        // Only a hint: without it the pages are merely smaller.
        madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
    }
    return buffer;
}

} // namespace

X11ScreenshotService::X11ScreenshotService(QByteArray displayName,
                                           std::chrono::milliseconds keepPixelsFor)
    : displayName_(std::move(displayName)), keepPixelsFor_(keepPixelsFor) {}

X11ScreenshotService::~X11ScreenshotService() {
    {
        std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (releaser_.joinable()) {
        releaser_.join();
    }
}

void X11ScreenshotService::releasePixelsWhenIdle() {
    std::unique_lock guard(mutex_);
    while (!stopping_) {
        const auto due = lastCapture_ + keepPixelsFor_;
        if (std::chrono::steady_clock::now() >= due) {
            image_.reset();
            spare_ = QByteArray();
            break;
        }
        wake_.wait_until(guard, due);
    }
    releasing_ = false;
}

Image X11ScreenshotService::captureImage(const ContentFilter& filter,
                                         const ScreenshotConfiguration& configuration) {
    if (configuration.width <= 0 || configuration.height <= 0 || configuration.width > INT16_MAX ||
        configuration.height > INT16_MAX) {
        throw PlatformError(QStringLiteral("The snapshot size is not valid."));
    }
    std::lock_guard guard(mutex_);
    if (connection_ && xcb_connection_has_error(connection_->get())) {
        image_.reset(); // the server went away; try a new connection
        connection_.reset();
    }
    if (!connection_) {
        connection_ = std::make_unique<X11Connection>(displayName_);
    }
    if (!image_) {
        image_ = std::make_unique<X11ShmImage>(*connection_);
    }
    const Rect& frame = filter.display.frame;
    const PixelRect area =
        PixelRect{static_cast<int>(std::lround(frame.x)), static_cast<int>(std::lround(frame.y)),
                  static_cast<int>(std::lround(frame.width)),
                  static_cast<int>(std::lround(frame.height))}
            .intersected(connection_->rootGeometry());
    if (area.isEmpty()) {
        throw PlatformError(QStringLiteral("The display lies outside the X screen."));
    }
    std::vector<int64_t> excluded;
    for (const RunningApplication& application : filter.excludedApplications) {
        excluded.push_back(application.processID);
    }
    // X servers never put the pointer into an image they are asked for: leaving it out needs
    // no work, showing it means drawing its own image over the picture.
    std::optional<xcb_xfixes_get_cursor_image_cookie_t> cursorRequest;
    if (configuration.showsCursor) {
        requirePointerImages(*connection_);
        cursorRequest = xcb_xfixes_get_cursor_image(connection_->get());
    }
    X11AreaGrabber(*connection_, area, std::move(excluded),
                   X11AreaGrabber::WithoutComposition::hideWhileGrabbing)
        .grab(*image_);
    if (cursorRequest) {
        const XcbReply<xcb_xfixes_get_cursor_image_reply_t> cursor(
            xcb_xfixes_get_cursor_image_reply(connection_->get(), *cursorRequest, nullptr));
        if (!cursor) {
            throw PlatformError(QStringLiteral("The X server cannot show the pointer."));
        }
        drawPointer(*cursor, area, *image_);
    }

    // One copy, straight from the segment into the image's buffer: the last image's, when
    // its receiver has let go of it, as fresh pages cost more to fill than the copy itself.
    Image image;
    image.width = static_cast<int>(configuration.width);
    image.height = static_cast<int>(configuration.height);
    image.bytesPerRow = image.width * 4;
    const qsizetype size = static_cast<qsizetype>(image.bytesPerRow) * image.height;
    if (spare_.size() != size || !spare_.isDetached()) {
        spare_ = freshPixelBuffer(size);
    }
    auto* destination = reinterpret_cast<uint8_t*>(spare_.data());
    if (image.width == area.width && image.height == area.height) {
        libyuv::ARGBCopy(image_->pixels(), image_->bytesPerRow(), destination, image.bytesPerRow,
                         image.width, image.height);
    } else {
        libyuv::ARGBScale(image_->pixels(), image_->bytesPerRow(), area.width, area.height,
                          destination, image.bytesPerRow, image.width, image.height,
                          libyuv::kFilterBox);
    }
    image.pixels = spare_;

    lastCapture_ = std::chrono::steady_clock::now();
    if (!releasing_) {
        if (releaser_.joinable()) {
            releaser_.join(); // it has finished: it cleared `releasing_` as it ended
        }
        releasing_ = true;
        releaser_ = std::thread([this] { releasePixelsWhenIdle(); });
    }
    return image;
}
