#pragma once

#include "capture/CaptureEngine.h"
#include "capture/linux/AudioFileInspection.h"

#include <QDir>
#include <QThread>

#include <gtest/gtest.h>

#include <chrono>
#include <optional>

// Where the engine would save a recording started at a fixed moment.
inline QString audioDestination(const QString& folder, AudioExportFormat format) {
    return QDir(folder).filePath(QStringLiteral("Tessarel Audio 2026-03-09 at 07.03.04.") +
                                 format.fileExtension());
}

// Records into `path` for about `seconds`; returns the time between the start's return and
// the stop.
inline double recordAudio(CaptureEngine& engine, const QString& path, AudioExportFormat format,
                          double seconds) {
    engine.startAudio(QUrl::fromLocalFile(path), format);
    const auto started = std::chrono::steady_clock::now();
    QThread::msleep(static_cast<unsigned long>(seconds * 1000));
    const auto stopping = std::chrono::steady_clock::now();
    engine.stop();
    return std::chrono::duration<double>(stopping - started).count();
}

// The file holds the 1 kHz test tone.
inline void expectTone(const QString& path) {
    EXPECT_NEAR(dominantFrequencyHz(decodeMono(path), 48000), 1000.0, 10.0);
}

// The file is 16-bit PCM WAV at 48 kHz stereo, `seconds` long, holding the test tone.
inline void expectWavTone(const QString& path, double seconds) {
    const std::optional<AudioFileFacts> facts = probeAudioFile(path);
    ASSERT_TRUE(facts);
    EXPECT_EQ(facts->formatName, QStringLiteral("wav"));
    EXPECT_EQ(facts->codecName, QStringLiteral("pcm_s16le"));
    EXPECT_EQ(facts->bitsPerSample, 16);
    EXPECT_EQ(facts->sampleRate, 48000);
    EXPECT_EQ(facts->channels, 2);
    EXPECT_NEAR(facts->durationSeconds, seconds, 0.1);
    expectTone(path);
}
