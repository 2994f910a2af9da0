#pragma once

// The platform services the capture engine needs, each behind a small interface.
// Real implementations live in capture/linux; tests use fakes.

#include "capture/CaptureVocabulary.h"
#include "capture/Geometry.h"
#include "capture/Image.h"

#include <QString>
#include <QUrl>

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <vector>

// ---- Displays and applications -------------------------------------------------------

struct DisplayInfo {
    uint32_t displayID = 0; // the same number the GUI derives for the same screen
    Rect frame;             // as the service reports it (X11: pixels, top-left origin)
};

struct RunningApplication {
    qint64 processID = 0;
    QString name;
};

struct ShareableContent {
    std::vector<DisplayInfo> displays;
    std::vector<RunningApplication> applications;
};

// What a stream or screenshot captures: one display, minus the listed applications' windows
// and sound.
struct ContentFilter {
    DisplayInfo display;
    std::vector<RunningApplication> excludedApplications;
};

class ShareableContentProvider {
public:
    virtual ~ShareableContentProvider() = default;
    // Any thread. Throws the service's error when the content cannot be listed.
    virtual ShareableContent shareableContent(bool excludingDesktopWindows,
                                              bool onScreenWindowsOnly) = 0;
    // The display that carries the desktop's primary role.
    virtual uint32_t mainDisplayID() = 0;
};

// ---- Streams ----------------------------------------------------------------------------

struct FrameInterval {
    long long value = 1;
    int timescale = 1;
    friend bool operator==(const FrameInterval&, const FrameInterval&) = default;
};

class StreamDelegate {
public:
    virtual ~StreamDelegate() = default;
    // The stream stopped on its own (for example the sound server went away). Any thread.
    virtual void streamDidStop(std::exception_ptr error) = 0;
};

class CaptureStream {
public:
    virtual ~CaptureStream() = default;
    // Both block until the service has answered; they throw the service's error.
    virtual void startCapture() = 0;
    virtual void stopCapture() = 0;
};

// ---- Audio ------------------------------------------------------------------------------

struct AudioStreamConfiguration {
    int width = 0;
    int height = 0;
    FrameInterval minimumFrameInterval;
    bool capturesAudio = false;
    bool excludesCurrentProcessAudio = false;
    int sampleRate = 0;
    int channelCount = 0;
    friend bool operator==(const AudioStreamConfiguration&,
                           const AudioStreamConfiguration&) = default;
};

// Interleaved 32-bit float samples with the capture time of the first frame.
struct SampleBuffer {
    bool isValid = true;
    bool dataIsReady = true;
    int64_t presentationTimeNs = 0; // monotonic clock
    int sampleRate = 48000;
    int channelCount = 2;
    std::vector<float> samples;

    int64_t frameCount() const {
        return channelCount > 0 ? static_cast<int64_t>(samples.size()) / channelCount : 0;
    }
};

class AudioSampleHandler {
public:
    virtual ~AudioSampleHandler() = default;
    // Called on the stream's own thread, one buffer at a time and in order; the rest
    // recorded before a stop may come on the thread that stops the stream. Never after
    // stopCapture has returned or the stream is gone.
    virtual void didOutputSampleBuffer(SampleBuffer buffer) = 0;
};

class AudioCaptureStream : public CaptureStream {
public:
    // Throws the service's error.
    virtual void addAudioOutput(AudioSampleHandler* handler) = 0;
};

class AudioCaptureService {
public:
    virtual ~AudioCaptureService() = default;
    virtual std::shared_ptr<AudioCaptureStream> makeStream(const ContentFilter& filter,
                                                           const AudioStreamConfiguration& config,
                                                           StreamDelegate* delegate) = 0;
};

// ---- Audio file writer --------------------------------------------------------------------

enum class AudioFileType { appleM4A, wave };

// Four-character format codes, as unsigned 32-bit numbers.
inline constexpr uint32_t kAudioFormatMPEG4AAC = 0x61616320;  // 'aac '
inline constexpr uint32_t kAudioFormatLinearPCM = 0x6C70636D; // 'lpcm'

struct AudioWriterSettings {
    AudioFileType fileType = AudioFileType::wave;
    uint32_t formatID = 0;
    int sampleRate = 0;
    int numberOfChannels = 0;
    std::optional<int> encoderBitRate;
    std::optional<int> linearPCMBitDepth;
    std::optional<bool> linearPCMIsFloat;

    int entryCount() const {
        return 3 + (encoderBitRate ? 1 : 0) + (linearPCMBitDepth ? 1 : 0) +
               (linearPCMIsFloat ? 1 : 0);
    }
    friend bool operator==(const AudioWriterSettings&, const AudioWriterSettings&) = default;
};

