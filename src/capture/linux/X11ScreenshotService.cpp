#include "capture/linux/X11ScreenshotService.h"

#include "capture/linux/X11AreaGrabber.h"
#include "capture/linux/X11Connection.h"

#include <libyuv.h>

#include <cmath>

X11ScreenshotService::X11ScreenshotService(QByteArray displayName)
    : displayName_(std::move(displayName)) {}

Image X11ScreenshotService::captureImage(const ContentFilter& filter,
                                         const ScreenshotConfiguration& configuration) {
    if (configuration.width <= 0 || configuration.height <= 0 || configuration.width > INT16_MAX ||
        configuration.height > INT16_MAX) {
        throw PlatformError(QStringLiteral("The snapshot size is not valid."));
    }
    X11Connection connection(displayName_);
    const Rect& frame = filter.display.frame;
    const PixelRect area =
        PixelRect{static_cast<int>(std::lround(frame.x)), static_cast<int>(std::lround(frame.y)),
                  static_cast<int>(std::lround(frame.width)),
                  static_cast<int>(std::lround(frame.height))}
            .intersected(connection.rootGeometry());
    if (area.isEmpty()) {
        throw PlatformError(QStringLiteral("The display lies outside the X screen."));
    }
    std::vector<int64_t> excluded;
    for (const RunningApplication& application : filter.excludedApplications) {
        excluded.push_back(application.processID);
    }
    // X servers never put the pointer into an image they are asked for, so leaving it out
    // (configuration.showsCursor is false for snapshots) needs no work.
    X11AreaGrabber grabber(connection, area, std::move(excluded));
    grabber.grab();

    Image image;
    image.width = static_cast<int>(configuration.width);
    image.height = static_cast<int>(configuration.height);
    image.bytesPerRow = image.width * 4;
    image.pixels.resize(static_cast<qsizetype>(image.bytesPerRow) * image.height);
    auto* destination = reinterpret_cast<uint8_t*>(image.pixels.data());
    const X11ShmImage& source = grabber.image();
    if (image.width == area.width && image.height == area.height) {
        libyuv::ARGBCopy(source.pixels(), source.bytesPerRow(), destination, image.bytesPerRow,
                         image.width, image.height);
    } else {
        libyuv::ARGBScale(source.pixels(), source.bytesPerRow(), area.width, area.height,
                          destination, image.bytesPerRow, image.width, image.height,
                          libyuv::kFilterBox);
    }
    return image;
}
