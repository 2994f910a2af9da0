#pragma once

// Reading back the movies the video streams record, with ffprobe and ffmpeg, and comparing
// their frames with the screen's pictures.

#include "capture/CapturePlatform.h"

#include <QByteArray>
#include <QImage>
#include <QRect>
#include <QString>
#include <QStringList>

#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <vector>

// The recorder's reports, waited for with a deadline against hangs only.
class RecorderEvents final : public RecordingOutputDelegate, public StreamDelegate {
public:
    void recordingOutputDidStartRecording() override {}
    void recordingOutputDidFinishRecording() override { settle({}); }
    void recordingOutputDidFail(std::exception_ptr error) override { settle(error); }
    void streamDidStop(std::exception_ptr error) override;

    // True once finished; false when failed or nothing came.
    bool finished();
    // The error the stream stopped with, waited for up to `seconds`; none if it did not stop.
    std::exception_ptr streamStopped(int seconds);

    std::exception_ptr streamError;

private:
    void settle(std::exception_ptr error);

    std::mutex mutex_;
    std::condition_variable done_;
    bool settled_ = false;
    std::exception_ptr error_;
};

struct Probe {
    QString codec;
    QString format;
    int width = 0;
    int height = 0;
    double averageFrameRate = 0;
    long long frames = 0;
    double duration = 0;
    double lastFrameEnd = 0; // time stamp of the last decoded frame plus one frame
    long long keyframes = 0;
};

// The stream configuration the engine makes for `sourcePoints` on a display of `scale`.
VideoStreamConfiguration configurationFor(const Rect& sourcePoints, double scale);

// Runs a tool and returns what it printed, failing the test when it fails.
QByteArray runTool(const QString& program, const QStringList& arguments);
Probe probe(const QString& path);
// Every frame of the movie as B, G, R, A pixels.
std::vector<QByteArray> decode(const QString& path, int width, int height);

// Mean absolute difference per channel between `frame` and `expected`'s `area`, over the
// pixels `counts` accepts (frame-local coordinates) that lie inside a cell of the test
// pattern: the encoder may blur the cells' sharp edges.
template <typename Filter>
double meanDifference(const QByteArray& frame, const QImage& expected, const QRect& area,
                      Filter counts) {
    double sum = 0;
    long long pixels = 0;
    const auto* data = reinterpret_cast<const unsigned char*>(frame.constData());
    for (int y = 0; y < area.height(); ++y) {
        for (int x = 0; x < area.width(); ++x) {
            const int cellX = (area.x() + x) % 16;
            const int cellY = (area.y() + y) % 16;
            if (cellX < 3 || cellX > 12 || cellY < 3 || cellY > 12 || !counts(x, y)) {
                continue;
            }
            const QRgb want = expected.pixel(area.x() + x, area.y() + y);
            const unsigned char* got = data + (static_cast<qsizetype>(y) * area.width() + x) * 4;
            sum += std::abs(got[0] - qBlue(want)) + std::abs(got[1] - qGreen(want)) +
                   std::abs(got[2] - qRed(want));
            ++pixels;
        }
    }
    return pixels ? sum / (3.0 * static_cast<double>(pixels)) : 0;
}

// Pixels far darker or brighter than any colour of the test pattern (the pointer's).
int extremePixels(const QByteArray& frame, int frameWidth, const QRect& box);
