#include "support/FakeCapturePlatform.h"

#include "support/SerialQueue.h"

#include <QCoreApplication>
#include <QSaveFile>
#include <QtEndian>

#include <algorithm>
#include <cmath>
#include <stdexcept>

std::exception_ptr makePlatformError(const QString& description) {
    return std::make_exception_ptr(PlatformError(description));
}

namespace {

void throwIfSet(const std::exception_ptr& error) {
    if (error) {
        std::rethrow_exception(error);
    }
}

} // namespace

// ---- Displays and applications ------------------------------------------------------

void FakeShareableContentProvider::setDisplays(std::vector<DisplayInfo> displays) {
    std::lock_guard guard(mutex_);
    content_.displays = std::move(displays);
}

void FakeShareableContentProvider::setApplications(std::vector<RunningApplication> applications) {
    std::lock_guard guard(mutex_);
    content_.applications = std::move(applications);
}

void FakeShareableContentProvider::setMainDisplayID(uint32_t displayID) {
    std::lock_guard guard(mutex_);
    mainDisplayID_ = displayID;
}

void FakeShareableContentProvider::setListingError(std::exception_ptr error) {
    std::lock_guard guard(mutex_);
    listingError_ = std::move(error);
}

std::vector<FakeShareableContentProvider::Listing> FakeShareableContentProvider::listings() const {
    std::lock_guard guard(mutex_);
    return listings_;
}

ShareableContent FakeShareableContentProvider::shareableContent(bool excludingDesktopWindows,
                                                                bool onScreenWindowsOnly) {
    std::lock_guard guard(mutex_);
    listings_.push_back({excludingDesktopWindows, onScreenWindowsOnly});
    throwIfSet(listingError_);
    return content_;
}

uint32_t FakeShareableContentProvider::mainDisplayID() {
    std::lock_guard guard(mutex_);
    return mainDisplayID_;
}

// ---- Audio stream ----------------------------------------------------------------------------

FakeAudioStream::FakeAudioStream(ContentFilter filter, AudioStreamConfiguration configuration,
                                 StreamDelegate* delegate, FakeStreamScript script)
    : filter_(std::move(filter)), configuration_(configuration), delegate_(delegate),
      script_(std::move(script)) {}

AudioSampleHandler* FakeAudioStream::audioOutput() const {
    std::lock_guard guard(mutex_);
    return handler_;
}

int FakeAudioStream::startCaptureCount() const {
    std::lock_guard guard(mutex_);
    return startCaptureCount_;
}

int FakeAudioStream::stopCaptureCount() const {
    std::lock_guard guard(mutex_);
    return stopCaptureCount_;
}

void FakeAudioStream::push(SampleBuffer buffer) {
    AudioSampleHandler* handler = audioOutput();
    if (!handler) {
        throw std::logic_error("FakeAudioStream::push before addAudioOutput");
    }
    delivery_.dispatch([handler, buffer = std::move(buffer)]() mutable {
        handler->didOutputSampleBuffer(std::move(buffer));
    });
}

void FakeAudioStream::pushAndWait(SampleBuffer buffer) {
    push(std::move(buffer));
    drain();
}

void FakeAudioStream::drain() {
    delivery_.sync([] {});
}

void FakeAudioStream::stopOnItsOwn(std::exception_ptr error) {
    delegate_->streamDidStop(std::move(error));
}

void FakeAudioStream::addAudioOutput(AudioSampleHandler* handler) {
    throwIfSet(script_.addOutputError);
    std::lock_guard guard(mutex_);
    handler_ = handler;
}

void FakeAudioStream::startCapture() {
    {
        std::lock_guard guard(mutex_);
        ++startCaptureCount_;
    }
    throwIfSet(script_.startCaptureError);
}

void FakeAudioStream::stopCapture() {
    {
        std::lock_guard guard(mutex_);
        ++stopCaptureCount_;
    }
    drain();
    throwIfSet(script_.stopCaptureError);
}

void FakeAudioCaptureService::setScript(FakeStreamScript script) {
    std::lock_guard guard(mutex_);
    script_ = std::move(script);
}

std::vector<std::shared_ptr<FakeAudioStream>> FakeAudioCaptureService::streams() const {
    std::lock_guard guard(mutex_);
    return streams_;
}

std::shared_ptr<FakeAudioStream> FakeAudioCaptureService::lastStream() const {
    std::lock_guard guard(mutex_);
    return streams_.empty() ? nullptr : streams_.back();
}

std::shared_ptr<AudioCaptureStream> FakeAudioCaptureService::makeStream(
    const ContentFilter& filter, const AudioStreamConfiguration& config, StreamDelegate* delegate) {
    std::lock_guard guard(mutex_);
    auto stream = std::make_shared<FakeAudioStream>(filter, config, delegate, script_);
    streams_.push_back(stream);
    return stream;
}

