#pragma once

#include <QStringView>

#include <cstdint>

// The display number of a Wayland output, derived from its name ("HDMI-A-1", "HEADLESS-2")
// alone, so that the capture side (wl_output / xdg-output) and the GUI side (QScreen::name())
// agree without talking to each other. The name is stable while the output is connected.
// Never zero: zero stands for "no display" where a number is missing.
uint32_t outputDisplayNumber(QStringView outputName);
