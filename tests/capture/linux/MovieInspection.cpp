#include "MovieInspection.h"

#include "capture/CaptureEngine.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

namespace {

double rate(const QString& fraction) {
    const auto parts = fraction.split(QLatin1Char('/'));
    return parts.size() == 2 && parts[1].toDouble() != 0 ? parts[0].toDouble() / parts[1].toDouble()
                                                         : 0;
}

} // namespace

void RecorderEvents::streamDidStop(std::exception_ptr error) {
    {
        std::lock_guard guard(mutex_);
        streamError = error;
    }
    done_.notify_all();
}

bool RecorderEvents::finished() {
    std::unique_lock guard(mutex_);
    done_.wait_for(guard, std::chrono::seconds(60), [this] { return settled_; });
    return settled_ && !error_;
}

std::exception_ptr RecorderEvents::streamStopped(int seconds) {
    std::unique_lock guard(mutex_);
    done_.wait_for(guard, std::chrono::seconds(seconds), [this] { return streamError != nullptr; });
    return streamError;
}

void RecorderEvents::settle(std::exception_ptr error) {
    {
        std::lock_guard guard(mutex_);
        settled_ = true;
        error_ = error;
    }
    done_.notify_all();
}

VideoStreamConfiguration configurationFor(const Rect& sourcePoints, double scale) {
    return CaptureEngine::videoStreamConfiguration(
        sourcePoints, CaptureEngine::videoOutputSize(sourcePoints.size(), scale), scale);
}

QByteArray runTool(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(120000);
    EXPECT_EQ(process.exitCode(), 0)
        << program.toStdString() << ": " << process.readAllStandardError().toStdString();
    return process.readAllStandardOutput();
}

Probe probe(const QString& path) {
    const auto json = QJsonDocument::fromJson(runTool(
        QStringLiteral("ffprobe"),
        {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-count_frames"),
         QStringLiteral("-show_entries"),
         QStringLiteral("stream=codec_name,width,height,avg_frame_rate,nb_read_frames:format="
                        "format_name,duration:frame=best_effort_timestamp_time,key_frame"),
         QStringLiteral("-of"), QStringLiteral("json"), path}));
    Probe result;
    const auto stream = json[QStringLiteral("streams")][0].toObject();
    result.codec = stream[QStringLiteral("codec_name")].toString();
    result.width = stream[QStringLiteral("width")].toInt();
    result.height = stream[QStringLiteral("height")].toInt();
    result.averageFrameRate = rate(stream[QStringLiteral("avg_frame_rate")].toString());
    result.frames = stream[QStringLiteral("nb_read_frames")].toString().toLongLong();
    result.format = json[QStringLiteral("format")][QStringLiteral("format_name")].toString();
    result.duration =
        json[QStringLiteral("format")][QStringLiteral("duration")].toString().toDouble();
    for (const auto frame : json[QStringLiteral("frames")].toArray()) {
        result.lastFrameEnd = std::max(
            result.lastFrameEnd,
            frame[QStringLiteral("best_effort_timestamp_time")].toString().toDouble() + 1.0 / 30);
        result.keyframes += frame[QStringLiteral("key_frame")].toInt();
    }
    return result;
}

std::vector<QByteArray> decode(const QString& path, int width, int height) {
    const QByteArray all =
        runTool(QStringLiteral("ffmpeg"),
                {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), path,
                 QStringLiteral("-fps_mode"), QStringLiteral("passthrough"), QStringLiteral("-f"),
                 QStringLiteral("rawvideo"), QStringLiteral("-pix_fmt"), QStringLiteral("bgra"),
                 QStringLiteral("-")});
    const qsizetype size = static_cast<qsizetype>(width) * height * 4;
    std::vector<QByteArray> frames;
    for (qsizetype offset = 0; offset + size <= all.size(); offset += size) {
        frames.push_back(all.mid(offset, size));
    }
    return frames;
}

int extremePixels(const QByteArray& frame, int frameWidth, const QRect& box) {
    int count = 0;
    const auto* data = reinterpret_cast<const unsigned char*>(frame.constData());
    for (int y = box.top(); y <= box.bottom(); ++y) {
        for (int x = box.left(); x <= box.right(); ++x) {
            const unsigned char* p = data + (static_cast<qsizetype>(y) * frameWidth + x) * 4;
            const int brightness = (p[0] + p[1] + p[2]) / 3;
            if (brightness < 30 || brightness > 225) {
                ++count;
            }
        }
    }
    return count;
}
