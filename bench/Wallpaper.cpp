#include "Wallpaper.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

xcb_atom_t atom(xcb_connection_t* c, const char* name) {
    xcb_intern_atom_reply_t* reply =
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, std::strlen(name), name), nullptr);
    const xcb_atom_t found = reply ? reply->atom : XCB_NONE;
    std::free(reply);
    return found;
}

} // namespace

Wallpaper::Wallpaper(const char* display, const QImage& picture)
    : connection_(xcb_connect(display, nullptr)) {
    xcb_connection_t* c = connection_.get();
    if (xcb_connection_has_error(c)) {
        return;
    }
    const QImage pixels = picture.convertToFormat(QImage::Format_RGB32);
    const int width = pixels.width();
    const int height = pixels.height();
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    const xcb_pixmap_t pixmap = xcb_generate_id(c);
    xcb_create_pixmap(c, 24, pixmap, root, width, height);
    const xcb_gcontext_t gc = xcb_generate_id(c);
    xcb_create_gc(c, gc, pixmap, 0, nullptr);
    const int rowsPerRequest =
        static_cast<int>((xcb_get_maximum_request_length(c) * 4 - 64) / (width * 4));
    for (int y = 0; y < height; y += rowsPerRequest) {
        const int rows = std::min(rowsPerRequest, height - y);
        xcb_put_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, pixmap, gc, width, rows, 0,
                      static_cast<int16_t>(y), 0, 24, width * 4 * rows, pixels.constScanLine(y));
    }
    xcb_free_gc(c, gc);
    xcb_change_window_attributes(c, root, XCB_CW_BACK_PIXMAP, &pixmap);
    xcb_clear_area(c, 0, root, 0, 0, 0, 0);
    for (const char* property : {"_XROOTPMAP_ID", "ESETROOT_PMAP_ID"}) {
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, root, atom(c, property), XCB_ATOM_PIXMAP, 32,
                            1, &pixmap);
    }
    std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
    shown_ = true;
}
