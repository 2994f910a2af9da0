#include "capture/CaptureEngine.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QUuid>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

// Points times scale, truncated toward zero. Real screens never come near the limits, so
// a product that does not fit is a programming error.
long long truncatedPixels(double points, double scale) {
    const double product = points * scale;
    // 2^63: the first double above the signed 64-bit range.
    constexpr double limit = 9223372036854775808.0;
    if (!std::isfinite(product) || product >= limit || product < -limit) {
        std::fprintf(stderr, "Tessarel: %f points at scale %f give no pixel count\n", points,
                     scale);
        std::abort();
    }
    return static_cast<long long>(product);
}

long long evenPixelsAtLeastTwo(double points, double scale) {
    return std::max(2LL, truncatedPixels(points, scale) / 2 * 2);
}

const DisplayInfo* displayWithID(const ShareableContent& content, uint32_t displayID) {
    const auto found = std::find_if(
        content.displays.begin(), content.displays.end(),
        [displayID](const DisplayInfo& display) { return display.displayID == displayID; });
    return found == content.displays.end() ? nullptr : &*found;
}

void resume(std::promise<void>& continuation, const std::exception_ptr& error) {
    if (error) {
        continuation.set_exception(error);
    } else {
        continuation.set_value();
    }
}

// Removes a file when leaving the scope; a failure to remove is ignored.
class RemoveOnExit {
public:
    explicit RemoveOnExit(QString path) : path_(std::move(path)) {}
    ~RemoveOnExit() { QFile::remove(path_); }
    RemoveOnExit(const RemoveOnExit&) = delete;
    RemoveOnExit& operator=(const RemoveOnExit&) = delete;

private:
    QString path_;
};

} // namespace

CaptureEngine::CaptureEngine(CapturePlatform platform) : platform_(platform) {}

CaptureEngine::~CaptureEngine() {
    // A stream still running delivers to this engine: it is stopped while the fields its
    // buffers and callbacks reach still exist.
    const std::shared_ptr<CaptureStream> running =
        withLock([&] { return std::exchange(stream, nullptr); });
    if (running) {
        try {
            running->stopCapture();
        } catch (...) { // nobody is left to tell
        }
    }
}

// ---- Display choice ------------------------------------------------------------------------

std::pair<DisplayInfo, ContentFilter>
CaptureEngine::captureTarget(const ShareableContent& content) {
    const DisplayInfo* display = displayWithID(content, platform_.content.mainDisplayID());
    if (!display && !content.displays.empty()) {
        display = &content.displays.front();
    }
    if (!display) {
        throw CaptureEngineError::noDisplay();
    }
    return {*display, ContentFilter{*display, ownApplication(content)}};
}

std::vector<RunningApplication>
CaptureEngine::ownApplication(const ShareableContent& content) const {
    const qint64 ownProcessID = QCoreApplication::applicationPid();
    const auto found = std::find_if(
        content.applications.begin(), content.applications.end(),
        [ownProcessID](const RunningApplication& app) { return app.processID == ownProcessID; });
    if (found == content.applications.end()) {
        return {};
    }
    return {*found};
}

// ---- Audio ---------------------------------------------------------------------------------

AudioStreamConfiguration CaptureEngine::audioStreamConfiguration() {
    // Display-bound but only its sound is used: the smallest frame, once a second.
    AudioStreamConfiguration configuration;
    configuration.width = 2;
    configuration.height = 2;
    configuration.minimumFrameInterval = FrameInterval{1, 1};
    configuration.capturesAudio = true;
    configuration.excludesCurrentProcessAudio = true;
    configuration.sampleRate = 48000;
    configuration.channelCount = 2;
    return configuration;
}

AudioWriterSettings CaptureEngine::audioWriterSettings(AudioExportFormat format) {
    AudioWriterSettings settings;
    settings.sampleRate = 48000;
    settings.numberOfChannels = 2;
    switch (format) {
    case AudioExportFormat::m4a:
        settings.fileType = AudioFileType::appleM4A;
        settings.formatID = kAudioFormatMPEG4AAC;
        settings.encoderBitRate = 192000;
        break;
    case AudioExportFormat::mp3:
    case AudioExportFormat::wav:
        settings.fileType = AudioFileType::wave;
        settings.formatID = kAudioFormatLinearPCM;
        settings.linearPCMBitDepth = 16;
        settings.linearPCMIsFloat = false;
        break;
    }
    return settings;
}

