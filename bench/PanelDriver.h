#pragma once

// Drives the running desktop application as a person would, on the X display $DISPLAY names:
// finds its windows by their process, clicks the tray icon, the popup's rows and the set-up
// screen's controls with xdotool, and watches the folder $HOME names for the files it saves.

#include <xcb/xcb.h>

#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace panel {

using Clock = std::chrono::steady_clock;

template <typename T> using Reply = std::unique_ptr<T, decltype(&std::free)>;

struct Connection {
    Connection() : connection(xcb_connect(nullptr, nullptr)) {}
    ~Connection() { xcb_disconnect(connection); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    xcb_connection_t* connection;
};

struct Rect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

xcb_atom_t atom(xcb_connection_t* connection, const char* name);

// Every window below `window`, depth first, with its parent.
void collect(xcb_connection_t* connection, xcb_window_t window,
             std::vector<std::pair<xcb_window_t, xcb_window_t>>& out);

// Whether a client owns the selection `name` (the system tray's "_NET_SYSTEM_TRAY_S0", a
// window manager's "WM_S0", a compositor's "_NET_WM_CM_S0").
bool selectionOwned(xcb_connection_t* connection, const char* name);
// Waits up to 10 s for a client to own the selection `name` (the system tray's
// "_NET_SYSTEM_TRAY_S0", a window manager's "WM_S0", a compositor's "_NET_WM_CM_S0"); false
// when none came.
bool waitForSelectionOwner(xcb_connection_t* connection, const char* name);

// The viewable windows of process `pid`, in root coordinates.
std::vector<Rect> windowsOf(xcb_connection_t* connection, pid_t pid);

// Waits up to 30 s for a window of `pid` that `accept` takes.
std::optional<Rect> waitForWindow(xcb_connection_t* connection, pid_t pid,
                                  const std::function<bool(const Rect&)>& accept);
std::optional<Rect> waitForWindowOfSize(xcb_connection_t* connection, pid_t pid, int width,
                                        int height);

// Runs a program to its end; false when it failed.
bool run(std::vector<std::string> arguments);

bool click(int x, int y);

// The files under $HOME, recursively, leaving out hidden ones.
std::vector<std::filesystem::path> savedFiles();

// Waits up to 60 s, looking every millisecond, for a file ending in `extension` beyond the
// `before` ones, finished: Tessarel reserves a file's name with an empty file; a PNG or JPEG
// replaces it whole, a PDF is written into it. A PNG, JPEG or PDF counts once it ends as one
// does, any other file once it has content.
bool waitForNewFile(const std::vector<std::filesystem::path>& before, const char* extension);

double millisecondsSince(Clock::time_point start);

// Tessarel's windows and where a person clicks in them, in points from their top left.
constexpr int popupWidth = 480, popupHeight = 402;
constexpr int setupWidth = 700, setupHeight = 460;
constexpr int startX = 560, startY = 417; // the set-up screens' start button

// The popup's rows.
constexpr int movieRow = 1, snapshotRow = 2;

// Opens the set-up screen of the popup's row `row` from the tray icon.
std::optional<Rect> openSetup(xcb_connection_t* connection, pid_t pid, int row);

// As the snapshot set-up screen's format menu lists them.
enum class SnapshotFormat { png, jpeg, pdf };

const char* extensionOf(SnapshotFormat format);

// Takes a snapshot of the whole screen in `format` through the tray icon and the set-up
// screen; `clickToFileMs` is the time from the start button's click (sent through XTest) to
// the finished file on disk.
bool snapshotThroughPanel(xcb_connection_t* connection, pid_t pid, SnapshotFormat format,
                          double& clickToFileMs);

template <typename T> T median(std::vector<T> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace panel
