#include "capture/linux/x11/X11AreaGrabber.h"

#include "capture/CaptureVocabulary.h"

#include <xcb/composite.h>
#include <xcb/damage.h>
#include <xcb/render.h>
#include <xcb/shape.h>
#include <xcb/xcb_renderutil.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

namespace {

// A server-side resource with an id of this client, freed by `Release` when the holder goes.
// A creation the server refused leaves an error event behind, and so does the release;
// the grabber drops those with the rest of its events.
template <typename Release> class ServerResource {
public:
    explicit ServerResource(xcb_connection_t* connection)
        : connection_(connection), id_(xcb_generate_id(connection)) {}
    ~ServerResource() { Release{}(connection_, id_); }
    ServerResource(const ServerResource&) = delete;
    ServerResource& operator=(const ServerResource&) = delete;

    uint32_t id() const { return id_; }

private:
    xcb_connection_t* connection_;
    uint32_t id_;
};

struct FreePixmap {
    void operator()(xcb_connection_t* c, uint32_t id) const { xcb_free_pixmap(c, id); }
};
struct FreeGC {
    void operator()(xcb_connection_t* c, uint32_t id) const { xcb_free_gc(c, id); }
};
struct FreePicture {
    void operator()(xcb_connection_t* c, uint32_t id) const { xcb_render_free_picture(c, id); }
};
using ServerPixmap = ServerResource<FreePixmap>;
using ServerGC = ServerResource<FreeGC>;
using ServerPicture = ServerResource<FreePicture>;

// Every top-level window drawn into an off-screen pixmap of its own while this lives; the
// server keeps painting the screen itself, so nothing visible changes.
class Redirection {
public:
    Redirection(xcb_connection_t* connection, xcb_window_t root)
        : connection_(connection), root_(root) {
        xcb_composite_redirect_subwindows(connection_, root_, XCB_COMPOSITE_REDIRECT_AUTOMATIC);
    }
    ~Redirection() {
        xcb_composite_unredirect_subwindows(connection_, root_, XCB_COMPOSITE_REDIRECT_AUTOMATIC);
        xcb_flush(connection_);
    }
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;

private:
    xcb_connection_t* connection_;
    xcb_window_t root_;
};

[[noreturn]] void cannotLeaveOwnWindowsOut() {
    // Never capture Tessarel's own windows silently.
    throw PlatformError(QStringLiteral(
        "Tessarel cannot leave its own windows out of the capture on this X server."));
}

// Windows made invisible by an empty bounding shape from hide() on, then given back the
// shape they had when this was made. Unlike unmapping, this leaves their state alone: no
// window manager withdraws them, and their owner is not told. (A window manager that
// reshapes its frame meanwhile, within half a second, has that change undone. Should this
// connection break meanwhile, the windows stay invisible until their owner reshapes them:
// the shapes are the windows', not this connection's.)
class ShapeHiding {
public:
    ShapeHiding(xcb_connection_t* connection, const std::vector<xcb_window_t>& windows)
        : connection_(connection) {
        for (const xcb_window_t window : windows) {
            Saved saved{window, false, XCB_CLIP_ORDERING_UNSORTED, {}};
            XcbReply<xcb_shape_query_extents_reply_t> extents(xcb_shape_query_extents_reply(
                connection_, xcb_shape_query_extents(connection_, window), nullptr));
            if (extents && extents->bounding_shaped) {
                XcbReply<xcb_shape_get_rectangles_reply_t> shape(xcb_shape_get_rectangles_reply(
                    connection_,
                    xcb_shape_get_rectangles(connection_, window, XCB_SHAPE_SK_BOUNDING), nullptr));
                if (shape) {
                    const auto* rectangles = xcb_shape_get_rectangles_rectangles(shape.get());
                    saved.shaped = true;
                    saved.ordering = shape->ordering;
                    saved.rectangles.assign(
                        rectangles,
                        rectangles + xcb_shape_get_rectangles_rectangles_length(shape.get()));
                }
            }
            saved_.push_back(std::move(saved));
        }
    }
    // Ends a server grab the caller made; the server has exposed what lay beneath once this
    // returns.
    void hide() {
        for (const Saved& saved : saved_) {
            xcb_shape_rectangles(connection_, XCB_SHAPE_SO_SET, XCB_SHAPE_SK_BOUNDING,
                                 XCB_CLIP_ORDERING_UNSORTED, saved.window, 0, 0, 0, nullptr);
        }
        xcb_ungrab_server(connection_);
        std::free(
            xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
    }
    ~ShapeHiding() {
        for (const Saved& saved : saved_) {
            if (saved.shaped) {
                xcb_shape_rectangles(connection_, XCB_SHAPE_SO_SET, XCB_SHAPE_SK_BOUNDING,
                                     saved.ordering, saved.window, 0, 0,
                                     static_cast<uint32_t>(saved.rectangles.size()),
                                     saved.rectangles.data());
            } else {
                xcb_shape_mask(connection_, XCB_SHAPE_SO_SET, XCB_SHAPE_SK_BOUNDING, saved.window,
                               0, 0, XCB_PIXMAP_NONE);
            }
        }
        xcb_flush(connection_);
    }
    ShapeHiding(const ShapeHiding&) = delete;
    ShapeHiding& operator=(const ShapeHiding&) = delete;

private:
    struct Saved {
        xcb_window_t window;
        bool shaped;
        uint8_t ordering;
        std::vector<xcb_rectangle_t> rectangles;
    };

    xcb_connection_t* connection_;
    std::vector<Saved> saved_;
};

} // namespace

// The Composite and Render state of a grabber that has had to leave a window out.
struct X11AreaGrabber::Composer {
    Composer(X11Connection& connection, const PixelRect& area)
        : formats(xcb_render_query_pict_formats_reply(
              connection.get(), xcb_render_query_pict_formats(connection.get()), nullptr)),
          rootPixmapAtom(connection.atom("_XROOTPMAP_ID")),
          redirection(connection.get(), connection.root()), canvas(connection.get()),
          canvasPicture(connection.get()), gc(connection.get()) {
        xcb_connection_t* c = connection.get();
        const auto* rootFormat =
            xcb_render_util_find_visual_format(formats.get(), connection.screen().root_visual);
        if (!rootFormat) {
            cannotLeaveOwnWindowsOut();
        }
        xcb_create_pixmap(c, connection.screen().root_depth, canvas.id(), connection.root(),
                          static_cast<uint16_t>(area.width), static_cast<uint16_t>(area.height));
        xcb_create_gc(c, gc.id(), canvas.id(), 0, nullptr);
        xcb_render_create_picture(c, canvasPicture.id(), canvas.id(), rootFormat->format, 0,
                                  nullptr);
    }

