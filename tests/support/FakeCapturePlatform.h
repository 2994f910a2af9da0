#pragma once

// Scriptable stand-ins for every capture service, for tests of the engine and of the code
// that drives it. Each fake records what it was asked and may be scripted to fail. Every
// member is safe to call from any thread: the engine calls them from its callers' threads
// and the streams' delivery threads while a test thread inspects them.

#include "capture/CapturePlatform.h"
#include "support/SerialQueue.h"

#include <QString>
#include <QUrl>

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

// A service's error as the fakes throw it.
std::exception_ptr makePlatformError(const QString& description);

// ---- Displays and applications ------------------------------------------------------

class FakeShareableContentProvider final : public ShareableContentProvider {
public:
    struct Listing {
        bool excludingDesktopWindows = false;
        bool onScreenWindowsOnly = false;
    };

    void setDisplays(std::vector<DisplayInfo> displays);
    void setApplications(std::vector<RunningApplication> applications);
    void setMainDisplayID(uint32_t displayID);
    // A non-null error makes every listing throw it.
    void setListingError(std::exception_ptr error);
    std::vector<Listing> listings() const;

    ShareableContent shareableContent(bool excludingDesktopWindows,
                                      bool onScreenWindowsOnly) override;
    uint32_t mainDisplayID() override;

private:
    mutable std::mutex mutex_;
    ShareableContent content_;
    uint32_t mainDisplayID_ = 0;
    std::exception_ptr listingError_;
    std::vector<Listing> listings_;
};

// ---- Streams ------------------------------------------------------------------------------

// Errors the next streams throw; null means the call succeeds.
struct FakeStreamScript {
    std::exception_ptr addOutputError = nullptr; // addAudioOutput / addRecordingOutput
    std::exception_ptr startCaptureError = nullptr;
    std::exception_ptr stopCaptureError = nullptr;
};

class FakeAudioStream final : public AudioCaptureStream {
public:
    FakeAudioStream(ContentFilter filter, AudioStreamConfiguration configuration,
                    StreamDelegate* delegate, FakeStreamScript script);

    const ContentFilter& filter() const { return filter_; }
    const AudioStreamConfiguration& configuration() const { return configuration_; }
    StreamDelegate* delegate() const { return delegate_; }
    // The handler given to addAudioOutput, or null.
    AudioSampleHandler* audioOutput() const;
    // The stream's own thread, which delivers the buffers.
    std::thread::id deliveryThreadID() const { return delivery_.threadID(); }
    int startCaptureCount() const;
    int stopCaptureCount() const;

    // Delivers a buffer to the output on the stream's own thread, as a real stream does, and
    // returns at once; buffers go over in order. stopCapture returns once every buffer
    // pushed before it has been delivered; buffers pushed after it are still delivered, as
    // from a stream whose stop races them, so the engine that added the output must
    // outlive the delivery.
    void push(SampleBuffer buffer);
    // Delivers a buffer and waits until the output has handled it.
    void pushAndWait(SampleBuffer buffer);
    // Waits until every buffer pushed so far has been handled.
    void drain();
    // Reports that the stream stopped on its own.
    void stopOnItsOwn(std::exception_ptr error);

    void addAudioOutput(AudioSampleHandler* handler) override;
    void startCapture() override;
    void stopCapture() override;

private:
    const ContentFilter filter_;
    const AudioStreamConfiguration configuration_;
    StreamDelegate* const delegate_;
    const FakeStreamScript script_;
    mutable std::mutex mutex_;
    AudioSampleHandler* handler_ = nullptr;
    int startCaptureCount_ = 0;
    int stopCaptureCount_ = 0;
    SerialQueue delivery_{QStringLiteral("fake.audio")};
};

class FakeAudioCaptureService final : public AudioCaptureService {
public:
    void setScript(FakeStreamScript script);
    // Every stream made so far, oldest first.
    std::vector<std::shared_ptr<FakeAudioStream>> streams() const;
    // The newest stream; null when none was made.
    std::shared_ptr<FakeAudioStream> lastStream() const;

