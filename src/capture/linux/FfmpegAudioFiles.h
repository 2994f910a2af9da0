#pragma once

#include <cstdint>
#include <memory>
#include <string>

// The file formats behind FfmpegAudioWriter. Each file is written to an open descriptor that
// the caller owns, from one thread, and stays playable when the process dies while writing.
class AudioFileSink {
public:
    virtual ~AudioFileSink() = default;
    // Interleaved float frames in [-1, 1]. Throws PlatformError.
    virtual void write(const float* samples, int64_t frames) = 0;
    // Writes what is still pending and ends the file. Throws PlatformError.
    virtual void finish() = 0;
};

// 16-bit integer PCM in a WAVE file whose header is rewritten as the data grows.
std::unique_ptr<AudioFileSink> makeWaveFileSink(int fd, int sampleRate, int channelCount);

// AAC in an MPEG-4 audio file, written in fragments that a player can read up to the last one.
// `path` names the file that `fd` writes.
std::unique_ptr<AudioFileSink> makeMpeg4AudioFileSink(int fd, const std::string& path,
                                                      int sampleRate, int channelCount,
                                                      int bitRate);
