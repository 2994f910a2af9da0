#include "capture/linux/portal/PipeWireScreenStream.h"

#include "capture/CaptureVocabulary.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

// PipeWire's and SPA's headers and macros, used all through this file, are C: casts,
// compound literals and designated initialisers.
#pragma GCC diagnostic ignored "-Wpedantic"
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wcast-align"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

namespace {

// The largest pointer picture the stream is asked to describe.
constexpr int kPointerSide = 256;
constexpr int kDamageRegions = 16;

void initPipeWire() {
    static const bool initialised = [] {
        pw_init(nullptr, nullptr);
        return true;
    }();
    (void)initialised;
}

bool swapsRedAndBlue(uint32_t format) {
    return format == SPA_VIDEO_FORMAT_RGBx || format == SPA_VIDEO_FORMAT_RGBA;
}

// Where output pixel (x, y) of a `width` × `height` picture lies in the buffer that was
// mirrored left to right where the transform flips, then turned counter-clockwise by its
// angle (the Wayland output transforms: a flipped 90 is the picture transposed).
std::pair<int, int> sourceOf(uint32_t transform, int x, int y, int width, int height) {
    if (transform >= SPA_META_TRANSFORMATION_Flipped) {
        x = width - 1 - x;
    }
    switch (transform % 4) {
    case 1: // the buffer is `height` wide
        return {y, width - 1 - x};
    case 2:
        return {width - 1 - x, height - 1 - y};
    case 3:
        return {height - 1 - y, x};
    default:
        return {x, y};
    }
}

const spa_pod* videoFormats(spa_pod_builder& builder) {
    spa_rectangle smallest = SPA_RECTANGLE(1, 1);
    spa_rectangle usual = SPA_RECTANGLE(1920, 1080);
    spa_rectangle largest = SPA_RECTANGLE(16384, 16384);
    spa_fraction none = SPA_FRACTION(0, 1);
    spa_fraction often = SPA_FRACTION(30, 1);
    spa_fraction most = SPA_FRACTION(1000, 1);
    return static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
        SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
        SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
        SPA_POD_CHOICE_ENUM_Id(5, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx,
                               SPA_VIDEO_FORMAT_BGRA, SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA),
        SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&usual, &smallest, &largest),
        SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&often, &none, &most)));
}

// Shared memory only, and the metadata this stream reads.
std::vector<const spa_pod*> bufferParams(spa_pod_builder& builder) {
    std::vector<const spa_pod*> params;
    params.push_back(static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_dataType,
        SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd)))));
    const auto meta = [&](uint32_t type, int size) {
        params.push_back(static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
            SPA_POD_Id(type), SPA_PARAM_META_size, SPA_POD_Int(size))));
    };
    meta(SPA_META_Header, sizeof(spa_meta_header));
    meta(SPA_META_VideoCrop, sizeof(spa_meta_region));
    meta(SPA_META_VideoTransform, sizeof(spa_meta_videotransform));
    // Damage comes as an array of regions of the producer's length.
    params.push_back(static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
        SPA_POD_Id(SPA_META_VideoDamage), SPA_PARAM_META_size,
        SPA_POD_CHOICE_RANGE_Int(static_cast<int>(sizeof(spa_meta_region)) * kDamageRegions,
                                 static_cast<int>(sizeof(spa_meta_region)),
                                 static_cast<int>(sizeof(spa_meta_region)) * kDamageRegions))));
    // The pointer's picture may be of any size up to the largest this stream draws.
    const auto cursorSize = [](int side) {
        return static_cast<int>(sizeof(spa_meta_cursor) + sizeof(spa_meta_bitmap)) +
               side * side * 4;
    };
    params.push_back(static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
        SPA_POD_Id(SPA_META_Cursor), SPA_PARAM_META_size,
        SPA_POD_CHOICE_RANGE_Int(cursorSize(64), cursorSize(1), cursorSize(kPointerSide)))));
    return params;
}

} // namespace

// The pointer as the stream last described it: straight-alpha B, G, R, A pixels.
struct PipeWireScreenStream::Pointer {
    bool visible = false;
    int x = 0; // of the picture's top-left corner, in the stream's pixels
    int y = 0;
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels;
};

