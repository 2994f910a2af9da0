#include "capture/linux/FfmpegAudioFiles.h"

#include "capture/CaptureVocabulary.h"
#include "capture/linux/FfmpegLog.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <vector>

namespace {

[[noreturn]] void throwSystemError(int error) {
    throw PlatformError(QStringLiteral("The audio file could not be written: ") +
                        QString::fromLocal8Bit(std::strerror(error)));
}

void writeAll(int fd, const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    while (size > 0) {
        const ssize_t written = ::write(fd, bytes, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            throwSystemError(errno);
        }
        bytes += written;
        size -= static_cast<size_t>(written);
    }
}

// ---- WAVE ------------------------------------------------------------------------------

// What lrint gives in the default rounding mode, for |value| < 2^22, without a library call
// per sample: after adding 1.5 × 2^23 a float has no fraction bits left, so the addition
// itself rounds, ties to even.
float roundToNearestEven(float value) {
    constexpr float kNoFractionBias = 12'582'912.0f;
    return (value + kNoFractionBias) - kNoFractionBias;
}

class WaveFileSink final : public AudioFileSink {
public:
    WaveFileSink(int fd, int sampleRate, int channelCount)
        : fd_(fd), channelCount_(channelCount),
          bytesPerHalfSecond_(static_cast<uint64_t>(sampleRate) * channelCount * sizeof(int16_t) /
                              2) {
        const auto blockAlign = static_cast<uint16_t>(channelCount * sizeof(int16_t));
        std::array<uint8_t, kHeaderSize> header{};
        size_t at = 0;
        const auto tag = [&](const char* text) {
            std::memcpy(header.data() + at, text, 4);
            at += 4;
        };
        const auto le = [&](uint32_t value, int bytes) {
            for (int i = 0; i < bytes; ++i) {
                header[at++] = static_cast<uint8_t>(value >> (8 * i));
            }
        };
        tag("RIFF");
        le(kHeaderSize - 8, 4);
        tag("WAVE");
        tag("fmt ");
        le(16, 4);
        le(1, 2); // integer PCM
        le(static_cast<uint32_t>(channelCount), 2);
        le(static_cast<uint32_t>(sampleRate), 4);
        le(static_cast<uint32_t>(sampleRate) * blockAlign, 4);
        le(blockAlign, 2);
        le(16, 2);
        tag("data");
        le(0, 4);
        writeAll(fd_, header.data(), header.size());
    }

    // Each block's data goes out before the sizes that count it, so the header always
    // describes data that is in the file. The sizes follow every half second of sound.
    void write(const float* samples, int64_t frames) override {
        const size_t count = static_cast<size_t>(frames) * channelCount_;
        if (dataBytes_ + count * sizeof(int16_t) > kMaxDataBytes) {
            throw PlatformError(QStringLiteral("The recording is too long for a WAV file."));
        }
        pcm_.resize(count);
        std::transform(samples, samples + count, pcm_.begin(), [](float sample) {
            return static_cast<int16_t>(
                roundToNearestEven(std::clamp(sample, -1.0f, 1.0f) * 32767.0f));
        });
        writeAll(fd_, pcm_.data(), count * sizeof(int16_t));
        dataBytes_ += count * sizeof(int16_t);
        if (dataBytes_ - countedBytes_ >= bytesPerHalfSecond_) {
            writeSizes();
        }
    }

    void finish() override { writeSizes(); }

private:
    static constexpr size_t kHeaderSize = 44;
    static constexpr uint64_t kMaxDataBytes = 0xFFFFFFFFu - kHeaderSize;

    void writeSizes() {
        writeSize(4, kHeaderSize - 8 + dataBytes_);
        writeSize(kHeaderSize - 4, dataBytes_);
        countedBytes_ = dataBytes_;
    }

    void writeSize(off_t offset, uint64_t size) {
        const std::array<uint8_t, 4> bytes{
            static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8),
            static_cast<uint8_t>(size >> 16), static_cast<uint8_t>(size >> 24)};
        if (::pwrite(fd_, bytes.data(), bytes.size(), offset) !=
            static_cast<ssize_t>(bytes.size())) {
            throwSystemError(errno);
        }
    }

