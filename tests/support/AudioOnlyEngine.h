#pragma once

#include "capture/CaptureEngine.h"
#include "capture/linux/ApplicationResourceDirectories.h"
#include "capture/linux/FfmpegAudioWriter.h"
#include "capture/linux/PulseAudioCaptureService.h"
#include "support/FakeCapturePlatform.h"

// The engine on the real sound server, writers and resources; displays, snapshots and video
// are stand-ins, since only the sound is recorded.
struct AudioOnlyEngine {
    FakeCapturePlatform fakes;
    PulseAudioCaptureService audio;
    FfmpegAudioWriterFactory writers;
    ApplicationResourceDirectories resources;
    CaptureEngine engine{
        {fakes.content, audio, writers, fakes.screenshots, fakes.video, resources}};
};
