#pragma once

#include <QString>

#include <cstdint>

// The display number of a Wayland output, from its name ("DP-1", "HEADLESS-2"): the
// capture side, which knows the output by the compositor's name for it, and the GUI side,
// which knows its screen by the same name, both derive it here. FNV-1a of the UTF-8 name;
// never 0, which no display has.
inline uint32_t displayNumberOfOutput(const QString& outputName) {
    uint32_t hash = 2166136261u;
    for (const char byte : outputName.toUtf8()) {
        hash = (hash ^ static_cast<uint8_t>(byte)) * 16777619u;
    }
    return hash != 0 ? hash : 1;
}