enum class AudioWriterStatus { unknown, writing, completed, failed, cancelled };

// The life cycle the engine relies on. A writer is made for one file; its one audio input
// is attached with addInput. Every member may be called from any thread, one at a time
// (the engine serialises calls under its writer lock or owns the writer exclusively).
class AudioFileWriter {
public:
    virtual ~AudioFileWriter() = default;
    virtual bool canAddInput() = 0;
    virtual void addInput() = 0;
    virtual bool startWriting() = 0;
    virtual void startSession(int64_t sourceTimeNs) = 0;
    virtual bool isReadyForMoreMediaData() = 0;
    // Never waits for the encoder; returns false when the buffer was not taken.
    virtual bool append(SampleBuffer buffer) = 0;
    virtual void markAsFinished() = 0;
    // Blocks until the file is complete or has failed; status() tells which.
    virtual void finishWriting() = 0;
    virtual void cancelWriting() = 0;
    virtual AudioWriterStatus status() = 0;
    // Why the writer failed; for a completed writer, where the file went when it could not
    // stay where it was made (its folder went away while writing).
    virtual std::optional<QString> error() = 0;
};

class AudioWriterFactory {
public:
    virtual ~AudioWriterFactory() = default;
    // Throws the platform's error when no writer can be made for the file.
    virtual std::unique_ptr<AudioFileWriter> makeWriter(const QUrl& url,
                                                        const AudioWriterSettings& settings) = 0;
};

// ---- Snapshot -------------------------------------------------------------------------------

struct ScreenshotConfiguration {
    long long width = 0;
    long long height = 0;
    bool showsCursor = false;
    friend bool operator==(const ScreenshotConfiguration&,
                           const ScreenshotConfiguration&) = default;
};

class ScreenshotService {
public:
    virtual ~ScreenshotService() = default;
    // Any thread; throws the service's error.
    virtual Image captureImage(const ContentFilter& filter,
                               const ScreenshotConfiguration& configuration) = 0;
};

// ---- Video ------------------------------------------------------------------------------------

struct VideoStreamConfiguration {
    Rect sourceRect; // display-local points, top-left origin
    long long width = 0;
    long long height = 0;
    // The display's pixels per point. The X server knows only pixels, so the stream needs
    // it to find the source rectangle's pixels.
    double pixelsPerPoint = 1.0;
    FrameInterval minimumFrameInterval;
    int queueDepth = 0;
    bool showsCursor = false;
    friend bool operator==(const VideoStreamConfiguration&,
                           const VideoStreamConfiguration&) = default;
};

enum class VideoFileType { mpeg4 };
enum class VideoCodec { h264, hevc, mpeg4Part2 };

struct RecordingOutputConfiguration {
    QUrl outputURL;
    VideoFileType outputFileType = VideoFileType::mpeg4;
    std::optional<VideoCodec> videoCodecType; // none: the recorder's default codec
};

class RecordingOutputDelegate {
public:
    virtual ~RecordingOutputDelegate() = default;
    // Called on the recorder's own thread.
    virtual void recordingOutputDidStartRecording() = 0;
    virtual void recordingOutputDidFinishRecording() = 0;
    virtual void recordingOutputDidFail(std::exception_ptr error) = 0;
};

// A file recorder attached to a video stream; it reports through its delegate.
class RecordingOutput {
public:
    virtual ~RecordingOutput() = default;
};

class VideoCaptureStream : public CaptureStream {
public:
    // Throws the service's error when the stream refuses the recorder.
    virtual void addRecordingOutput(const std::shared_ptr<RecordingOutput>& output) = 0;
};

class VideoCaptureService {
public:
    virtual ~VideoCaptureService() = default;
    virtual std::vector<VideoCodec> availableVideoCodecTypes() = 0;
    virtual std::shared_ptr<VideoCaptureStream> makeStream(const ContentFilter& filter,
                                                           const VideoStreamConfiguration& config,
                                                           StreamDelegate* delegate) = 0;
    virtual std::shared_ptr<RecordingOutput>
    makeRecordingOutput(const RecordingOutputConfiguration& config,
                        RecordingOutputDelegate* delegate) = 0;
};

// ---- Application resources -----------------------------------------------------------------

class ApplicationResources {
public:
    virtual ~ApplicationResources() = default;
    // The path of a resource shipped with the application (no extension), or none.
    virtual std::optional<QString> pathForResource(const QString& name) = 0;
};

// Everything the engine reaches the platform through. The services outlive the engine.
struct CapturePlatform {
    ShareableContentProvider& content;
    AudioCaptureService& audio;
    AudioWriterFactory& audioWriters;
    ScreenshotService& screenshots;
    VideoCaptureService& video;
    ApplicationResources& resources;
};
