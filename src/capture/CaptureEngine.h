#pragma once

#include "capture/CapturePlatform.h"
#include "capture/CaptureVocabulary.h"

#include <QUrl>

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>

// The one object that talks to the capture services: turns a request into a finished file
// or an in-memory image.
//
// Threads: the public operations block and are called off the GUI thread (the controller
// runs them as background tasks). Audio sample buffers, stream and recorder callbacks arrive
// on the services' own threads. `writerLock` guards the audio writer and is held across an
// append (a write to the file); `lock` guards every other mutable field. Neither is held
// across a wait for another thread, and one is never taken while the other is held.
class CaptureEngine final : public AudioSampleHandler,
                            public StreamDelegate,
                            public RecordingOutputDelegate {
public:
    explicit CaptureEngine(CapturePlatform platform);
    ~CaptureEngine() override;
    CaptureEngine(const CaptureEngine&) = delete;
    CaptureEngine& operator=(const CaptureEngine&) = delete;

    // Returns once recording has begun. Throws CaptureEngineError or the service's error.
    void startAudio(const QUrl& to, AudioExportFormat format);
    // Returns once capture has started.
    void startVideo(const QUrl& to, const Rect& region, uint32_t screenID, const Rect& screenFrame,
                    double scale);
    Image snapshot(uint32_t screenID, const Size& size, double scale);
    // Stops whatever runs and returns once its file is complete (MP3 conversion included).
    // After a failed movie stop, a further stop throws the same failure.
    void stop();

    // Told, from any thread and at most once per capture, that the capture cannot go on
    // (its file cannot be written, its source is gone); the capture is not stopped: the
    // receiver calls stop() and shows the failure. Set before the first start.
    void setFailureHandler(std::function<void(std::exception_ptr)> handler);

    // Platform-free arithmetic, public so that it can be checked on its own.
    static Rect videoSourceRect(const Rect& region, const Rect& screenFrame);
    static PixelSize videoOutputSize(const Size& regionSize, double scale);
    static PixelSize snapshotPixelSize(const Size& size, double scale);
    static AudioStreamConfiguration audioStreamConfiguration();
    static AudioWriterSettings audioWriterSettings(AudioExportFormat format);
    static VideoStreamConfiguration
    videoStreamConfiguration(const Rect& sourceRect, const PixelSize& outputSize, double scale);
    // Formats a writer error as "<description> — <reason> (<domain> <code>)".
    struct WriterErrorInfo {
        QString localizedDescription;
        std::optional<QString> failureReason;
        QString domain;
        long long code = 0;
    };
    static QString writerErrorDescription(const std::optional<WriterErrorInfo>& error);

    // Callbacks from the services.
    void didOutputSampleBuffer(SampleBuffer buffer) override; // on the stream's thread
    void streamDidStop(std::exception_ptr error) override;
    void recordingOutputDidStartRecording() override;
    void recordingOutputDidFinishRecording() override;
    void recordingOutputDidFail(std::exception_ptr error) override;

private:
    struct PendingMP3Conversion {
        QUrl source;
        QUrl destination;
    };
    // Success is an empty exception pointer.
    struct RecordingResult {
        std::exception_ptr error;
    };

    std::pair<DisplayInfo, ContentFilter> captureTarget(const ShareableContent& content);
    std::vector<RunningApplication> ownApplication(const ShareableContent& content) const;
    std::unique_ptr<AudioFileWriter> makeAudioWriter(const QUrl& url, AudioExportFormat format);
    void prepare(std::unique_ptr<AudioFileWriter> writer,
                 std::optional<PendingMP3Conversion> conversion);
    void finishWriting();
    void convertToMP3(const PendingMP3Conversion& conversion);
    void awaitRecordingCompletion();
    void completeNativeRecording(RecordingResult result);
    void reportFailure(std::exception_ptr error);
    template <typename Body> auto withLock(Body&& body) {
        std::lock_guard guard(lock);
        return body();
    }

    CapturePlatform platform_;

    std::mutex writerLock;
    std::unique_ptr<AudioFileWriter> writer; // the writer and its one input
    bool writerStarted = false;
    bool sessionStarted = false;
    std::optional<PendingMP3Conversion> pendingMP3Conversion;

    std::mutex lock;
    std::shared_ptr<CaptureStream> stream;
    std::shared_ptr<RecordingOutput> recordingOutput;
    std::optional<RecordingResult> recordingResult;
    std::optional<std::promise<void>> recordingContinuation;
    bool failureReported = false;                            // for the capture running now
    std::function<void(std::exception_ptr)> failureHandler_; // set before any capture
};
