#include "capture/linux/wayland/WaylandConnection.h"

#include "capture/CaptureVocabulary.h"
#include "capture/OutputNumbering.h"

#include "wlr-screencopy-unstable-v1-client.h"
#include "xdg-output-unstable-v1-client.h"

#include <wayland-client.h>

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace {

[[noreturn]] void compositorGone() {
    throw PlatformError(QStringLiteral("The connection to the Wayland compositor was lost."));
}

} // namespace

struct WaylandConnection::OutputState {
    uint32_t global = 0;
    wl_output* output = nullptr;
    zxdg_output_v1* xdgOutput = nullptr;
    QString name;
    Rect logical;
    int scale = 1;

    ~OutputState() {
        if (xdgOutput) {
            zxdg_output_v1_destroy(xdgOutput);
        }
        if (output) {
            wl_output_destroy(output);
        }
    }
};

// The event handlers; the connection is their data, or the output's state.
struct WaylandConnection::Listeners {
    static void global(void* data, wl_registry* registry, uint32_t name, const char* interface,
                       uint32_t version) {
        auto* self = static_cast<WaylandConnection*>(data);
        if (std::strcmp(interface, wl_output_interface.name) == 0) {
            auto state = std::make_unique<OutputState>();
            state->global = name;
            state->output = static_cast<wl_output*>(
                wl_registry_bind(registry, name, &wl_output_interface, std::min(version, 2u)));
            wl_output_add_listener(state->output, &kOutputListener, state.get());
            if (self->xdgOutputs_) {
                self->describe(*state);
            }
            self->states_.push_back(std::move(state));
        } else if (std::strcmp(interface, wl_shm_interface.name) == 0) {
            self->shm_ =
                static_cast<wl_shm*>(wl_registry_bind(registry, name, &wl_shm_interface, 1));
        } else if (std::strcmp(interface, zxdg_output_manager_v1_interface.name) == 0 &&
                   version >= 2) {
            // Names came with the second version.
            self->xdgOutputs_ = static_cast<zxdg_output_manager_v1*>(wl_registry_bind(
                registry, name, &zxdg_output_manager_v1_interface, std::min(version, 3u)));
        } else if (std::strcmp(interface, zwlr_screencopy_manager_v1_interface.name) == 0) {
            self->screencopyVersion_ = std::min(version, 3u);
            self->screencopy_ = static_cast<zwlr_screencopy_manager_v1*>(wl_registry_bind(
                registry, name, &zwlr_screencopy_manager_v1_interface, self->screencopyVersion_));
        }
    }

    static void globalRemove(void* data, wl_registry*, uint32_t name) {
        auto& states = static_cast<WaylandConnection*>(data)->states_;
        std::erase_if(states, [name](const auto& state) { return state->global == name; });
    }

    static void geometry(void*, wl_output*, int32_t, int32_t, int32_t, int32_t, int32_t,
                         const char*, const char*, int32_t) {}
    static void mode(void*, wl_output*, uint32_t, int32_t, int32_t, int32_t) {}
    static void outputDone(void*, wl_output*) {}
    static void scale(void* data, wl_output*, int32_t factor) {
        static_cast<OutputState*>(data)->scale = factor;
    }

    static void logicalPosition(void* data, zxdg_output_v1*, int32_t x, int32_t y) {
        auto* state = static_cast<OutputState*>(data);
        state->logical.x = x;
        state->logical.y = y;
    }
    static void logicalSize(void* data, zxdg_output_v1*, int32_t width, int32_t height) {
        auto* state = static_cast<OutputState*>(data);
        state->logical.width = width;
        state->logical.height = height;
    }
    static void xdgDone(void*, zxdg_output_v1*) {}
    static void outputName(void* data, zxdg_output_v1*, const char* name) {
        static_cast<OutputState*>(data)->name = QString::fromUtf8(name);
    }
    static void description(void*, zxdg_output_v1*, const char*) {}

    static constexpr wl_registry_listener kRegistryListener{global, globalRemove};
    static constexpr wl_output_listener kOutputListener{geometry, mode,    outputDone,
                                                        scale,    nullptr, nullptr};
    static constexpr zxdg_output_v1_listener kXdgOutputListener{logicalPosition, logicalSize,
                                                                xdgDone, outputName, description};
};

