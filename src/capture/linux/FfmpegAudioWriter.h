#pragma once

#include "capture/CapturePlatform.h"

// Audio files for the engine: AAC in an MPEG-4 audio file (.m4a) through the FFmpeg libraries,
// or 16-bit integer PCM in a WAVE file. Both stay playable up to their last half second when
// the process dies while writing.
//
// A writer never replaces a file: makeWriter refuses a destination that already exists, and
// the file is created exclusively when writing starts. A file whose folder went away while
// it was written is put back when the writing ends (see RecordingFile); error() of the
// completed writer then says where it is. Samples are placed by their
// presentation time relative to the session start; gaps become silence, so the file's
// duration follows the clock. For M4A, append hands each buffer to the writer's own encoding
// thread through a bounded queue and never waits for the encoder; a WAVE file is written by
// append itself (a conversion and a write, no wait for another thread).
//
// Threads: makeWriter from any thread. A writer's members from any thread, one call at a time;
// finishWriting and cancelWriting wait for the encoding thread, and so does destroying a
// writer that is still writing (it ends the file).
class FfmpegAudioWriterFactory final : public AudioWriterFactory {
public:
    // Throws PlatformError when the destination exists, its folder is missing or the settings
    // name neither format.
    std::unique_ptr<AudioFileWriter> makeWriter(const QUrl& url,
                                                const AudioWriterSettings& settings) override;
};
