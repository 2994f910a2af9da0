#include "controller/linux/WaylandWindowBlur.h"

#include <QEvent>
#include <QGuiApplication>
#include <qpa/qplatformnativeinterface.h>

#include <blur-client.h>
#include <wayland-client.h>

#include <cstring>

WaylandWindowBlur::WaylandWindowBlur() {
    QPlatformNativeInterface* native = QGuiApplication::platformNativeInterface();
    display_ = native != nullptr ? static_cast<wl_display*>(native->nativeResourceForIntegration(
                                       QByteArrayLiteral("wl_display")))
                                 : nullptr;
    if (display_ == nullptr) {
        return;
    }
    queue_ = wl_display_create_queue(display_);
    auto* display = static_cast<wl_display*>(wl_proxy_create_wrapper(display_));
    wl_proxy_set_queue(reinterpret_cast<wl_proxy*>(display), queue_);
    wl_registry* registry = wl_display_get_registry(display);
    wl_proxy_wrapper_destroy(display);
    static constexpr wl_registry_listener listener{&WaylandWindowBlur::announced,
                                                   [](void*, wl_registry*, uint32_t) {}};
    wl_registry_add_listener(registry, &listener, this);
    wl_display_roundtrip_queue(display_, queue_);
    wl_registry_destroy(registry);
}

WaylandWindowBlur::~WaylandWindowBlur() {
    if (window_) {
        window_->removeEventFilter(this);
    }
    release();
    if (manager_ != nullptr) {
        org_kde_kwin_blur_manager_destroy(manager_);
    }
    if (queue_ != nullptr) {
        wl_display_flush(display_);
        wl_event_queue_destroy(queue_);
    }
}

void WaylandWindowBlur::announced(void* data, wl_registry* registry, uint32_t name,
                                  const char* interface, uint32_t /*version*/) {
    auto* self = static_cast<WaylandWindowBlur*>(data);
    if (std::strcmp(interface, org_kde_kwin_blur_manager_interface.name) == 0 &&
        self->manager_ == nullptr) {
        self->manager_ = static_cast<org_kde_kwin_blur_manager*>(
            wl_registry_bind(registry, name, &org_kde_kwin_blur_manager_interface, 1));
    }
}

void WaylandWindowBlur::blurBehind(QWindow& window) {
    if (manager_ == nullptr) {
        return;
    }
    window_ = &window;
    window.installEventFilter(this);
    blurShownSurface();
}

bool WaylandWindowBlur::eventFilter(QObject* watched, QEvent* event) {
    if (watched == window_) {
        if (event->type() == QEvent::Expose) {
            // The surface's first picture is committed right after this event, which takes
            // the blur along.
            blurShownSurface();
        } else if (event->type() == QEvent::Hide) {
            // Qt lets go of the surface with the hidden window.
            release();
        }
    }
    return false;
}

void WaylandWindowBlur::blurShownSurface() {
    if (blur_ != nullptr || !window_ || !window_->isExposed()) {
        return;
    }
    auto* surface = static_cast<wl_surface*>(
        QGuiApplication::platformNativeInterface()->nativeResourceForWindow(
            QByteArrayLiteral("surface"), window_));
    if (surface == nullptr) {
        return;
    }
    blur_ = org_kde_kwin_blur_manager_create(manager_, surface);
    // No region: the whole surface.
    org_kde_kwin_blur_set_region(blur_, nullptr);
    org_kde_kwin_blur_commit(blur_);
    wl_display_flush(display_);
}

void WaylandWindowBlur::release() {
    if (blur_ != nullptr) {
        org_kde_kwin_blur_release(blur_);
        blur_ = nullptr;
        wl_display_flush(display_);
    }
}
