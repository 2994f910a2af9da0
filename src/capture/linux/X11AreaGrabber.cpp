#include "capture/linux/X11AreaGrabber.h"

#include "capture/CaptureVocabulary.h"

#include <xcb/composite.h>
#include <xcb/xcb_renderutil.h>

#include <algorithm>

namespace {

// Server-side resources freed with the owning connection's requests.
struct ServerPixmap {
    xcb_connection_t* connection = nullptr;
    xcb_pixmap_t id = XCB_NONE;
    ~ServerPixmap() {
        if (id != XCB_NONE) {
            xcb_free_pixmap(connection, id);
        }
    }
};

struct ServerGC {
    xcb_connection_t* connection = nullptr;
    xcb_gcontext_t id = XCB_NONE;
    ~ServerGC() {
        if (id != XCB_NONE) {
            xcb_free_gc(connection, id);
        }
    }
};

struct ServerPicture {
    xcb_connection_t* connection = nullptr;
    xcb_render_picture_t id = XCB_NONE;
    ~ServerPicture() {
        if (id != XCB_NONE) {
            xcb_render_free_picture(connection, id);
        }
    }
};

} // namespace

// The Composite and Render state of a grabber that has had to leave a window out.
struct X11AreaGrabber::Composer {
    XcbReply<xcb_render_query_pict_formats_reply_t> formats;
    ServerPixmap canvas;
    ServerPicture canvasPicture;
    ServerGC gc;
    xcb_atom_t rootPixmapAtom = XCB_NONE;
};

X11AreaGrabber::X11AreaGrabber(X11Connection& connection, const PixelRect& area,
                               std::vector<int64_t> excludedProcessIDs)
    : connection_(connection), area_(area), excluded_(std::move(excludedProcessIDs)),
      image_(connection, area.width, area.height) {
    if (connection_.screen().root_depth != 24 && connection_.screen().root_depth != 32) {
        throw PlatformError(QStringLiteral("Tessarel can only capture a 24-bit X screen."));
    }
}

X11AreaGrabber::~X11AreaGrabber() = default;

bool X11AreaGrabber::excludedWindowOverlaps(const std::vector<X11TopLevel>& windows) const {
    return std::any_of(windows.begin(), windows.end(), [this](const X11TopLevel& window) {
        return window.processID &&
               std::find(excluded_.begin(), excluded_.end(), *window.processID) !=
                   excluded_.end() &&
               !window.outerGeometry.intersected(area_).isEmpty();
    });
}

void X11AreaGrabber::grab() {
    if (!excluded_.empty()) {
        const auto windows = connection_.topLevels(true);
        if (excludedWindowOverlaps(windows)) {
            compose(windows);
            return;
        }
    }
    image_.grab(connection_.root(), area_.x, area_.y);
}

