#pragma once

#include "capture/Geometry.h"

#include <QByteArray>
#include <QString>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

struct wl_display;
struct wl_registry;
struct wl_output;
struct wl_shm;
struct zxdg_output_manager_v1;
struct zwlr_screencopy_manager_v1;

// One output as the compositor describes it.
struct WaylandOutput {
    uint32_t displayID = 0; // from the name, as the GUI derives it
    QString name;
    Rect logical; // position and size in the layout's points, top-left origin
    int scale = 1;
    wl_output* output = nullptr;
};

// A connection to the Wayland compositor with the globals capture needs, used by one thread
// at a time. Outputs are listed with their xdg-output names and logical frames.
class WaylandConnection {
public:
    // An empty name means $WAYLAND_DISPLAY. Throws PlatformError when there is no compositor.
    explicit WaylandConnection(const QByteArray& displayName);
    ~WaylandConnection();
    WaylandConnection(const WaylandConnection&) = delete;
    WaylandConnection& operator=(const WaylandConnection&) = delete;

    wl_display* display() const { return display_; }
    wl_shm* shm() const { return shm_; }
    // Throws PlatformError when the compositor offers no screen copies.
    zwlr_screencopy_manager_v1* screencopy() const;
    uint32_t screencopyVersion() const { return screencopyVersion_; }
    bool offersScreencopy() const { return screencopy_ != nullptr; }

    const std::vector<WaylandOutput>& outputs() const;
    // Throws PlatformError when no output has that number.
    const WaylandOutput& output(uint32_t displayID) const;

    // Sends what is queued and handles what arrives until `done` holds, `deadline` passes or
    // `wakeFd` (when not negative) becomes readable; returns whether `done` holds. Throws
    // PlatformError when the compositor has gone.
    bool dispatchUntil(const std::function<bool()>& done,
                       std::chrono::steady_clock::time_point deadline, int wakeFd = -1);
    // Waits until the compositor has handled every request sent so far.
    void roundtrip();
    // Takes in outputs that came or went since the last look, with their descriptions.
    void refreshOutputs();

private:
    struct Listeners;
    struct OutputState;

    void describe(OutputState& state);

    wl_display* display_ = nullptr;
    wl_registry* registry_ = nullptr;
    wl_shm* shm_ = nullptr;
    zxdg_output_manager_v1* xdgOutputs_ = nullptr;
    zwlr_screencopy_manager_v1* screencopy_ = nullptr;
    uint32_t screencopyVersion_ = 0;
    std::vector<std::unique_ptr<OutputState>> states_;
    mutable std::vector<WaylandOutput> outputs_;
};