struct PipeWireScreenStream::Listener {
    pw_stream_events events{};
    spa_hook hook{};
    pw_registry_events registryEvents{};
    spa_hook registryHook{};
};

PipeWireScreenStream::PipeWireScreenStream(int remoteFd, uint32_t nodeId, bool drawsPointer,
                                           std::function<void(std::exception_ptr)> ended)
    : ended_(std::move(ended)), nodeId_(nodeId), drawsPointer_(drawsPointer),
      listener_(new Listener), pointer_(new Pointer) {
    initPipeWire();
    loop_ = pw_thread_loop_new("Tessarel.pipewire", nullptr);
    context_ = loop_ ? pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0) : nullptr;
    if (!context_ || pw_thread_loop_start(loop_) < 0) {
        close(remoteFd);
        release();
        throw PlatformError(QStringLiteral("PipeWire cannot be used."));
    }
    pw_thread_loop_lock(loop_);
    core_ = pw_context_connect_fd(context_, remoteFd, nullptr, 0);
    if (core_) {
        stream_ = pw_stream_new(core_, "Tessarel",
                                pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY,
                                                  "Capture", PW_KEY_MEDIA_ROLE, "Screen", nullptr));
    }
    int result = -1;
    if (core_) {
        registry_ = pw_core_get_registry(core_, PW_VERSION_REGISTRY, 0);
    }
    if (registry_) {
        listener_->registryEvents.version = PW_VERSION_REGISTRY_EVENTS;
        listener_->registryEvents.global_remove = &PipeWireScreenStream::onGlobalRemoved;
        pw_registry_add_listener(registry_, &listener_->registryHook, &listener_->registryEvents,
                                 this);
    }
    if (stream_ && registry_) {
        listener_->events.version = PW_VERSION_STREAM_EVENTS;
        listener_->events.state_changed = [](void* data, pw_stream_state old, pw_stream_state state,
                                             const char* error) {
            onStateChanged(data, old, state, error);
        };
        listener_->events.param_changed = &PipeWireScreenStream::onParamChanged;
        listener_->events.process = &PipeWireScreenStream::onProcess;
        pw_stream_add_listener(stream_, &listener_->hook, &listener_->events, this);
        std::array<uint8_t, 1024> space{};
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(space.data(), space.size());
        const spa_pod* params[] = {videoFormats(builder)};
        result = pw_stream_connect(
            stream_, PW_DIRECTION_INPUT, nodeId,
            static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS),
            params, 1);
    }
    pw_thread_loop_unlock(loop_);
    if (result < 0) {
        release();
        throw PlatformError(QStringLiteral("The screen's video stream cannot be reached."));
    }
}

PipeWireScreenStream::~PipeWireScreenStream() {
    release();
}

void PipeWireScreenStream::release() {
    if (loop_) {
        pw_thread_loop_stop(loop_);
    }
    if (stream_) {
        spa_hook_remove(&listener_->hook);
        pw_stream_destroy(stream_);
        stream_ = nullptr;
    }
    if (registry_) {
        spa_hook_remove(&listener_->registryHook);
        pw_proxy_destroy((pw_proxy*)registry_);
        registry_ = nullptr;
    }
    if (core_) {
        pw_core_disconnect(core_);
        core_ = nullptr;
    }
    if (context_) {
        pw_context_destroy(context_);
        context_ = nullptr;
    }
    if (loop_) {
        pw_thread_loop_destroy(loop_);
        loop_ = nullptr;
    }
}

bool PipeWireScreenStream::takeNewest(Picture& picture) {
    std::lock_guard guard(mutex_);
    if (!fresh_) {
        return false;
    }
    std::swap(picture, ready_);
    fresh_ = false;
    return true;
}

void PipeWireScreenStream::awaitFirstPicture(std::chrono::milliseconds timeout) {
    std::unique_lock guard(mutex_);
    if (!arrived_.wait_for(guard, timeout, [this] { return fresh_ || hasEnded_; })) {
        throw PlatformError(QStringLiteral("The screen's video stream sent no picture."));
    }
    if (!fresh_ && endError_) {
        std::rethrow_exception(endError_);
    }
}