    int fd_;
    size_t channelCount_;
    uint64_t bytesPerHalfSecond_;
    uint64_t dataBytes_ = 0;
    uint64_t countedBytes_ = 0;
    std::vector<int16_t> pcm_;
};

// ---- MPEG-4 audio ------------------------------------------------------------------------

// A cut-off file loses at most this much of its end.
constexpr int64_t kFragmentDurationUs = 500'000;
constexpr int kIoBufferSize = 64 * 1024;

#if LIBAVFORMAT_VERSION_MAJOR >= 61
using IoBytes = const uint8_t*;
#else
using IoBytes = uint8_t*;
#endif

[[noreturn]] void throwAvError(int error) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(error, text.data(), text.size());
    const QString explained = takeFfmpegErrors();
    throw PlatformError(QStringLiteral("The audio file could not be written: ") +
                        QString::fromUtf8(text.data()) +
                        (explained.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(explained)));
}

int check(int result) {
    if (result < 0) {
        throwAvError(result);
    }
    return result;
}

struct CodecContextFree {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FormatContextFree {
    void operator()(AVFormatContext* context) const { avformat_free_context(context); }
};
struct IoContextFree {
    void operator()(AVIOContext* context) const {
        av_freep(&context->buffer);
        avio_context_free(&context);
    }
};
struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

class Dictionary {
public:
    Dictionary() = default;
    ~Dictionary() { av_dict_free(&entries_); }
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;
    void set(const char* key, const char* value) { check(av_dict_set(&entries_, key, value, 0)); }
    AVDictionary** get() { return &entries_; }

private:
    AVDictionary* entries_ = nullptr;
};

class Mpeg4AudioFileSink final : public AudioFileSink {
public:
    Mpeg4AudioFileSink(int fd, const std::string& path, int sampleRate, int channelCount,
                       int bitRate)
        : fd_(fd), channelCount_(channelCount) {
        routeFfmpegLog();
        const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
        if (!codec) {
            throw PlatformError(QStringLiteral("The AAC encoder is unavailable."));
        }
        codec_.reset(avcodec_alloc_context3(codec));
        if (!codec_) {
            throwAvError(AVERROR(ENOMEM));
        }
        codec_->sample_fmt = AV_SAMPLE_FMT_FLTP;
        codec_->sample_rate = sampleRate;
        av_channel_layout_default(&codec_->ch_layout, channelCount);
        codec_->bit_rate = bitRate;
        codec_->time_base = AVRational{1, sampleRate};

        AVFormatContext* format = nullptr;
        check(avformat_alloc_output_context2(&format, nullptr, "ipod", nullptr));
        format_.reset(format);
        // Named only so that the muxer sees the extension it expects.
        format_->url = av_strdup(path.c_str());
        if (format_->oformat->flags & AVFMT_GLOBALHEADER) {
            codec_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        }
        check(avcodec_open2(codec_.get(), codec, nullptr));

        auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
        if (!buffer) {
            throwAvError(AVERROR(ENOMEM));
        }
        io_.reset(avio_alloc_context(buffer, kIoBufferSize, 1, &fd_, nullptr, writePacket, seek));
        if (!io_) {
            av_free(buffer);
            throwAvError(AVERROR(ENOMEM));
        }
        format_->pb = io_.get();
        format_->flags |= AVFMT_FLAG_CUSTOM_IO;

        AVStream* stream = avformat_new_stream(format_.get(), nullptr);
        if (!stream) {
            throwAvError(AVERROR(ENOMEM));
        }
        stream->time_base = codec_->time_base;
        check(avcodec_parameters_from_context(stream->codecpar, codec_.get()));

        // The header goes out first and each fragment is complete on its own, so the file
        // plays up to its last fragment even when it was never finished.
        Dictionary options;
        options.set("movflags", "empty_moov+default_base_moof");
        options.set("frag_duration", std::to_string(kFragmentDurationUs).c_str());
        check(avformat_write_header(format_.get(), options.get()));
        flush();

        frame_.reset(av_frame_alloc());
        packet_.reset(av_packet_alloc());
        if (!frame_ || !packet_) {
            throwAvError(AVERROR(ENOMEM));
        }
        frame_->format = codec_->sample_fmt;
        frame_->sample_rate = sampleRate;
        check(av_channel_layout_copy(&frame_->ch_layout, &codec_->ch_layout));
        frame_->nb_samples = codec_->frame_size;
        check(av_frame_get_buffer(frame_.get(), 0));
    }

