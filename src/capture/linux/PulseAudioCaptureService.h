#pragma once

#include "capture/CapturePlatform.h"

// System sound through the PulseAudio client API (PipeWire desktops serve the same API through
// pipewire-pulse): each stream records the monitor source of the server's default sink at the
// configured rate and channel count, as interleaved 32-bit float.
//
// A stream delivers its sample buffers to the handler given to addAudioOutput on its own
// PulseAudio thread ("Tessarel.sound"), a tenth of a second at a time, and the rest on the
// thread that stops it. Each is stamped with the monotonic clock (std::chrono::steady_clock):
// the first with the time its first frame was recorded, each later one where the frames before
// it end. The buffers hold exactly what the server delivered; silence only for holes the server
// reports and for time the stream could not record: its source suspended, the server gone, a
// new default output taken up.
//
// A stream follows the default output when it changes. When the server goes away (updates
// restart it) the stream looks for it again for 10 s and records on into the same buffers;
// only then does it report the stop.
//
// Threads: makeStream, and the streams' addAudioOutput, startCapture and stopCapture, from
// any one thread at a time but never from the handler. streamDidStop is called on the
// stream's own PulseAudio thread.
class PulseAudioCaptureService final : public AudioCaptureService {
public:
    std::shared_ptr<AudioCaptureStream> makeStream(const ContentFilter& filter,
                                                   const AudioStreamConfiguration& config,
                                                   StreamDelegate* delegate) override;
};