void PipeWireScreenStream::onStateChanged(void* data, int old, int state, const char* error) {
    auto* self = static_cast<PipeWireScreenStream*>(data);
    // Paused comes and goes as buffers are negotiated again; only the node's removal (see
    // onGlobalRemoved) or an error ends the stream.
    if (state == PW_STREAM_STATE_ERROR ||
        (old != PW_STREAM_STATE_UNCONNECTED && state == PW_STREAM_STATE_UNCONNECTED)) {
        self->end(error);
    }
}

void PipeWireScreenStream::onGlobalRemoved(void* data, uint32_t id) {
    auto* self = static_cast<PipeWireScreenStream*>(data);
    if (id == self->nodeId_) {
        self->end(nullptr);
    }
}

void PipeWireScreenStream::end(const char* why) {
    const QString reason = QStringLiteral("The desktop stopped sharing the screen.");
    const auto error = std::make_exception_ptr(PlatformError(
        why ? reason + QLatin1Char(' ') + QString::fromUtf8(why) + QLatin1Char('.') : reason));
    {
        std::lock_guard guard(mutex_);
        if (hasEnded_) {
            return;
        }
        hasEnded_ = true;
        endError_ = error;
    }
    arrived_.notify_all();
    if (ended_) {
        ended_(error);
    }
}

void PipeWireScreenStream::onParamChanged(void* data, uint32_t id, const spa_pod* param) {
    auto* self = static_cast<PipeWireScreenStream*>(data);
    if (id != SPA_PARAM_Format || param == nullptr) {
        return;
    }
    spa_video_info_raw info{};
    if (spa_format_video_raw_parse(param, &info) < 0) {
        return;
    }
    self->format_ = info.format;
    self->formatWidth_ = static_cast<int>(info.size.width);
    self->formatHeight_ = static_cast<int>(info.size.height);
    std::vector<uint8_t> space(1024);
    spa_pod_builder builder =
        SPA_POD_BUILDER_INIT(space.data(), static_cast<uint32_t>(space.size()));
    std::vector<const spa_pod*> params = bufferParams(builder);
    pw_stream_update_params(self->stream_, params.data(), static_cast<uint32_t>(params.size()));
}

void PipeWireScreenStream::onProcess(void* data) {
    auto* self = static_cast<PipeWireScreenStream*>(data);
    // Every waiting buffer goes back at once but the newest usable one.
    std::vector<pw_buffer*> waiting;
    while (pw_buffer* buffer = pw_stream_dequeue_buffer(self->stream_)) {
        waiting.push_back(buffer);
    }
    bool pictureRead = false;
    bool pointerMoved = false;
    for (auto it = waiting.rbegin(); it != waiting.rend(); ++it) {
        if (!pictureRead && self->readPicture(*(*it)->buffer, waiting.size() == 1)) {
            pictureRead = true;
        }
        if (it == waiting.rbegin() && self->drawsPointer_) {
            pointerMoved = self->readPointer(*(*it)->buffer);
        }
    }
    for (pw_buffer* buffer : waiting) {
        pw_stream_queue_buffer(self->stream_, buffer);
    }
    if (pictureRead || (pointerMoved && !self->clean_.pixels.empty())) {
        self->publish(pictureRead ? self->clean_.changedRows : PixelSpan{});
    }
}

