#include "capture/linux/FfmpegAudioWriter.h"

#include "capture/linux/FfmpegAudioFiles.h"
#include "capture/linux/RecordingFile.h"

#include <QFile>
#include <QFileInfo>

#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace {

enum class Container { mpeg4Audio, wave };

// About ten seconds of the sound stream's 100 ms buffers.
constexpr size_t kQueueCapacity = 100;
// Times closer than this to the frames already written count as continuous.
constexpr int64_t kContinuityToleranceNs = 2'000'000;
constexpr int64_t kNsPerSecond = 1'000'000'000;

class FfmpegAudioWriter final : public AudioFileWriter {
public:
    FfmpegAudioWriter(QString path, Container container, const AudioWriterSettings& settings)
        : path_(std::move(path)), container_(container), settings_(settings),
          encodesOnItsOwnThread_(container == Container::mpeg4Audio) {}
    // A writer dropped while writing still ends its file.
    ~FfmpegAudioWriter() override { finishWriting(); }
    FfmpegAudioWriter(const FfmpegAudioWriter&) = delete;
    FfmpegAudioWriter& operator=(const FfmpegAudioWriter&) = delete;

    bool canAddInput() override {
        std::lock_guard guard(mutex_);
        return !inputAdded_ && status_ == AudioWriterStatus::unknown;
    }

    void addInput() override {
        std::lock_guard guard(mutex_);
        inputAdded_ = true;
    }

    bool startWriting() override {
        std::lock_guard guard(mutex_);
        if (status_ != AudioWriterStatus::unknown) {
            return false;
        }
        std::unique_ptr<RecordingFile> file;
        try {
            file = std::make_unique<RecordingFile>(path_);
        } catch (const PlatformError& error) {
            failLocked(QString::fromUtf8(error.what()));
            return false;
        }
        try {
            sink_ = container_ == Container::mpeg4Audio
                        ? makeMpeg4AudioFileSink(file->descriptor(),
                                                 QFile::encodeName(path_).toStdString(),
                                                 settings_.sampleRate, settings_.numberOfChannels,
                                                 settings_.encoderBitRate.value_or(0))
                        : makeWaveFileSink(file->descriptor(), settings_.sampleRate,
                                           settings_.numberOfChannels);
        } catch (const std::exception& error) {
            file->discard();
            failLocked(QString::fromUtf8(error.what()));
            return false;
        }
        file_ = std::move(file);
        status_ = AudioWriterStatus::writing;
        if (encodesOnItsOwnThread_) {
            worker_ = std::thread([this] { encode(); });
            pthread_setname_np(worker_.native_handle(), "Tessarel.audio");
        }
        return true;
    }

    void startSession(int64_t sourceTimeNs) override {
        std::lock_guard guard(mutex_);
        sessionStartNs_ = sourceTimeNs;
    }

    bool isReadyForMoreMediaData() override {
        std::lock_guard guard(mutex_);
        return readyLocked();
    }

    bool append(SampleBuffer buffer) override {
        int64_t sessionStartNs = 0;
        {
            std::lock_guard guard(mutex_);
            if (!readyLocked() || buffer.sampleRate != settings_.sampleRate ||
                buffer.channelCount != settings_.numberOfChannels) {
                return false;
            }
            if (encodesOnItsOwnThread_) {
                queue_.push_back(std::move(buffer));
            } else {
                sessionStartNs = sessionStartLocked(buffer);
            }
        }
        if (encodesOnItsOwnThread_) {
            wake_.notify_one();
        } else {
            guarded([&] { place(buffer, sessionStartNs); });
        }
        return true;
    }

    void markAsFinished() override {
        std::lock_guard guard(mutex_);
        markedFinished_ = true;
    }

