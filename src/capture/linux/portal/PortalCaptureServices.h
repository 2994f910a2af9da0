#pragma once

#include "capture/linux/ScreenVideoStream.h"

class DesktopPortal;

// Snapshots through the desktop portal. Where the portal shares screens, a snapshot is the
// first picture of a screen cast of that display, at the screen's full pixel size; elsewhere
// the portal's screenshot of the whole layout, cut to the display and brought to the
// requested size. Displays are known by where they lie in the layout, in points, as
// `content` lists them.
class PortalScreenshotService final : public ScreenshotService {
public:
    PortalScreenshotService(DesktopPortal& portal, ShareableContentProvider& content)
        : portal_(portal), content_(content) {}
    Image captureImage(const ContentFilter& filter,
                       const ScreenshotConfiguration& configuration) override;

private:
    Image fromScreenCast(const ContentFilter& filter, bool withPointer);
    Image fromScreenshot(const ContentFilter& filter, const ScreenshotConfiguration& configuration);

    DesktopPortal& portal_;
    ShareableContentProvider& content_;
};

// Area movies from the desktop portal's screen cast of one display, one PipeWire stream per
// movie, closed when it stops.
//
// The area, in the display's points, is taken to the stream's buffer pixels by the
// buffer's size over the display's size in points. A capture thread takes the newest
// picture 30 times a second on a fixed time grid of the monotonic clock, the last one again
// when the desktop sent none since (desktops send pictures only when something changed),
// brings what changed to the output size in I420 and hands it to the shared recorder
// through its frame queue. When the desktop stops sharing, the delegate is told and the
// movie ends where it is.
class PortalVideoCaptureService final : public ScreenVideoCaptureService {
public:
    explicit PortalVideoCaptureService(DesktopPortal& portal) : portal_(portal) {}

    std::shared_ptr<VideoCaptureStream> makeStream(const ContentFilter& filter,
                                                   const VideoStreamConfiguration& config,
                                                   StreamDelegate* delegate) override;

private:
    DesktopPortal& portal_;
};
