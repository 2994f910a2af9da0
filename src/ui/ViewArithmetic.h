#pragma once

#include "capture/Geometry.h"
#include "controller/TessarelMode.h"

#include <QString>

// The views' platform-free arithmetic: the palette, the elapsed-time text and the level
// meter's bars. Any thread.

struct RGBColor {
    double red = 0;
    double green = 0;
    double blue = 0;
    friend bool operator==(const RGBColor&, const RGBColor&) = default;
};

// The four brand colours, sRGB components at full opacity.
struct TessarelColor {
    static constexpr RGBColor audio{1.0, 0.2, 0.28};
    static constexpr RGBColor video{0.1, 0.52, 1.0};
    static constexpr RGBColor snapshot{0.5, 0.2, 0.92};
    static constexpr RGBColor green{0.05, 0.82, 0.35};
    // The sparkles of the title and the tray icon.
    static constexpr RGBColor amber{1.0, 184 / 255.0, 0.0};
};

// The panel's content size on each screen, in points.
struct PanelSize {
    static constexpr Size home{650, 430};
    static constexpr Size setup{700, 460};
    static constexpr Size audioProgress{720, 318};
    static constexpr Size videoProgress{720, 220};
    // The home screen never shrinks below this; the others keep their whole size.
    static constexpr Size homeMinimum{650, 410};

    static Size content(TessarelMode mode);
    static Size minimum(TessarelMode mode);
};

// Whole seconds as "hh:mm:ss"; hours are not wrapped. A value that is not finite or lies
// outside the 64-bit range is a programming error and ends the process.
QString duration(double seconds);

// The level meter: a row of bars, lit from the left, with a saw-tooth outline.
struct MeterBars {
    static constexpr int count = 22;
    static constexpr double width = 10;
    static constexpr double spacing = 5;
    static constexpr double cornerRadius = 3;
    static constexpr double saturation = 0.95;
    static constexpr double brightness = 1.0;
    static constexpr double unlitOpacity = 0.22;

    static bool isLit(int index, double level);
    static int litCount(double level);
    static double height(int index);
    static double hue(int index);
};