    void write(const float* samples, int64_t frames) override {
        while (frames > 0) {
            if (filled_ == 0) {
                // The encoder may still hold the last frame's samples.
                check(av_frame_make_writable(frame_.get()));
            }
            const int64_t count = std::min<int64_t>(frames, codec_->frame_size - filled_);
            for (size_t channel = 0; channel < channelCount_; ++channel) {
                auto* plane = reinterpret_cast<float*>(frame_->extended_data[channel]) + filled_;
                for (int64_t i = 0; i < count; ++i) {
                    plane[i] = samples[static_cast<size_t>(i) * channelCount_ + channel];
                }
            }
            filled_ += static_cast<int>(count);
            samples += static_cast<size_t>(count) * channelCount_;
            frames -= count;
            if (filled_ == codec_->frame_size) {
                encodeFilledFrame();
            }
        }
    }

    void finish() override {
        if (filled_ > 0) {
            encodeFilledFrame();
        }
        encode(nullptr);
        check(av_write_trailer(format_.get()));
        flush();
    }

private:
    static int writePacket(void* opaque, IoBytes data, int size) {
        const int fd = *static_cast<int*>(opaque);
        int done = 0;
        while (done < size) {
            const ssize_t written = ::write(fd, data + done, static_cast<size_t>(size - done));
            if (written < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return AVERROR(errno);
            }
            done += static_cast<int>(written);
        }
        return size;
    }

    static int64_t seek(void* opaque, int64_t offset, int whence) {
        const int fd = *static_cast<int*>(opaque);
        if (whence & AVSEEK_SIZE) {
            struct stat status {};
            return ::fstat(fd, &status) < 0 ? AVERROR(errno) : status.st_size;
        }
        const off_t position = ::lseek(fd, offset, whence & ~AVSEEK_FORCE);
        return position < 0 ? AVERROR(errno) : position;
    }

    void encodeFilledFrame() {
        frame_->nb_samples = filled_;
        frame_->pts = samplesEncoded_;
        samplesEncoded_ += filled_;
        filled_ = 0;
        encode(frame_.get());
    }

    void encode(const AVFrame* frame) {
        check(avcodec_send_frame(codec_.get(), frame));
        for (;;) {
            const int result = avcodec_receive_packet(codec_.get(), packet_.get());
            if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
                return;
            }
            check(result);
            av_packet_rescale_ts(packet_.get(), codec_->time_base, format_->streams[0]->time_base);
            packet_->stream_index = 0;
            const int written = av_write_frame(format_.get(), packet_.get());
            av_packet_unref(packet_.get());
            check(written);
            flush();
        }
    }

    // A finished fragment reaches the file at once.
    void flush() {
        avio_flush(io_.get());
        check(io_->error);
    }

    int fd_;
    size_t channelCount_;
    std::unique_ptr<AVCodecContext, CodecContextFree> codec_;
    std::unique_ptr<AVIOContext, IoContextFree> io_;
    std::unique_ptr<AVFormatContext, FormatContextFree> format_; // uses io_
    std::unique_ptr<AVFrame, FrameFree> frame_;
    std::unique_ptr<AVPacket, PacketFree> packet_;
    int filled_ = 0;
    int64_t samplesEncoded_ = 0;
};

} // namespace

std::unique_ptr<AudioFileSink> makeWaveFileSink(int fd, int sampleRate, int channelCount) {
    return std::make_unique<WaveFileSink>(fd, sampleRate, channelCount);
}

std::unique_ptr<AudioFileSink> makeMpeg4AudioFileSink(int fd, const std::string& path,
                                                      int sampleRate, int channelCount,
                                                      int bitRate) {
    return std::make_unique<Mpeg4AudioFileSink>(fd, path, sampleRate, channelCount, bitRate);
}