    XcbReply<xcb_render_query_pict_formats_reply_t> formats;
    xcb_atom_t rootPixmapAtom;
    Redirection redirection;
    ServerPixmap canvas;
    ServerPicture canvasPicture;
    ServerGC gc;
};

// The server's reports of drawing anywhere on the screen: an event for each rectangle newly
// drawn in since the reports were last emptied.
class X11AreaGrabber::DamageReports {
public:
    DamageReports(xcb_connection_t* connection, xcb_window_t root, uint8_t firstEvent)
        : connection_(connection), id_(xcb_generate_id(connection)),
          notifyEvent_(static_cast<uint8_t>(firstEvent + XCB_DAMAGE_NOTIFY)) {
        xcb_damage_create(connection_, id_, root, XCB_DAMAGE_REPORT_LEVEL_DELTA_RECTANGLES);
        empty();
        madeAt_ = emptiedAt_;
    }
    ~DamageReports() {
        xcb_damage_destroy(connection_, id_);
        xcb_flush(connection_);
    }
    DamageReports(const DamageReports&) = delete;
    DamageReports& operator=(const DamageReports&) = delete;

    // Drawing reported from here on is reported anew; what was reported before is no more.
    void empty() {
        emptiedAt_ = xcb_damage_subtract(connection_, id_, XCB_NONE, XCB_NONE).sequence;
    }