    std::shared_ptr<AudioCaptureStream> makeStream(const ContentFilter& filter,
                                                   const AudioStreamConfiguration& config,
                                                   StreamDelegate* delegate) override;

private:
    mutable std::mutex mutex_;
    FakeStreamScript script_;
    std::vector<std::shared_ptr<FakeAudioStream>> streams_;
};

// ---- Audio file writer ----------------------------------------------------------------------

// How the writers behave. Changes apply at once, also to writers already made.
struct FakeWriterScript {
    std::exception_ptr makeWriterError = nullptr;
    bool canAddInput = true;
    // startWriting answers false this many times per writer, then true.
    int startWritingFailures = 0;
    // When set, startWriting fails for good with this error (its file cannot be created).
    std::optional<QString> startWritingError = std::nullopt;
    bool readyForMoreMediaData = true;
    // The status finishWriting ends in, and the error the writer then reports.
    AudioWriterStatus finishStatus = AudioWriterStatus::completed;
    std::optional<QString> finishError = std::nullopt;
    // Run inside every append, on the appending thread, without the fakes' own lock.
    std::function<void()> duringAppend = nullptr;
};

// What one writer was asked to do.
struct FakeWriterRecord {
    QUrl url;
    AudioWriterSettings settings;
    bool inputAdded = false;
    int startWritingCalls = 0;
    std::optional<int64_t> sessionStartTimeNs;
    std::vector<SampleBuffer> appended;
    std::vector<std::thread::id> appendThreadIDs; // of every append
    int appendsAfterMarkAsFinished = 0;
    bool markedAsFinished = false;
    bool finishCalled = false;
    bool cancelCalled = false;
    AudioWriterStatus status = AudioWriterStatus::unknown;

    int64_t appendedFrameCount() const;
};

// A finish that ends completed writes a 16-bit PCM WAV of the appended samples at the
// writer's URL, whatever the settings ask for, so that the file can be handed on.
class FakeAudioWriterFactory final : public AudioWriterFactory {
public:
    FakeAudioWriterFactory();

    void setScript(FakeWriterScript script);
    FakeWriterScript script() const;
    void setReadyForMoreMediaData(bool ready);
    // Every makeWriter call, failed ones included.
    int makeWriterCount() const;
    // Writers made so far, oldest first.
    std::vector<FakeWriterRecord> writers() const;
    // The newest writer; throws std::logic_error when none was made.
    FakeWriterRecord lastWriter() const;

    std::unique_ptr<AudioFileWriter> makeWriter(const QUrl& url,
                                                const AudioWriterSettings& settings) override;

    struct Shared;

private:
    std::shared_ptr<Shared> shared_;
};

// ---- Snapshot ---------------------------------------------------------------------------------

class FakeScreenshotService final : public ScreenshotService {
public:
    struct Capture {
        ContentFilter filter;
        ScreenshotConfiguration configuration;
    };

    // The image every capture returns (by default a 2 by 2 grey image).
    void setImage(Image image);
    void setError(std::exception_ptr error);
    std::vector<Capture> captures() const;

    Image captureImage(const ContentFilter& filter,
                       const ScreenshotConfiguration& configuration) override;

private:
    mutable std::mutex mutex_;
    std::optional<Image> image_;
    std::exception_ptr error_;
    std::vector<Capture> captures_;
};

// ---- Video
// ----------------------------------------------------------------------------------------

// A recorder that reports only when a test tells it to.
class FakeRecordingOutput final : public RecordingOutput {
public:
    FakeRecordingOutput(RecordingOutputConfiguration configuration,
                        RecordingOutputDelegate* delegate);

    const RecordingOutputConfiguration& configuration() const { return configuration_; }
    RecordingOutputDelegate* delegate() const { return delegate_; }

    // Any thread, as the recorder's own thread would.
    void reportStarted();
    void reportFinished();
    void reportFailure(std::exception_ptr error);

private:
    const RecordingOutputConfiguration configuration_;
    RecordingOutputDelegate* const delegate_;
};

