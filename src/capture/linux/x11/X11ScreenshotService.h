#pragma once

#include "capture/CapturePlatform.h"

#include <QByteArray>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

class X11Connection;
class X11ShmImage;

// One still image of a display at the requested pixel size, without the excluded
// applications' windows, and with the pointer only where the configuration shows it. Any thread;
// captures run one at a time on a connection, a shared-memory segment and a pixel buffer that are
// kept for the next one, since fresh pages cost more to fill than the copy itself. Once no capture
// has come for `keepPixelsFor`, a thread of the service lets go of the segment and the buffer
// (about twice the largest image's bytes), so an idle tray application holds none of them.
class X11ScreenshotService final : public ScreenshotService {
public:
    // An empty name means $DISPLAY.
    explicit X11ScreenshotService(
        QByteArray displayName = {},
        std::chrono::milliseconds keepPixelsFor = std::chrono::seconds(10));
    ~X11ScreenshotService() override;

    Image captureImage(const ContentFilter& filter,
                       const ScreenshotConfiguration& configuration) override;

private:
    void releasePixelsWhenIdle();

    const QByteArray displayName_;
    const std::chrono::milliseconds keepPixelsFor_;
    std::mutex mutex_; // guards what follows
    std::condition_variable wake_;
    std::unique_ptr<X11Connection> connection_;
    std::unique_ptr<X11ShmImage> image_;
    QByteArray spare_; // the last image's pixels, filled again once only this holds them
    std::chrono::steady_clock::time_point lastCapture_;
    bool releasing_ = false; // the releasing thread runs
    bool stopping_ = false;
    std::thread releaser_;
};
