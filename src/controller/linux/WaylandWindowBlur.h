#pragma once

#include "controller/linux/WindowBlur.h"

#include <QObject>
#include <QPointer>
#include <QWindow>

struct org_kde_kwin_blur;
struct org_kde_kwin_blur_manager;
struct wl_display;
struct wl_event_queue;
struct wl_registry;

// KWin's blur on Wayland: a blur object tied to the window's surface. Qt makes the window a
// new surface each time it is shown, so each new surface gets a blur object of its own.
class WaylandWindowBlur final : public QObject, public WindowBlur {
public:
    WaylandWindowBlur();
    ~WaylandWindowBlur() override;

    bool available() const override { return manager_ != nullptr; }
    void blurBehind(QWindow& window) override;

private:
    bool eventFilter(QObject* watched, QEvent* event) override;
    static void announced(void* data, wl_registry* registry, uint32_t name, const char* interface,
                          uint32_t version);
    void blurShownSurface();
    void release();

    wl_display* display_ = nullptr;
    // The manager's own queue: none of its objects sends events, and Qt's queue stays Qt's.
    wl_event_queue* queue_ = nullptr;
    org_kde_kwin_blur_manager* manager_ = nullptr;
    QPointer<QWindow> window_;
    org_kde_kwin_blur* blur_ = nullptr; // of the window's current surface
};
