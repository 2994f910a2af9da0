// Keeps a virtual pointer on the compositor's seat, as a headless compositor has no input
// device, and acts on the commands it reads, one a line, answering each with "ok" once the
// compositor has handled it:
//   move <x> <y>   to that point of the layout
//   press          the left button
//   release        the left button
// Usage: wayland_pointer <layout width> <layout height>

#include "wlr-virtual-pointer-unstable-v1-client.h"

#include <wayland-client.h>

#include <linux/input-event-codes.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

namespace {

struct Globals {
    wl_seat* seat = nullptr;
    zwlr_virtual_pointer_manager_v1* manager = nullptr;
};

void onRegistry(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t) {
    auto* globals = static_cast<Globals*>(data);
    if (std::strcmp(interface, wl_seat_interface.name) == 0 && !globals->seat) {
        globals->seat =
            static_cast<wl_seat*>(wl_registry_bind(registry, name, &wl_seat_interface, 1));
    } else if (std::strcmp(interface, zwlr_virtual_pointer_manager_v1_interface.name) == 0) {
        globals->manager = static_cast<zwlr_virtual_pointer_manager_v1*>(
            wl_registry_bind(registry, name, &zwlr_virtual_pointer_manager_v1_interface, 1));
    }
}
void onRegistryRemove(void*, wl_registry*, uint32_t) {}
const wl_registry_listener kRegistryListener{onRegistry, onRegistryRemove};

uint32_t nowMs() {
    return static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s width height\n", argv[0]);
        return 2;
    }
    const auto width = static_cast<uint32_t>(std::atoi(argv[1]));
    const auto height = static_cast<uint32_t>(std::atoi(argv[2]));
    wl_display* display = wl_display_connect(nullptr);
    if (display == nullptr) {
        std::fprintf(stderr, "no Wayland display\n");
        return 1;
    }
    Globals globals;
    wl_registry* registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &kRegistryListener, &globals);
    wl_display_roundtrip(display);
    if (!globals.seat || !globals.manager) {
        std::fprintf(stderr, "the compositor offers no virtual pointer\n");
        return 1;
    }
    zwlr_virtual_pointer_v1* pointer =
        zwlr_virtual_pointer_manager_v1_create_virtual_pointer(globals.manager, globals.seat);
    wl_display_roundtrip(display);
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string verb;
        words >> verb;
        if (verb == "move") {
            uint32_t x = 0;
            uint32_t y = 0;
            words >> x >> y;
            zwlr_virtual_pointer_v1_motion_absolute(pointer, nowMs(), x, y, width, height);
        } else if (verb == "press" || verb == "release") {
            zwlr_virtual_pointer_v1_button(pointer, nowMs(), BTN_LEFT,
                                           verb == "press" ? WL_POINTER_BUTTON_STATE_PRESSED
                                                           : WL_POINTER_BUTTON_STATE_RELEASED);
        } else {
            std::printf("unknown\n");
            std::fflush(stdout);
            continue;
        }
        zwlr_virtual_pointer_v1_frame(pointer);
        if (wl_display_roundtrip(display) < 0) {
            return 1;
        }
        std::printf("ok\n");
        std::fflush(stdout);
    }
    zwlr_virtual_pointer_v1_destroy(pointer);
    wl_display_roundtrip(display);
    return 0;
}
