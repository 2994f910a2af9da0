#include "app/ScreenPicture.h"

#include "controller/linux/DesktopScreens.h"

#include <QImage>
#include <QScreen>

#include <cmath>

QPixmap screenPicture(const CapturePlatform& capture, QScreen& screen) {
    const ScreenDescription description = DesktopScreens().describe(screen);
    if (!description.displayNumber.isValid()) {
        return {};
    }
    try {
        const ShareableContent content = capture.content.shareableContent(false, true);
        for (const DisplayInfo& display : content.displays) {
            if (display.displayID != description.displayNumber.value<uint32_t>()) {
                continue;
            }
            const ScreenshotConfiguration configuration{
                std::lround(description.frame.width * description.backingScaleFactor),
                std::lround(description.frame.height * description.backingScaleFactor), false};
            const Image image = capture.screenshots.captureImage({display, {}}, configuration);
            if (image.isNull()) {
                return {};
            }
            // Deep copy: the image's pixels are shared and may go with it.
            QPixmap picture = QPixmap::fromImage(
                QImage(reinterpret_cast<const uchar*>(image.pixels.constData()), image.width,
                       image.height, image.bytesPerRow, QImage::Format_RGB32)
                    .copy());
            picture.setDevicePixelRatio(static_cast<double>(image.width) / description.frame.width);
            return picture;
        }
    } catch (const std::exception&) {
        // The overlay still works without the picture, over a plain dimmed screen.
    }
    return {};
}
