#include "capture/linux/x11/X11Connection.h"

#include "capture/CaptureVocabulary.h"

#include <xcb/randr.h>

#include <algorithm>
#include <cstring>

X11Connection::X11Connection(const QByteArray& displayName) {
    int screenNumber = 0;
    connection_ =
        xcb_connect(displayName.isEmpty() ? nullptr : displayName.constData(), &screenNumber);
    if (xcb_connection_has_error(connection_)) {
        xcb_disconnect(connection_);
        throw PlatformError(QStringLiteral("Tessarel could not connect to the X display."));
    }
    auto screens = xcb_setup_roots_iterator(xcb_get_setup(connection_));
    for (int i = 0; i < screenNumber && screens.rem > 0; ++i) {
        xcb_screen_next(&screens);
    }
    screen_ = screens.data;
    netWmPid_ = atom("_NET_WM_PID");
}

X11Connection::~X11Connection() {
    xcb_disconnect(connection_);
}

bool X11Connection::offers(xcb_extension_t& extension) const {
    const auto* data = xcb_get_extension_data(connection_, &extension);
    return data && data->present;
}

xcb_atom_t X11Connection::atom(const char* name) {
    const auto cookie =
        xcb_intern_atom(connection_, 0, static_cast<uint16_t>(std::strlen(name)), name);
    XcbReply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(connection_, cookie, nullptr));
    return reply ? reply->atom : XCB_NONE;
}

std::vector<X11Monitor> X11Connection::monitors() {
    XcbReply<xcb_randr_query_version_reply_t> versionReply;
    if (offers(xcb_randr_id)) {
        versionReply.reset(xcb_randr_query_version_reply(
            connection_, xcb_randr_query_version(connection_, 1, 5), nullptr));
    }
    if (!versionReply || (versionReply->major_version == 1 && versionReply->minor_version < 5)) {
        throw PlatformError(
            QStringLiteral("The X server does not describe its monitors (RandR 1.5 is missing)."));
    }
    const auto cookie = xcb_randr_get_monitors(connection_, root(), 1);
    XcbReply<xcb_randr_get_monitors_reply_t> reply(
        xcb_randr_get_monitors_reply(connection_, cookie, nullptr));
    std::vector<X11Monitor> result;
    if (!reply) {
        return result;
    }
    for (auto it = xcb_randr_get_monitors_monitors_iterator(reply.get()); it.rem > 0;
         xcb_randr_monitor_info_next(&it)) {
        const auto& info = *it.data;
        result.push_back({info.name, info.primary != 0, {info.x, info.y, info.width, info.height}});
    }
    return result;
}

// One round trip per level, however many windows there are.
std::vector<std::optional<int64_t>>
X11Connection::owners(const std::vector<xcb_window_t>& windows) {
    std::vector<std::optional<int64_t>> result(windows.size());
    std::vector<std::pair<size_t, xcb_window_t>> level;
    for (size_t i = 0; i < windows.size(); ++i) {
        level.emplace_back(i, windows[i]);
    }
    for (int depth = 0; depth <= 2 && !level.empty(); ++depth) {
        std::vector<xcb_get_property_cookie_t> properties;
        for (const auto& [index, window] : level) {
            properties.push_back(
                xcb_get_property(connection_, 0, window, netWmPid_, XCB_ATOM_CARDINAL, 0, 1));
        }
        std::vector<std::pair<size_t, xcb_window_t>> unresolved;
        for (size_t i = 0; i < level.size(); ++i) {
            XcbReply<xcb_get_property_reply_t> reply(
                xcb_get_property_reply(connection_, properties[i], nullptr));
            const size_t index = level[i].first;
            if (reply && reply->format == 32 && xcb_get_property_value_length(reply.get()) >= 4) {
                if (!result[index]) {
                    result[index] =
                        *static_cast<const uint32_t*>(xcb_get_property_value(reply.get()));
                }
            } else if (!result[index]) {
                unresolved.push_back(level[i]);
            }
        }
        if (depth == 2) {
            break;
        }
        std::vector<xcb_query_tree_cookie_t> trees;
        for (const auto& [index, window] : unresolved) {
            trees.push_back(xcb_query_tree(connection_, window));
        }
        level.clear();
        for (size_t i = 0; i < unresolved.size(); ++i) {
            XcbReply<xcb_query_tree_reply_t> tree(
                xcb_query_tree_reply(connection_, trees[i], nullptr));
            if (!tree) {
                continue;
            }
            const xcb_window_t* children = xcb_query_tree_children(tree.get());
            for (int child = xcb_query_tree_children_length(tree.get()) - 1; child >= 0; --child) {
                level.emplace_back(unresolved[i].first, children[child]);
            }
        }
    }
    return result;
}

std::vector<X11TopLevel> X11Connection::topLevels() {
    XcbReply<xcb_query_tree_reply_t> tree(
        xcb_query_tree_reply(connection_, xcb_query_tree(connection_, root()), nullptr));
    std::vector<X11TopLevel> result;
    if (!tree) {
        return result;
    }
    const xcb_window_t* children = xcb_query_tree_children(tree.get());
    const int count = xcb_query_tree_children_length(tree.get());
    // Ask for everything first, then collect, so the whole tree costs one round trip.
    std::vector<xcb_get_window_attributes_cookie_t> attributes(static_cast<size_t>(count));
    std::vector<xcb_get_geometry_cookie_t> geometries(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        attributes[static_cast<size_t>(i)] = xcb_get_window_attributes(connection_, children[i]);
        geometries[static_cast<size_t>(i)] = xcb_get_geometry(connection_, children[i]);
    }
    for (int i = 0; i < count; ++i) {
        XcbReply<xcb_get_window_attributes_reply_t> attribute(xcb_get_window_attributes_reply(
            connection_, attributes[static_cast<size_t>(i)], nullptr));
        XcbReply<xcb_get_geometry_reply_t> geometry(
            xcb_get_geometry_reply(connection_, geometries[static_cast<size_t>(i)], nullptr));
        if (!attribute || !geometry) {
            continue; // gone meanwhile
        }
        const int border = geometry->border_width;
        result.push_back({children[i],
                          {geometry->x, geometry->y, geometry->width + 2 * border,
                           geometry->height + 2 * border},
                          attribute->map_state == XCB_MAP_STATE_VIEWABLE,
                          attribute->_class == XCB_WINDOW_CLASS_INPUT_ONLY,
                          attribute->visual,
                          std::nullopt});
    }
    std::vector<xcb_window_t> drawn;
    for (const auto& topLevel : result) {
        if (!topLevel.inputOnly) {
            drawn.push_back(topLevel.window);
        }
    }
    const auto processIDs = owners(drawn);
    auto processID = processIDs.begin();
    for (auto& topLevel : result) {
        if (!topLevel.inputOnly) {
            topLevel.processID = *processID++;
        }
    }
    return result;
}

std::optional<std::vector<xcb_window_t>> X11Connection::managedClients() {
    const xcb_atom_t clientList = atom("_NET_CLIENT_LIST");
    const auto cookie =
        xcb_get_property(connection_, 0, root(), clientList, XCB_ATOM_WINDOW, 0, UINT32_MAX / 4);
    XcbReply<xcb_get_property_reply_t> reply(xcb_get_property_reply(connection_, cookie, nullptr));
    if (!reply || reply->type == XCB_NONE || reply->format != 32) {
        return std::nullopt;
    }
    const auto* windows = static_cast<const xcb_window_t*>(xcb_get_property_value(reply.get()));
    return std::vector<xcb_window_t>(windows,
                                     windows + xcb_get_property_value_length(reply.get()) / 4);
}