    // Which reports count: those since the reports were last emptied, or all but the one of
    // everything that comes with their making.
    enum class Since { lastEmptying, making };

    // The rectangle an event reports drawn in, if it is one of these reports and counts. An
    // event carries the sequence number of this client's last request the server had
    // handled, so one from before an emptying still waiting in the queue is told apart.
    std::optional<PixelRect> drawnIn(const xcb_generic_event_t& event, Since since) const {
        if ((event.response_type & 0x7f) != notifyEvent_) {
            return std::nullopt;
        }
        const auto& notify = reinterpret_cast<const xcb_damage_notify_event_t&>(event);
        const uint32_t from = since == Since::lastEmptying ? emptiedAt_ : madeAt_;
        if (notify.damage != id_ || static_cast<int32_t>(event.full_sequence - from) < 0) {
            return std::nullopt;
        }
        return PixelRect{notify.area.x, notify.area.y, notify.area.width, notify.area.height};
    }

private:
    xcb_connection_t* connection_;
    xcb_damage_damage_t id_;
    uint8_t notifyEvent_;
    uint32_t madeAt_ = 0;
    uint32_t emptiedAt_ = 0;
};

// Which pixels of the places hidden windows left have been drawn since they were hidden.
class X11AreaGrabber::RepaintWatch {
public:
    // Nothing within `bounds` is waiting until marked so.
    RepaintWatch(X11Connection& connection, uint8_t damageFirstEvent, const PixelRect& bounds)
        : reports_(connection.get(), connection.root(), damageFirstEvent), bounds_(bounds),
          waiting_(static_cast<size_t>(bounds.width) * static_cast<size_t>(bounds.height), 0) {}

    void mark(const PixelRect& rect, bool waiting) {
        const PixelRect inside = rect.intersected(bounds_);
        for (int y = inside.y; y < inside.y + inside.height; ++y) {
            uint8_t* row = waiting_.data() + static_cast<ptrdiff_t>(y - bounds_.y) * bounds_.width +
                           (inside.x - bounds_.x);
            for (int x = 0; x < inside.width; ++x) {
                waitingCount_ += static_cast<long long>(waiting) - row[x];
                row[x] = waiting ? 1 : 0;
            }
        }
    }

    // Call just before the windows are hidden.
    void start() { reports_.empty(); }
    const PixelRect& bounds() const { return bounds_; }
    bool allRepainted() const { return waitingCount_ == 0; }

    void note(const xcb_generic_event_t& event) {
        // Drawing from before the windows were hidden is not a repaint.
        if (const auto drawn = reports_.drawnIn(event, DamageReports::Since::lastEmptying)) {
            mark(*drawn, false);
        }
    }