// Copies the buffer's picture into clean_, noting in its changedRows what the damage
// metadata says changed. False for a buffer with nothing to read.
bool PipeWireScreenStream::readPicture(const spa_buffer& buffer, bool onlyOneWaiting) {
    if (buffer.n_datas < 1 || formatWidth_ <= 0 || formatHeight_ <= 0) {
        return false;
    }
    const spa_data& plane = buffer.datas[0];
    if (plane.data == nullptr || plane.chunk == nullptr || plane.chunk->size == 0 ||
        (plane.chunk->flags & SPA_CHUNK_FLAG_CORRUPTED) != 0) {
        return false;
    }
    if (const auto* header = static_cast<const spa_meta_header*>(
            spa_buffer_find_meta_data(&buffer, SPA_META_Header, sizeof(spa_meta_header)));
        header && (header->flags & SPA_META_HEADER_FLAG_CORRUPTED) != 0) {
        return false;
    }
    const int stride = plane.chunk->stride > 0 ? plane.chunk->stride : formatWidth_ * 4;
    const uint8_t* base = static_cast<const uint8_t*>(plane.data) + plane.chunk->offset;
    if (static_cast<uint64_t>(plane.chunk->offset) +
            static_cast<uint64_t>(stride) * static_cast<uint64_t>(formatHeight_) >
        plane.maxsize) {
        return false;
    }
    int cropX = 0;
    int cropY = 0;
    int cropWidth = formatWidth_;
    int cropHeight = formatHeight_;
    if (const auto* crop = static_cast<const spa_meta_region*>(
            spa_buffer_find_meta_data(&buffer, SPA_META_VideoCrop, sizeof(spa_meta_region)));
        crop && spa_meta_region_is_valid(crop)) {
        cropX = std::clamp(crop->region.position.x, 0, formatWidth_ - 1);
        cropY = std::clamp(crop->region.position.y, 0, formatHeight_ - 1);
        cropWidth = std::min(static_cast<int>(crop->region.size.width), formatWidth_ - cropX);
        cropHeight = std::min(static_cast<int>(crop->region.size.height), formatHeight_ - cropY);
    }
    uint32_t transform = SPA_META_TRANSFORMATION_None;
    if (const auto* turn = static_cast<const spa_meta_videotransform*>(spa_buffer_find_meta_data(
            &buffer, SPA_META_VideoTransform, sizeof(spa_meta_videotransform)))) {
        transform = turn->transform;
    }
    const bool sideways = transform % 2 == 1;
    const int width = sideways ? cropHeight : cropWidth;
    const int height = sideways ? cropWidth : cropHeight;
    const bool sameShape = clean_.width == width && clean_.height == height;
    clean_.width = width;
    clean_.height = height;
    clean_.bytesPerRow = width * 4;
    clean_.pixels.resize(static_cast<size_t>(clean_.bytesPerRow) * static_cast<size_t>(height));

    // The damage tells what changed since the buffer before, so it holds only when that
    // one was read too.
    PixelSpan changed{0, height};
    const spa_meta* damage = spa_buffer_find_meta(&buffer, SPA_META_VideoDamage);
    if (damage && onlyOneWaiting && sameShape && transform == SPA_META_TRANSFORMATION_None) {
        changed = {};
        spa_meta_region* region = nullptr;
        spa_meta_for_each(region, damage) {
            if (!spa_meta_region_is_valid(region)) {
                break;
            }
            const int top = region->region.position.y - cropY;
            changed.unite(
                {std::clamp(top, 0, height),
                 std::clamp(top + static_cast<int>(region->region.size.height), 0, height)});
        }
    }

    const bool swap = swapsRedAndBlue(format_);
    for (int y = changed.begin; y < changed.end; ++y) {
        uint8_t* out = clean_.pixels.data() + static_cast<ptrdiff_t>(y) * clean_.bytesPerRow;
        if (transform == SPA_META_TRANSFORMATION_None) {
            std::memcpy(out, base + static_cast<ptrdiff_t>(cropY + y) * stride + cropX * 4,
                        static_cast<size_t>(width) * 4);
        } else {
            for (int x = 0; x < width; ++x) {
                const auto [sx, sy] = sourceOf(transform, x, y, width, height);
                std::memcpy(out + x * 4,
                            base + static_cast<ptrdiff_t>(cropY + sy) * stride + (cropX + sx) * 4,
                            4);
            }
        }
        if (swap) {
            for (int x = 0; x < width; ++x) {
                std::swap(out[x * 4], out[x * 4 + 2]);
            }
        }
        // Alpha, where the format has one, means nothing on a screen.
        for (int x = 0; x < width; ++x) {
            out[x * 4 + 3] = 0xff;
        }
    }
    clean_.changedRows = changed;
    return true;
}

