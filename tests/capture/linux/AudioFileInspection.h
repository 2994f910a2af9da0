#pragma once

#include <QString>

#include <cstddef>
#include <optional>
#include <vector>

// What ffprobe says about an audio file's container and first stream.
struct AudioFileFacts {
    QString formatName;
    QString majorBrand;
    QString codecName;
    int sampleRate = 0;
    int channels = 0;
    long long bitRate = 0; // the stream's, else the container's
    int bitsPerSample = 0;
    double durationSeconds = 0;
};

// None when ffprobe cannot read the file.
std::optional<AudioFileFacts> probeAudioFile(const QString& path);

// The file's sound as mono 32-bit float at 48000 Hz, decoded by ffmpeg.
std::vector<float> decodeMono(const QString& path);

// The strongest frequency of the middle of the samples, interpolated between FFT bins.
double dominantFrequencyHz(const std::vector<float>& samples, int sampleRate);

// The longest run of silent samples (magnitude below `threshold`): where it starts and how
// many samples it has.
struct SilentRun {
    size_t start = 0;
    size_t length = 0;
};
SilentRun longestSilence(const std::vector<float>& samples, float threshold);

// Samples [fromSeconds, toSeconds) of `samples` at `sampleRate`, clipped to what there is.
std::vector<float> stretch(const std::vector<float>& samples, int sampleRate, double fromSeconds,
                           double toSeconds);
