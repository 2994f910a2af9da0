#include "capture/linux/PulseAudioCaptureService.h"

#include "capture/linux/MonotonicClock.h"

#include <pulse/pulseaudio.h>

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

// Small fragments keep the sound coming promptly; what the server still holds at the stop is
// at most one.
constexpr pa_usec_t kFragmentUs = 20'000;
// Fragments are collected and handed over this often: each hand-over is a write to the file,
// and fewer, larger writes cost less than one per fragment.
constexpr int64_t kHandOverIntervalNs = 100'000'000;
constexpr int64_t kNsPerSecond = 1'000'000'000;
// Sound servers restart on updates: a lost one is looked for this long before the recording
// ends, every kReconnectIntervalUs.
constexpr int64_t kReconnectWindowNs = 10 * kNsPerSecond;
constexpr pa_usec_t kReconnectIntervalUs = 100'000;
constexpr const char* kThreadName = "Tessarel.sound";

class PulseAudioCaptureStream final : public AudioCaptureStream {
public:
    PulseAudioCaptureStream(const AudioStreamConfiguration& config, StreamDelegate* delegate)
        : delegate_(delegate), spec_{PA_SAMPLE_FLOAT32LE, static_cast<uint32_t>(config.sampleRate),
                                     static_cast<uint8_t>(config.channelCount)} {}
    ~PulseAudioCaptureStream() override { release(); }
    PulseAudioCaptureStream(const PulseAudioCaptureStream&) = delete;
    PulseAudioCaptureStream& operator=(const PulseAudioCaptureStream&) = delete;

    void addAudioOutput(AudioSampleHandler* handler) override { handler_ = handler; }

    void startCapture() override {
        if (mainloop_) {
            throw PlatformError(QStringLiteral("The sound recording has already started."));
        }
        if (!pa_sample_spec_valid(&spec_)) {
            throw PlatformError(QStringLiteral("The sound server cannot record this format."));
        }
        try {
            start();
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
            phase_ = Phase::stopped;
            disconnectStream();
        }
        release();
        // The PulseAudio thread has ended: the rest goes over on this thread, after
        // everything that thread handed over.
        handOverCollected();
    }

private:
    // starting: startCapture waits for the first stream or the first failure.
    // recording: a stream on the default output's monitor delivers.
    // reconnecting: the server or the stream was lost; the same steps are retried until a
    //   stream records again or the window has passed.
    // ended: the loss has been reported; stopCapture is all that is left.
    // stopped: before the start and after the stop.
    enum class Phase { starting, recording, reconnecting, ended, stopped };

    void start() {
        phase_ = Phase::starting;
        startError_ = nullptr;
        anchorNs_.reset();
        bridgeGap_ = false;
        framesDelivered_ = 0;
        collected_.clear();
        mainloop_.reset(pa_threaded_mainloop_new());
        if (mainloop_) {
            // Buffers are handed over on this thread: the name tells it apart in profiles.
            pa_threaded_mainloop_set_name(mainloop_.get(), kThreadName);
        }
        if (!mainloop_ || pa_threaded_mainloop_start(mainloop_.get()) < 0) {
            throw PlatformError(QStringLiteral("The sound server could not be contacted."));
        }
        MainloopLock lock(mainloop_.get());
        pa_mainloop_api* api = pa_threaded_mainloop_get_api(mainloop_.get());
        retryTimer_ = api->time_new(api, nullptr, retryDue, this);
        connectContext();
        while (phase_ == Phase::starting && !startError_) {
            pa_threaded_mainloop_wait(mainloop_.get());
        }
        if (startError_) {
            std::rethrow_exception(startError_);
        }
    }

    // ---- Connection steps; lock held, on the PulseAudio thread or in start ----
    // Each step that fails calls setBack; success moves on to the next step from a callback:
    // context ready -> default sink -> its monitor -> record stream ready.

