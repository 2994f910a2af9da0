#include "capture/linux/X11ShmImage.h"

#include "capture/CaptureVocabulary.h"

#include <sys/ipc.h>
#include <sys/shm.h>

X11ShmImage::X11ShmImage(X11Connection& connection, int width, int height)
    : connection_(connection), width_(width), height_(height) {
    xcb_connection_t* c = connection_.get();
    XcbReply<xcb_shm_query_version_reply_t> version(
        xcb_shm_query_version_reply(c, xcb_shm_query_version(c), nullptr));
    if (!version) {
        throw PlatformError(QStringLiteral("The X server offers no shared memory (MIT-SHM)."));
    }
    const size_t size = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;
    segmentID_ = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
    if (segmentID_ < 0) {
        throw PlatformError(QStringLiteral("Tessarel could not allocate shared memory."));
    }
    void* address = shmat(segmentID_, nullptr, 0);
    if (address == reinterpret_cast<void*>(-1)) {
        shmctl(segmentID_, IPC_RMID, nullptr);
        throw PlatformError(QStringLiteral("Tessarel could not allocate shared memory."));
    }
    pixels_ = static_cast<uint8_t*>(address);
    segment_ = xcb_generate_id(c);
    XcbReply<xcb_generic_error_t> error(xcb_request_check(
        c, xcb_shm_attach_checked(c, segment_, static_cast<uint32_t>(segmentID_), 0)));
    // The server holds its own attachment now; the segment goes away with the last one.
    shmctl(segmentID_, IPC_RMID, nullptr);
    if (error) {
        shmdt(pixels_);
        throw PlatformError(QStringLiteral("The X server could not attach shared memory."));
    }
}

X11ShmImage::~X11ShmImage() {
    xcb_shm_detach(connection_.get(), segment_);
    xcb_flush(connection_.get());
    shmdt(pixels_);
}

void X11ShmImage::grab(xcb_drawable_t drawable, int x, int y) {
    xcb_connection_t* c = connection_.get();
    const auto cookie =
        xcb_shm_get_image(c, drawable, static_cast<int16_t>(x), static_cast<int16_t>(y),
                          static_cast<uint16_t>(width_), static_cast<uint16_t>(height_), UINT32_MAX,
                          XCB_IMAGE_FORMAT_Z_PIXMAP, segment_, 0);
    xcb_generic_error_t* rawError = nullptr;
    XcbReply<xcb_shm_get_image_reply_t> reply(xcb_shm_get_image_reply(c, cookie, &rawError));
    XcbReply<xcb_generic_error_t> error(rawError);
    if (!reply) {
        throw PlatformError(QStringLiteral("The X server could not copy the screen."));
    }
}
