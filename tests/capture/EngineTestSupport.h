#pragma once

#include "capture/CaptureEngine.h"
#include "support/FakeCapturePlatform.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <string>

// A buffer of `frames` stereo frames at 48000 Hz, every sample set to `value`.
inline SampleBuffer makeSampleBuffer(int64_t presentationTimeNs, int frames = 480,
                                     float value = 0.25f) {
    SampleBuffer buffer;
    buffer.presentationTimeNs = presentationTimeNs;
    buffer.samples.assign(static_cast<size_t>(frames) * 2, value);
    return buffer;
}

// The description of the error `operation` throws, or "<no error>".
inline std::string descriptionOfError(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "<no error>";
}

// Waits for a blocking engine call made on another thread. The deadline only guards
// against a hang.
inline bool finishesInTime(const std::future<void>& call) {
    return call.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
}

inline QByteArray fileContents(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// An engine on fakes, with a scratch folder for the files it writes.
class EngineTest : public ::testing::Test {
protected:
    QUrl scratchURL(const QString& name) const {
        return QUrl::fromLocalFile(QDir(scratch.path()).filePath(name));
    }

    FakeCapturePlatform fakes;
    QTemporaryDir scratch;
    CaptureEngine engine{fakes.platform()};
};
