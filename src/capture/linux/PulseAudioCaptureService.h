#pragma once

#include "capture/CapturePlatform.h"

// System sound through the PulseAudio client API (PipeWire desktops serve the same API through
// pipewire-pulse): each stream records the monitor source of the server's default sink at the
// configured rate and channel count, as interleaved 32-bit float.
//
// A stream delivers its sample buffers on the queue given to addAudioOutput. Their times come
// from the monotonic clock (std::chrono::steady_clock), minus the latency of the data, and
// follow it: sound the server lost or left out becomes silence, so that the buffers' frame
// count matches the time that passed.
//
// Threads: makeStream, and the streams' addAudioOutput, startCapture and stopCapture, from
// any one thread at a time but never from the delivery queue. streamDidStop is called on the
// stream's own PulseAudio thread.
class PulseAudioCaptureService final : public AudioCaptureService {
public:
    std::shared_ptr<AudioCaptureStream> makeStream(const ContentFilter& filter,
                                                   const AudioStreamConfiguration& config,
                                                   StreamDelegate* delegate) override;
};
