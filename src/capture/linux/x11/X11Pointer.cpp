#include "capture/linux/x11/X11Pointer.h"

#include "capture/CaptureVocabulary.h"
#include "capture/linux/x11/X11Connection.h"
#include "capture/linux/x11/X11ShmImage.h"

#include <algorithm>

void requirePointerImages(X11Connection& connection) {
    xcb_connection_t* c = connection.get();
    XcbReply<xcb_xfixes_query_version_reply_t> version;
    if (connection.offers(xcb_xfixes_id)) {
        version.reset(xcb_xfixes_query_version_reply(
            c, xcb_xfixes_query_version(c, XCB_XFIXES_MAJOR_VERSION, 0), nullptr));
    }
    if (!version) {
        throw PlatformError(QStringLiteral("The X server cannot show the pointer."));
    }
}

PixelSpan drawPointer(const xcb_xfixes_get_cursor_image_reply_t& cursor, const PixelRect& area,
                      X11ShmImage& image) {
    const int left = cursor.x - cursor.xhot - area.x;
    const int top = cursor.y - cursor.yhot - area.y;
    const uint32_t* source = xcb_xfixes_get_cursor_image_cursor_image(&cursor);
    for (int y = std::max(0, -top); y < cursor.height && top + y < image.height(); ++y) {
        uint8_t* row = image.pixels() + static_cast<ptrdiff_t>(top + y) * image.bytesPerRow();
        for (int x = std::max(0, -left); x < cursor.width && left + x < image.width(); ++x) {
            const uint32_t argb = source[y * cursor.width + x];
            const uint32_t alpha = argb >> 24;
            if (alpha == 0) {
                continue;
            }
            uint8_t* pixel = row + static_cast<ptrdiff_t>(left + x) * 4;
            for (int channel = 0; channel < 3; ++channel) {
                const uint32_t over = (argb >> (8 * channel)) & 0xff;
                pixel[channel] = static_cast<uint8_t>(
                    std::min<uint32_t>(255, over + pixel[channel] * (255 - alpha) / 255));
            }
        }
    }
    return {std::max(0, top), std::min(image.height(), top + static_cast<int>(cursor.height))};
}
