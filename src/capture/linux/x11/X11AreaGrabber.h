#pragma once

#include "capture/linux/x11/X11Connection.h"
#include "capture/linux/x11/X11ShmImage.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

// Grabs one area of the root window, leaving out the windows of the excluded processes.
// While none of them overlaps the area the screen is read as it is. While one does, the
// picture is composed on the server from the other top-level windows (their Composite
// pixmaps, stacked with Render) and the root's wallpaper, so the excluded windows never
// have to be hidden and nothing on screen flickers. A server without Composite or Render
// gets the fallback the grabber was made with.
//
// The top-level windows are listed once and then followed through the root's structure
// events, so an unchanged layout costs no round trip. The grabber owns its connection's
// event queue while it lives. Used from one thread at a time.
class X11AreaGrabber {
public:
    // What grab() does with an excluded window over the area when the server cannot compose
    // the picture without it.
    enum class WithoutComposition {
        // Hide the excluded windows until what lay beneath them has been drawn again, grab,
        // and show them again: for a single picture.
        hideWhileGrabbing,
        // Paint the excluded windows' places black: hiding them for every frame of a movie
        // would make them flicker and put their controls out of reach.
        blackOut,
    };

    // Throws PlatformError when the screen cannot be captured.
    X11AreaGrabber(X11Connection& connection, const PixelRect& area,
                   std::vector<int64_t> excludedProcessIDs, WithoutComposition fallback);
    ~X11AreaGrabber();
    X11AreaGrabber(const X11AreaGrabber&) = delete;
    X11AreaGrabber& operator=(const X11AreaGrabber&) = delete;

    const PixelRect& area() const { return area_; }

    struct Grab {
        // Whether the picture is the screen as it is: neither composed nor partly blacked
        // out (nor taken while windows were hidden).
        bool screenAsItIs = false;
        PixelSpan drawn; // rows drawn in since the grab before, as far as the server told
        PixelSpan read;  // rows read
    };

    // Fills `image` with the area's B, G, R, X pixels. With `rows`, and when the screen can
    // be read as it is, only those rows and the ones drawn in since the last grab are read:
    // `image` must hold an earlier picture of the area that is the screen's elsewhere.
    // Throws PlatformError when the server refuses, or when an excluded window overlaps the
    // area and the server can neither compose without it nor hide it.
    Grab grab(X11ShmImage& image, std::optional<PixelSpan> rows = std::nullopt);

    // Whether anything may have been drawn in the area since the last grab began. The first
    // call starts following the server's damage reports (DAMAGE), so that an area nobody
    // draws in needs no grab. The answer is always yes on a server without DAMAGE, and
    // after a composed grab (drawing behind other windows goes unreported then).
    bool mayHaveChangedSinceLastGrab();

    // How many times the windows have been listed so far.
    long long windowListings() const { return windowListings_; }

private:
    struct Composer;
    class DamageReports;
    class RepaintWatch;

    bool followLayout(xcb_generic_event_t* (*poll)(xcb_connection_t*));
    bool followConfigure(const xcb_configure_notify_event_t& event);
    bool isExcluded(const X11TopLevel& window) const;
    // Shown, excluded and over the area.
    bool isExcludedOverArea(const X11TopLevel& window) const;
    // The shown excluded windows over the area, clipped to it (none before the first listing).
    std::vector<PixelRect> excludedWindowsOverArea() const;
    PixelSpan everyRow() const { return {0, area_.height}; }
    bool canCompose();
    // The first event code of DAMAGE, or none when the server lacks it.
    std::optional<uint8_t> damageFirstEvent();
    void compose(X11ShmImage& image);
    bool grabWithExcludedWindowsHidden(X11ShmImage& image, const std::vector<PixelRect>& places);
    void blackOut(X11ShmImage& image, const std::vector<PixelRect>& places) const;

    X11Connection& connection_;
    PixelRect area_;
    std::vector<int64_t> excluded_;
    WithoutComposition fallback_;
    std::optional<bool> composable_;                  // asked the first time it matters
    std::optional<std::vector<X11TopLevel>> windows_; // none until listed or after a change
    long long windowListings_ = 0;
    std::unique_ptr<Composer> composer_;                     // made the first time it is needed
    std::optional<std::optional<uint8_t>> damageFirstEvent_; // asked the first time it matters
    std::unique_ptr<DamageReports> damage_; // made by the first mayHaveChangedSinceLastGrab()
    PixelSpan drawnRows_;                   // of the area, drawn in since the last grab began
    bool lastGrabComposed_ = false;
    RepaintWatch* repaints_ = nullptr; // while windows are hidden for a grab
};