void CaptureEngine::startAudio(const QUrl& to, AudioExportFormat format) {
    const ShareableContent content = platform_.content.shareableContent(false, true);
    const ContentFilter filter = captureTarget(content).second;
    const AudioStreamConfiguration configuration = audioStreamConfiguration();

    QUrl writerURL = to;
    AudioExportFormat writerFormat = format;
    std::optional<PendingMP3Conversion> conversion;
    if (format == AudioExportFormat::mp3) {
        // The encoder would replace the file; the other formats' writers refuse it themselves.
        if (QFileInfo::exists(to.toLocalFile())) {
            throw CaptureEngineError::cannotCreateWriter(
                QStringLiteral("The file “%1” already exists.").arg(to.fileName()));
        }
        // The encoder writes the file only after the stop: a folder that refuses it is found
        // out now, while the recording can still not start, not once the sound is taken.
        const QByteArray probe = QFile::encodeName(to.toLocalFile());
        const int fd = ::open(probe.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0) {
            throw CaptureEngineError::cannotCreateWriter(
                QString::fromUtf8(fileSystemError(to.toLocalFile(), errno).what()));
        }
        ::close(fd);
        ::unlink(probe.constData());
        const QString name = QStringLiteral("Tessarel-") +
                             QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() +
                             QStringLiteral(".wav");
        writerURL = QUrl::fromLocalFile(QDir(QDir::tempPath()).filePath(name));
        writerFormat = AudioExportFormat::wav;
        conversion = PendingMP3Conversion{writerURL, to};
    }
    // No buffer of the new stream can arrive yet; the lock only keeps every access alike.
    // A recorder kept after a failed video stop has already reported its outcome: left in
    // place it would make this recording's stop wait for it forever.
    // Old objects are taken out under the lock and released after it: their destructors
    // may wait for threads that call back into the engine.
    const std::shared_ptr<RecordingOutput> keptRecorder = withLock([&] {
        recordingResult = std::nullopt;
        failureReported = false;
        return std::exchange(recordingOutput, nullptr);
    });

    prepare(makeAudioWriter(writerURL, writerFormat), conversion);

    const std::shared_ptr<AudioCaptureStream> newStream =
        platform_.audio.makeStream(filter, configuration, this);
    newStream->addAudioOutput(this);
    const std::shared_ptr<CaptureStream> oldStream =
        withLock([&] { return std::exchange(stream, newStream); });
    newStream->startCapture();
}

std::unique_ptr<AudioFileWriter> CaptureEngine::makeAudioWriter(const QUrl& url,
                                                                AudioExportFormat format) {
    const AudioWriterSettings settings = audioWriterSettings(format);
    // Every failure, the unavailable encoder included, is wrapped once more: the doubled
    // prefix of that case is the text users see.
    try {
        std::unique_ptr<AudioFileWriter> newWriter =
            platform_.audioWriters.makeWriter(url, settings);
        if (newWriter->canAddInput()) {
            newWriter->addInput();
            return newWriter;
        }
        throw CaptureEngineError::cannotCreateWriter(
            QStringLiteral("The ") + format.rawValue() +
            QStringLiteral(" encoder is unavailable on this Mac."));
    } catch (...) {
        throw CaptureEngineError::cannotCreateWriter(
            localizedDescription(std::current_exception()));
    }
}

void CaptureEngine::prepare(std::unique_ptr<AudioFileWriter> newWriter,
                            std::optional<PendingMP3Conversion> conversion) {
    std::unique_ptr<AudioFileWriter> oldWriter;
    {
        std::lock_guard guard(writerLock);
        writerStarted = false;
        sessionStarted = false;
        pendingMP3Conversion = std::move(conversion);
        oldWriter = std::exchange(writer, std::move(newWriter));
    }
}

