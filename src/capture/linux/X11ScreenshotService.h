#pragma once

#include "capture/CapturePlatform.h"

#include <QByteArray>

// One still image of a display at the requested pixel size, without the pointer and
// without the excluded applications' windows. Any thread; each capture opens its own
// connection.
class X11ScreenshotService final : public ScreenshotService {
public:
    // An empty name means $DISPLAY.
    explicit X11ScreenshotService(QByteArray displayName = {});

    Image captureImage(const ContentFilter& filter,
                       const ScreenshotConfiguration& configuration) override;

private:
    QByteArray displayName_;
};