// ---- Audio file writer -----------------------------------------------------------------------

int64_t FakeWriterRecord::appendedFrameCount() const {
    int64_t frames = 0;
    for (const SampleBuffer& buffer : appended) {
        frames += buffer.frameCount();
    }
    return frames;
}

struct FakeAudioWriterFactory::Shared {
    std::mutex mutex;
    FakeWriterScript script;
    int makeWriterCount = 0;
    std::vector<FakeWriterRecord> records;
};

namespace {

// A canonical 44-byte-header WAVE file of 16-bit integer PCM.
QByteArray wavFile(const std::vector<SampleBuffer>& buffers, int sampleRate, int channelCount) {
    QByteArray samples;
    for (const SampleBuffer& buffer : buffers) {
        for (float sample : buffer.samples) {
            const float clamped = std::clamp(sample, -1.0f, 1.0f);
            const auto value = static_cast<int16_t>(std::lround(clamped * 32767.0f));
            char bytes[2];
            qToLittleEndian<int16_t>(value, bytes);
            samples.append(bytes, 2);
        }
    }
    QByteArray file;
    auto append32 = [&file](uint32_t value) {
        char bytes[4];
        qToLittleEndian<uint32_t>(value, bytes);
        file.append(bytes, 4);
    };
    auto append16 = [&file](uint16_t value) {
        char bytes[2];
        qToLittleEndian<uint16_t>(value, bytes);
        file.append(bytes, 2);
    };
    const auto dataSize = static_cast<uint32_t>(samples.size());
    const auto blockAlign = static_cast<uint16_t>(channelCount * 2);
    file.append("RIFF", 4);
    append32(36 + dataSize);
    file.append("WAVEfmt ", 8);
    append32(16);
    append16(1); // integer PCM
    append16(static_cast<uint16_t>(channelCount));
    append32(static_cast<uint32_t>(sampleRate));
    append32(static_cast<uint32_t>(sampleRate) * blockAlign);
    append16(blockAlign);
    append16(16);
    file.append("data", 4);
    append32(dataSize);
    file.append(samples);
    return file;
}

class FakeAudioWriter final : public AudioFileWriter {
public:
    FakeAudioWriter(std::shared_ptr<FakeAudioWriterFactory::Shared> shared, size_t index)
        : shared_(std::move(shared)), index_(index) {}

    bool canAddInput() override {
        std::lock_guard guard(shared_->mutex);
        return shared_->script.canAddInput;
    }
    void addInput() override {
        std::lock_guard guard(shared_->mutex);
        record().inputAdded = true;
    }
    bool startWriting() override {
        std::lock_guard guard(shared_->mutex);
        FakeWriterRecord& r = record();
        ++r.startWritingCalls;
        if (shared_->script.startWritingError) {
            r.status = AudioWriterStatus::failed;
            error_ = shared_->script.startWritingError;
            return false;
        }
        if (r.startWritingCalls <= shared_->script.startWritingFailures) {
            return false;
        }
        r.status = AudioWriterStatus::writing;
        return true;
    }
    void startSession(int64_t sourceTimeNs) override {
        std::lock_guard guard(shared_->mutex);
        record().sessionStartTimeNs = sourceTimeNs;
    }
    bool isReadyForMoreMediaData() override {
        std::lock_guard guard(shared_->mutex);
        return shared_->script.readyForMoreMediaData;
    }
    bool append(SampleBuffer buffer) override {
        std::function<void()> duringAppend;
        {
            std::lock_guard guard(shared_->mutex);
            duringAppend = shared_->script.duringAppend;
        }
        if (duringAppend) {
            duringAppend();
        }
        std::lock_guard guard(shared_->mutex);
        FakeWriterRecord& r = record();
        r.appendThreadIDs.push_back(std::this_thread::get_id());
        if (r.markedAsFinished) {
            ++r.appendsAfterMarkAsFinished;
            return false;
        }
        r.appended.push_back(std::move(buffer));
        return true;
    }
    void markAsFinished() override {
        std::lock_guard guard(shared_->mutex);
        record().markedAsFinished = true;
    }
    void finishWriting() override {
        std::lock_guard guard(shared_->mutex);
        FakeWriterRecord& r = record();
        r.finishCalled = true;
        r.status = shared_->script.finishStatus;
        error_ = r.status == AudioWriterStatus::failed ? shared_->script.finishError : std::nullopt;
        if (r.status == AudioWriterStatus::completed && !writeFile(r)) {
            r.status = AudioWriterStatus::failed;
            error_ = QStringLiteral("The file could not be written.");
        }
    }
    void cancelWriting() override {
        std::lock_guard guard(shared_->mutex);
        FakeWriterRecord& r = record();
        r.cancelCalled = true;
        r.status = AudioWriterStatus::cancelled;
    }
    AudioWriterStatus status() override {
        std::lock_guard guard(shared_->mutex);
        return record().status;
    }
    std::optional<QString> error() override {
        std::lock_guard guard(shared_->mutex);
        return error_;
    }

private:
    FakeWriterRecord& record() { return shared_->records[index_]; }

