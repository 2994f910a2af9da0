#include "PanelDriver.h"

#include <xcb/xtest.h>

#include <spawn.h>
#include <sys/wait.h>

#include <cstring>
#include <fstream>
#include <thread>

extern char** environ;

namespace panel {

xcb_atom_t atom(xcb_connection_t* connection, const char* name) {
    Reply<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, std::strlen(name), name),
                              nullptr),
        &std::free);
    return reply ? reply->atom : XCB_NONE;
}

void collect(xcb_connection_t* connection, xcb_window_t window,
             std::vector<std::pair<xcb_window_t, xcb_window_t>>& out) {
    Reply<xcb_query_tree_reply_t> tree(
        xcb_query_tree_reply(connection, xcb_query_tree(connection, window), nullptr), &std::free);
    if (!tree) {
        return;
    }
    const xcb_window_t* children = xcb_query_tree_children(tree.get());
    for (int i = 0; i < xcb_query_tree_children_length(tree.get()); ++i) {
        out.emplace_back(children[i], window);
        collect(connection, children[i], out);
    }
}

bool selectionOwned(xcb_connection_t* connection, const char* name) {
    Reply<xcb_get_selection_owner_reply_t> owner(
        xcb_get_selection_owner_reply(
            connection, xcb_get_selection_owner(connection, atom(connection, name)), nullptr),
        &std::free);
    return owner && owner->owner != XCB_NONE;
}