WaylandConnection::WaylandConnection(const QByteArray& displayName) {
    display_ = wl_display_connect(displayName.isEmpty() ? nullptr : displayName.constData());
    if (!display_) {
        throw PlatformError(QStringLiteral("Tessarel cannot reach the Wayland compositor."));
    }
    registry_ = wl_display_get_registry(display_);
    wl_registry_add_listener(registry_, &Listeners::kRegistryListener, this);
    roundtrip();
    if (xdgOutputs_) {
        for (const auto& state : states_) {
            describe(*state);
        }
    }
    roundtrip();
}

void WaylandConnection::refreshOutputs() {
    // The first round brings new outputs, the second their descriptions.
    roundtrip();
    roundtrip();
}

WaylandConnection::~WaylandConnection() {
    states_.clear();
    if (screencopy_) {
        zwlr_screencopy_manager_v1_destroy(screencopy_);
    }
    if (xdgOutputs_) {
        zxdg_output_manager_v1_destroy(xdgOutputs_);
    }
    if (shm_) {
        wl_shm_destroy(shm_);
    }
    wl_registry_destroy(registry_);
    wl_display_disconnect(display_);
}

void WaylandConnection::describe(OutputState& state) {
    if (!state.xdgOutput) {
        state.xdgOutput = zxdg_output_manager_v1_get_xdg_output(xdgOutputs_, state.output);
        zxdg_output_v1_add_listener(state.xdgOutput, &Listeners::kXdgOutputListener, &state);
    }
}

zwlr_screencopy_manager_v1* WaylandConnection::screencopy() const {
    if (!screencopy_ || !shm_) {
        throw PlatformError(
            QStringLiteral("This Wayland compositor does not let applications copy the screen."));
    }
    return screencopy_;
}

const std::vector<WaylandOutput>& WaylandConnection::outputs() const {
    outputs_.clear();
    for (const auto& state : states_) {
        if (!state->name.isEmpty() && state->logical.width > 0 && state->logical.height > 0) {
            outputs_.push_back({displayNumberOfOutput(state->name), state->name, state->logical,
                                state->scale, state->output});
        }
    }
    return outputs_;
}

const WaylandOutput& WaylandConnection::output(uint32_t displayID) const {
    const auto& listed = outputs();
    const auto found = std::find_if(listed.begin(), listed.end(), [displayID](const auto& output) {
        return output.displayID == displayID;
    });
    if (found == listed.end()) {
        throw PlatformError(QStringLiteral("The display is no longer connected."));
    }
    return *found;
}

bool WaylandConnection::dispatchUntil(const std::function<bool()>& done,
                                      std::chrono::steady_clock::time_point deadline, int wakeFd) {
    for (;;) {
        while (wl_display_prepare_read(display_) != 0) {
            if (wl_display_dispatch_pending(display_) < 0) {
                compositorGone();
            }
        }
        if (done()) {
            wl_display_cancel_read(display_);
            return true;
        }
        if (wl_display_flush(display_) < 0 && errno != EAGAIN) {
            wl_display_cancel_read(display_);
            compositorGone();
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            wl_display_cancel_read(display_);
            return false;
        }
        std::array<pollfd, 2> fds{pollfd{wl_display_get_fd(display_), POLLIN, 0},
                                  pollfd{wakeFd, POLLIN, 0}};
        const int ready = poll(fds.data(), wakeFd >= 0 ? 2 : 1, static_cast<int>(left.count()));
        if (ready > 0 && fds[0].revents != 0) {
            if (wl_display_read_events(display_) < 0) {
                compositorGone();
            }
        } else {
            wl_display_cancel_read(display_);
        }
        if (wl_display_dispatch_pending(display_) < 0) {
            compositorGone();
        }
        if (ready > 0 && wakeFd >= 0 && fds[1].revents != 0) {
            return done();
        }
    }
}

void WaylandConnection::roundtrip() {
    if (wl_display_roundtrip(display_) < 0) {
        compositorGone();
    }
}
