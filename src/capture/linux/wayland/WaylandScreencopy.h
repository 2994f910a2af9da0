#pragma once

#include "capture/linux/PixelRect.h"

#include <cstdint>
#include <exception>
#include <memory>

class WaylandConnection;
struct wl_buffer;
struct wl_output;
struct zwlr_screencopy_frame_v1;

// A shared-memory buffer the compositor copies frames into.
class WaylandShmBuffer {
public:
    struct Layout {
        uint32_t format = 0; // a wl_shm format
        int width = 0;
        int height = 0;
        int stride = 0;
        friend bool operator==(const Layout&, const Layout&) = default;
    };

    // Throws PlatformError when the memory cannot be had.
    WaylandShmBuffer(WaylandConnection& connection, const Layout& layout);
    ~WaylandShmBuffer();
    WaylandShmBuffer(const WaylandShmBuffer&) = delete;
    WaylandShmBuffer& operator=(const WaylandShmBuffer&) = delete;

    const Layout& layout() const { return layout_; }
    wl_buffer* buffer() const { return buffer_; }
    const uint8_t* pixels() const { return pixels_; }
    // Whether the pixels are in B, G, R, X byte order already; throws PlatformError for a
    // format Tessarel cannot read.
    bool inCaptureOrder() const;
    // Copies `area` in B, G, R, X order, top row first, into `destination`.
    void copyArea(const PixelRect& area, bool yInverted, uint8_t* destination,
                  int destinationStride) const;

private:
    Layout layout_;
    uint8_t* pixels_ = nullptr;
    size_t size_ = 0;
    wl_buffer* buffer_ = nullptr;
};

// One copy of an output by wlr-screencopy into a buffer of `slot`, which is replaced when
// it does not have the layout the compositor asks for. Progresses as the connection
// dispatches; the slot must outlive the copy.
class WaylandFrameCopy {
public:
    enum class Outcome { pending, ready, failed };

    // `waitForDamage`: the compositor copies once something on the output has changed.
    WaylandFrameCopy(WaylandConnection& connection, wl_output* output, bool withCursor,
                     bool waitForDamage, std::unique_ptr<WaylandShmBuffer>& slot);
    ~WaylandFrameCopy();
    WaylandFrameCopy(const WaylandFrameCopy&) = delete;
    WaylandFrameCopy& operator=(const WaylandFrameCopy&) = delete;

    Outcome outcome() const { return outcome_; }
    // Throws what made the copy fail: a PlatformError.
    [[noreturn]] void throwFailure() const;
    bool finished() const { return outcome_ != Outcome::pending; }
    // Rows are stored bottom row first.
    bool yInverted() const { return yInverted_; }

private:
    struct Listeners;

    void copy();

    WaylandConnection& connection_;
    std::unique_ptr<WaylandShmBuffer>& slot_;
    const bool waitForDamage_;
    zwlr_screencopy_frame_v1* frame_ = nullptr;
    WaylandShmBuffer::Layout offered_;
    bool shmOffered_ = false;
    bool yInverted_ = false;
    Outcome outcome_ = Outcome::pending;
    std::exception_ptr error_; // what failed on our side, if anything
};