bool waitForSelectionOwner(xcb_connection_t* connection, const char* name) {
    for (int wait = 0; wait < 200; ++wait) {
        if (selectionOwned(connection, name)) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

std::vector<Rect> windowsOf(xcb_connection_t* connection, pid_t pid) {
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    const xcb_atom_t pidAtom = atom(connection, "_NET_WM_PID");
    std::vector<std::pair<xcb_window_t, xcb_window_t>> windows;
    collect(connection, root, windows);
    std::vector<Rect> found;
    for (const auto& [window, parent] : windows) {
        Reply<xcb_get_property_reply_t> property(
            xcb_get_property_reply(
                connection,
                xcb_get_property(connection, 0, window, pidAtom, XCB_ATOM_CARDINAL, 0, 1), nullptr),
            &std::free);
        Reply<xcb_get_window_attributes_reply_t> attributes(
            xcb_get_window_attributes_reply(connection,
                                            xcb_get_window_attributes(connection, window), nullptr),
            &std::free);
        Reply<xcb_get_geometry_reply_t> geometry(
            xcb_get_geometry_reply(connection, xcb_get_geometry(connection, window), nullptr),
            &std::free);
        Reply<xcb_translate_coordinates_reply_t> origin(
            xcb_translate_coordinates_reply(
                connection, xcb_translate_coordinates(connection, window, root, 0, 0), nullptr),
            &std::free);
        if (!property || xcb_get_property_value_length(property.get()) != 4 ||
            *static_cast<const uint32_t*>(xcb_get_property_value(property.get())) !=
                static_cast<uint32_t>(pid) ||
            !attributes || attributes->map_state != XCB_MAP_STATE_VIEWABLE || !geometry ||
            !origin) {
            continue;
        }
        found.push_back({origin->dst_x, origin->dst_y, geometry->width, geometry->height});
    }
    return found;
}

std::optional<Rect> waitForWindow(xcb_connection_t* connection, pid_t pid,
                                  const std::function<bool(const Rect&)>& accept) {
    const Clock::time_point start = Clock::now();
    while (std::chrono::duration<double>(Clock::now() - start).count() < 30) {
        for (const Rect& window : windowsOf(connection, pid)) {
            if (accept(window)) {
                return window;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return std::nullopt;
}

std::optional<Rect> waitForWindowOfSize(xcb_connection_t* connection, pid_t pid, int width,
                                        int height) {
    return waitForWindow(connection, pid, [&](const Rect& window) {
        return window.width == width && window.height == height;
    });
}

bool run(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    int status = 0;
    return posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) == 0 &&
           waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool click(int x, int y) {
    return run({"xdotool", "mousemove", std::to_string(x), std::to_string(y), "click", "1"});
}

std::vector<std::filesystem::path> savedFiles() {
    std::vector<std::filesystem::path> files;
    std::error_code error;
    for (auto entry = std::filesystem::recursive_directory_iterator(
             std::getenv("HOME"), std::filesystem::directory_options::skip_permission_denied,
             error);
         entry != std::filesystem::recursive_directory_iterator(); entry.increment(error)) {
        if (error) {
            break;
        }
        if (entry->is_regular_file() && entry->path().string().find("/.") == std::string::npos) {
            files.push_back(entry->path());
        }
    }
    return files;
}

namespace {

// True when the file ends as a finished picture of its kind does: a PDF may be seen while it
// is still being written.
bool endsComplete(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary | std::ios::ate);
    const std::streamoff size = in.tellg();
    constexpr std::streamoff tailSize = 16;
    if (!in || size < tailSize) {
        return false;
    }
    std::string tail(tailSize, '\0');
    in.seekg(size - tailSize);
    in.read(tail.data(), tailSize);
    if (!in) {
        return false;
    }
    if (file.extension() == ".png") {
        return tail.compare(tailSize - 8, 4, "IEND") == 0; // the last chunk, then its CRC
    }
    if (file.extension() == ".jpg") {
        return tail.compare(tailSize - 2, 2, "\xff\xd9") == 0; // end of image
    }
    if (file.extension() == ".pdf") {
        return tail.find("%%EOF") != std::string::npos;
    }
    return size > 0;
}

} // namespace

bool waitForNewFile(const std::vector<std::filesystem::path>& before, const char* extension) {
    const Clock::time_point start = Clock::now();
    while (std::chrono::duration<double>(Clock::now() - start).count() < 60) {
        for (const auto& file : savedFiles()) {
            if (file.extension() == extension &&
                std::find(before.begin(), before.end(), file) == before.end() &&
                endsComplete(file)) {
                return true;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::optional<Rect> openSetup(xcb_connection_t* connection, pid_t pid, int row) {
    const auto icon = waitForWindow(connection, pid, [](const Rect& window) {
        return window.width < 64 && window.height < 64;
    });
    if (!icon || !click(icon->x + icon->width / 2, icon->y + icon->height / 2)) {
        return std::nullopt;
    }
    const auto popup = waitForWindowOfSize(connection, pid, popupWidth, popupHeight);
    // The popup's rows are 92 high and start 88 below its top.
    if (!popup || !click(popup->x + popupWidth / 2, popup->y + 88 + 46 + 92 * row)) {
        return std::nullopt;
    }
    return waitForWindowOfSize(connection, pid, setupWidth, setupHeight);
}

const char* extensionOf(SnapshotFormat format) {
    switch (format) {
    case SnapshotFormat::png:
        return ".png";
    case SnapshotFormat::jpeg:
        return ".jpg";
    case SnapshotFormat::pdf:
        return ".pdf";
    }
    return "";
}

bool snapshotThroughPanel(xcb_connection_t* connection, pid_t pid, SnapshotFormat format,
                          double& clickToFileMs) {
    constexpr int formatX = 400, formatY = 272; // the format menu's box
    const auto before = savedFiles();
    const auto setup = openSetup(connection, pid, snapshotRow);
    if (!setup || !click(setup->x + formatX, setup->y + formatY)) {
        return false;
    }
    const auto menu = waitForWindow(connection, pid, [&](const Rect& window) {
        return window.height < 200 && window.y > setup->y && window.width > 64;
    });
    // The menu's three entries, each a third of its height.
    const int entry = static_cast<int>(format);
    if (!menu || !click(menu->x + menu->width / 2, menu->y + menu->height * (2 * entry + 1) / 6)) {
        return false;
    }
    // The pointer goes to the start button first; the click itself is sent from here, since
    // xdotool takes longer to start than a snapshot takes.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    if (!run({"xdotool", "mousemove", std::to_string(setup->x + startX),
              std::to_string(setup->y + startY)})) {
        return false;
    }
    const Clock::time_point clicked = Clock::now();
    for (const uint8_t type : {XCB_BUTTON_PRESS, XCB_BUTTON_RELEASE}) {
        xcb_test_fake_input(connection, type, 1, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    }
    xcb_flush(connection);
    if (!waitForNewFile(before, extensionOf(format))) {
        return false;
    }
    clickToFileMs = millisecondsSince(clicked);
    return true;
}

} // namespace panel
