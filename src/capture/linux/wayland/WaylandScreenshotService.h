#pragma once

#include "capture/CapturePlatform.h"

#include <QByteArray>

#include <memory>
#include <mutex>

class WaylandConnection;

// Snapshots of a Wayland output by wlr-screencopy, at the output's full pixel resolution
// and without the pointer, in shared memory. Any thread; calls run one at a time on a
// connection that is kept for the next one.
class WaylandScreenshotService final : public ScreenshotService {
public:
    // An empty name means $WAYLAND_DISPLAY.
    explicit WaylandScreenshotService(QByteArray displayName = {});
    ~WaylandScreenshotService() override;

    Image captureImage(const ContentFilter& filter,
                       const ScreenshotConfiguration& configuration) override;

private:
    Image copyOutput(const ContentFilter& filter, const ScreenshotConfiguration& configuration);

    const QByteArray displayName_;
    std::mutex mutex_; // guards what follows
    std::unique_ptr<WaylandConnection> connection_;
};