    // Paints black what is still waiting, in an image of `area`.
    void blackOutWaiting(X11ShmImage& image, const PixelRect& area) const {
        for (int y = 0; y < bounds_.height; ++y) {
            for (int x = 0; x < bounds_.width; ++x) {
                if (waiting_[static_cast<size_t>(y) * static_cast<size_t>(bounds_.width) +
                             static_cast<size_t>(x)]) {
                    std::memset(image.pixels() +
                                    static_cast<ptrdiff_t>(bounds_.y + y - area.y) *
                                        image.bytesPerRow() +
                                    static_cast<ptrdiff_t>(bounds_.x + x - area.x) * 4,
                                0, 4);
                }
            }
        }
    }

private:
    DamageReports reports_;
    PixelRect bounds_;
    std::vector<uint8_t> waiting_; // one byte a pixel of bounds_
    long long waitingCount_ = 0;
};

X11AreaGrabber::X11AreaGrabber(X11Connection& connection, const PixelRect& area,
                               std::vector<int64_t> excludedProcessIDs, WithoutComposition fallback)
    : connection_(connection), area_(area), excluded_(std::move(excludedProcessIDs)),
      fallback_(fallback) {
    if (connection_.screen().root_depth != 24 && connection_.screen().root_depth != 32) {
        throw PlatformError(QStringLiteral("Tessarel can only capture a 24-bit X screen."));
    }
    if (!excluded_.empty()) {
        // Before the first listing, so no change can fall between the two.
        const uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
        xcb_change_window_attributes(connection_.get(), connection_.root(), XCB_CW_EVENT_MASK,
                                     &mask);
    }
}

X11AreaGrabber::~X11AreaGrabber() {
    if (!excluded_.empty()) {
        const uint32_t mask = XCB_EVENT_MASK_NO_EVENT;
        xcb_change_window_attributes(connection_.get(), connection_.root(), XCB_CW_EVENT_MASK,
                                     &mask);
        xcb_flush(connection_.get());
    }
}

bool X11AreaGrabber::isExcluded(const X11TopLevel& window) const {
    return window.processID &&
           std::find(excluded_.begin(), excluded_.end(), *window.processID) != excluded_.end();
}

bool X11AreaGrabber::isExcludedOverArea(const X11TopLevel& window) const {
    return window.isShown() && isExcluded(window) &&
           !window.outerGeometry.intersected(area_).isEmpty();
}

std::vector<PixelRect> X11AreaGrabber::excludedWindowsOverArea() const {
    std::vector<PixelRect> places;
    if (windows_) {
        for (const X11TopLevel& window : *windows_) {
            if (isExcludedOverArea(window)) {
                places.push_back(window.outerGeometry.intersected(area_));
            }
        }
    }
    return places;
}

// Reads the events `poll` hands out. Moves, resizes and restacks are applied to the list as
// they come; a window that appears, goes, is mapped or changes parent may bring a new owner,
// so the list is read again. Errors left by requests whose windows vanished meanwhile are
// dropped: the picture simply lacks those windows. Returns whether any of the events may
// have brought an excluded window over the area.
bool X11AreaGrabber::followLayout(xcb_generic_event_t* (*poll)(xcb_connection_t*)) {
    bool mayShowExcluded = false;
    while (XcbReply<xcb_generic_event_t> event{poll(connection_.get())}) {
        switch (event->response_type & 0x7f) {
        case XCB_CONFIGURE_NOTIFY:
            if (windows_) {
                mayShowExcluded |= followConfigure(
                    *reinterpret_cast<const xcb_configure_notify_event_t*>(event.get()));
            }
            break;
        case XCB_UNMAP_NOTIFY:
            if (windows_) {
                const auto& unmap = *reinterpret_cast<const xcb_unmap_notify_event_t*>(event.get());
                for (X11TopLevel& window : *windows_) {
                    if (window.window == unmap.window) {
                        window.viewable = false;
                    }
                }
            }
            break;
        case XCB_CREATE_NOTIFY: // a new window is not mapped yet
        case XCB_DESTROY_NOTIFY:
            windows_.reset();
            break;
        case XCB_MAP_NOTIFY:
        case XCB_REPARENT_NOTIFY:
        case XCB_GRAVITY_NOTIFY:
        case XCB_CIRCULATE_NOTIFY:
            windows_.reset();
            mayShowExcluded = true;
            break;
        default:
            if (damage_) {
                // Drawing reported late, after the emptying a read began with, may have been
                // missed by a read of some rows only: it is read next time.
                if (const auto drawn = damage_->drawnIn(*event, DamageReports::Since::making)) {
                    const PixelRect inArea = drawn->intersected(area_);
                    if (!inArea.isEmpty()) {
                        drawnRows_.unite({inArea.y - area_.y, inArea.y + inArea.height - area_.y});
                    }
                }
            }
            if (repaints_) {
                repaints_->note(*event);
            }
            break;
        }
    }
    if (!windows_ && !excluded_.empty()) {
        windows_ = connection_.topLevels();
        ++windowListings_;
    }
    return mayShowExcluded;
}

bool X11AreaGrabber::followConfigure(const xcb_configure_notify_event_t& event) {
    auto& windows = *windows_;
    const auto moved = std::find_if(windows.begin(), windows.end(),
                                    [&](const X11TopLevel& w) { return w.window == event.window; });
    if (moved == windows.end()) {
        windows_.reset();
        return true;
    }
    X11TopLevel window = *moved;
    window.outerGeometry = {event.x, event.y, event.width + 2 * event.border_width,
                            event.height + 2 * event.border_width};
    windows.erase(moved);
    // The event names the sibling the window now lies directly above, or none for the bottom.
    auto place = windows.begin();
    if (event.above_sibling != XCB_NONE) {
        place = std::find_if(windows.begin(), windows.end(),
                             [&](const X11TopLevel& w) { return w.window == event.above_sibling; });
        if (place == windows.end()) {
            windows_.reset();
            return true;
        }
        ++place;
    }
    windows.insert(place, window);
    return isExcludedOverArea(window);
}

std::optional<uint8_t> X11AreaGrabber::damageFirstEvent() {
    if (!damageFirstEvent_) {
        xcb_connection_t* c = connection_.get();
        XcbReply<xcb_damage_query_version_reply_t> version;
        if (connection_.offers(xcb_damage_id)) {
            version.reset(
                xcb_damage_query_version_reply(c, xcb_damage_query_version(c, 1, 1), nullptr));
        }
        damageFirstEvent_ =
            version ? std::optional<uint8_t>(xcb_get_extension_data(c, &xcb_damage_id)->first_event)
                    : std::nullopt;
    }
    return *damageFirstEvent_;
}

bool X11AreaGrabber::mayHaveChangedSinceLastGrab() {
    if (!damage_) {
        const auto firstEvent = damageFirstEvent();
        if (!firstEvent) {
            return true;
        }
        damage_ =
            std::make_unique<DamageReports>(connection_.get(), connection_.root(), *firstEvent);
        drawnRows_ = everyRow();
    }
    const bool layoutChanged = followLayout(xcb_poll_for_event);
    // Drawing in a window's covered part is not reported while windows are redirected, yet a
    // composed picture shows it.
    return !drawnRows_.isEmpty() || layoutChanged || lastGrabComposed_;
}

X11AreaGrabber::Grab X11AreaGrabber::grab(X11ShmImage& image, std::optional<PixelSpan> rows) {
    followLayout(xcb_poll_for_event);
    Grab result;
    for (;;) {
        // Drawn since the last grab began; unknown without damage reports.
        const PixelSpan drawn = damage_ ? drawnRows_ : everyRow();
        if (damage_) {
            damage_->empty();
            drawnRows_ = {};
        }
        result.drawn.unite(drawn);
        std::vector<PixelRect> excludedPlaces = excludedWindowsOverArea();
        lastGrabComposed_ = !excludedPlaces.empty() && canCompose();
        if (lastGrabComposed_) {
            compose(image);
            result.read = everyRow();
            return result;
        }
        const bool hide =
            !excludedPlaces.empty() && fallback_ == WithoutComposition::hideWhileGrabbing;
        bool layoutChanged = false;
        if (hide) {
            layoutChanged = grabWithExcludedWindowsHidden(image, excludedPlaces);
            result.read = everyRow();
        } else if (rows) {
            PixelSpan read = *rows;
            read.unite(drawn);
            result.read = image.grabRows(connection_.root(), area_, read);
        } else {
            image.grab(connection_.root(), area_);
            result.read = everyRow();
        }
        // The server reports a change it made before the copy ahead of the copy's reply. If
        // one may have put an excluded window into the picture, the grab is made again.
        layoutChanged |= followLayout(xcb_poll_for_queued_event);
        if (!layoutChanged) {
            if (!hide && !excludedPlaces.empty()) {
                // A window that moved meanwhile may be in the picture at either place.
                const std::vector<PixelRect> now = excludedWindowsOverArea();
                excludedPlaces.insert(excludedPlaces.end(), now.begin(), now.end());
                blackOut(image, excludedPlaces);
                return result;
            }
            result.screenAsItIs = !hide;
            return result;
        }
        rows.reset(); // whole, this time
    }
}

bool X11AreaGrabber::canCompose() {
    if (!composable_) {
        xcb_connection_t* c = connection_.get();
        bool composable = connection_.offers(xcb_composite_id) && connection_.offers(xcb_render_id);
        if (composable) {
            XcbReply<xcb_composite_query_version_reply_t> composite(
                xcb_composite_query_version_reply(c, xcb_composite_query_version(c, 0, 4),
                                                  nullptr));
            XcbReply<xcb_render_query_version_reply_t> render(
                xcb_render_query_version_reply(c, xcb_render_query_version(c, 0, 11), nullptr));
            // Window pixmaps came with Composite 0.2.
            composable = composite && render &&
                         (composite->major_version > 0 || composite->minor_version >= 2);
        }
        composable_ = composable;
    }
    return *composable_;
}

// What lay beneath the hidden windows is drawn again by its owners once the server has
// exposed it, and nothing says when they are done. The server's damage reports tell which
// pixels have been drawn since; the area is read once all of them have been and the hidden
// places hold still across a toolkit's repaint cycle, after a grace that covers the owners'
// reaction to the exposure (a server that paints a window's background at once reports it
// drawn before its owner has drawn the rest). Whatever is still waiting when time runs out
// is painted black: it may show the hidden window. Returns whether the layout may have
// changed meanwhile.
bool X11AreaGrabber::grabWithExcludedWindowsHidden(X11ShmImage& image,
                                                   const std::vector<PixelRect>& places) {
    using namespace std::chrono_literals;
    constexpr auto kRepaintGrace = 50ms;
    constexpr auto kStillInterval = 20ms;
    constexpr auto kLongestHidden = 500ms;

    xcb_connection_t* c = connection_.get();
    if (!connection_.offers(xcb_shape_id)) {
        cannotLeaveOwnWindowsOut();
    }
    std::vector<xcb_window_t> windows;
    for (const X11TopLevel& window : *windows_) {
        if (isExcludedOverArea(window)) {
            windows.push_back(window.window);
        }
    }
    PixelRect watched;
    for (const PixelRect& place : places) {
        watched = watched.united(place);
    }
    std::optional<RepaintWatch> repaints;
    if (const auto firstEvent = damageFirstEvent()) {
        repaints.emplace(connection_, *firstEvent, watched);
        // Hiding uncovers the pixels whose topmost window is one of them.
        for (const X11TopLevel& window : *windows_) {
            if (window.isShown()) {
                repaints->mark(window.outerGeometry, isExcluded(window));
            }
        }
        repaints_ = &*repaints;
    }
    struct Unwatch {
        RepaintWatch*& watch;
        ~Unwatch() { watch = nullptr; }
    } unwatch{repaints_};
    ShapeHiding hiding(c, windows);
    // With the server to ourselves, so that nothing the windows draw just before they go
    // counts as repainting.
    xcb_grab_server(c);
    if (repaints) {
        repaints->start();
    }
    hiding.hide();
    const auto hiddenAt = std::chrono::steady_clock::now();
    // The first read into a fresh segment, as after an idle pause, costs several times a later
    // one: the server faults in its mapping of every page. It is made during the grace; it is
    // no picture yet.
    if (image.width() != area_.width || image.height() != area_.height) {
        image.grab(connection_.root(), area_);
    }
    std::this_thread::sleep_until(hiddenAt + kRepaintGrace);
    bool layoutChanged = false;
    std::vector<uint8_t> previous;
    std::vector<uint8_t> current;
    for (;;) {
        layoutChanged |= followLayout(xcb_poll_for_event);
        image.grab(connection_.root(), area_);
        current.clear();
        for (int y = watched.y; y < watched.y + watched.height; ++y) {
            const uint8_t* row = image.pixels() +
                                 static_cast<ptrdiff_t>(y - area_.y) * image.bytesPerRow() +
                                 static_cast<ptrdiff_t>(watched.x - area_.x) * 4;
            current.insert(current.end(), row, row + static_cast<ptrdiff_t>(watched.width) * 4);
        }
        const bool repainted = !repaints || repaints->allRepainted();
        if (repainted && current == previous) {
            return layoutChanged;
        }
        if (std::chrono::steady_clock::now() - hiddenAt >= kLongestHidden) {
            if (repaints) {
                repaints->blackOutWaiting(image, area_);
            }
            return layoutChanged;
        }
        previous.swap(current);
        std::this_thread::sleep_for(kStillInterval);
    }
}

void X11AreaGrabber::blackOut(X11ShmImage& image, const std::vector<PixelRect>& places) const {
    for (const PixelRect& place : places) {
        const PixelRect inImage = place.intersected(area_);
        for (int y = inImage.y; y < inImage.y + inImage.height; ++y) {
            uint8_t* row = image.pixels() +
                           static_cast<ptrdiff_t>(y - area_.y) * image.bytesPerRow() +
                           static_cast<ptrdiff_t>(inImage.x - area_.x) * 4;
            std::memset(row, 0, static_cast<size_t>(inImage.width) * 4);
        }
    }
}

void X11AreaGrabber::compose(X11ShmImage& image) {
    xcb_connection_t* c = connection_.get();
    if (!composer_) {
        composer_ = std::make_unique<Composer>(connection_, area_);
    }
    const Composer& composer = *composer_;

    // The wallpaper first, where a desktop has published it; black elsewhere.
    const xcb_render_color_t black{0, 0, 0, 0xffff};
    const xcb_rectangle_t whole{0, 0, static_cast<uint16_t>(area_.width),
                                static_cast<uint16_t>(area_.height)};
    xcb_render_fill_rectangles(c, XCB_RENDER_PICT_OP_SRC, composer.canvasPicture.id(), black, 1,
                               &whole);
    const auto wallpaperCookie =
        xcb_get_property(c, 0, connection_.root(), composer.rootPixmapAtom, XCB_ATOM_PIXMAP, 0, 1);
    XcbReply<xcb_get_property_reply_t> wallpaper(
        xcb_get_property_reply(c, wallpaperCookie, nullptr));
    if (wallpaper && wallpaper->format == 32 &&
        xcb_get_property_value_length(wallpaper.get()) >= 4) {
        const auto pixmap =
            *static_cast<const xcb_pixmap_t*>(xcb_get_property_value(wallpaper.get()));
        xcb_copy_area(c, pixmap, composer.canvas.id(), composer.gc.id(),
                      static_cast<int16_t>(area_.x), static_cast<int16_t>(area_.y), 0, 0,
                      static_cast<uint16_t>(area_.width), static_cast<uint16_t>(area_.height));
    }

    for (const X11TopLevel& window : *windows_) {
        const PixelRect rect = window.outerGeometry;
        if (!window.isShown() || isExcluded(window) || rect.intersected(area_).isEmpty()) {
            continue;
        }
        const auto* format =
            xcb_render_util_find_visual_format(composer.formats.get(), window.visual);
        if (!format) {
            continue;
        }
        ServerPixmap contents(c);
        ServerPicture picture(c);
        xcb_composite_name_window_pixmap(c, window.window, contents.id());
        xcb_render_create_picture(c, picture.id(), contents.id(), format->format, 0, nullptr);
        xcb_render_composite(
            c, XCB_RENDER_PICT_OP_OVER, picture.id(), XCB_NONE, composer.canvasPicture.id(), 0, 0,
            0, 0, static_cast<int16_t>(rect.x - area_.x), static_cast<int16_t>(rect.y - area_.y),
            static_cast<uint16_t>(rect.width), static_cast<uint16_t>(rect.height));
    }
    image.grab(composer.canvas.id(), {0, 0, area_.width, area_.height});
}