// What an attached recorder reports when its stream is stopped.
enum class FakeRecorderOnStop { nothing, finish, fail };

struct FakeVideoScript {
    FakeStreamScript stream = {};
    // By default the recorder finishes inside stopCapture, before stopCapture returns.
    FakeRecorderOnStop onStop = FakeRecorderOnStop::finish;
    std::exception_ptr onStopError = nullptr; // for FakeRecorderOnStop::fail
};

class FakeVideoStream final : public VideoCaptureStream {
public:
    FakeVideoStream(ContentFilter filter, VideoStreamConfiguration configuration,
                    StreamDelegate* delegate, FakeVideoScript script);

    const ContentFilter& filter() const { return filter_; }
    const VideoStreamConfiguration& configuration() const { return configuration_; }
    StreamDelegate* delegate() const { return delegate_; }
    std::vector<std::shared_ptr<RecordingOutput>> recordingOutputs() const;
    int startCaptureCount() const;
    int stopCaptureCount() const;

    void addRecordingOutput(const std::shared_ptr<RecordingOutput>& output) override;
    void startCapture() override;
    void stopCapture() override;

private:
    const ContentFilter filter_;
    const VideoStreamConfiguration configuration_;
    StreamDelegate* const delegate_;
    const FakeVideoScript script_;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<RecordingOutput>> outputs_;
    int startCaptureCount_ = 0;
    int stopCaptureCount_ = 0;
};

class FakeVideoCaptureService final : public VideoCaptureService {
public:
    FakeVideoCaptureService();

    // By default H.264 and HEVC are offered.
    void setAvailableVideoCodecTypes(std::vector<VideoCodec> codecs);
    void setScript(FakeVideoScript script);
    std::vector<std::shared_ptr<FakeVideoStream>> streams() const;
    std::shared_ptr<FakeVideoStream> lastStream() const;
    std::vector<std::shared_ptr<FakeRecordingOutput>> recordingOutputs() const;
    std::shared_ptr<FakeRecordingOutput> lastRecordingOutput() const;

    std::vector<VideoCodec> availableVideoCodecTypes() override;
    std::shared_ptr<VideoCaptureStream> makeStream(const ContentFilter& filter,
                                                   const VideoStreamConfiguration& config,
                                                   StreamDelegate* delegate) override;
    std::shared_ptr<RecordingOutput>
    makeRecordingOutput(const RecordingOutputConfiguration& config,
                        RecordingOutputDelegate* delegate) override;

private:
    mutable std::mutex mutex_;
    std::vector<VideoCodec> codecs_;
    FakeVideoScript script_;
    std::vector<std::shared_ptr<FakeVideoStream>> streams_;
    std::vector<std::shared_ptr<FakeRecordingOutput>> outputs_;
};

// ---- Application resources -------------------------------------------------------------------

class FakeApplicationResources final : public ApplicationResources {
public:
    // Points a resource at a path, or at nothing.
    void setResource(const QString& name, std::optional<QString> path);
    // Every name looked up, in order.
    std::vector<QString> lookups() const;

    std::optional<QString> pathForResource(const QString& name) override;

private:
    mutable std::mutex mutex_;
    std::map<QString, QString> paths_;
    std::vector<QString> lookups_;
};

// ---- All of them
// ---------------------------------------------------------------------------------

// Starts as one 1440 by 900 display with id 1 that is the main display, the own process
// listed as the application "Tessarel", and no resources.
class FakeCapturePlatform {
public:
    static constexpr uint32_t kDefaultDisplayID = 1;

    FakeCapturePlatform();

    CapturePlatform platform();

    FakeShareableContentProvider content;
    FakeAudioCaptureService audio;
    FakeAudioWriterFactory audioWriters;
    FakeScreenshotService screenshots;
    FakeVideoCaptureService video;
    FakeApplicationResources resources;
};
