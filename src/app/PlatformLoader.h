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

// The displays and snapshots of X11 sessions and of Wayland compositors that let applications
// copy the screen, in a module of their own that needs none of the recorders' libraries
// (FFmpeg, x264, PulseAudio, PipeWire): a snapshot loads none of them.
class LoadedScreenCapture {
public:
    virtual ~LoadedScreenCapture() = default;
    virtual ShareableContentProvider& content() = 0;
    virtual ScreenshotService& screenshots() = 0;
};

// The capture services, loaded when the first call needs one: the displays and snapshots from
// the screen module, the rest (and the screen where the screen module does not serve it) from
// the capture module when first needed. Where the screen module serves the screen, the capture
// module leaves the process a while after each recording. Made on the GUI thread. The modules
// choose the backends: PulseAudio and FFmpeg for sound; for the screen, by the session Qt runs on,
// X11, a Wayland compositor's screen copy or the desktop portal; elsewhere (and through XWayland
// the user did not ask for) a stand-in whose every screen capture fails with a clear message.
std::unique_ptr<LoadedCapturePlatform> loadCapturePlatform();

// What the modules export under these names; the loader finds them at run time. The screen
// module's answer is null in sessions it does not serve; the capture module takes the
// screen's displays and snapshots from `screen` where it does.
extern "C" LoadedScreenCapture* tessarel_make_screen_capture();
extern "C" LoadedCapturePlatform* tessarel_make_capture_platform(LoadedScreenCapture* screen);
