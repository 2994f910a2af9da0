#pragma once

#include "capture/CapturePlatform.h"

#include <QByteArray>

#include <memory>
#include <mutex>

class X11Connection;
class X11ShmImage;

// One still image of a display at the requested pixel size, without the pointer and
// without the excluded applications' windows. Any thread; captures run one at a time on a
// connection, a shared-memory segment and a pixel buffer that are kept for the next one
// (about twice the largest image's bytes stay allocated).
class X11ScreenshotService final : public ScreenshotService {
public:
    // An empty name means $DISPLAY.
    explicit X11ScreenshotService(QByteArray displayName = {});
    ~X11ScreenshotService() override;

    Image captureImage(const ContentFilter& filter,
                       const ScreenshotConfiguration& configuration) override;

private:
    const QByteArray displayName_;
    std::mutex mutex_; // guards what follows
    std::unique_ptr<X11Connection> connection_;
    std::unique_ptr<X11ShmImage> image_;
    QByteArray spare_; // the last image's pixels, filled again once only this holds them
};
