#include "capture/linux/AudioFileInspection.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>

namespace {

QByteArray run(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(program, arguments);
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        return {};
    }
    return process.readAllStandardOutput();
}

void fft(std::vector<std::complex<double>>& values) {
    const size_t n = values.size();
    for (size_t i = 1, j = 0; i < n; ++i) {
        size_t bit = n >> 1;
        for (; j & bit; bit >>= 1) {
            j ^= bit;
        }
        j ^= bit;
        if (i < j) {
            std::swap(values[i], values[j]);
        }
    }
    for (size_t length = 2; length <= n; length <<= 1) {
        const double angle = -2 * std::numbers::pi / static_cast<double>(length);
        const std::complex<double> step(std::cos(angle), std::sin(angle));
        for (size_t start = 0; start < n; start += length) {
            std::complex<double> twiddle(1);
            for (size_t k = 0; k < length / 2; ++k) {
                const std::complex<double> even = values[start + k];
                const std::complex<double> odd = values[start + k + length / 2] * twiddle;
                values[start + k] = even + odd;
                values[start + k + length / 2] = even - odd;
                twiddle *= step;
            }
        }
    }
}

} // namespace

std::optional<AudioFileFacts> probeAudioFile(const QString& path) {
    const QByteArray output =
        run(QStringLiteral("ffprobe"),
            {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-of"),
             QStringLiteral("json"), QStringLiteral("-show_format"),
             QStringLiteral("-show_streams"), path});
    const QJsonObject root = QJsonDocument::fromJson(output).object();
    const QJsonArray streams = root.value(QStringLiteral("streams")).toArray();
    if (streams.isEmpty()) {
        return std::nullopt;
    }
    const QJsonObject format = root.value(QStringLiteral("format")).toObject();
    const QJsonObject stream = streams.first().toObject();
    const auto number = [](const QJsonObject& object, const char* key) {
        return object.value(QLatin1String(key)).toVariant().toDouble();
    };
    AudioFileFacts facts;
    facts.formatName = format.value(QStringLiteral("format_name")).toString();
    facts.majorBrand = format.value(QStringLiteral("tags"))
                           .toObject()
                           .value(QStringLiteral("major_brand"))
                           .toString();
    facts.codecName = stream.value(QStringLiteral("codec_name")).toString();
    facts.sampleRate = static_cast<int>(number(stream, "sample_rate"));
    facts.channels = static_cast<int>(number(stream, "channels"));
    facts.bitRate = static_cast<long long>(number(stream, "bit_rate"));
    if (facts.bitRate == 0) {
        facts.bitRate = static_cast<long long>(number(format, "bit_rate"));
    }
    facts.bitsPerSample = static_cast<int>(number(stream, "bits_per_sample"));
    facts.durationSeconds = number(format, "duration");
    return facts;
}

std::vector<float> decodeMono(const QString& path) {
    const QByteArray raw = run(
        QStringLiteral("ffmpeg"),
        {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), path,
         QStringLiteral("-ac"), QStringLiteral("1"), QStringLiteral("-ar"), QStringLiteral("48000"),
         QStringLiteral("-f"), QStringLiteral("f32le"), QStringLiteral("-")});
    std::vector<float> samples(static_cast<size_t>(raw.size()) / sizeof(float));
    std::memcpy(samples.data(), raw.constData(), samples.size() * sizeof(float));
    return samples;
}

double dominantFrequencyHz(const std::vector<float>& samples, int sampleRate) {
    size_t n = 1;
    while (n * 2 <= samples.size() && n < 65536) {
        n *= 2;
    }
    if (n < 1024) {
        return 0;
    }
    const size_t start = (samples.size() - n) / 2;
    std::vector<std::complex<double>> values(n);
    for (size_t i = 0; i < n; ++i) {
        // A Hann window keeps the peak in one place.
        const double window = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(i) /
                                                   static_cast<double>(n - 1));
        values[i] = samples[start + i] * window;
    }
    fft(values);
    size_t peak = 1;
    for (size_t bin = 1; bin < n / 2; ++bin) {
        if (std::abs(values[bin]) > std::abs(values[peak])) {
            peak = bin;
        }
    }
    // Parabolic interpolation on the log magnitudes around the peak.
    const double left = std::log(std::abs(values[peak - 1]) + 1e-12);
    const double centre = std::log(std::abs(values[peak]) + 1e-12);
    const double right = std::log(std::abs(values[peak + 1]) + 1e-12);
    const double shift = 0.5 * (left - right) / (left - 2 * centre + right);
    return (static_cast<double>(peak) + shift) * sampleRate / static_cast<double>(n);
}

SilentRun longestSilence(const std::vector<float>& samples, float threshold) {
    SilentRun longest;
    size_t runStart = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        if (std::fabs(samples[i]) >= threshold) {
            runStart = i + 1;
        } else if (i + 1 - runStart > longest.length) {
            longest = {runStart, i + 1 - runStart};
        }
    }
    return longest;
}

std::vector<float> stretch(const std::vector<float>& samples, int sampleRate, double fromSeconds,
                           double toSeconds) {
    const auto at = [&](double seconds) {
        return std::clamp<size_t>(static_cast<size_t>(std::max(0.0, seconds) * sampleRate), 0,
                                  samples.size());
    };
    const size_t from = at(fromSeconds);
    const size_t to = std::max(from, at(toSeconds));
    return {samples.begin() + static_cast<std::ptrdiff_t>(from),
            samples.begin() + static_cast<std::ptrdiff_t>(to)};
}