    void finishWriting() override {
        if (!endEncoding(Ending::finish)) {
            return;
        }
        std::unique_ptr<RecordingFile> file;
        {
            std::lock_guard guard(mutex_);
            sink_.reset();
            file = std::move(file_);
        }
        // Whatever the file holds is kept, even where its folder went away meanwhile; the
        // copy that may take runs outside the lock.
        std::optional<QString> whereItWent;
        std::optional<QString> lost;
        try {
            whereItWent = file->keepReachable();
        } catch (const PlatformError& error) {
            lost = QString::fromUtf8(error.what());
        }
        std::lock_guard guard(mutex_);
        if (status_ == AudioWriterStatus::writing) {
            status_ = AudioWriterStatus::completed;
        }
        if (lost) {
            failLocked(*lost);
        } else if (whereItWent) {
            error_ = error_ ? *error_ + QLatin1Char(' ') + *whereItWent : *whereItWent;
        }
    }

    void cancelWriting() override {
        if (endEncoding(Ending::cancel)) {
            std::lock_guard guard(mutex_);
            sink_.reset();
            file_->discard();
            file_.reset();
            status_ = AudioWriterStatus::cancelled;
            return;
        }
        std::lock_guard guard(mutex_);
        if (status_ == AudioWriterStatus::unknown) {
            status_ = AudioWriterStatus::cancelled;
        }
    }

    AudioWriterStatus status() override {
        std::lock_guard guard(mutex_);
        return status_;
    }

    std::optional<QString> error() override {
        std::lock_guard guard(mutex_);
        return error_;
    }

private:
    enum class Ending { none, finish, cancel };

    bool readyLocked() const {
        return status_ == AudioWriterStatus::writing && !markedFinished_ &&
               queue_.size() < kQueueCapacity;
    }

    void failLocked(const QString& description) {
        status_ = AudioWriterStatus::failed;
        error_ = description;
    }

    template <typename Body> auto withLock(Body&& body) {
        std::lock_guard guard(mutex_);
        return body();
    }

    // Waits for the encoding thread, or ends a WAVE file here. False when nothing is being
    // written (never started, or already ended).
    bool endEncoding(Ending ending) {
        if (worker_.joinable()) {
            stopWorker(ending);
            return true;
        }
        if (!withLock([this] { return sink_ != nullptr; })) {
            return false;
        }
        if (ending == Ending::finish) {
            guarded([this] { sink_->finish(); });
        }
        return true;
    }

    int64_t sessionStartLocked(const SampleBuffer& buffer) {
        if (!sessionStartNs_) {
            sessionStartNs_ = buffer.presentationTimeNs;
        }
        return *sessionStartNs_;
    }

    void stopWorker(Ending ending) {
        {
            std::lock_guard guard(mutex_);
            ending_ = ending;
        }
        wake_.notify_one();
        worker_.join();
    }

    // ---- Encoding thread (MPEG-4 audio) ----

    // Writes every queued buffer, then ends the file unless the writing was cancelled. After
    // a failure the rest of the queue is dropped; the file keeps what was written before.
    void encode() {
        for (;;) {
            SampleBuffer buffer;
            int64_t sessionStartNs = 0;
            {
                std::unique_lock guard(mutex_);
                wake_.wait(guard, [this] { return !queue_.empty() || ending_ != Ending::none; });
                if (ending_ == Ending::cancel) {
                    return;
                }
                if (queue_.empty()) {
                    break;
                }
                buffer = std::move(queue_.front());
                queue_.pop_front();
                sessionStartNs = sessionStartLocked(buffer);
                if (status_ != AudioWriterStatus::writing) {
                    continue;
                }
            }
            guarded([&] { place(buffer, sessionStartNs); });
        }
        guarded([this] { sink_->finish(); });
    }

    template <typename Body> void guarded(Body&& body) {
        try {
            body();
        } catch (const std::exception& error) {
            std::lock_guard guard(mutex_);
            failLocked(QString::fromUtf8(error.what()));
        }
    }

