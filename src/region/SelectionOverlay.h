#pragma once

#include "region/RegionSelector.h"
#include "screen/ScreenCoordinates.h"

#include <QPixmap>
#include <QPointer>
#include <QWidget>

#include <functional>
#include <vector>

class QScreen;

// The borderless overlay over one screen: dims it, shows the dragged area undimmed with a
// blue outline, and feeds its SelectionView. GUI thread only.
class SelectionOverlay : public QWidget {
    Q_OBJECT
public:
    static constexpr double dimmingAlpha = 0.32;
    static constexpr double outlineWidth = 2.0;

    // `frozenScreen`, when set, is drawn underneath: without a compositing manager the
    // overlay cannot be see-through.
    SelectionOverlay(QScreen& screen, SelectionOverlayHost::OverlayCallbacks callbacks,
                     QPixmap frozenScreen);
    const SelectionView& view() const { return view_; }
    // Takes the keyboard, so that Escape reaches the overlay whichever window has the focus.
    // While another client holds it (a menu, a key binding) or the window is not yet mapped,
    // it keeps trying until it succeeds or the overlay goes.
    void holdKeyboard();
    void stopHoldingKeyboard();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    static constexpr int keyboardRetryMs = 50;

    SelectionView view_;
    bool holdsKeyboard_ = false;
    ScreenCoordinates coordinates_;
    QPixmap frozenScreen_;
};

// Puts one overlay over every screen Qt knows.
class DesktopSelectionOverlayHost : public SelectionOverlayHost {
public:
    // A picture of what a screen shows now, at its pixel size; null when there is none.
    using ScreenPicture = std::function<QPixmap(QScreen&)>;

    // On Wayland a full-screen window hides everything beneath it and Qt cannot read the
    // screen: the overlays show `waylandScreenPicture` of their output instead.
    explicit DesktopSelectionOverlayHost(const ScreenDirectory& screens,
                                         ScreenPicture waylandScreenPicture = {});

    std::vector<ScreenDescription> screens() override;
    void showOverlay(const ScreenDescription& screen, OverlayCallbacks callbacks) override;
    void closeOverlays() override;
    void pushCrosshairCursor() override;
    void popCursor() override;

    // The overlays while a selection is under way, in the order of the screens.
    std::vector<SelectionOverlay*> overlays() const;

private:
    const ScreenDirectory& screens_;
    ScreenPicture waylandScreenPicture_;
    std::vector<QPointer<SelectionOverlay>> overlays_;
};