void CaptureEngine::didOutputSampleBuffer(SampleBuffer buffer) {
    if (!buffer.isValid || !buffer.dataIsReady) {
        return;
    }
    // A writer that failed for good is taken out under the lock and released after it.
    std::unique_ptr<AudioFileWriter> failed;
    std::exception_ptr failure;
    {
        // Held for the whole buffer, so finishWriting never races an append. Only the
        // writer's own users wait for the file; the engine's other work goes on.
        std::lock_guard guard(writerLock);
        if (!writer) {
            return;
        }
        const int64_t presentationTimeNs = buffer.presentationTimeNs;
        if (!writerStarted) {
            // Retried on every buffer while the writer may still start; one that has failed
            // (its file cannot be created) ends the recording, and the user is told why.
            if (!writer->startWriting()) {
                if (writer->status() == AudioWriterStatus::failed) {
                    failure = std::make_exception_ptr(CaptureEngineError::cannotCreateWriter(
                        writer->error().value_or(QStringLiteral("Unknown writer error"))));
                    failed = std::move(writer);
                    pendingMP3Conversion.reset();
                }
            } else {
                writerStarted = true;
            }
        }
        if (writerStarted) {
            if (!sessionStarted) {
                writer->startSession(presentationTimeNs);
                sessionStarted = true;
            }
            // Never wait for the writer: a buffer it cannot take now is dropped.
            if (writer->isReadyForMoreMediaData()) {
                writer->append(std::move(buffer));
            } else if (writer->status() == AudioWriterStatus::failed) {
                // The file stopped taking sound (the disk is full, the folder is gone): what
                // it holds stays; the recording ends now rather than at Stop.
                failure = std::make_exception_ptr(CaptureEngineError::cannotEncode(
                    writer->error().value_or(QStringLiteral("Unknown encoding error"))));
            }
        }
    }
    if (failure) {
        failed.reset();
        reportFailure(failure);
    }
}

void CaptureEngine::setFailureHandler(std::function<void(std::exception_ptr)> handler) {
    failureHandler_ = std::move(handler);
}

void CaptureEngine::reportFailure(std::exception_ptr error) {
    const bool first = withLock([&] { return !std::exchange(failureReported, true); });
    if (first && failureHandler_) {
        failureHandler_(std::move(error));
    }
}

void CaptureEngine::finishWriting() {
    std::unique_ptr<AudioFileWriter> finishing;
    bool started = false;
    std::optional<PendingMP3Conversion> conversion;
    {
        std::lock_guard guard(writerLock);
        finishing = std::move(writer);
        started = std::exchange(sessionStarted, false);
        writerStarted = false;
        conversion = std::exchange(pendingMP3Conversion, std::nullopt);
    }
    if (!finishing) {
        return;
    }
    finishing->markAsFinished();
    if (!started) {
        // No sound ever arrived: no file and, deliberately, no error.
        finishing->cancelWriting();
        return;
    }
    finishing->finishWriting();
    if (finishing->status() != AudioWriterStatus::completed) {
        throw CaptureEngineError::cannotEncode(
            finishing->error().value_or(QStringLiteral("Unknown encoding error")));
    }
    // The file is complete, but not where the user expects it: they are told where it is.
    if (const std::optional<QString> whereItWent = finishing->error()) {
        throw PlatformError(*whereItWent);
    }
    if (conversion) {
        convertToMP3(*conversion);
    }
}

