#pragma once

#include "capture/Geometry.h"
#include "screen/ScreenDescription.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

// What the selector needs of the windowing system: one overlay per screen and the cursor.
class SelectionOverlayHost {
public:
    struct OverlayCallbacks {
        std::function<void(const Rect& viewRect)> onSelection;
        std::function<void()> onCancel;
    };

    virtual ~SelectionOverlayHost() = default;
    virtual std::vector<ScreenDescription> screens() = 0;
    // Shows a borderless, dimming overlay covering `screen`, above everything, focused.
    virtual void showOverlay(const ScreenDescription& screen, OverlayCallbacks callbacks) = 0;
    virtual void closeOverlays() = 0;
    virtual void pushCrosshairCursor() = 0;
    virtual void popCursor() = 0;
};

enum class SelectionKey { escape, other };

// The drag and key handling of one overlay, in the overlay's own coordinates (bottom-left
// origin, y upwards, like the global space the selector offsets them into). The windowing
// code feeds it events and draws what it reports. GUI thread only.
class SelectionView {
public:
    explicit SelectionView(SelectionOverlayHost::OverlayCallbacks callbacks);

    void mouseDown(Point point);
    void mouseDragged(Point point);
    // Hands the spanned rectangle on, when a drag began in this view.
    void mouseUp(Point point);
    // Escape cancels; every other key is swallowed.
    void keyDown(SelectionKey key);
    // The rectangle to draw as the undimmed hole, or none before a drag.
    std::optional<Rect> highlightedRect() const;

    const std::optional<Point>& start() const { return start_; }
    const std::optional<Point>& current() const { return current_; }

private:
    SelectionOverlayHost::OverlayCallbacks callbacks_;
    std::optional<Point> start_;
    std::optional<Point> current_;
};

// Lets the user drag out the area to record on any screen. GUI thread only.
class RegionSelector {
public:
    using Completion = std::function<void(const Rect& globalRect, const ScreenDescription& screen)>;

    static constexpr double minimumSide = 20.0;

    explicit RegionSelector(SelectionOverlayHost& host);
    ~RegionSelector();
    RegionSelector(const RegionSelector&) = delete;
    RegionSelector& operator=(const RegionSelector&) = delete;

    // Covers every screen with an overlay. The completion runs at most once, only when an
    // area of at least 20 × 20 points has been chosen; Escape drops it uncalled.
    void begin(Completion completion);
    bool isSelecting() const { return selecting_; }

    static Rect selectionRect(Point a, Point b);

private:
    void finish(const Rect& rect, const ScreenDescription& screen);
    void cancel();
    void close();

    SelectionOverlayHost& host_;
    Completion completion_;
    bool selecting_ = false;
    // Overlay callbacks hold this weakly, so that they do nothing once the selector is gone.
    std::shared_ptr<RegionSelector*> self_ = std::make_shared<RegionSelector*>(this);
};