    // Puts the buffer where its time says: a gap before it becomes silence, and frames that
    // overlap what is already written are left out.
    void place(const SampleBuffer& buffer, int64_t sessionStartNs) {
        const int64_t rate = settings_.sampleRate;
        const int64_t position = static_cast<int64_t>(
            std::llround(static_cast<double>(buffer.presentationTimeNs - sessionStartNs) *
                         static_cast<double>(rate) / kNsPerSecond));
        const int64_t offset = position - framesWritten_;
        const int64_t tolerance = kContinuityToleranceNs * rate / kNsPerSecond;
        int64_t skipped = 0;
        if (offset > tolerance) {
            writeSilence(offset);
        } else if (offset < -tolerance) {
            skipped = std::min(-offset, buffer.frameCount());
        }
        const int64_t frames = buffer.frameCount() - skipped;
        if (frames > 0) {
            sink_->write(buffer.samples.data() + skipped * buffer.channelCount, frames);
            framesWritten_ += frames;
        }
    }

    void writeSilence(int64_t frames) {
        const int64_t chunk = settings_.sampleRate / 10;
        silence_.resize(static_cast<size_t>(chunk * settings_.numberOfChannels), 0.0f);
        while (frames > 0) {
            const int64_t count = std::min(frames, chunk);
            sink_->write(silence_.data(), count);
            framesWritten_ += count;
            frames -= count;
        }
    }

    const QString path_;
    const Container container_;
    const AudioWriterSettings settings_;
    // AAC is encoded off the caller's thread; WAVE only converts and writes, and does so in
    // append: a second thread would cost more in wake-ups than the writing itself.
    const bool encodesOnItsOwnThread_;

    std::mutex mutex_;
    std::condition_variable wake_;
    bool inputAdded_ = false;
    bool markedFinished_ = false;
    AudioWriterStatus status_ = AudioWriterStatus::unknown;
    std::optional<QString> error_;
    std::optional<int64_t> sessionStartNs_;
    std::deque<SampleBuffer> queue_;
    Ending ending_ = Ending::none;
    std::unique_ptr<RecordingFile> file_;
    // Used by whoever writes (the encoding thread while it runs, append for WAVE); released
    // under the mutex after the encoding ended.
    std::unique_ptr<AudioFileSink> sink_;
    std::thread worker_;

    // Whoever writes.
    int64_t framesWritten_ = 0;
    std::vector<float> silence_;
};

std::optional<Container> containerFor(const AudioWriterSettings& settings) {
    if (settings.sampleRate <= 0 || settings.numberOfChannels <= 0) {
        return std::nullopt;
    }
    if (settings.fileType == AudioFileType::appleM4A && settings.formatID == kAudioFormatMPEG4AAC &&
        settings.encoderBitRate) {
        return Container::mpeg4Audio;
    }
    if (settings.fileType == AudioFileType::wave && settings.formatID == kAudioFormatLinearPCM &&
        settings.linearPCMBitDepth == 16 && !settings.linearPCMIsFloat.value_or(false)) {
        return Container::wave;
    }
    return std::nullopt;
}

} // namespace

std::unique_ptr<AudioFileWriter>
FfmpegAudioWriterFactory::makeWriter(const QUrl& url, const AudioWriterSettings& settings) {
    const std::optional<Container> container = containerFor(settings);
    if (!container) {
        throw PlatformError(QStringLiteral("This audio format cannot be written."));
    }
    if (!url.isLocalFile()) {
        throw PlatformError(QStringLiteral("Recordings can only be saved to a local folder."));
    }
    const QFileInfo file(url.toLocalFile());
    if (file.exists() || file.isSymLink()) {
        throw PlatformError(QStringLiteral("The file “%1” already exists.").arg(file.fileName()));
    }
    if (!QFileInfo(file.absolutePath()).isDir()) {
        throw PlatformError(
            QStringLiteral("The folder “%1” does not exist.").arg(file.absolutePath()));
    }
    return std::make_unique<FfmpegAudioWriter>(file.absoluteFilePath(), *container, settings);
}