void CaptureEngine::convertToMP3(const PendingMP3Conversion& conversion) {
    const QString sourcePath = conversion.source.toLocalFile();
    const QString destinationPath = conversion.destination.toLocalFile();
    const RemoveOnExit removeSource(sourcePath);

    const std::optional<QString> encoder =
        platform_.resources.pathForResource(QStringLiteral("lame"));
    if (!encoder) {
        throw CaptureEngineError::cannotEncode(
            QStringLiteral("The bundled MP3 encoder is missing."));
    }
    // The sound waited in the temporary folder; a save folder that went away meanwhile is
    // made again for it, and the user is told.
    const QString folder = QFileInfo(destinationPath).absolutePath();
    const bool folderWasGone = !QFileInfo(folder).isDir();
    errno = 0;
    if (folderWasGone && !QDir().mkpath(folder)) {
        throw CaptureEngineError::cannotEncode(QString::fromUtf8(
            fileSystemError(destinationPath, errno != 0 ? errno : ENOTDIR).what()));
    }
    // An argument list, never a shell: paths go through whole.
    QProcess process;
    process.setProgram(*encoder);
    process.setArguments({QStringLiteral("--silent"), QStringLiteral("-b"), QStringLiteral("192"),
                          sourcePath, destinationPath});
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start();
    if (!process.waitForStarted(-1)) {
        throw PlatformError(process.errorString());
    }
    process.waitForFinished(-1);
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0 ||
        !QFile::exists(destinationPath)) {
        throw CaptureEngineError::cannotEncode(
            QStringLiteral("macOS could not convert the recording to MP3."));
    }
    if (folderWasGone) {
        throw PlatformError(folderMadeAgainNotice(destinationPath));
    }
}

QString CaptureEngine::writerErrorDescription(const std::optional<WriterErrorInfo>& error) {
    if (!error) {
        return QStringLiteral("Unknown writer error");
    }
    const QString origin = QStringLiteral(" (") + error->domain + QLatin1Char(' ') +
                           QString::number(error->code) + QLatin1Char(')');
    if (error->failureReason) {
        return error->localizedDescription + QStringLiteral(" \u2014 ") + *error->failureReason +
               origin;
    }
    return error->localizedDescription + origin;
}

// ---- Snapshot ------------------------------------------------------------------------------

PixelSize CaptureEngine::snapshotPixelSize(const Size& size, double scale) {
    return {truncatedPixels(size.width, scale), truncatedPixels(size.height, scale)};
}

Image CaptureEngine::snapshot(uint32_t screenID, const Size& size, double scale) {
    const ShareableContent content = platform_.content.shareableContent(false, true);
    // No fall-back: a screen the service does not list cannot be captured.
    const DisplayInfo* display = displayWithID(content, screenID);
    if (!display) {
        throw CaptureEngineError::noDisplay();
    }
    const ContentFilter filter{*display, ownApplication(content)};
    const PixelSize pixels = snapshotPixelSize(size, scale);
    const ScreenshotConfiguration configuration{pixels.width, pixels.height, false};
    return platform_.screenshots.captureImage(filter, configuration);
}

// ---- Video ---------------------------------------------------------------------------------

Rect CaptureEngine::videoSourceRect(const Rect& region, const Rect& screenFrame) {
    // Global bottom-left origin to the display's own top-left origin.
    return {region.minX() - screenFrame.minX(), screenFrame.maxY() - region.maxY(), region.width,
            region.height};
}

PixelSize CaptureEngine::videoOutputSize(const Size& regionSize, double scale) {
    // Encoders want even dimensions.
    return {evenPixelsAtLeastTwo(regionSize.width, scale),
            evenPixelsAtLeastTwo(regionSize.height, scale)};
}

VideoStreamConfiguration CaptureEngine::videoStreamConfiguration(const Rect& sourceRect,
                                                                 const PixelSize& outputSize,
                                                                 double scale) {
    VideoStreamConfiguration configuration;
    configuration.sourceRect = sourceRect;
    configuration.width = outputSize.width;
    configuration.height = outputSize.height;
    configuration.pixelsPerPoint = scale;
    configuration.minimumFrameInterval = FrameInterval{1, 30};
    configuration.queueDepth = 6;
    configuration.showsCursor = true;
    return configuration;
}

