#include "capture/linux/X11ScreenshotService.h"

#include "capture/linux/X11AreaGrabber.h"
#include "capture/linux/X11Connection.h"
#include "capture/linux/X11ShmImage.h"

#include <libyuv.h>

#include <cmath>

X11ScreenshotService::X11ScreenshotService(QByteArray displayName)
    : displayName_(std::move(displayName)) {}

X11ScreenshotService::~X11ScreenshotService() = default;

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
        auto connection = std::make_unique<X11Connection>(displayName_);
        image_ = std::make_unique<X11ShmImage>(*connection);
        connection_ = std::move(connection);
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
    // X servers never put the pointer into an image they are asked for, so leaving it out
    // (configuration.showsCursor is false for snapshots) needs no work.
    X11AreaGrabber(*connection_, area, std::move(excluded),
                   X11AreaGrabber::WithoutComposition::hideWhileGrabbing)
        .grab(*image_);

    // One copy, straight from the segment into the image's buffer: the last image's, when
    // its receiver has let go of it, as fresh pages cost more to fill than the copy itself.
    Image image;
    image.width = static_cast<int>(configuration.width);
    image.height = static_cast<int>(configuration.height);
    image.bytesPerRow = image.width * 4;
    const qsizetype size = static_cast<qsizetype>(image.bytesPerRow) * image.height;
    if (spare_.size() != size || !spare_.isDetached()) {
        spare_ = QByteArray(size, Qt::Uninitialized);
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
    return image;
}
