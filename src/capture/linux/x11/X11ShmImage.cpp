#include "capture/linux/x11/X11ShmImage.h"

#include "capture/CaptureVocabulary.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>

#include <algorithm>

// One segment attached to both this process and the server.
class X11ShmImage::Segment {
public:
    Segment(xcb_connection_t* connection, size_t size) : connection_(connection), size_(size) {
        const int segmentID = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
        if (segmentID < 0) {
            throw PlatformError(QStringLiteral("Tessarel could not allocate shared memory."));
        }
        void* address = shmat(segmentID, nullptr, 0);
        if (address == reinterpret_cast<void*>(-1)) {
            shmctl(segmentID, IPC_RMID, nullptr);
            throw PlatformError(QStringLiteral("Tessarel could not allocate shared memory."));
        }
        pixels_ = static_cast<uint8_t*>(address);
        id_ = xcb_generate_id(connection_);
        XcbReply<xcb_generic_error_t> error(xcb_request_check(
            connection_,
            xcb_shm_attach_checked(connection_, id_, static_cast<uint32_t>(segmentID), 0)));
        // The server holds its own attachment now; the segment goes away with the last one.
        shmctl(segmentID, IPC_RMID, nullptr);
        if (error) {
            shmdt(pixels_);
            throw PlatformError(QStringLiteral("The X server could not attach shared memory."));
        }
    }
    ~Segment() {
        xcb_shm_detach(connection_, id_);
        xcb_flush(connection_);
        shmdt(pixels_);
    }
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    size_t size() const { return size_; }
    uint8_t* pixels() const { return pixels_; }
    xcb_shm_seg_t id() const { return id_; }

private:
    xcb_connection_t* connection_;
    size_t size_;
    uint8_t* pixels_ = nullptr;
    xcb_shm_seg_t id_ = XCB_NONE;
};

X11ShmImage::X11ShmImage(X11Connection& connection) : connection_(connection) {
    xcb_connection_t* c = connection_.get();
    XcbReply<xcb_shm_query_version_reply_t> version;
    if (connection_.offers(xcb_shm_id)) {
        version.reset(xcb_shm_query_version_reply(c, xcb_shm_query_version(c), nullptr));
    }
    if (!version) {
        throw PlatformError(QStringLiteral("The X server offers no shared memory (MIT-SHM)."));
    }
}

X11ShmImage::~X11ShmImage() = default;

uint8_t* X11ShmImage::pixels() const {
    return segment_ ? segment_->pixels() : nullptr;
}

PixelSpan X11ShmImage::grabRows(xcb_drawable_t drawable, const PixelRect& area, PixelSpan rows) {
    if (width_ != area.width || height_ != area.height) {
        grab(drawable, area);
        return {0, area.height};
    }
    rows = {std::max(rows.begin, 0), std::min(rows.end, area.height)};
    if (rows.isEmpty()) {
        return {};
    }
    // Whole rows lie in the segment as the server writes them, so they land in place.
    read(drawable, {area.x, area.y + rows.begin, area.width, rows.end - rows.begin},
         static_cast<uint32_t>(rows.begin) * static_cast<uint32_t>(bytesPerRow()));
    return rows;
}

void X11ShmImage::grab(xcb_drawable_t drawable, const PixelRect& area) {
    const size_t size = static_cast<size_t>(area.width) * static_cast<size_t>(area.height) * 4;
    const bool fresh = !segment_ || segment_->size() < size;
    if (fresh) {
        width_ = 0;
        height_ = 0;
        segment_.reset(); // before the new one, so two never coexist
        segment_ = std::make_unique<Segment>(connection_.get(), size);
    }
    read(drawable, area, 0);
    if (fresh) {
        // The server has filled the pages; map them all here at once rather than with a
        // fault each as they are read. Only a hint where the kernel lacks it.
        madvise(segment_->pixels(), size, MADV_POPULATE_READ);
    }
    width_ = area.width;
    height_ = area.height;
}

void X11ShmImage::read(xcb_drawable_t drawable, const PixelRect& rect, uint32_t offset) {
    xcb_connection_t* c = connection_.get();
    const auto cookie =
        xcb_shm_get_image(c, drawable, static_cast<int16_t>(rect.x), static_cast<int16_t>(rect.y),
                          static_cast<uint16_t>(rect.width), static_cast<uint16_t>(rect.height),
                          UINT32_MAX, XCB_IMAGE_FORMAT_Z_PIXMAP, segment_->id(), offset);
    xcb_generic_error_t* rawError = nullptr;
    XcbReply<xcb_shm_get_image_reply_t> reply(xcb_shm_get_image_reply(c, cookie, &rawError));
    XcbReply<xcb_generic_error_t> error(rawError);
    if (!reply) {
        throw PlatformError(QStringLiteral("The X server could not copy the screen."));
    }
}
