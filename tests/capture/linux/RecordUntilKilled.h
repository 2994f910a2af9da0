#pragma once

#include "capture/CapturePlatform.h"

// What the recording helper programs share: records `area` of `display` through `video` into
// an H.264 movie at `moviePath`, prints "recording" once capture has started, and records until
// the process is killed. Returns 1 with the reason on standard error when it cannot start.
int recordUntilKilled(VideoCaptureService& video, const DisplayInfo& display, const Rect& area,
                      const char* moviePath);