    static bool writeFile(const FakeWriterRecord& r) {
        QSaveFile file(r.url.toLocalFile());
        if (!file.open(QIODevice::WriteOnly)) {
            return false;
        }
        file.write(wavFile(r.appended, r.settings.sampleRate, r.settings.numberOfChannels));
        return file.commit();
    }

    std::shared_ptr<FakeAudioWriterFactory::Shared> shared_;
    size_t index_;
    std::optional<QString> error_;
};

} // namespace

FakeAudioWriterFactory::FakeAudioWriterFactory() : shared_(std::make_shared<Shared>()) {}

void FakeAudioWriterFactory::setScript(FakeWriterScript script) {
    std::lock_guard guard(shared_->mutex);
    shared_->script = std::move(script);
}

FakeWriterScript FakeAudioWriterFactory::script() const {
    std::lock_guard guard(shared_->mutex);
    return shared_->script;
}

void FakeAudioWriterFactory::setReadyForMoreMediaData(bool ready) {
    std::lock_guard guard(shared_->mutex);
    shared_->script.readyForMoreMediaData = ready;
}

int FakeAudioWriterFactory::makeWriterCount() const {
    std::lock_guard guard(shared_->mutex);
    return shared_->makeWriterCount;
}

std::vector<FakeWriterRecord> FakeAudioWriterFactory::writers() const {
    std::lock_guard guard(shared_->mutex);
    return shared_->records;
}

FakeWriterRecord FakeAudioWriterFactory::lastWriter() const {
    std::lock_guard guard(shared_->mutex);
    if (shared_->records.empty()) {
        throw std::logic_error("no audio writer was made");
    }
    return shared_->records.back();
}

std::unique_ptr<AudioFileWriter>
FakeAudioWriterFactory::makeWriter(const QUrl& url, const AudioWriterSettings& settings) {
    std::lock_guard guard(shared_->mutex);
    ++shared_->makeWriterCount;
    throwIfSet(shared_->script.makeWriterError);
    FakeWriterRecord record;
    record.url = url;
    record.settings = settings;
    shared_->records.push_back(std::move(record));
    return std::make_unique<FakeAudioWriter>(shared_, shared_->records.size() - 1);
}

// ---- Snapshot ---------------------------------------------------------------------------------

void FakeScreenshotService::setImage(Image image) {
    std::lock_guard guard(mutex_);
    image_ = std::move(image);
}

void FakeScreenshotService::setError(std::exception_ptr error) {
    std::lock_guard guard(mutex_);
    error_ = std::move(error);
}

std::vector<FakeScreenshotService::Capture> FakeScreenshotService::captures() const {
    std::lock_guard guard(mutex_);
    return captures_;
}

Image FakeScreenshotService::captureImage(const ContentFilter& filter,
                                          const ScreenshotConfiguration& configuration) {
    std::lock_guard guard(mutex_);
    captures_.push_back({filter, configuration});
    throwIfSet(error_);
    if (image_) {
        return *image_;
    }
    return Image{2, 2, 8, QByteArray(16, '\x80')};
}

// ---- Video ------------------------------------------------------------------------------------

FakeRecordingOutput::FakeRecordingOutput(RecordingOutputConfiguration configuration,
                                         RecordingOutputDelegate* delegate)
    : configuration_(std::move(configuration)), delegate_(delegate) {}

void FakeRecordingOutput::reportStarted() {
    delegate_->recordingOutputDidStartRecording();
}

void FakeRecordingOutput::reportFinished() {
    delegate_->recordingOutputDidFinishRecording();
}

void FakeRecordingOutput::reportFailure(std::exception_ptr error) {
    delegate_->recordingOutputDidFail(std::move(error));
}

FakeVideoStream::FakeVideoStream(ContentFilter filter, VideoStreamConfiguration configuration,
                                 StreamDelegate* delegate, FakeVideoScript script)
    : filter_(std::move(filter)), configuration_(configuration), delegate_(delegate),
      script_(std::move(script)) {}

std::vector<std::shared_ptr<RecordingOutput>> FakeVideoStream::recordingOutputs() const {
    std::lock_guard guard(mutex_);
    return outputs_;
}

int FakeVideoStream::startCaptureCount() const {
    std::lock_guard guard(mutex_);
    return startCaptureCount_;
}

int FakeVideoStream::stopCaptureCount() const {
    std::lock_guard guard(mutex_);
    return stopCaptureCount_;
}

