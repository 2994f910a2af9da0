#include "capture/linux/VideoFileRecorder.h"

#include "capture/linux/VideoFrameQueue.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>

namespace {

struct CodecContextFree {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FormatContextFree {
    void operator()(AVFormatContext* context) const {
        if (context->pb) {
            avio_closep(&context->pb);
        }
        avformat_free_context(context);
    }
};
struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct DictionaryFree {
    void operator()(AVDictionary* dictionary) const { av_dict_free(&dictionary); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;

constexpr AVRational kNanoseconds{1, 1'000'000'000};
constexpr AVRational kTimeBase{1, 90'000};

[[noreturn]] void fail(const QString& what, int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    throw PlatformError(QStringLiteral("%1 (%2)").arg(what, QString::fromUtf8(text)));
}

void check(int code, const QString& what) {
    if (code < 0) {
        fail(what, code);
    }
}

const AVCodec* h264Encoder() {
    return avcodec_find_encoder_by_name("libx264");
}
const AVCodec* mpeg4Encoder() {
    return avcodec_find_encoder(AV_CODEC_ID_MPEG4);
}

// H.264 when libx264 is there, else libavcodec's own MPEG-4 Visual encoder.
const AVCodec* encoderFor(std::optional<VideoCodec> preferred) {
    if (preferred == VideoCodec::mpeg4Part2) {
        return mpeg4Encoder();
    }
    if (const AVCodec* h264 = h264Encoder()) {
        return h264;
    }
    return mpeg4Encoder();
}

} // namespace

// The FFmpeg side of one movie. Used by the recorder's thread only (after construction).
class VideoFileRecorder::Encoder {
public:
    Encoder(const QString& path, std::optional<VideoCodec> preferred, int width, int height,
            int64_t frameIntervalNs)
        : frameInterval_(
              std::max<int64_t>(av_rescale_q(frameIntervalNs, kNanoseconds, kTimeBase), 1)) {
        // Tessarel writes nothing to the console; failures come back as errors.
        static std::once_flag quiet;
        std::call_once(quiet, [] { av_log_set_level(AV_LOG_QUIET); });
        const AVCodec* codec = encoderFor(preferred);
        if (!codec) {
            throw PlatformError(QStringLiteral("No video encoder is available."));
        }
        const QByteArray localPath = path.toUtf8();
        AVFormatContext* format = nullptr;
        check(avformat_alloc_output_context2(&format, nullptr, "mp4", localPath.constData()),
              QStringLiteral("Tessarel could not create the movie file"));
        format_.reset(format);
        stream_ = avformat_new_stream(format, nullptr);
        context_.reset(avcodec_alloc_context3(codec));
        if (!stream_ || !context_) {
            throw PlatformError(QStringLiteral("Tessarel could not create the movie file."));
        }
        context_->width = width;
        context_->height = height;
        context_->pix_fmt = AV_PIX_FMT_YUV420P;
        context_->time_base = kTimeBase;
        context_->framerate = AVRational{static_cast<int>(kTimeBase.den / frameInterval_), 1};
        // Keyframes come from encode(), once a second of capture time; the encoder adds
        // none of its own on a frame count, which would double them.
        context_->gop_size = 10 * std::max(context_->framerate.num, 1);
        if (format->oformat->flags & AVFMT_GLOBALHEADER) {
            context_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        }
        if (codec == h264Encoder()) {
            av_opt_set(context_->priv_data, "preset", "veryfast", 0);
            av_opt_set(context_->priv_data, "crf", "23", 0);
            av_opt_set_int(context_->priv_data, "forced-idr", 1, 0);
            // Without B-frames decoding order is display order: each frame's duration is
            // exactly the time until the next capture, and the movie starts at zero.
            context_->max_b_frames = 0;
            // One thread: a screen recording's frame takes a small part of its interval, and
            // frame threads cost some 5 % more CPU time for their hand-overs (measured
            // against two at 1080p); the queue absorbs a slow keyframe.
            context_->thread_count = 1;
        } else {
            context_->flags |= AV_CODEC_FLAG_QSCALE;
            context_->global_quality = FF_QP2LAMBDA * 4;
        }
        check(avcodec_open2(context_.get(), codec, nullptr),
              QStringLiteral("Tessarel could not start the video encoder"));
        check(avcodec_parameters_from_context(stream_->codecpar, context_.get()),
              QStringLiteral("Tessarel could not start the video encoder"));
        stream_->time_base = kTimeBase;
        check(avio_open(&format->pb, localPath.constData(), AVIO_FLAG_WRITE),
              QStringLiteral("Tessarel could not create the movie file"));
        // Each fragment reaches the disk as soon as it is complete.
        format->flags |= AVFMT_FLAG_FLUSH_PACKETS;
        AVDictionary* rawOptions = nullptr;
        av_dict_set(&rawOptions, "movflags", "frag_keyframe+empty_moov+default_base_moof", 0);
        av_dict_set(&rawOptions, "frag_duration", "250000", 0);
        std::unique_ptr<AVDictionary, DictionaryFree> options(rawOptions);
        AVDictionary* passed = options.release();
        const int written = avformat_write_header(format, &passed);
        options.reset(passed);
        check(written, QStringLiteral("Tessarel could not write the movie file"));
        picture_.reset(av_frame_alloc());
        if (!picture_) {
            throw PlatformError(QStringLiteral("Tessarel is out of memory."));
        }
        picture_->format = AV_PIX_FMT_YUV420P;
        picture_->width = width;
        picture_->height = height;
        check(av_frame_get_buffer(picture_.get(), 0), QStringLiteral("Tessarel is out of memory"));
        packet_.reset(av_packet_alloc());
    }

    // Brings the picture up to `frame`; false when the frame comes too soon after the last
    // one encoded to have a time of its own.
    bool encode(const VideoFrame& frame, int64_t timeNs) {
        AVFrame* picture = picture_.get();
        check(av_frame_make_writable(picture), QStringLiteral("Tessarel is out of memory"));
        applyChanges(frame, *picture);
        const int64_t pts = av_rescale_q(timeNs, kNanoseconds, kTimeBase);
        if (lastPts_ && pts <= *lastPts_) {
            return false;
        }
        const bool keyframeDue = !lastKeyframePts_ || pts - *lastKeyframePts_ >= kTimeBase.den;
        if (lastPts_) {
            durations_[*lastPts_] = pts - *lastPts_;
        }
        lastPts_ = pts;
        if (!firstPts_) {
            firstPts_ = pts;
        }
        ++encodedFrames_;
        picture->pts = pts;
        picture->pict_type = keyframeDue ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
        if (keyframeDue) {
            lastKeyframePts_ = pts;
        }
        check(avcodec_send_frame(context_.get(), picture),
              QStringLiteral("Tessarel could not encode the movie"));
        drain();
        return true;
    }

    // The movie ends at `endTimeNs`, and never sooner than one frame interval per encoded
    // frame after the first (capture jitter must not push the average rate above the cap).
    void finish(int64_t endTimeNs) {
        if (lastPts_) {
            const int64_t end = std::max(av_rescale_q(endTimeNs, kNanoseconds, kTimeBase),
                                         *firstPts_ + encodedFrames_ * frameInterval_);
            durations_[*lastPts_] = std::max<int64_t>(end - *lastPts_, 1);
        }
        check(avcodec_send_frame(context_.get(), nullptr),
              QStringLiteral("Tessarel could not encode the movie"));
        drain();
        check(av_write_trailer(format_.get()),
              QStringLiteral("Tessarel could not finish the movie file"));
    }

private:
    // Copies the changed columns of `frame` into `picture`.
    static void applyChanges(const VideoFrame& frame, AVFrame& picture) {
        const int chromaWidth = frame.chromaWidth();
        for (size_t pair = 0; pair < frame.changed.size(); ++pair) {
            const ColumnSpan& span = frame.changed[pair];
            if (span.isEmpty()) {
                continue;
            }
            const int top = static_cast<int>(pair) * 2;
            for (int y = top; y < std::min(frame.height, top + 2); ++y) {
                std::memcpy(picture.data[0] + static_cast<ptrdiff_t>(y) * picture.linesize[0] +
                                span.begin,
                            frame.y.data() + static_cast<ptrdiff_t>(y) * frame.width + span.begin,
                            static_cast<size_t>(span.end - span.begin));
            }
            const int chromaBegin = span.begin / 2;
            const auto chromaBytes = static_cast<size_t>((span.end + 1) / 2 - chromaBegin);
            const ptrdiff_t from = static_cast<ptrdiff_t>(pair) * chromaWidth + chromaBegin;
            std::memcpy(picture.data[1] + static_cast<ptrdiff_t>(pair) * picture.linesize[1] +
                            chromaBegin,
                        frame.u.data() + from, chromaBytes);
            std::memcpy(picture.data[2] + static_cast<ptrdiff_t>(pair) * picture.linesize[2] +
                            chromaBegin,
                        frame.v.data() + from, chromaBytes);
        }
    }

    // Writes what the encoder has ready, each packet as soon as its duration is known.
    void drain() {
        for (;;) {
            const int received = avcodec_receive_packet(context_.get(), packet_.get());
            if (received == AVERROR(EAGAIN) || received == AVERROR_EOF) {
                break;
            }
            check(received, QStringLiteral("Tessarel could not encode the movie"));
            PacketPtr ready(av_packet_alloc());
            av_packet_move_ref(ready.get(), packet_.get());
            pending_.push_back(std::move(ready));
        }
        while (!pending_.empty()) {
            AVPacket* packet = pending_.front().get();
            const auto duration = durations_.find(packet->pts);
            if (duration == durations_.end()) {
                break;
            }
            packet->duration = duration->second;
            durations_.erase(duration);
            packet->stream_index = stream_->index;
            av_packet_rescale_ts(packet, kTimeBase, stream_->time_base);
            check(av_write_frame(format_.get(), packet),
                  QStringLiteral("Tessarel could not write the movie file"));
            pending_.pop_front();
        }
    }

    const int64_t frameInterval_; // in kTimeBase
    std::unique_ptr<AVFormatContext, FormatContextFree> format_;
    AVStream* stream_ = nullptr; // owned by format_
    std::unique_ptr<AVCodecContext, CodecContextFree> context_;
    FramePtr picture_; // the whole picture, which each frame's changes bring up to date
    PacketPtr packet_;
    std::deque<PacketPtr> pending_;
    std::map<int64_t, int64_t> durations_; // pts → how long that frame shows
    std::optional<int64_t> firstPts_;
    std::optional<int64_t> lastPts_;
    int64_t encodedFrames_ = 0;
    std::optional<int64_t> lastKeyframePts_;
};

VideoFileRecorder::VideoFileRecorder(RecordingOutputConfiguration configuration,
                                     RecordingOutputDelegate* delegate)
    : configuration_(std::move(configuration)), delegate_(delegate) {}

VideoFileRecorder::~VideoFileRecorder() {
    if (thread_.joinable()) {
        thread_.join();
    }
}

std::vector<VideoCodec> VideoFileRecorder::availableCodecs() {
    std::vector<VideoCodec> codecs;
    if (h264Encoder()) {
        codecs.push_back(VideoCodec::h264);
    }
    if (mpeg4Encoder()) {
        codecs.push_back(VideoCodec::mpeg4Part2);
    }
    return codecs;
}

long long VideoFileRecorder::encodedFrames() const {
    return encodedFrames_;
}

void VideoFileRecorder::start(VideoFrameQueue& queue, int width, int height, int64_t startTimeNs,
                              int64_t frameIntervalNs) {
    encoder_ =
        std::make_unique<Encoder>(configuration_.outputURL.toLocalFile(),
                                  configuration_.videoCodecType, width, height, frameIntervalNs);
    thread_ = std::thread([this, &queue, startTimeNs] {
        pthread_setname_np(pthread_self(), "Tessarel.encode");
        delegate_->recordingOutputDidStartRecording();
        std::exception_ptr error;
        try {
            while (VideoFrame* frame = queue.next()) {
                const int64_t timeNs = frame->captureTimeNs - startTimeNs;
                try {
                    if (encoder_->encode(*frame, timeNs)) {
                        ++encodedFrames_;
                    }
                } catch (...) {
                    queue.recycle(*frame);
                    throw;
                }
                queue.recycle(*frame);
            }
            encoder_->finish(queue.endTimeNs() - startTimeNs);
        } catch (...) {
            error = std::current_exception();
        }
        encoder_.reset();
        if (error) {
            delegate_->recordingOutputDidFail(error);
        } else {
            delegate_->recordingOutputDidFinishRecording();
        }
    });
}

void VideoFileRecorder::finish() {
    if (thread_.joinable()) {
        thread_.join();
    }
}
