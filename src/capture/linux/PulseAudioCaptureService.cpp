#include "capture/linux/PulseAudioCaptureService.h"

#include "capture/SerialQueue.h"
#include "capture/linux/MonotonicClock.h"

#include <pulse/pulseaudio.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

struct MainloopFree {
    void operator()(pa_threaded_mainloop* mainloop) const { pa_threaded_mainloop_free(mainloop); }
};
struct ContextRelease {
    void operator()(pa_context* context) const {
        pa_context_disconnect(context);
        pa_context_unref(context);
    }
};
struct StreamRelease {
    void operator()(pa_stream* stream) const { pa_stream_unref(stream); }
};
struct OperationRelease {
    void operator()(pa_operation* operation) const { pa_operation_unref(operation); }
};
using Mainloop = std::unique_ptr<pa_threaded_mainloop, MainloopFree>;
using Context = std::unique_ptr<pa_context, ContextRelease>;
using Stream = std::unique_ptr<pa_stream, StreamRelease>;
using Operation = std::unique_ptr<pa_operation, OperationRelease>;

class MainloopLock {
public:
    explicit MainloopLock(pa_threaded_mainloop* mainloop) : mainloop_(mainloop) {
        pa_threaded_mainloop_lock(mainloop_);
    }
    ~MainloopLock() { pa_threaded_mainloop_unlock(mainloop_); }
    MainloopLock(const MainloopLock&) = delete;
    MainloopLock& operator=(const MainloopLock&) = delete;

private:
    pa_threaded_mainloop* mainloop_;
};

// Small fragments keep the delivered times close to the clock.
constexpr pa_usec_t kFragmentUs = 20'000;
constexpr int64_t kNsPerSecond = 1'000'000'000;

class PulseAudioCaptureStream final : public AudioCaptureStream {
public:
    PulseAudioCaptureStream(const AudioStreamConfiguration& config, StreamDelegate* delegate)
        : delegate_(delegate), spec_{PA_SAMPLE_FLOAT32LE, static_cast<uint32_t>(config.sampleRate),
                                     static_cast<uint8_t>(config.channelCount)} {}
    ~PulseAudioCaptureStream() override { release(); }
    PulseAudioCaptureStream(const PulseAudioCaptureStream&) = delete;
    PulseAudioCaptureStream& operator=(const PulseAudioCaptureStream&) = delete;

    void addAudioOutput(AudioSampleHandler* handler, SerialQueue& queue) override {
        handler_ = handler;
        queue_ = &queue;
    }

    void startCapture() override {
        if (mainloop_) {
            throw PlatformError(QStringLiteral("The sound recording has already started."));
        }
        if (!pa_sample_spec_valid(&spec_)) {
            throw PlatformError(QStringLiteral("The sound server cannot record this format."));
        }
        try {
            connect();
        } catch (...) {
            release();
            throw;
        }
    }

