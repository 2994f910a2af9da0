#pragma once

#include "capture/CapturePlatform.h"

#include <memory>

// The capture services of this system, kept alive for as long as the engine uses them.
class LoadedCapturePlatform {
public:
    virtual ~LoadedCapturePlatform() = default;
    virtual CapturePlatform platform() = 0;
};

// Chooses the capture backends: PulseAudio and FFmpeg for sound; for the screen, by the
// session Qt runs on, X11 or a Wayland compositor's screen copy; elsewhere (and through
// XWayland the user did not ask for) a stand-in whose every screen capture fails with a clear
// message.
std::unique_ptr<LoadedCapturePlatform> loadCapturePlatform();