    void connectContext() {
        disconnectStream();
        releaseContext();
        context_.reset(pa_context_new(pa_threaded_mainloop_get_api(mainloop_.get()), "Tessarel"));
        if (!context_) {
            setBack(PlatformError(QStringLiteral("The sound server could not be contacted.")));
            return;
        }
        pa_context_set_state_callback(context_.get(), contextStateChanged, this);
        pa_context_set_subscribe_callback(context_.get(), serverChanged, this);
        if (pa_context_connect(context_.get(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
            setBack(
                serverError(QStringLiteral("Tessarel could not connect to the sound server: ")));
        }
    }

    // The default sink is asked for by name: its monitor is what the computer plays, whatever
    // the server's default source is.
    void askForTheDefaultSink() {
        const Operation operation(
            pa_context_get_server_info(context_.get(), serverInfoArrived, this));
        if (!operation) {
            setBack(serverError(QStringLiteral("The sound server did not answer: ")));
        }
    }

    void askForTheMonitorOf(const std::string& sink) {
        wantedSink_ = sink;
        const Operation operation(
            pa_context_get_sink_info_by_name(context_.get(), sink.c_str(), sinkInfoArrived, this));
        if (!operation) {
            setBack(serverError(QStringLiteral("The sound server did not answer: ")));
        }
    }

    // A monitor source carries the mix of every client; Tessarel itself plays no sound, so
    // there is no sound of its own to leave out. The stream is not moved by the server when
    // its source goes away: it fails, and the default output's monitor is looked for again.
    void connectStream(const std::string& sink, const char* source) {
        disconnectStream();
        recordedSink_ = sink;
        // What the new stream delivers follows what the last one delivered after a gap.
        bridgeGap_ = anchorNs_.has_value();
        stream_.reset(pa_stream_new(context_.get(), "Tessarel system audio", &spec_, nullptr));
        if (!stream_) {
            setBack(serverError(QStringLiteral("Tessarel could not record the sound output: ")));
            return;
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
        const auto flags =
            static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE |
                                           PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_DONT_MOVE);
        if (pa_stream_connect_record(stream_.get(), source, &attributes, flags) < 0) {
            setBack(serverError(QStringLiteral("Tessarel could not record the sound output: ")));
        }
    }

    // A step failed. Before the first stream that fails the start; while recording, the
    // server is looked for again until kReconnectWindowNs has passed.
    void setBack(const PlatformError& startError) {
        switch (phase_) {
        case Phase::starting:
            startError_ = std::make_exception_ptr(startError);
            pa_threaded_mainloop_signal(mainloop_.get(), 0);
            break;
        case Phase::recording:
            phase_ = Phase::reconnecting;
            lostAtNs_ = monotonicNowNs();
            lossReason_ = QString::fromUtf8(pa_strerror(pa_context_errno(context_.get())));
            armRetry();
            break;
        case Phase::reconnecting:
        case Phase::ended:
        case Phase::stopped:
            break;
        }
    }

    // An answer that is not there yet. It ends only the start: while recording, the stream
    // already there goes on, and one being looked for is asked for again.
    void failStart(const PlatformError& error) {
        if (phase_ == Phase::starting) {
            setBack(error);
        }
    }

    void armRetry() {
        timeval due{};
        pa_timeval_add(pa_gettimeofday(&due), kReconnectIntervalUs);
        pa_threaded_mainloop_get_api(mainloop_.get())->time_restart(retryTimer_, &due);
    }

    // Takes up the connection steps where they stand.
    void retry() {
        if (phase_ != Phase::reconnecting) {
            return;
        }
        if (monotonicNowNs() - lostAtNs_ >= kReconnectWindowNs) {
            phase_ = Phase::ended;
            disconnectStream();
            if (delegate_) {
                delegate_->streamDidStop(std::make_exception_ptr(PlatformError(
                    QStringLiteral("The sound server stopped the recording: ") + lossReason_)));
            }
            return;
        }
        const pa_context_state_t state =
            context_ ? pa_context_get_state(context_.get()) : PA_CONTEXT_FAILED;
        if (!PA_CONTEXT_IS_GOOD(state)) {
            connectContext();
        } else if (state == PA_CONTEXT_READY && !streamIsGood()) {
            askForTheDefaultSink();
        }
        armRetry();
    }

    bool streamIsGood() const {
        return stream_ && PA_STREAM_IS_GOOD(pa_stream_get_state(stream_.get()));
    }

    PlatformError serverError(const QString& prefix) const {
        return PlatformError(prefix +
                             QString::fromUtf8(pa_strerror(pa_context_errno(context_.get()))));
    }

    // Lock held. No callback of the stream runs after it.
    void disconnectStream() {
        if (!stream_) {
            return;
        }
        pa_stream_set_state_callback(stream_.get(), nullptr, nullptr);
        pa_stream_set_read_callback(stream_.get(), nullptr, nullptr);
        pa_stream_set_suspended_callback(stream_.get(), nullptr, nullptr);
        if (PA_STREAM_IS_GOOD(pa_stream_get_state(stream_.get()))) {
            pa_stream_disconnect(stream_.get());
        }
        stream_.reset();
    }

    // Lock held or the mainloop stopped. No callback of the context runs after it; its
    // operations still under way are cancelled.
    void releaseContext() {
        if (!context_) {
            return;
        }
        pa_context_set_state_callback(context_.get(), nullptr, nullptr);
        pa_context_set_subscribe_callback(context_.get(), nullptr, nullptr);
        context_.reset();
    }

    // Without the lock. After it no callback runs.
    void release() {
        if (mainloop_) {
            pa_threaded_mainloop_stop(mainloop_.get());
        }
        disconnectStream();
        releaseContext();
        // Frees the retry timer with it.
        mainloop_.reset();
        retryTimer_ = nullptr;
    }

    // ---- On the PulseAudio thread, lock held ----

    static void contextStateChanged(pa_context* context, void* userdata) {
        auto* self = static_cast<PulseAudioCaptureStream*>(userdata);
        const pa_context_state_t state = pa_context_get_state(context);
        if (state == PA_CONTEXT_READY) {
            // The default output may change while recording (headphones plugged in).
            const Operation subscription(
                pa_context_subscribe(context, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr));
            self->askForTheDefaultSink();
        } else if (!PA_CONTEXT_IS_GOOD(state)) {
            self->setBack(self->serverError(
                QStringLiteral("Tessarel could not connect to the sound server: ")));
        }
    }

    static void serverChanged(pa_context*, pa_subscription_event_type_t type, uint32_t,
                              void* userdata) {
        auto* self = static_cast<PulseAudioCaptureStream*>(userdata);
        if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SERVER &&
            (self->phase_ == Phase::recording || self->phase_ == Phase::reconnecting)) {
            self->askForTheDefaultSink();
        }
    }

    static void serverInfoArrived(pa_context*, const pa_server_info* info, void* userdata) {
        auto* self = static_cast<PulseAudioCaptureStream*>(userdata);
        const std::string sink = info && info->default_sink_name ? info->default_sink_name : "";
        if (sink.empty()) {
            // A server coming back may not have its outputs yet; it says when it has.
            self->failStart(
                PlatformError(QStringLiteral("The sound server has no output to record.")));
        } else if (sink != self->recordedSink_ || !self->streamIsGood()) {
            self->askForTheMonitorOf(sink);
        }
    }

    static void sinkInfoArrived(pa_context*, const pa_sink_info* info, int eol, void* userdata) {
        auto* self = static_cast<PulseAudioCaptureStream*>(userdata);
        if (eol > 0) {
            return;
        }
        if (info && info->name == self->wantedSink_ && info->monitor_source_name) {
            self->connectStream(info->name, info->monitor_source_name);
        } else {
            self->failStart(
                PlatformError(QStringLiteral("The sound output “%1” cannot be recorded.")
                                  .arg(QString::fromStdString(self->wantedSink_))));
        }
    }

    static void streamStateChanged(pa_stream* stream, void* userdata) {
        auto* self = static_cast<PulseAudioCaptureStream*>(userdata);
        const pa_stream_state_t state = pa_stream_get_state(stream);
        if (state == PA_STREAM_READY) {
            if (self->phase_ == Phase::starting || self->phase_ == Phase::reconnecting) {
                self->phase_ = Phase::recording;
                pa_threaded_mainloop_signal(self->mainloop_.get(), 0);
            }
        } else if (!PA_STREAM_IS_GOOD(state)) {
            self->setBack(
                self->serverError(QStringLiteral("Tessarel could not record the sound output: ")));
        }
    }

    static void streamReadable(pa_stream*, size_t, void* userdata) {
        static_cast<PulseAudioCaptureStream*>(userdata)->readAvailable();
    }

    // While its source is suspended the server records nothing, and says so: that time
    // becomes silence when the source resumes.
    static void streamSuspended(pa_stream* stream, void* userdata) {
        auto* self = static_cast<PulseAudioCaptureStream*>(userdata);
        if (pa_stream_is_suspended(stream) == 1 && self->anchorNs_) {
            self->bridgeGap_ = true;
        }
    }

    // What is readable is collected and goes over once kHandOverIntervalNs of sound has
    // been, not per fragment. The file gets exactly what the server delivered, in order;
    // silence only where the server itself reports a hole in the stream's timeline or its
    // source was suspended, and while the server was gone, never because sound arrived later
    // than a clock expected.
    void readAvailable() {
        while (pa_stream_readable_size(stream_.get()) > 0) {
            const void* data = nullptr;
            size_t byteCount = 0;
            if (pa_stream_peek(stream_.get(), &data, &byteCount) < 0 || byteCount == 0) {
                break;
            }
            if (!anchorNs_) {
                anchorNs_ = captureTimeNs();
            } else if (std::exchange(bridgeGap_, false)) {
                bridgeTo(arrivalTimeNs());
            }
            const size_t count = byteCount / sizeof(float);
            if (collected_.empty()) {
                // A tenth of a second and the fragment that completes it, without regrowing.
                collected_.reserve(
                    static_cast<size_t>(framesIn(kHandOverIntervalNs) +
                                        framesIn(static_cast<int64_t>(kFragmentUs) * 1000)) *
                    spec_.channels);
            }
            if (data) {
                const auto* first = static_cast<const float*>(data);
                collected_.insert(collected_.end(), first, first + count);
            } else {
                collected_.insert(collected_.end(), count, 0.0f);
            }
            pa_stream_drop(stream_.get());
        }
        if (framesToNs(frameCount(collected_)) >= kHandOverIntervalNs) {
            handOverCollected();
        }
    }

    void handOverCollected() {
        if (!collected_.empty()) {
            handOver(std::exchange(collected_, {}));
        }
    }

    // The clock time of the first frame of the chunk just peeked: the latency of a record
    // stream runs from the read position to what the source records now. Before the first
    // timing update, what waits to be read is the best lower bound.
    int64_t captureTimeNs() {
        pa_usec_t latencyUs = 0;
        int negative = 0;
        if (pa_stream_get_latency(stream_.get(), &latencyUs, &negative) == 0) {
            return monotonicNowNs() - static_cast<int64_t>(latencyUs) * 1000 * (negative ? -1 : 1);
        }
        return arrivalTimeNs();
    }

    // The clock time of the first frame waiting to be read, were it recorded just before
    // the last one arrived. After a gap this is what counts: a source that has just started
    // or resumed reports latencies it has not had yet (an idle null sink claims the blocks it
    // would render ahead).
    int64_t arrivalTimeNs() const {
        return monotonicNowNs() - static_cast<int64_t>(pa_bytes_to_usec(
                                      pa_stream_readable_size(stream_.get()), &spec_)) *
                                      1000;
    }

    // The gap between the last frame delivered and `nextFrameNs` becomes silence: the
    // buffers after it are stamped that much later, and the writer fills the time between.
    // What was collected before the gap goes over first.
    void bridgeTo(int64_t nextFrameNs) {
        handOverCollected();
        const int64_t gapNs = nextFrameNs - (*anchorNs_ + framesToNs(framesDelivered_));
        if (gapNs > 0) {
            framesDelivered_ += framesIn(gapNs);
        }
    }

    int64_t framesToNs(int64_t frames) const { return frames * kNsPerSecond / spec_.rate; }
    int64_t framesIn(int64_t ns) const { return ns * spec_.rate / kNsPerSecond; }
    int64_t frameCount(const std::vector<float>& samples) const {
        return static_cast<int64_t>(samples.size() / spec_.channels);
    }

    // Stamped where the frames before it end: the timeline is the frames themselves, and the
    // gaps bridged between them.
    void handOver(std::vector<float> samples) {
        SampleBuffer buffer;
        buffer.presentationTimeNs = *anchorNs_ + framesToNs(framesDelivered_);
        buffer.sampleRate = static_cast<int>(spec_.rate);
        buffer.channelCount = spec_.channels;
        buffer.samples = std::move(samples);
        framesDelivered_ += frameCount(buffer.samples);
        // Straight to the handler, on the thread that read the sound: a hop to another
        // thread would cost more than writing it.
        if (handler_) {
            handler_->didOutputSampleBuffer(std::move(buffer));
        }
    }

    static void retryDue(pa_mainloop_api*, pa_time_event*, const timeval*, void* userdata) {
        static_cast<PulseAudioCaptureStream*>(userdata)->retry();
    }

    StreamDelegate* delegate_;
    AudioSampleHandler* handler_ = nullptr;
    pa_sample_spec spec_;
    // Torn down in reverse order, after the mainloop thread has stopped.
    Mainloop mainloop_;
    Context context_;
    Stream stream_;
    // Under the mainloop's lock.
    pa_time_event* retryTimer_ = nullptr;
    Phase phase_ = Phase::stopped;
    std::exception_ptr startError_;
    std::string wantedSink_;
    std::string recordedSink_;
    int64_t lostAtNs_ = 0;
    QString lossReason_;
    std::optional<int64_t> anchorNs_;
    int64_t framesDelivered_ = 0;
    bool bridgeGap_ = false;
    // Read but not yet handed over.
    std::vector<float> collected_;
};

} // namespace

std::shared_ptr<AudioCaptureStream>
PulseAudioCaptureService::makeStream(const ContentFilter&, const AudioStreamConfiguration& config,
                                     StreamDelegate* delegate) {
    // The server's output mix does not belong to a display: the filter has nothing to choose.
    return std::make_shared<PulseAudioCaptureStream>(config, delegate);
}
