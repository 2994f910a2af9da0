#include "capture/linux/VideoFileRecorder.h"

#include "capture/linux/FfmpegLog.h"
#include "capture/linux/RecordingFile.h"
#include "capture/linux/VideoFrameQueue.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <x264.h>

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <future>
#include <map>

namespace {

// The niceness of the encoder's threads (x264's too) where the recorder was started at
// `starting`: ten steps below it, as far as niceness goes.
int encoderNiceness(int starting) {
    constexpr int kStepsBelow = 10;
    constexpr int kLowestPriority = 19;
    return std::min(starting + kStepsBelow, kLowestPriority);
}

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
struct X264Close {
    void operator()(x264_t* encoder) const { x264_encoder_close(encoder); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;

constexpr AVRational kNanoseconds{1, 1'000'000'000};
// Fine enough for capture times, and within MPEG-4 Visual's limit of 65535.
constexpr AVRational kTimeBase{1, 30'000};
// A keyframe costs a whole picture's bits and encoding time. Fragments, not keyframes, keep
// a cut-off file playable, so keyframes are only as frequent as a player's seeking needs.
constexpr int64_t kKeyframeIntervalSeconds = 10;
constexpr int kMacroblockPixels = 16;
// x264's constant rate factor: at whole-pixel motion as good to look at (SSIM) as its
// default 23 with sub-pixel motion, in a smaller file.
constexpr float kRateFactor = 22;

[[noreturn]] void fail(const QString& what, int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    const QString explained = takeFfmpegErrors();
    throw PlatformError(QStringLiteral("%1 (%2)").arg(
        what, explained.isEmpty() ? QString::fromUtf8(text)
                                  : QString::fromUtf8(text) + QStringLiteral("; ") + explained));
}

void check(int code, const QString& what) {
    if (code < 0) {
        fail(what, code);
    }
}

const AVCodec* mpeg4Encoder() {
    return avcodec_find_encoder(AV_CODEC_ID_MPEG4);
}

// The three planes of an I420 picture.
struct Planes {
    uint8_t* data[3];
    int stride[3];
};

// Copies the changed columns of `frame` into `picture`.
void applyChanges(const VideoFrame& frame, const Planes& picture) {
    const int chromaWidth = frame.chromaWidth();
    for (size_t pair = 0; pair < frame.changed.size(); ++pair) {
        const PixelSpan& span = frame.changed[pair];
        if (span.isEmpty()) {
            continue;
        }
        const int top = static_cast<int>(pair) * 2;
        for (int y = top; y < std::min(frame.height, top + 2); ++y) {
            std::memcpy(picture.data[0] + static_cast<ptrdiff_t>(y) * picture.stride[0] +
                            span.begin,
                        frame.y.data() + static_cast<ptrdiff_t>(y) * frame.width + span.begin,
                        static_cast<size_t>(span.end - span.begin));
        }
        const int chromaBegin = span.begin / 2;
        const auto chromaBytes = static_cast<size_t>((span.end + 1) / 2 - chromaBegin);
        const ptrdiff_t from = static_cast<ptrdiff_t>(pair) * chromaWidth + chromaBegin;
        for (int plane = 1; plane < 3; ++plane) {
            const std::vector<uint8_t>& source = plane == 1 ? frame.u : frame.v;
            std::memcpy(picture.data[plane] + static_cast<ptrdiff_t>(pair) * picture.stride[plane] +
                            chromaBegin,
                        source.data() + from, chromaBytes);
        }
    }
}

// A video encoder of whole pictures, which each frame's changes bring up to date.
class Codec {
public:
    virtual ~Codec() = default;

    // Describes the coded stream for the file's header.
    virtual void describe(AVCodecParameters& parameters) const = 0;
    // Brings the picture up to `frame`.
    virtual void apply(const VideoFrame& frame) = 0;
    // Encodes the picture as it is now, at `pts` in kTimeBase, and appends to `packets`
    // what is ready.
    virtual void encode(int64_t pts, bool keyframe, std::deque<PacketPtr>& packets) = 0;
    // Appends all that is still held back to `packets`.
    virtual void flush(std::deque<PacketPtr>& packets) = 0;
    // Told before each picture how many frames wait behind it; may spend less effort per
    // picture while they pile up. Returns how many steps below its full effort it works.
    virtual int keepUp(size_t framesWaiting) = 0;
};

// H.264 through libx264 itself, which, unlike libavcodec's wrapper, takes the hint of which
// macroblocks did not change: those are skipped without motion search, which is most of a
// desktop's picture. Length-prefixed NAL units, with the parameter sets in the header only,
// as MP4 keeps them.
class X264Codec final : public Codec {
public:
    X264Codec(int width, int height, int framesPerSecond)
        : width_(width), height_(height), macroblockColumns_(macroblocks(width)),
          changed_(static_cast<size_t>(macroblockColumns_ * macroblocks(height)), 1) {
        x264_param_t param;
        if (x264_param_default_preset(&param, "veryfast", nullptr) < 0) {
            throw PlatformError(QStringLiteral("Tessarel could not start the video encoder."));
        }
        param.i_log_level = X264_LOG_NONE;
        // One thread up to 1080p: a screen recording's frame takes a small part of its
        // interval there, and frame threads cost some 5 % more CPU time for their hand-overs
        // (measured against two at 1080p); the queue absorbs a slow keyframe. A larger area's
        // frame takes about a whole interval on one core (4K full motion), so two threads.
        const bool largeArea = static_cast<int64_t>(width) * height > kOneThreadPixels;
        param.i_threads = largeArea ? 2 : 1;
        param.i_width = width;
        param.i_height = height;
        param.i_csp = X264_CSP_I420;
        param.rc.i_rc_method = X264_RC_CRF;
        param.rc.f_rf_constant = kRateFactor;
        if (largeArea) {
            // Each picture the lookahead holds is a whole frame of memory to fault in and
            // analyse before the first one is encoded: at 4K, ten of them took a second
            // at the start of a movie, while the queue holds a fifth of one. Four pictures
            // ahead cost no more time; the lower rate factor keeps the movie as good to look
            // at (SSIM) in a file of about the same size.
            param.rc.i_lookahead = kLargeAreaLookahead;
            param.rc.f_rf_constant = kLargeAreaRateFactor;
        }
        // Whole-pixel motion only: things on a screen move by whole pixels (scrolling,
        // dragging), so the sub-pixel search finds little, and without it x264 neither
        // searches nor interpolates the picture at half and quarter pixels. That takes some
        // 30 % of the encoding time; the slightly lower rate factor buys back the quality.
        param.analyse.i_subpel_refine = 0;
        // Without B-frames decoding order is display order: each frame's duration is exactly
        // the time until the next capture, and the movie starts at zero.
        param.i_bframe = 0;
        // Keyframes come from encode(), by capture time; the encoder adds none of its own on
        // a frame count, which would double them.
        param.i_keyint_max = static_cast<int>(2 * kKeyframeIntervalSeconds) * framesPerSecond;
        param.i_fps_num = static_cast<uint32_t>(framesPerSecond);
        param.i_fps_den = 1;
        param.i_timebase_num = static_cast<uint32_t>(kTimeBase.num);
        param.i_timebase_den = static_cast<uint32_t>(kTimeBase.den);
        param.b_vfr_input = 1;
        param.b_repeat_headers = 0;
        param.b_annexb = 0;
        param.analyse.b_mb_info = 1;
        param.analyse.b_mb_info_update = 0;
        encoder_.reset(x264_encoder_open(&param));
        if (!encoder_ || x264_picture_alloc(&picture_, X264_CSP_I420, width, height) < 0) {
            throw PlatformError(QStringLiteral("Tessarel could not start the video encoder."));
        }
        pictureAllocated_ = true;
        // What each effort step starts from: a reconfiguration takes every setting it can
        // change from the parameters it is given.
        x264_encoder_parameters(encoder_.get(), &fullEffort_);
        makeConfiguration();
        warmUp(framesPerSecond);
    }
    ~X264Codec() override {
        if (pictureAllocated_) {
            x264_picture_clean(&picture_);
        }
    }
    X264Codec(const X264Codec&) = delete;
    X264Codec& operator=(const X264Codec&) = delete;

    void describe(AVCodecParameters& parameters) const override {
        parameters.codec_type = AVMEDIA_TYPE_VIDEO;
        parameters.codec_id = AV_CODEC_ID_H264;
        parameters.width = width_;
        parameters.height = height_;
        parameters.format = AV_PIX_FMT_YUV420P;
        parameters.extradata =
            static_cast<uint8_t*>(av_mallocz(configuration_.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        if (!parameters.extradata) {
            throw PlatformError(QStringLiteral("Tessarel is out of memory."));
        }
        std::memcpy(parameters.extradata, configuration_.data(), configuration_.size());
        parameters.extradata_size = static_cast<int>(configuration_.size());
    }

    void apply(const VideoFrame& frame) override {
        applyChanges(frame, {{picture_.img.plane[0], picture_.img.plane[1], picture_.img.plane[2]},
                             {picture_.img.i_stride[0], picture_.img.i_stride[1],
                              picture_.img.i_stride[2]}});
        for (size_t pair = 0; pair < frame.changed.size(); ++pair) {
            const PixelSpan& span = frame.changed[pair];
            if (span.isEmpty()) {
                continue;
            }
            uint8_t* row = changed_.data() + static_cast<ptrdiff_t>(pair) * 2 / kMacroblockPixels *
                                                 macroblockColumns_;
            std::fill(row + span.begin / kMacroblockPixels,
                      row + (span.end - 1) / kMacroblockPixels + 1, uint8_t{1});
        }
    }

    void encode(int64_t pts, bool keyframe, std::deque<PacketPtr>& packets) override {
        // x264 may encode the picture some frames later, after its lookahead: it frees the
        // hint then.
        auto* constant = static_cast<uint8_t*>(std::malloc(changed_.size()));
        if (!constant) {
            throw PlatformError(QStringLiteral("Tessarel is out of memory."));
        }
        for (size_t macroblock = 0; macroblock < changed_.size(); ++macroblock) {
            constant[macroblock] = changed_[macroblock] ? 0 : X264_MBINFO_CONSTANT;
        }
        std::fill(changed_.begin(), changed_.end(), uint8_t{0});
        picture_.prop.mb_info = constant;
        picture_.prop.mb_info_free = [](void* hint) { std::free(hint); };
        picture_.i_pts = pts;
        picture_.i_type = keyframe ? X264_TYPE_IDR : X264_TYPE_AUTO;
        encodeInto(&picture_, packets);
        picture_.prop.mb_info = nullptr;
        picture_.prop.mb_info_free = nullptr;
    }

    // One step less effort as soon as frames pile up, one step back after a second without
    // any waiting. Only what x264 can change between two pictures of one stream is changed.
    int keepUp(size_t framesWaiting) override {
        int wanted = effortStep_;
        if (framesWaiting >= kFramesWaitingForLessEffort) {
            wanted = std::min(effortStep_ + 1, kLeastEffortStep);
            caughtUpFrames_ = 0;
        } else if (framesWaiting == 0 && effortStep_ > 0 &&
                   ++caughtUpFrames_ >= kCaughtUpFramesForMoreEffort) {
            wanted = effortStep_ - 1;
            caughtUpFrames_ = 0;
        }
        if (wanted != effortStep_) {
            x264_param_t param = fullEffort_;
            lessEffort(param, wanted);
            if (x264_encoder_reconfig(encoder_.get(), &param) == 0) {
                effortStep_ = wanted;
            }
        }
        return effortStep_;
    }

    void flush(std::deque<PacketPtr>& packets) override {
        while (x264_encoder_delayed_frames(encoder_.get()) > 0) {
            encodeInto(nullptr, packets);
        }
    }

private:
    static constexpr size_t kFramesWaitingForLessEffort = 2;
    static constexpr int kCaughtUpFramesForMoreEffort = 30;
    static constexpr int kLeastEffortStep = 2;
    static constexpr int64_t kOneThreadPixels = 1920 * 1080;
    static constexpr int kLargeAreaLookahead = 4;
    static constexpr float kLargeAreaRateFactor = 20;
    // Enough pictures through the whole pipeline that x264 has made every picture it keeps
    // (on each thread a reference and a reconstruction besides the lookahead's); measured
    // at 4K and 1080p, no picture after them touches new memory.
    static constexpr int kWarmUpPicturesThroughTheEncoder = 4;
    static constexpr int kMostWarmUpPictures = 64;
    static constexpr uint8_t kBlack = 16;
    static constexpr uint8_t kNoColour = 128;

    // Step 1: the smallest motion search and 16 × 16 blocks only; step 2 besides: no 8 × 8
    // transform, no deblocking, and a rate factor 4 higher, which leaves fewer coefficients
    // to code. (Sub-pixel search, the usual first thing to give up, is off already, and
    // x264 cannot change threads, lookahead or entropy coding mid-stream.)
    static void lessEffort(x264_param_t& param, int step) {
        if (step >= 1) {
            param.analyse.i_me_method = X264_ME_DIA;
            param.analyse.inter = 0;
            param.analyse.intra = X264_ANALYSE_I4x4;
        }
        if (step >= 2) {
            param.analyse.b_transform_8x8 = 0;
            param.analyse.intra = 0;
            param.b_deblocking_filter = 0;
            param.rc.f_rf_constant += 4;
        }
    }

    static int macroblocks(int pixels) {
        return (pixels + kMacroblockPixels - 1) / kMacroblockPixels;
    }

    // x264 allocates its pictures (input, lookahead, references) as the first frames pass
    // through, and each page costs a fault and zeroing when first touched: at 4K the first
    // eight frames took 56 ms each and the first keyframe 228 ms, more than the queue holds,
    // so a movie dropped frames in its first second. Flat pictures, all but the first marked
    // unchanged, pass through as the recorder starts instead, before the capture's first
    // frame: they cost little but that memory. What x264 makes of them is never written, and
    // the movie's first frame is a keyframe all the same.
    void warmUp(int framesPerSecond) {
        const int64_t interval = kTimeBase.den / framesPerSecond;
        for (int plane = 0; plane < 3; ++plane) {
            const int rows = plane == 0 ? height_ : (height_ + 1) / 2;
            std::memset(picture_.img.plane[plane], plane == 0 ? kBlack : kNoColour,
                        static_cast<size_t>(picture_.img.i_stride[plane]) *
                            static_cast<size_t>(rows));
        }
        std::deque<PacketPtr> none; // what comes out of them is left out at once
        for (int picture = 0;
             picture < kMostWarmUpPictures && warmUpPicturesOut_ < kWarmUpPicturesThroughTheEncoder;
             ++picture) {
            ++warmUpPicturesIn_;
            encode((picture - kMostWarmUpPictures) * interval, picture == 0, none);
        }
        std::fill(changed_.begin(), changed_.end(), uint8_t{1});
    }

    void encodeInto(x264_picture_t* input, std::deque<PacketPtr>& packets) {
        x264_nal_t* units = nullptr;
        int unitCount = 0;
        x264_picture_t output;
        const int size = x264_encoder_encode(encoder_.get(), &units, &unitCount, input, &output);
        if (size < 0) {
            throw PlatformError(QStringLiteral("Tessarel could not encode the movie."));
        }
        if (size == 0) {
            return;
        }
        // x264 hands pictures back in the order they went in.
        if (warmUpPicturesOut_ < warmUpPicturesIn_) {
            ++warmUpPicturesOut_;
            return;
        }
        PacketPtr packet(av_packet_alloc());
        if (!packet) {
            throw PlatformError(QStringLiteral("Tessarel is out of memory."));
        }
        // The first picture carries the encoder's settings, as x264's own files do.
        const auto settingsBytes = static_cast<int>(settings_.size());
        check(av_new_packet(packet.get(), settingsBytes + size),
              QStringLiteral("Tessarel is out of memory"));
        std::copy(settings_.begin(), settings_.end(), packet->data);
        settings_.clear();
        // The NAL units of one picture lie one after the other.
        std::memcpy(packet->data + settingsBytes, units[0].p_payload, static_cast<size_t>(size));
        packet->pts = output.i_pts;
        packet->dts = output.i_dts;
        if (output.b_keyframe) {
            packet->flags |= AV_PKT_FLAG_KEY;
        }
        packets.push_back(std::move(packet));
    }

    // The decoder configuration record (ISO/IEC 14496-15) of the stream's SPS and PPS.
    void makeConfiguration() {
        x264_nal_t* units = nullptr;
        int unitCount = 0;
        if (x264_encoder_headers(encoder_.get(), &units, &unitCount) < 0) {
            throw PlatformError(QStringLiteral("Tessarel could not start the video encoder."));
        }
        constexpr int kLengthBytes = 4;
        const uint8_t* sps = nullptr;
        const uint8_t* pps = nullptr;
        int spsBytes = 0;
        int ppsBytes = 0;
        for (int unit = 0; unit < unitCount; ++unit) {
            const uint8_t* payload = units[unit].p_payload + kLengthBytes;
            const int bytes = units[unit].i_payload - kLengthBytes;
            if (units[unit].i_type == NAL_SPS) {
                sps = payload;
                spsBytes = bytes;
            } else if (units[unit].i_type == NAL_PPS) {
                pps = payload;
                ppsBytes = bytes;
            } else if (units[unit].i_type == NAL_SEI) {
                settings_.assign(units[unit].p_payload,
                                 units[unit].p_payload + units[unit].i_payload);
            }
        }
        if (!sps || !pps || spsBytes < 4) {
            throw PlatformError(QStringLiteral("Tessarel could not start the video encoder."));
        }
        const auto bigEndian16 = [this](int value) {
            configuration_.push_back(static_cast<uint8_t>(value >> 8));
            configuration_.push_back(static_cast<uint8_t>(value));
        };
        // Version, then profile, compatibility and level as in the SPS; 4-byte lengths.
        configuration_ = {1, sps[1], sps[2], sps[3], 0xff, 0xe1};
        bigEndian16(spsBytes);
        configuration_.insert(configuration_.end(), sps, sps + spsBytes);
        configuration_.push_back(1);
        bigEndian16(ppsBytes);
        configuration_.insert(configuration_.end(), pps, pps + ppsBytes);
    }

    const int width_;
    const int height_;
    const int macroblockColumns_;
    std::unique_ptr<x264_t, X264Close> encoder_;
    x264_picture_t picture_{};
    bool pictureAllocated_ = false;
    std::vector<uint8_t> changed_; // per macroblock: changed since the last encoded picture
    std::vector<uint8_t> configuration_;
    std::vector<uint8_t> settings_; // x264's SEI naming its settings, until the first picture
    x264_param_t fullEffort_{};
    int warmUpPicturesIn_ = 0;
    int warmUpPicturesOut_ = 0;
    int effortStep_ = 0;
    int caughtUpFrames_ = 0; // in a row with nothing waiting, at the current step
};

// libavcodec's own MPEG-4 Visual encoder, for when H.264 is not wanted.
class Mpeg4Codec final : public Codec {
public:
    Mpeg4Codec(int width, int height, int framesPerSecond, bool globalHeader) {
        const AVCodec* codec = mpeg4Encoder();
        if (!codec) {
            throw PlatformError(QStringLiteral("No video encoder is available."));
        }
        context_.reset(avcodec_alloc_context3(codec));
        if (!context_) {
            throw PlatformError(QStringLiteral("Tessarel could not create the movie file."));
        }
        context_->width = width;
        context_->height = height;
        context_->pix_fmt = AV_PIX_FMT_YUV420P;
        context_->time_base = kTimeBase;
        context_->framerate = AVRational{framesPerSecond, 1};
        context_->gop_size = static_cast<int>(2 * kKeyframeIntervalSeconds) * framesPerSecond;
        if (globalHeader) {
            context_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        }
        context_->flags |= AV_CODEC_FLAG_QSCALE;
        context_->global_quality = FF_QP2LAMBDA * 4;
        check(avcodec_open2(context_.get(), codec, nullptr),
              QStringLiteral("Tessarel could not start the video encoder"));
        picture_.reset(av_frame_alloc());
        packet_.reset(av_packet_alloc());
        if (!picture_ || !packet_) {
            throw PlatformError(QStringLiteral("Tessarel is out of memory."));
        }
        picture_->format = AV_PIX_FMT_YUV420P;
        picture_->width = width;
        picture_->height = height;
        check(av_frame_get_buffer(picture_.get(), 0), QStringLiteral("Tessarel is out of memory"));
    }

    void describe(AVCodecParameters& parameters) const override {
        check(avcodec_parameters_from_context(&parameters, context_.get()),
              QStringLiteral("Tessarel could not start the video encoder"));
    }

    void apply(const VideoFrame& frame) override {
        AVFrame* picture = picture_.get();
        check(av_frame_make_writable(picture), QStringLiteral("Tessarel is out of memory"));
        applyChanges(frame, {{picture->data[0], picture->data[1], picture->data[2]},
                             {picture->linesize[0], picture->linesize[1], picture->linesize[2]}});
    }

    void encode(int64_t pts, bool keyframe, std::deque<PacketPtr>& packets) override {
        picture_->pts = pts;
        picture_->pict_type = keyframe ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
        send(picture_.get(), packets);
    }

    void flush(std::deque<PacketPtr>& packets) override { send(nullptr, packets); }

    // MPEG-4 Visual costs a fraction of H.264's time: always full effort.
    int keepUp(size_t) override { return 0; }

private:
    void send(const AVFrame* picture, std::deque<PacketPtr>& packets) {
        check(avcodec_send_frame(context_.get(), picture),
              QStringLiteral("Tessarel could not encode the movie"));
        for (;;) {
            const int received = avcodec_receive_packet(context_.get(), packet_.get());
            if (received == AVERROR(EAGAIN) || received == AVERROR_EOF) {
                break;
            }
            check(received, QStringLiteral("Tessarel could not encode the movie"));
            PacketPtr ready(av_packet_alloc());
            if (!ready) {
                throw PlatformError(QStringLiteral("Tessarel is out of memory."));
            }
            av_packet_move_ref(ready.get(), packet_.get());
            packets.push_back(std::move(ready));
        }
    }

    std::unique_ptr<AVCodecContext, CodecContextFree> context_;
    FramePtr picture_;
    PacketPtr packet_;
};

} // namespace

// The encoder and the file of one movie. Used by the recorder's thread only (after
// construction).
class VideoFileRecorder::Encoder {
public:
    Encoder(const QString& path, std::optional<VideoCodec> preferred, int width, int height,
            int64_t frameIntervalNs)
        : frameInterval_(
              std::max<int64_t>(av_rescale_q(frameIntervalNs, kNanoseconds, kTimeBase), 1)) {
        routeFfmpegLog();
        const QByteArray localPath = path.toUtf8();
        AVFormatContext* format = nullptr;
        check(avformat_alloc_output_context2(&format, nullptr, "mp4", localPath.constData()),
              QStringLiteral("Tessarel could not create the movie file"));
        format_.reset(format);
        const auto framesPerSecond = std::max(static_cast<int>(kTimeBase.den / frameInterval_), 1);
        if (preferred == VideoCodec::mpeg4Part2) {
            codec_ = std::make_unique<Mpeg4Codec>(width, height, framesPerSecond,
                                                  format->oformat->flags & AVFMT_GLOBALHEADER);
        } else {
            codec_ = std::make_unique<X264Codec>(width, height, framesPerSecond);
        }
        stream_ = avformat_new_stream(format, nullptr);
        if (!stream_) {
            throw PlatformError(QStringLiteral("Tessarel could not create the movie file."));
        }
        codec_->describe(*stream_->codecpar);
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
    }

    // Brings the picture up to `frame`; false when the frame comes too soon after the last
    // one encoded to have a time of its own.
    bool encode(const VideoFrame& frame, int64_t timeNs, size_t framesWaiting) {
        codec_->apply(frame);
        const int64_t pts = av_rescale_q(timeNs, kNanoseconds, kTimeBase);
        if (lastPts_ && pts <= *lastPts_) {
            return false;
        }
        const bool keyframeDue = !lastKeyframePts_ || pts - *lastKeyframePts_ >=
                                                          kKeyframeIntervalSeconds * kTimeBase.den;
        if (lastPts_) {
            durations_[*lastPts_] = pts - *lastPts_;
        }
        lastPts_ = pts;
        if (!firstPts_) {
            firstPts_ = pts;
        }
        ++encodedFrames_;
        if (keyframeDue) {
            lastKeyframePts_ = pts;
        }
        effortStep_ = codec_->keepUp(framesWaiting);
        codec_->encode(pts, keyframeDue, pending_);
        write();
        return true;
    }

    int effortStep() const { return effortStep_; }

    // The movie ends at `endTimeNs`, and never sooner than one frame interval per encoded
    // frame after the first (capture jitter must not push the average rate above the cap).
    void finish(int64_t endTimeNs) {
        if (lastPts_) {
            const int64_t end = std::max(av_rescale_q(endTimeNs, kNanoseconds, kTimeBase),
                                         *firstPts_ + encodedFrames_ * frameInterval_);
            durations_[*lastPts_] = std::max<int64_t>(end - *lastPts_, 1);
        }
        codec_->flush(pending_);
        write();
        check(av_write_trailer(format_.get()),
              QStringLiteral("Tessarel could not finish the movie file"));
    }

private:
    // Writes the encoded packets, each as soon as its duration is known.
    void write() {
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
    std::unique_ptr<Codec> codec_;
    std::deque<PacketPtr> pending_;
    std::map<int64_t, int64_t> durations_; // pts → how long that frame shows
    std::optional<int64_t> firstPts_;
    std::optional<int64_t> lastPts_;
    int64_t encodedFrames_ = 0;
    std::optional<int64_t> lastKeyframePts_;
    int effortStep_ = 0; // steps below full effort at the last picture
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
    std::vector<VideoCodec> codecs{VideoCodec::h264};
    if (mpeg4Encoder()) {
        codecs.push_back(VideoCodec::mpeg4Part2);
    }
    return codecs;
}

long long VideoFileRecorder::encodedFrames() const {
    return encodedFrames_;
}

int VideoFileRecorder::leastEffortStep() const {
    return leastEffortStep_;
}

int VideoFileRecorder::effortStep() const {
    return effortStep_;
}

void VideoFileRecorder::start(VideoFrameQueue& queue, int width, int height, int64_t startTimeNs,
                              int64_t frameIntervalNs) {
    // Created exclusively: a file already under this name is never truncated. Until the
    // encoder thread runs, a failure removes what this start created.
    const QString path = configuration_.outputURL.toLocalFile();
    file_ = std::make_unique<RecordingFile>(path);
    // The encoder is made on its own thread, whose priority x264's threads take over.
    std::promise<void> made;
    std::future<void> encoderMade = made.get_future();
    try {
        startEncoding(queue, {path, width, height, startTimeNs, frameIntervalNs}, std::move(made));
        encoderMade.get();
    } catch (...) {
        if (thread_.joinable()) {
            thread_.join();
        }
        encoder_.reset();
        file_->discard();
        file_.reset();
        rethrowExplained();
    }
}

void VideoFileRecorder::startEncoding(VideoFrameQueue& queue, const Movie& movie,
                                      std::promise<void> made) {
    // The thread owns the promise, so nothing of it is left to touch once start() has its
    // answer and returns.
    thread_ = std::thread([this, &queue, movie, made = std::move(made)]() mutable {
        pthread_setname_np(pthread_self(), "Tessarel.encode");
        // A lower priority than the capture thread's, which x264's threads, made from this
        // one, take over: when the machine is short of time, the encoder waits, which the
        // queue and the effort steps make up for, rather than the capture, whose missed
        // ticks are lost to the movie.
        setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()),
                    encoderNiceness(getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()))));
        try {
            encoder_ = std::make_unique<Encoder>(movie.path, configuration_.videoCodecType,
                                                 movie.width, movie.height, movie.frameIntervalNs);
        } catch (...) {
            made.set_exception(std::current_exception());
            return;
        }
        made.set_value();
        delegate_->recordingOutputDidStartRecording();
        std::exception_ptr error;
        try {
            while (VideoFrame* frame = queue.next()) {
                const int64_t timeNs = frame->captureTimeNs - movie.startTimeNs;
                try {
                    if (encoder_->encode(*frame, timeNs, queue.waiting())) {
                        effortStep_ = encoder_->effortStep();
                        // Only this thread writes either.
                        leastEffortStep_ = std::max(leastEffortStep_.load(), effortStep_.load());
                        // Last, so whoever sees the count sees the steps of that frame.
                        ++encodedFrames_;
                    }
                } catch (...) {
                    queue.recycle(*frame);
                    throw;
                }
                queue.recycle(*frame);
            }
            encoder_->finish(queue.endTimeNs() - movie.startTimeNs);
        } catch (...) {
            error = std::current_exception();
        }
        encoder_.reset();
        // Whatever the movie holds is kept, even where its folder went away meanwhile.
        const auto tell = [&error](const QString& news) {
            error = std::make_exception_ptr(PlatformError(
                error ? localizedDescription(error) + QLatin1Char(' ') + news : news));
        };
        try {
            if (const std::optional<QString> whereItWent = file_->keepReachable()) {
                tell(*whereItWent);
            }
        } catch (const PlatformError& lost) {
            tell(QString::fromUtf8(lost.what()));
        }
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

void VideoFileRecorder::abandon() {
    finish();
    if (file_) {
        file_->discard();
    }
}