void FakeVideoStream::addRecordingOutput(const std::shared_ptr<RecordingOutput>& output) {
    throwIfSet(script_.stream.addOutputError);
    std::lock_guard guard(mutex_);
    outputs_.push_back(output);
}

void FakeVideoStream::startCapture() {
    {
        std::lock_guard guard(mutex_);
        ++startCaptureCount_;
    }
    throwIfSet(script_.stream.startCaptureError);
}

void FakeVideoStream::stopCapture() {
    std::vector<std::shared_ptr<RecordingOutput>> outputs;
    {
        std::lock_guard guard(mutex_);
        ++stopCaptureCount_;
        outputs = outputs_;
    }
    throwIfSet(script_.stream.stopCaptureError);
    for (const auto& output : outputs) {
        auto* recorder = dynamic_cast<FakeRecordingOutput*>(output.get());
        if (!recorder) {
            continue;
        }
        switch (script_.onStop) {
        case FakeRecorderOnStop::nothing:
            break;
        case FakeRecorderOnStop::finish:
            recorder->reportFinished();
            break;
        case FakeRecorderOnStop::fail:
            recorder->reportFailure(
                script_.onStopError ? script_.onStopError
                                    : makePlatformError(QStringLiteral("The recording failed.")));
            break;
        }
    }
}

FakeVideoCaptureService::FakeVideoCaptureService() : codecs_{VideoCodec::h264, VideoCodec::hevc} {}

void FakeVideoCaptureService::setAvailableVideoCodecTypes(std::vector<VideoCodec> codecs) {
    std::lock_guard guard(mutex_);
    codecs_ = std::move(codecs);
}

void FakeVideoCaptureService::setScript(FakeVideoScript script) {
    std::lock_guard guard(mutex_);
    script_ = std::move(script);
}

std::vector<std::shared_ptr<FakeVideoStream>> FakeVideoCaptureService::streams() const {
    std::lock_guard guard(mutex_);
    return streams_;
}

std::shared_ptr<FakeVideoStream> FakeVideoCaptureService::lastStream() const {
    std::lock_guard guard(mutex_);
    return streams_.empty() ? nullptr : streams_.back();
}

std::vector<std::shared_ptr<FakeRecordingOutput>>
FakeVideoCaptureService::recordingOutputs() const {
    std::lock_guard guard(mutex_);
    return outputs_;
}

std::shared_ptr<FakeRecordingOutput> FakeVideoCaptureService::lastRecordingOutput() const {
    std::lock_guard guard(mutex_);
    return outputs_.empty() ? nullptr : outputs_.back();
}

std::vector<VideoCodec> FakeVideoCaptureService::availableVideoCodecTypes() {
    std::lock_guard guard(mutex_);
    return codecs_;
}

std::shared_ptr<VideoCaptureStream> FakeVideoCaptureService::makeStream(
    const ContentFilter& filter, const VideoStreamConfiguration& config, StreamDelegate* delegate) {
    std::lock_guard guard(mutex_);
    auto stream = std::make_shared<FakeVideoStream>(filter, config, delegate, script_);
    streams_.push_back(stream);
    return stream;
}

std::shared_ptr<RecordingOutput>
FakeVideoCaptureService::makeRecordingOutput(const RecordingOutputConfiguration& config,
                                             RecordingOutputDelegate* delegate) {
    std::lock_guard guard(mutex_);
    auto output = std::make_shared<FakeRecordingOutput>(config, delegate);
    outputs_.push_back(output);
    return output;
}

// ---- Application resources -------------------------------------------------------------------

void FakeApplicationResources::setResource(const QString& name, std::optional<QString> path) {
    std::lock_guard guard(mutex_);
    if (path) {
        paths_[name] = *path;
    } else {
        paths_.erase(name);
    }
}

std::vector<QString> FakeApplicationResources::lookups() const {
    std::lock_guard guard(mutex_);
    return lookups_;
}

std::optional<QString> FakeApplicationResources::pathForResource(const QString& name) {
    std::lock_guard guard(mutex_);
    lookups_.push_back(name);
    const auto found = paths_.find(name);
    if (found == paths_.end()) {
        return std::nullopt;
    }
    return found->second;
}

// ---- All of them
// ---------------------------------------------------------------------------------

FakeCapturePlatform::FakeCapturePlatform() {
    content.setDisplays({DisplayInfo{kDefaultDisplayID, Rect{0, 0, 1440, 900}}});
    content.setMainDisplayID(kDefaultDisplayID);
    content.setApplications(
        {RunningApplication{QCoreApplication::applicationPid(), QStringLiteral("Tessarel")}});
}

CapturePlatform FakeCapturePlatform::platform() {
    return CapturePlatform{content, audio, audioWriters, screenshots, video, resources};
}
