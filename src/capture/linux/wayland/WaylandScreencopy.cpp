#include "capture/linux/wayland/WaylandScreencopy.h"

#include "capture/CaptureVocabulary.h"
#include "capture/linux/wayland/WaylandConnection.h"

#include "wlr-screencopy-unstable-v1-client.h"

#include <wayland-client.h>

#include <libyuv.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

WaylandShmBuffer::WaylandShmBuffer(WaylandConnection& connection, const Layout& layout)
    : layout_(layout),
      size_(static_cast<size_t>(layout.stride) * static_cast<size_t>(layout.height)) {
    const int fd = memfd_create("tessarel-screen", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size_)) != 0) {
        if (fd >= 0) {
            close(fd);
        }
        throw PlatformError(QStringLiteral("There is not enough memory to copy the screen."));
    }
    void* mapped = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) {
        close(fd);
        throw PlatformError(QStringLiteral("There is not enough memory to copy the screen."));
    }
    pixels_ = static_cast<uint8_t*>(mapped);
    wl_shm_pool* pool = wl_shm_create_pool(connection.shm(), fd, static_cast<int32_t>(size_));
    buffer_ = wl_shm_pool_create_buffer(pool, 0, layout.width, layout.height, layout.stride,
                                        layout.format);
    wl_shm_pool_destroy(pool);
    close(fd);
}

WaylandShmBuffer::~WaylandShmBuffer() {
    wl_buffer_destroy(buffer_);
    munmap(pixels_, size_);
}

bool WaylandShmBuffer::inCaptureOrder() const {
    switch (layout_.format) {
    case WL_SHM_FORMAT_XRGB8888:
    case WL_SHM_FORMAT_ARGB8888:
        return true;
    case WL_SHM_FORMAT_XBGR8888:
    case WL_SHM_FORMAT_ABGR8888:
        return false;
    default:
        throw PlatformError(QStringLiteral(
            "The compositor copies the screen in a pixel format Tessarel cannot read."));
    }
}

void WaylandShmBuffer::copyArea(const PixelRect& area, bool yInverted, uint8_t* destination,
                                int destinationStride) const {
    // A negative stride reads the rows from the bottom up.
    const int row = yInverted ? layout_.height - 1 - area.y : area.y;
    const uint8_t* source =
        pixels_ + static_cast<ptrdiff_t>(row) * layout_.stride + static_cast<ptrdiff_t>(area.x) * 4;
    const int stride = yInverted ? -layout_.stride : layout_.stride;
    if (inCaptureOrder()) {
        libyuv::ARGBCopy(source, stride, destination, destinationStride, area.width, area.height);
    } else {
        libyuv::ABGRToARGB(source, stride, destination, destinationStride, area.width, area.height);
    }
}

struct WaylandFrameCopy::Listeners {
    static WaylandFrameCopy& self(void* data) { return *static_cast<WaylandFrameCopy*>(data); }

    static void buffer(void* data, zwlr_screencopy_frame_v1*, uint32_t format, uint32_t width,
                       uint32_t height, uint32_t stride) {
        WaylandFrameCopy& copy = self(data);
        copy.offered_ = {format, static_cast<int>(width), static_cast<int>(height),
                         static_cast<int>(stride)};
        copy.shmOffered_ = true;
        // Before the third version the compositor names no more than this one buffer.
        if (copy.connection_.screencopyVersion() < 3) {
            copy.copy();
        }
    }
    static void flags(void* data, zwlr_screencopy_frame_v1*, uint32_t flags) {
        self(data).yInverted_ = (flags & ZWLR_SCREENCOPY_FRAME_V1_FLAGS_Y_INVERT) != 0;
    }
    static void ready(void* data, zwlr_screencopy_frame_v1*, uint32_t, uint32_t, uint32_t) {
        self(data).outcome_ = Outcome::ready;
    }
    static void failed(void* data, zwlr_screencopy_frame_v1*) {
        self(data).outcome_ = Outcome::failed;
    }
    static void damage(void*, zwlr_screencopy_frame_v1*, uint32_t, uint32_t, uint32_t, uint32_t) {}
    static void linuxDmabuf(void*, zwlr_screencopy_frame_v1*, uint32_t, uint32_t, uint32_t) {}
    static void bufferDone(void* data, zwlr_screencopy_frame_v1*) {
        WaylandFrameCopy& copy = self(data);
        if (copy.shmOffered_) {
            copy.copy();
        } else {
            copy.outcome_ = Outcome::failed; // GPU buffers only
        }
    }

    static constexpr zwlr_screencopy_frame_v1_listener kListener{
        buffer, flags, ready, failed, damage, linuxDmabuf, bufferDone};
};

WaylandFrameCopy::WaylandFrameCopy(WaylandConnection& connection, wl_output* output,
                                   bool withCursor, bool waitForDamage,
                                   std::unique_ptr<WaylandShmBuffer>& slot)
    : connection_(connection), slot_(slot), waitForDamage_(waitForDamage) {
    frame_ = zwlr_screencopy_manager_v1_capture_output(connection.screencopy(), withCursor ? 1 : 0,
                                                       output);
    zwlr_screencopy_frame_v1_add_listener(frame_, &Listeners::kListener, this);
}

WaylandFrameCopy::~WaylandFrameCopy() {
    zwlr_screencopy_frame_v1_destroy(frame_);
}

void WaylandFrameCopy::throwFailure() const {
    if (error_) {
        std::rethrow_exception(error_);
    }
    throw PlatformError(QStringLiteral("The compositor could not copy the screen."));
}

// Called from the compositor's events: nothing may be thrown through them.
void WaylandFrameCopy::copy() {
    if (!slot_ || slot_->layout() != offered_) {
        slot_.reset();
        try {
            slot_ = std::make_unique<WaylandShmBuffer>(connection_, offered_);
        } catch (...) {
            error_ = std::current_exception();
            outcome_ = Outcome::failed;
            return;
        }
    }
    if (waitForDamage_ && connection_.screencopyVersion() >= 2) {
        zwlr_screencopy_frame_v1_copy_with_damage(frame_, slot_->buffer());
    } else {
        zwlr_screencopy_frame_v1_copy(frame_, slot_->buffer());
    }
}
