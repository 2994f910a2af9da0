#include "capture/linux/wayland/WaylandWindowsHidden.h"

#include "capture/CaptureVocabulary.h"
#include "capture/linux/wayland/WaylandConnection.h"

#include "wlr-foreign-toplevel-management-unstable-v1-client.h"

#include <wayland-client.h>

#include <algorithm>
#include <cstring>
#include <vector>

// The compositor's list of toplevels, as far as the application's own are concerned.
struct WaylandWindowsHidden::Toplevels {
    struct Toplevel {
        zwlr_foreign_toplevel_handle_v1* handle = nullptr;
        QString appID;
        bool closed = false;
    };

    explicit Toplevels(wl_display* display) : registry(wl_display_get_registry(display)) {
        wl_registry_add_listener(registry, &kRegistryListener, this);
    }

    ~Toplevels() {
        for (const auto& toplevel : list) {
            zwlr_foreign_toplevel_handle_v1_destroy(toplevel->handle);
        }
        if (manager != nullptr) {
            zwlr_foreign_toplevel_manager_v1_stop(manager);
            wl_proxy_destroy(reinterpret_cast<wl_proxy*>(manager));
        }
        wl_registry_destroy(registry);
    }

    bool anyOpen(const QString& appID) const {
        return std::any_of(list.begin(), list.end(), [&](const auto& toplevel) {
            return !toplevel->closed && toplevel->appID == appID;
        });
    }

    static void global(void* data, wl_registry* registry, uint32_t name, const char* interface,
                       uint32_t) {
        auto* self = static_cast<Toplevels*>(data);
        if (std::strcmp(interface, zwlr_foreign_toplevel_manager_v1_interface.name) == 0) {
            self->manager = static_cast<zwlr_foreign_toplevel_manager_v1*>(
                wl_registry_bind(registry, name, &zwlr_foreign_toplevel_manager_v1_interface, 1));
            zwlr_foreign_toplevel_manager_v1_add_listener(self->manager, &kManagerListener, self);
        }
    }
    static void globalRemove(void*, wl_registry*, uint32_t) {}

    static void toplevel(void* data, zwlr_foreign_toplevel_manager_v1*,
                         zwlr_foreign_toplevel_handle_v1* handle) {
        auto* self = static_cast<Toplevels*>(data);
        self->list.push_back(std::make_unique<Toplevel>(Toplevel{handle, {}, false}));
        zwlr_foreign_toplevel_handle_v1_add_listener(handle, &kHandleListener,
                                                     self->list.back().get());
    }
    static void finished(void*, zwlr_foreign_toplevel_manager_v1*) {}

    static void title(void*, zwlr_foreign_toplevel_handle_v1*, const char*) {}
    static void appId(void* data, zwlr_foreign_toplevel_handle_v1*, const char* appID) {
        static_cast<Toplevel*>(data)->appID = QString::fromUtf8(appID);
    }
    static void outputEnter(void*, zwlr_foreign_toplevel_handle_v1*, wl_output*) {}
    static void outputLeave(void*, zwlr_foreign_toplevel_handle_v1*, wl_output*) {}
    static void state(void*, zwlr_foreign_toplevel_handle_v1*, wl_array*) {}
    static void done(void*, zwlr_foreign_toplevel_handle_v1*) {}
    static void closed(void* data, zwlr_foreign_toplevel_handle_v1*) {
        static_cast<Toplevel*>(data)->closed = true;
    }
    static void parent(void*, zwlr_foreign_toplevel_handle_v1*, zwlr_foreign_toplevel_handle_v1*) {}

    static constexpr wl_registry_listener kRegistryListener{global, globalRemove};
    static constexpr zwlr_foreign_toplevel_manager_v1_listener kManagerListener{toplevel, finished};
    static constexpr zwlr_foreign_toplevel_handle_v1_listener kHandleListener{
        title, appId, outputEnter, outputLeave, state, done, closed, parent};

    wl_registry* registry = nullptr;
    zwlr_foreign_toplevel_manager_v1* manager = nullptr;
    std::vector<std::unique_ptr<Toplevel>> list;
};

WaylandWindowsHidden::WaylandWindowsHidden(WaylandConnection& connection,
                                           ApplicationWindows& windows,
                                           std::chrono::steady_clock::time_point deadline)
    : windows_(windows), toplevels_(std::make_unique<Toplevels>(connection.display())) {
    // The manager, then the toplevels it lists, then their app ids.
    connection.roundtrip();
    connection.roundtrip();
    windows_.hide();
    try {
        const QString appID = windows_.appID();
        if (toplevels_->manager == nullptr) {
            connection.roundtrip();
        } else if (!connection.dispatchUntil([&] { return !toplevels_->anyOpen(appID); },
                                             deadline)) {
            throw PlatformError(
                QStringLiteral("Tessarel's windows did not leave the screen in time."));
        }
    } catch (...) {
        windows_.restore();
        throw;
    }
}

WaylandWindowsHidden::~WaylandWindowsHidden() {
    windows_.restore();
}
