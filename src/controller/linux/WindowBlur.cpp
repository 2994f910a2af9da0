#include "controller/linux/WindowBlur.h"

#include "controller/linux/DesktopScreens.h"
#include "controller/linux/WaylandWindowBlur.h"
#include "controller/linux/X11WindowBlur.h"

std::unique_ptr<WindowBlur> makeWindowBlur() {
    if (DesktopScreens::wayland()) {
        return std::make_unique<WaylandWindowBlur>();
    }
    return std::make_unique<X11WindowBlur>();
}
