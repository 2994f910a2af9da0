#pragma once

#include "capture/CapturePlatform.h"

#include <memory>

// The capture services of this system, kept alive for as long as the engine uses them.
class LoadedCapturePlatform {
public:
    virtual ~LoadedCapturePlatform() = default;
    virtual CapturePlatform platform() = 0;
};

// Chooses the capture backends. Where none is available every capture fails with
// "Screen and sound capture are not available on this system."
std::unique_ptr<LoadedCapturePlatform> loadCapturePlatform();
