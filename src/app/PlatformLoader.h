#pragma once

#include "capture/CapturePlatform.h"
#include "controller/ControllerPlatform.h"

#include <memory>

// The capture services of this system, kept alive for as long as the engine uses them.
class LoadedCapturePlatform {
public:
    virtual ~LoadedCapturePlatform() = default;
    virtual CapturePlatform platform() = 0;
    // The screen-capture permission of the session's screen layer: the desktop portal's
    // grant where captures go through it, else always given.
    virtual ScreenCapturePermission& permission() = 0;
};

// The capture services, loaded from the capture module when the first call needs one. The
// module chooses the backends: PulseAudio and FFmpeg for sound; for the screen, by the
// session Qt runs on, X11 or a Wayland compositor's screen copy; elsewhere (and through
// XWayland the user did not ask for) a stand-in whose every screen capture fails with a clear
// message.
std::unique_ptr<LoadedCapturePlatform> loadCapturePlatform();

// What the capture module exports under this name; the loader finds it at run time.
extern "C" LoadedCapturePlatform* tessarel_make_capture_platform();
