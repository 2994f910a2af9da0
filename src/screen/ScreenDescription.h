#pragma once

// Screens as every subsystem sees them. The controller picks a screen to capture, the region
// selector covers each screen with an overlay; the platform layer says what Qt's screens are.

#include "capture/Geometry.h"

#include <QVariant>

class QScreen;

// A screen as the GUI sees it. The display number is kept as the platform reported it,
// so that a missing or malformed one can be told apart from a valid 32-bit number.
struct ScreenDescription {
    QVariant displayNumber;
    Rect frame; // global points
    double backingScaleFactor = 1.0;
    friend bool operator==(const ScreenDescription&, const ScreenDescription&) = default;
};

// What the windowing system says about Qt's screens; one implementation per platform, chosen
// at start-up. GUI thread only.
class ScreenDirectory {
public:
    virtual ~ScreenDirectory() = default;
    virtual ScreenDescription describe(const QScreen& screen) const = 0;
    // False where a translucent window shows black instead of what lies beneath.
    virtual bool compositing() const = 0;
    // True where only the compositor places windows and no client can read the screen
    // (Wayland): an overlay then asks to be full-screen on its output and shows a picture the
    // capture services took.
    virtual bool windowsPlacedByCompositor() const = 0;
};