    void stopCapture() override {
        if (!mainloop_) {
            return;
        }
        {
            MainloopLock lock(mainloop_.get());
            running_ = false;
            if (PA_STREAM_IS_GOOD(pa_stream_get_state(stream_.get()))) {
                pa_stream_disconnect(stream_.get());
            }
        }
        release();
        // Buffers already handed over reach the handler before the stop is complete.
        if (queue_) {
            queue_->sync([] {});
        }
    }

private:
    void connect() {
        stopReported_ = false;
        anchorNs_.reset();
        suspendedAtNs_.reset();
        framesDelivered_ = 0;
        mainloop_.reset(pa_threaded_mainloop_new());
        if (!mainloop_) {
            throw PlatformError(QStringLiteral("The sound server could not be contacted."));
        }
        context_.reset(pa_context_new(pa_threaded_mainloop_get_api(mainloop_.get()), "Tessarel"));
        if (!context_) {
            throw PlatformError(QStringLiteral("The sound server could not be contacted."));
        }
        pa_context_set_state_callback(context_.get(), contextStateChanged, this);
        if (pa_context_connect(context_.get(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
            throw serverError(QStringLiteral("Tessarel could not connect to the sound server: "));
        }
        if (pa_threaded_mainloop_start(mainloop_.get()) < 0) {
            throw PlatformError(QStringLiteral("The sound server could not be contacted."));
        }
        MainloopLock lock(mainloop_.get());
        waitUntil([this] { return contextIsReady(); });
        connectStream(defaultSinkMonitor());
        waitUntil([this] { return streamIsReady(); });
        running_ = true;
    }

    // Lock held. Both throw once the connection has failed.
    bool contextIsReady() {
        const pa_context_state_t state = pa_context_get_state(context_.get());
        if (!PA_CONTEXT_IS_GOOD(state)) {
            throw serverError(QStringLiteral("Tessarel could not connect to the sound server: "));
        }
        return state == PA_CONTEXT_READY;
    }
    bool streamIsReady() {
        const pa_stream_state_t state = pa_stream_get_state(stream_.get());
        if (!PA_STREAM_IS_GOOD(state)) {
            throw serverError(QStringLiteral("Tessarel could not record the sound output: "));
        }
        return state == PA_STREAM_READY;
    }

    // Lock held. The default sink is asked for by name: its monitor is what the computer
    // plays, whatever the server's default source is.
    std::string defaultSinkMonitor() {
        struct Reply {
            pa_threaded_mainloop* mainloop;
            std::string name;
        };
        Reply sink{mainloop_.get(), {}};
        await(pa_context_get_server_info(
            context_.get(),
            [](pa_context*, const pa_server_info* info, void* userdata) {
                auto* reply = static_cast<Reply*>(userdata);
                if (info && info->default_sink_name) {
                    reply->name = info->default_sink_name;
                }
                pa_threaded_mainloop_signal(reply->mainloop, 0);
            },
            &sink));
        if (sink.name.empty()) {
            throw PlatformError(QStringLiteral("The sound server has no output to record."));
        }
        Reply monitor{mainloop_.get(), {}};
        await(pa_context_get_sink_info_by_name(
            context_.get(), sink.name.c_str(),
            [](pa_context*, const pa_sink_info* info, int, void* userdata) {
                auto* reply = static_cast<Reply*>(userdata);
                if (info && info->monitor_source_name) {
                    reply->name = info->monitor_source_name;
                }
                pa_threaded_mainloop_signal(reply->mainloop, 0);
            },
            &monitor));
        if (monitor.name.empty()) {
            throw PlatformError(
                QStringLiteral("The sound output “%1” cannot be recorded.").arg(sink.name.c_str()));
        }
        return monitor.name;
    }

    // Lock held. A monitor source carries the mix of every client; Tessarel itself plays no
    // sound, so there is no sound of its own to leave out.
    void connectStream(const std::string& source) {
        stream_.reset(pa_stream_new(context_.get(), "Tessarel system audio", &spec_, nullptr));
        if (!stream_) {
            throw serverError(QStringLiteral("Tessarel could not record the sound output: "));
        }
        pa_stream_set_state_callback(stream_.get(), streamStateChanged, this);
        pa_stream_set_read_callback(stream_.get(), streamReadable, this);
        pa_stream_set_suspended_callback(stream_.get(), streamSuspended, this);
        pa_buffer_attr attributes{};
        attributes.maxlength = static_cast<uint32_t>(-1);
        attributes.tlength = static_cast<uint32_t>(-1);
        attributes.prebuf = static_cast<uint32_t>(-1);
        attributes.minreq = static_cast<uint32_t>(-1);
        attributes.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(kFragmentUs, &spec_));
        const auto flags = static_cast<pa_stream_flags_t>(
            PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING);
        if (pa_stream_connect_record(stream_.get(), source.c_str(), &attributes, flags) < 0) {
            throw serverError(QStringLiteral("Tessarel could not record the sound output: "));
        }
    }

    // Lock held.
    void await(pa_operation* raw) {
        const Operation operation(raw);
        if (!operation) {
            throw serverError(QStringLiteral("The sound server did not answer: "));
        }
        while (pa_operation_get_state(operation.get()) == PA_OPERATION_RUNNING) {
            pa_threaded_mainloop_wait(mainloop_.get());
        }
        if (pa_operation_get_state(operation.get()) != PA_OPERATION_DONE) {
            throw serverError(QStringLiteral("The sound server did not answer: "));
        }
    }

    // Lock held.
    void waitUntil(const std::function<bool()>& done) {
        while (!done()) {
            pa_threaded_mainloop_wait(mainloop_.get());
        }
    }

    PlatformError serverError(const QString& prefix) const {
        return PlatformError(prefix +
                             QString::fromUtf8(pa_strerror(pa_context_errno(context_.get()))));
    }

    // Without the lock. After it no callback runs.
    void release() {
        if (mainloop_) {
            pa_threaded_mainloop_stop(mainloop_.get());
        }
        running_ = false;
        if (stream_) {
            pa_stream_set_state_callback(stream_.get(), nullptr, nullptr);
            pa_stream_set_read_callback(stream_.get(), nullptr, nullptr);
            pa_stream_set_suspended_callback(stream_.get(), nullptr, nullptr);
        }
        if (context_) {
            pa_context_set_state_callback(context_.get(), nullptr, nullptr);
        }
        stream_.reset();
        context_.reset();
        mainloop_.reset();
    }

    // ---- On the PulseAudio thread, lock held ----

    static void contextStateChanged(pa_context* context, void* userdata) {
        auto* self = static_cast<PulseAudioCaptureStream*>(userdata);
        if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context))) {
            self->stoppedOnItsOwn();
        }
        pa_threaded_mainloop_signal(self->mainloop_.get(), 0);
    }

    static void streamStateChanged(pa_stream* stream, void* userdata) {
        auto* self = static_cast<PulseAudioCaptureStream*>(userdata);
        if (!PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) {
            self->stoppedOnItsOwn();
        }
        pa_threaded_mainloop_signal(self->mainloop_.get(), 0);
    }

    static void streamReadable(pa_stream*, size_t, void* userdata) {
        static_cast<PulseAudioCaptureStream*>(userdata)->readAvailable();
    }

    // While its source is suspended the server records nothing, and says so: that time
    // becomes silence when the source resumes.
    static void streamSuspended(pa_stream* stream, void* userdata) {
        auto* self = static_cast<PulseAudioCaptureStream*>(userdata);
        if (pa_stream_is_suspended(stream) == 1) {
            self->suspendedAtNs_ = monotonicNowNs();
        } else if (self->suspendedAtNs_ && self->anchorNs_) {
            const int64_t silentNs = monotonicNowNs() - *std::exchange(self->suspendedAtNs_, {});
            std::vector<float> silence(
                static_cast<size_t>(silentNs * self->spec_.rate / kNsPerSecond) *
                    self->spec_.channels,
                0.0f);
            self->handOver(std::move(silence));
        }
    }

    // Reported once; everything else stays as it is until stopCapture.
    void stoppedOnItsOwn() {
        if (!running_ || stopReported_) {
            return;
        }
        stopReported_ = true;
        if (delegate_) {
            delegate_->streamDidStop(std::make_exception_ptr(
                serverError(QStringLiteral("The sound server stopped the recording: "))));
        }
    }

    // Everything readable now goes over in one buffer: one hand-over per wake-up, not per
    // fragment. The file gets exactly what the server delivered, in order; silence only where
    // the server itself reports a hole in the stream's timeline, never because sound arrived
    // later than a clock expected.
    void readAvailable() {
        std::vector<float> samples;
        while (pa_stream_readable_size(stream_.get()) > 0) {
            const void* data = nullptr;
            size_t byteCount = 0;
            if (pa_stream_peek(stream_.get(), &data, &byteCount) < 0 || byteCount == 0) {
                break;
            }
            if (!anchorNs_) {
                anchorNs_ = captureTimeNs();
            }
            const size_t count = byteCount / sizeof(float);
            if (data) {
                const auto* first = static_cast<const float*>(data);
                samples.insert(samples.end(), first, first + count);
            } else {
                samples.insert(samples.end(), count, 0.0f);
            }
            pa_stream_drop(stream_.get());
        }
        if (!samples.empty()) {
            handOver(std::move(samples));
        }
    }

    // The clock time of the first frame of the chunk just peeked: the latency of a record
    // stream runs from the read position to what the source records now. Before the first
    // timing update, what waits to be read (this chunk included) is the best lower bound.
    int64_t captureTimeNs() {
        pa_usec_t latencyUs = 0;
        int negative = 0;
        int64_t latencyNs = 0;
        if (pa_stream_get_latency(stream_.get(), &latencyUs, &negative) == 0) {
            latencyNs = static_cast<int64_t>(latencyUs) * 1000 * (negative ? -1 : 1);
        } else {
            latencyNs = static_cast<int64_t>(
                            pa_bytes_to_usec(pa_stream_readable_size(stream_.get()), &spec_)) *
                        1000;
        }
        return monotonicNowNs() - latencyNs;
    }

    int64_t framesToNs(int64_t frames) const { return frames * kNsPerSecond / spec_.rate; }

    // Stamped where the frames before it end: the timeline is the frames themselves.
    void handOver(std::vector<float> samples) {
        SampleBuffer buffer;
        buffer.presentationTimeNs = *anchorNs_ + framesToNs(framesDelivered_);
        buffer.sampleRate = static_cast<int>(spec_.rate);
        buffer.channelCount = spec_.channels;
        buffer.samples = std::move(samples);
        framesDelivered_ += static_cast<int64_t>(buffer.samples.size() / spec_.channels);
        if (handler_ && queue_) {
            queue_->dispatch([handler = handler_, buffer = std::move(buffer)]() mutable {
                handler->didOutputSampleBuffer(std::move(buffer));
            });
        }
    }

    StreamDelegate* delegate_;
    AudioSampleHandler* handler_ = nullptr;
    SerialQueue* queue_ = nullptr;
    pa_sample_spec spec_;
    // Torn down in reverse order, after the mainloop thread has stopped.
    Mainloop mainloop_;
    Context context_;
    Stream stream_;
    // Under the mainloop's lock.
    bool running_ = false;
    bool stopReported_ = false;
    std::optional<int64_t> anchorNs_;
    int64_t framesDelivered_ = 0;
    std::optional<int64_t> suspendedAtNs_;
};

} // namespace

std::shared_ptr<AudioCaptureStream>
PulseAudioCaptureService::makeStream(const ContentFilter&, const AudioStreamConfiguration& config,
                                     StreamDelegate* delegate) {
    // The server's output mix does not belong to a display: the filter has nothing to choose.
    return std::make_shared<PulseAudioCaptureStream>(config, delegate);
}