void CaptureEngine::startVideo(const QUrl& to, const Rect& region, uint32_t screenID,
                               const Rect& screenFrame, double scale) {
    const ShareableContent content = platform_.content.shareableContent(false, true);
    // No fall-back: the area lies on this display and no other.
    const DisplayInfo* display = displayWithID(content, screenID);
    if (!display) {
        throw CaptureEngineError::noDisplay();
    }
    // Leaves the panel and the selection overlays out of the movie.
    const ContentFilter filter{*display, ownApplication(content)};
    const VideoStreamConfiguration configuration = videoStreamConfiguration(
        videoSourceRect(region, screenFrame), videoOutputSize(region.size(), scale), scale);
    const std::shared_ptr<VideoCaptureStream> newStream =
        platform_.video.makeStream(filter, configuration, this);

    RecordingOutputConfiguration recorderConfiguration;
    recorderConfiguration.outputURL = to;
    recorderConfiguration.outputFileType = VideoFileType::mpeg4;
    const std::vector<VideoCodec> codecs = platform_.video.availableVideoCodecTypes();
    // Without H.264 the recorder's default is kept, silently.
    if (std::find(codecs.begin(), codecs.end(), VideoCodec::h264) != codecs.end()) {
        recorderConfiguration.videoCodecType = VideoCodec::h264;
    }
    const std::shared_ptr<RecordingOutput> recorder =
        platform_.video.makeRecordingOutput(recorderConfiguration, this);
    newStream->addRecordingOutput(recorder);

    struct Replaced {
        std::shared_ptr<CaptureStream> stream;
        std::shared_ptr<RecordingOutput> recorder;
    };
    const Replaced replaced = withLock([&] {
        recordingResult = std::nullopt;
        recordingContinuation = std::nullopt;
        failureReported = false;
        return Replaced{std::exchange(stream, newStream), std::exchange(recordingOutput, recorder)};
    });
    try {
        newStream->startCapture();
    } catch (...) {
        const Replaced abandoned = withLock([&] {
            return Replaced{std::exchange(stream, nullptr),
                            std::exchange(recordingOutput, nullptr)};
        });
        throw;
    }
}

void CaptureEngine::recordingOutputDidStartRecording() {}

void CaptureEngine::recordingOutputDidFinishRecording() {
    completeNativeRecording(RecordingResult{});
}

void CaptureEngine::recordingOutputDidFail(std::exception_ptr error) {
    completeNativeRecording(RecordingResult{error});
    // Unasked, the movie has ended (its file cannot be written): the controller stops the
    // capture and shows why. During a stop, the stop itself throws the failure.
    reportFailure(std::move(error));
}

void CaptureEngine::completeNativeRecording(RecordingResult result) {
    // The result is kept until a stop succeeds: a stop after a failed one meets the same
    // failure instead of waiting for a recorder that has already finished.
    std::optional<std::promise<void>> waiter = withLock([&] {
        recordingResult = result;
        return std::exchange(recordingContinuation, std::nullopt);
    });
    if (waiter) {
        resume(*waiter, result.error);
    }
}

void CaptureEngine::awaitRecordingCompletion() {
    std::promise<void> continuation;
    std::future<void> outcome = continuation.get_future();
    const std::optional<RecordingResult> result = withLock([&]() -> std::optional<RecordingResult> {
        if (!recordingResult) {
            recordingContinuation = std::move(continuation);
        }
        return recordingResult;
    });
    if (result) {
        resume(continuation, result->error);
    }
    outcome.get();
}

// ---- Stop ----------------------------------------------------------------------------------

void CaptureEngine::streamDidStop(std::exception_ptr error) {
    // Only stop() ends a capture; a stream that failed on its own is reported so that the
    // controller stops it and shows why.
    if (error) {
        reportFailure(std::move(error));
    }
}

void CaptureEngine::stop() {
    const std::shared_ptr<CaptureStream> stopping =
        withLock([&] { return std::exchange(stream, nullptr); });
    const bool recordingVideo = withLock([&] { return recordingOutput != nullptr; });
    if (stopping) {
        // An error here ends stop at once, without finishing anything.
        stopping->stopCapture();
    }
    if (recordingVideo) {
        awaitRecordingCompletion();
        // Kept after a failure; the next startVideo replaces it.
        const std::shared_ptr<RecordingOutput> finished = withLock([&] {
            recordingResult = std::nullopt;
            return std::exchange(recordingOutput, nullptr);
        });
    } else {
        finishWriting();
    }
}
