#pragma once

#include <QString>

#include <chrono>
#include <memory>

class WaylandConnection;

// The application's own windows, which no Wayland protocol leaves out of a copy of the
// screen. Implemented by the application; called from the capturing thread.
class ApplicationWindows {
public:
    virtual ~ApplicationWindows() = default;
    // The app id the compositor knows the windows by.
    virtual QString appID() const = 0;
    // Hides every window that shows; returns once they have been asked to go.
    virtual void hide() = 0;
    // Shows again what hide() took away.
    virtual void restore() = 0;
};

// Keeps the application's windows hidden for its lifetime. The constructor returns once the
// compositor reports their toplevels closed (wlr-foreign-toplevel-management), so that a copy
// asked for afterwards is of a frame drawn without them. Where the compositor does not report
// toplevels, it returns once the compositor has handled everything sent until then. Throws
// PlatformError when the windows do not go by `deadline`.
class WaylandWindowsHidden {
public:
    WaylandWindowsHidden(WaylandConnection& connection, ApplicationWindows& windows,
                         std::chrono::steady_clock::time_point deadline);
    ~WaylandWindowsHidden();
    WaylandWindowsHidden(const WaylandWindowsHidden&) = delete;
    WaylandWindowsHidden& operator=(const WaylandWindowsHidden&) = delete;

private:
    struct Toplevels;

    ApplicationWindows& windows_;
    std::unique_ptr<Toplevels> toplevels_;
};
