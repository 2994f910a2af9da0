#pragma once

#include "controller/ControllerPlatform.h"

class QScreen;
class QWindow;

// Qt's screens as the controller and the region selector see them. GUI thread only.
class DesktopScreens : public ScreenProvider, public ScreenDirectory {
public:
    // The display number is the one the capture backend derives for the same monitor: on X11
    // the atom of the RandR monitor's name, on Wayland the number of the output's name; it is
    // missing elsewhere. The frame is in global bottom-left points; the scale is the device
    // pixel ratio.
    ScreenDescription describe(const QScreen& screen) const override;

    // False on an X display without a compositing manager, where a translucent window shows
    // black instead of what lies beneath.
    bool compositing() const override;
    bool windowsPlacedByCompositor() const override { return wayland(); }

    // Qt runs as a Wayland client.
    static bool wayland();

    std::optional<ScreenDescription> mainScreen() override;
};