// Takes up the pointer's place and picture; true when the pointer as drawn changed.
bool PipeWireScreenStream::readPointer(const spa_buffer& buffer) {
    const auto* cursor = static_cast<const spa_meta_cursor*>(
        spa_buffer_find_meta_data(&buffer, SPA_META_Cursor, sizeof(spa_meta_cursor)));
    if (cursor == nullptr) {
        return false;
    }
    Pointer& pointer = *pointer_;
    const Pointer before = pointer;
    if (!spa_meta_cursor_is_valid(cursor)) {
        pointer.visible = false;
        return before.visible;
    }
    if (cursor->bitmap_offset >= sizeof(spa_meta_cursor)) {
        const auto* bitmap = SPA_PTROFF(cursor, cursor->bitmap_offset, const spa_meta_bitmap);
        const bool known =
            bitmap->format == SPA_VIDEO_FORMAT_BGRA || bitmap->format == SPA_VIDEO_FORMAT_RGBA;
        if (known && bitmap->offset >= sizeof(spa_meta_bitmap) &&
            bitmap->size.width <= kPointerSide && bitmap->size.height <= kPointerSide) {
            pointer.width = static_cast<int>(bitmap->size.width);
            pointer.height = static_cast<int>(bitmap->size.height);
            pointer.pixels.resize(static_cast<size_t>(pointer.width * pointer.height) * 4);
            const auto* source = SPA_PTROFF(bitmap, bitmap->offset, const uint8_t);
            for (int y = 0; y < pointer.height; ++y) {
                uint8_t* row =
                    pointer.pixels.data() + static_cast<ptrdiff_t>(y) * pointer.width * 4;
                std::memcpy(row, source + static_cast<ptrdiff_t>(y) * bitmap->stride,
                            static_cast<size_t>(pointer.width) * 4);
                if (bitmap->format == SPA_VIDEO_FORMAT_RGBA) {
                    for (int x = 0; x < pointer.width; ++x) {
                        std::swap(row[x * 4], row[x * 4 + 2]);
                    }
                }
            }
        } else if (bitmap->offset == 0) {
            pointer.width = pointer.height = 0; // shown as nothing
        }
    }
    pointer.visible = true;
    pointer.x = cursor->position.x - cursor->hotspot.x;
    pointer.y = cursor->position.y - cursor->hotspot.y;
    return before.visible != pointer.visible || before.x != pointer.x || before.y != pointer.y ||
           before.pixels != pointer.pixels;
}

// Composes the clean picture and the pointer into the picture handed over next.
void PipeWireScreenStream::publish(PixelSpan changed) {
    back_.width = clean_.width;
    back_.height = clean_.height;
    back_.bytesPerRow = clean_.bytesPerRow;
    back_.pixels = clean_.pixels;
    changed.unite(pointerRows_);
    pointerRows_ = {};
    const Pointer& pointer = *pointer_;
    if (drawsPointer_ && pointer.visible && pointer.width > 0) {
        for (int y = std::max(0, -pointer.y); y < pointer.height && pointer.y + y < back_.height;
             ++y) {
            uint8_t* row =
                back_.pixels.data() + static_cast<ptrdiff_t>(pointer.y + y) * back_.bytesPerRow;
            for (int x = std::max(0, -pointer.x); x < pointer.width && pointer.x + x < back_.width;
                 ++x) {
                const uint8_t* over =
                    pointer.pixels.data() + (static_cast<ptrdiff_t>(y) * pointer.width + x) * 4;
                const int alpha = over[3];
                uint8_t* pixel = row + static_cast<ptrdiff_t>(pointer.x + x) * 4;
                for (int channel = 0; channel < 3; ++channel) {
                    pixel[channel] = static_cast<uint8_t>(
                        (over[channel] * alpha + pixel[channel] * (255 - alpha)) / 255);
                }
            }
        }
        pointerRows_ = {std::clamp(pointer.y, 0, back_.height),
                        std::clamp(pointer.y + pointer.height, 0, back_.height)};
        changed.unite(pointerRows_);
    }
    {
        std::lock_guard guard(mutex_);
        // A picture nobody took yet is replaced; what changed in it still counts.
        if (fresh_ && ready_.width == back_.width && ready_.height == back_.height) {
            changed.unite(ready_.changedRows);
        } else if (fresh_) {
            changed = {0, back_.height};
        }
        back_.changedRows = changed;
        std::swap(ready_, back_);
        fresh_ = true;
    }
    arrived_.notify_all();
}
