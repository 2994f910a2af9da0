#pragma once

#include "capture/CapturePlatform.h"

#include <memory>

// The capture services of this system, kept alive for as long as the engine uses them.
class LoadedCapturePlatform {
public:
    virtual ~LoadedCapturePlatform() = default;
    virtual CapturePlatform platform() = 0;
};

// Chooses the capture backends: PulseAudio and FFmpeg for sound; X11 for the screen in an
// X11 session, elsewhere a stand-in whose every screen capture fails with a clear message.
std::unique_ptr<LoadedCapturePlatform> loadCapturePlatform();