void X11AreaGrabber::compose(const std::vector<X11TopLevel>& windows) {
    xcb_connection_t* c = connection_.get();
    if (!composer_) {
        XcbReply<xcb_composite_query_version_reply_t> composite(
            xcb_composite_query_version_reply(c, xcb_composite_query_version(c, 0, 4), nullptr));
        XcbReply<xcb_render_query_version_reply_t> render(
            xcb_render_query_version_reply(c, xcb_render_query_version(c, 0, 11), nullptr));
        if (!composite || !render) {
            // Never capture Tessarel's own windows silently.
            throw PlatformError(QStringLiteral(
                "Tessarel cannot leave its own windows out of the capture on this X server."));
        }
        auto composer = std::make_unique<Composer>();
        composer->formats.reset(
            xcb_render_query_pict_formats_reply(c, xcb_render_query_pict_formats(c), nullptr));
        composer->rootPixmapAtom = connection_.atom("_XROOTPMAP_ID");
        // Every top-level window gets an off-screen pixmap; the server keeps painting the
        // screen itself, so nothing visible changes. Released with the connection.
        xcb_composite_redirect_subwindows(c, connection_.root(), XCB_COMPOSITE_REDIRECT_AUTOMATIC);
        composer->canvas = {c, xcb_generate_id(c)};
        xcb_create_pixmap(c, connection_.screen().root_depth, composer->canvas.id,
                          connection_.root(), static_cast<uint16_t>(area_.width),
                          static_cast<uint16_t>(area_.height));
        composer->gc = {c, xcb_generate_id(c)};
        xcb_create_gc(c, composer->gc.id, composer->canvas.id, 0, nullptr);
        const auto* rootFormat = xcb_render_util_find_visual_format(
            composer->formats.get(), connection_.screen().root_visual);
        if (!rootFormat) {
            throw PlatformError(QStringLiteral(
                "Tessarel cannot leave its own windows out of the capture on this X server."));
        }
        composer->canvasPicture = {c, xcb_generate_id(c)};
        xcb_render_create_picture(c, composer->canvasPicture.id, composer->canvas.id,
                                  rootFormat->format, 0, nullptr);
        composer_ = std::move(composer);
    }

    // The wallpaper first, where a desktop has published it; black elsewhere.
    const xcb_render_color_t black{0, 0, 0, 0xffff};
    const xcb_rectangle_t whole{0, 0, static_cast<uint16_t>(area_.width),
                                static_cast<uint16_t>(area_.height)};
    xcb_render_fill_rectangles(c, XCB_RENDER_PICT_OP_SRC, composer_->canvasPicture.id, black, 1,
                               &whole);
    const auto wallpaperCookie = xcb_get_property(c, 0, connection_.root(),
                                                  composer_->rootPixmapAtom, XCB_ATOM_PIXMAP, 0, 1);
    XcbReply<xcb_get_property_reply_t> wallpaper(
        xcb_get_property_reply(c, wallpaperCookie, nullptr));
    if (wallpaper && wallpaper->format == 32 &&
        xcb_get_property_value_length(wallpaper.get()) >= 4) {
        const auto pixmap =
            *static_cast<const xcb_pixmap_t*>(xcb_get_property_value(wallpaper.get()));
        xcb_copy_area(c, pixmap, composer_->canvas.id, composer_->gc.id,
                      static_cast<int16_t>(area_.x), static_cast<int16_t>(area_.y), 0, 0,
                      static_cast<uint16_t>(area_.width), static_cast<uint16_t>(area_.height));
    }

    for (const X11TopLevel& window : windows) {
        const bool isExcluded = window.processID && std::find(excluded_.begin(), excluded_.end(),
                                                              *window.processID) != excluded_.end();
        const PixelRect rect = window.outerGeometry;
        if (isExcluded || rect.intersected(area_).isEmpty()) {
            continue;
        }
        const auto* format =
            xcb_render_util_find_visual_format(composer_->formats.get(), window.visual);
        if (!format) {
            continue;
        }
        ServerPixmap contents{c, xcb_generate_id(c)};
        ServerPicture picture{c, xcb_generate_id(c)};
        xcb_composite_name_window_pixmap(c, window.window, contents.id);
        xcb_render_create_picture(c, picture.id, contents.id, format->format, 0, nullptr);
        xcb_render_composite(
            c, XCB_RENDER_PICT_OP_OVER, picture.id, XCB_NONE, composer_->canvasPicture.id, 0, 0, 0,
            0, static_cast<int16_t>(rect.x - area_.x), static_cast<int16_t>(rect.y - area_.y),
            static_cast<uint16_t>(rect.width), static_cast<uint16_t>(rect.height));
    }
    image_.grab(composer_->canvas.id, 0, 0);
    // A window that went away between the listing and its pixmap leaves an error behind,
    // and the picture simply lacks it; nobody else reads this connection's events.
    while (XcbReply<xcb_generic_event_t> event{xcb_poll_for_event(c)}) {
    }
}
