#include "region/RegionSelector.h"

#include <cmath>

SelectionView::SelectionView(SelectionOverlayHost::OverlayCallbacks callbacks)
    : callbacks_(std::move(callbacks)) {}

void SelectionView::mouseDown(Point point) {
    start_ = point;
    current_ = start_;
}

void SelectionView::mouseDragged(Point point) {
    current_ = point;
}

void SelectionView::mouseUp(Point point) {
    if (!start_) {
        return;
    }
    if (callbacks_.onSelection) {
        callbacks_.onSelection(RegionSelector::selectionRect(*start_, point));
    }
}

void SelectionView::keyDown(SelectionKey key) {
    if (key == SelectionKey::escape && callbacks_.onCancel) {
        callbacks_.onCancel();
    }
}

std::optional<Rect> SelectionView::highlightedRect() const {
    if (!start_ || !current_) {
        return std::nullopt;
    }
    return RegionSelector::selectionRect(*start_, *current_);
}

RegionSelector::RegionSelector(SelectionOverlayHost& host) : host_(host) {}

RegionSelector::~RegionSelector() = default;

Rect RegionSelector::selectionRect(Point a, Point b) {
    return {std::min(a.x, b.x), std::min(a.y, b.y), std::abs(a.x - b.x), std::abs(a.y - b.y)};
}

void RegionSelector::begin(Completion completion) {
    completion_ = std::move(completion);
    selecting_ = true;
    const std::weak_ptr<RegionSelector*> weakSelf = self_;
    for (const ScreenDescription& screen : host_.screens()) {
        SelectionOverlayHost::OverlayCallbacks callbacks;
        callbacks.onSelection = [weakSelf, screen](const Rect& viewRect) {
            const Rect global = viewRect.offsetBy(screen.frame.minX(), screen.frame.minY());
            if (auto self = weakSelf.lock()) {
                (*self)->finish(global, screen);
            }
        };
        callbacks.onCancel = [weakSelf] {
            if (auto self = weakSelf.lock()) {
                (*self)->cancel();
            }
        };
        host_.showOverlay(screen, std::move(callbacks));
    }
    host_.pushCrosshairCursor();
}

void RegionSelector::finish(const Rect& rect, const ScreenDescription& screen) {
    if (rect.width < minimumSide || rect.height < minimumSide) {
        return;
    }
    Completion completion = completion_;
    close();
    if (completion) {
        completion(rect, screen);
    }
}

void RegionSelector::cancel() {
    close();
}

void RegionSelector::close() {
    host_.popCursor();
    host_.closeOverlays();
    selecting_ = false;
    completion_ = nullptr;
}
