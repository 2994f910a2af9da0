// A Wayland window for tests: the test pattern of flat cells, and with "1" as second argument
// a block sliding back and forth through its lower quarter, moved at every frame the
// compositor asks for. Prints "shown" once the compositor has shown the first picture at
// the size it gave the window.
// Usage: wayland_test_window <seed> <moving: 0 or 1>

#include "support/VirtualDisplay.h"

#include "xdg-shell-client.h"

#include <wayland-client.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr int kBlockSize = 48;
constexpr int kBlockStep = 4; // points per frame
const QRgb kBlockColour = qRgb(40, 200, 60);

struct Buffer {
    wl_buffer* buffer = nullptr;
    uint32_t* pixels = nullptr;
    size_t size = 0;
    bool busy = false;
    QRect block; // where this buffer shows the block
};

struct Window {
    int seed = 0;
    bool moving = false;
    wl_compositor* compositor = nullptr;
    wl_shm* shm = nullptr;
    xdg_wm_base* shell = nullptr;
    wl_surface* surface = nullptr;
    xdg_surface* shellSurface = nullptr;
    xdg_toplevel* toplevel = nullptr;
    int width = 0;
    int height = 0;
    int pendingWidth = 0;
    int pendingHeight = 0;
    QImage pattern;
    std::vector<Buffer> buffers;
    long long frame = 0;
    bool sized = false; // drawn at a size the compositor chose
    bool announced = false;
    bool running = true;

    QRect block(long long at) const {
        const int travel = std::max(1, width - kBlockSize);
        const long long offset = (at * kBlockStep) % (2 * travel);
        const int x = static_cast<int>(offset < travel ? offset : 2 * travel - offset);
        return {x, height * 3 / 4 - kBlockSize / 2, kBlockSize, kBlockSize};
    }
};

void onRegistry(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t) {
    auto* window = static_cast<Window*>(data);
    if (std::strcmp(interface, wl_compositor_interface.name) == 0) {
        window->compositor = static_cast<wl_compositor*>(
            wl_registry_bind(registry, name, &wl_compositor_interface, 4));
    } else if (std::strcmp(interface, wl_shm_interface.name) == 0) {
        window->shm = static_cast<wl_shm*>(wl_registry_bind(registry, name, &wl_shm_interface, 1));
    } else if (std::strcmp(interface, xdg_wm_base_interface.name) == 0) {
        window->shell =
            static_cast<xdg_wm_base*>(wl_registry_bind(registry, name, &xdg_wm_base_interface, 1));
    }
}
void onRegistryRemove(void*, wl_registry*, uint32_t) {}
const wl_registry_listener kRegistryListener{onRegistry, onRegistryRemove};

void onPing(void*, xdg_wm_base* shell, uint32_t serial) {
    xdg_wm_base_pong(shell, serial);
}
const xdg_wm_base_listener kShellListener{onPing};

void onBufferRelease(void* data, wl_buffer*) {
    static_cast<Buffer*>(data)->busy = false;
}
const wl_buffer_listener kBufferListener{onBufferRelease};

void allocate(Window& window) {
    for (Buffer& buffer : window.buffers) {
        wl_buffer_destroy(buffer.buffer);
        munmap(buffer.pixels, buffer.size);
    }
    window.buffers.assign(2, Buffer{});
    const size_t size = static_cast<size_t>(window.width) * window.height * 4;
    window.pattern = VirtualDisplay::testPattern(QSize(window.width, window.height), window.seed);
    for (Buffer& buffer : window.buffers) {
        const int fd = memfd_create("tessarel-test-window", MFD_CLOEXEC);
        if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
            std::exit(1);
        }
        buffer.size = size;
        buffer.pixels =
            static_cast<uint32_t*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        wl_shm_pool* pool = wl_shm_create_pool(window.shm, fd, static_cast<int32_t>(size));
        buffer.buffer = wl_shm_pool_create_buffer(pool, 0, window.width, window.height,
                                                  window.width * 4, WL_SHM_FORMAT_XRGB8888);
        wl_shm_pool_destroy(pool);
        close(fd);
        wl_buffer_add_listener(buffer.buffer, &kBufferListener, &buffer);
        std::memcpy(buffer.pixels, window.pattern.constBits(), size);
    }
}

void fill(Window& window, Buffer& buffer, const QRect& rect, bool block) {
    const QRect clipped = rect.intersected(QRect(0, 0, window.width, window.height));
    for (int y = clipped.top(); y <= clipped.bottom(); ++y) {
        const auto* source = reinterpret_cast<const QRgb*>(window.pattern.constScanLine(y));
        for (int x = clipped.left(); x <= clipped.right(); ++x) {
            buffer.pixels[y * window.width + x] = block ? kBlockColour : source[x];
        }
    }
}

void draw(Window& window);

void onFrameDone(void* data, wl_callback* callback, uint32_t) {
    wl_callback_destroy(callback);
    auto* window = static_cast<Window*>(data);
    if (!window->announced && window->sized) {
        window->announced = true;
        std::printf("shown\n");
        std::fflush(stdout);
    }
    if (window->moving) {
        ++window->frame;
        draw(*window);
    }
}
const wl_callback_listener kFrameListener{onFrameDone};

// Draws the picture of the current frame into a free buffer, over the block it showed.
void draw(Window& window) {
    auto free = std::find_if(window.buffers.begin(), window.buffers.end(),
                             [](const Buffer& buffer) { return !buffer.busy; });
    if (free == window.buffers.end()) {
        free = window.buffers.begin(); // shm buffers may be drawn over while held
    }
    if (window.moving) {
        fill(window, *free, free->block, false);
        free->block = window.block(window.frame);
        fill(window, *free, free->block, true);
    }
    free->busy = true;
    wl_surface_attach(window.surface, free->buffer, 0, 0);
    wl_surface_damage_buffer(window.surface, 0, 0, window.width, window.height);
    wl_callback_add_listener(wl_surface_frame(window.surface), &kFrameListener, &window);
    wl_surface_commit(window.surface);
}

void onConfigure(void* data, xdg_surface* surface, uint32_t serial) {
    auto* window = static_cast<Window*>(data);
    xdg_surface_ack_configure(surface, serial);
    const int width = window->pendingWidth > 0 ? window->pendingWidth : 640;
    const int height = window->pendingHeight > 0 ? window->pendingHeight : 480;
    window->sized = window->pendingWidth > 0 && window->pendingHeight > 0;
    if (width != window->width || height != window->height) {
        window->width = width;
        window->height = height;
        allocate(*window);
        draw(*window);
    } else if (!window->moving) {
        wl_surface_commit(window->surface);
    }
}
const xdg_surface_listener kSurfaceListener{onConfigure};

void onToplevelConfigure(void* data, xdg_toplevel*, int32_t width, int32_t height, wl_array*) {
    auto* window = static_cast<Window*>(data);
    window->pendingWidth = width;
    window->pendingHeight = height;
}
void onClose(void* data, xdg_toplevel*) {
    static_cast<Window*>(data)->running = false;
}
void onBounds(void*, xdg_toplevel*, int32_t, int32_t) {}
void onCapabilities(void*, xdg_toplevel*, wl_array*) {}
const xdg_toplevel_listener kToplevelListener{onToplevelConfigure, onClose, onBounds,
                                              onCapabilities};

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s seed moving\n", argv[0]);
        return 2;
    }
    Window window;
    window.seed = std::atoi(argv[1]);
    window.moving = std::atoi(argv[2]) != 0;
    wl_display* display = wl_display_connect(nullptr);
    if (display == nullptr) {
        std::fprintf(stderr, "no Wayland display\n");
        return 1;
    }
    wl_registry* registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &kRegistryListener, &window);
    wl_display_roundtrip(display);
    if (!window.compositor || !window.shm || !window.shell) {
        std::fprintf(stderr, "the compositor lacks a global this window needs\n");
        return 1;
    }
    xdg_wm_base_add_listener(window.shell, &kShellListener, nullptr);
    window.surface = wl_compositor_create_surface(window.compositor);
    window.shellSurface = xdg_wm_base_get_xdg_surface(window.shell, window.surface);
    xdg_surface_add_listener(window.shellSurface, &kSurfaceListener, &window);
    window.toplevel = xdg_surface_get_toplevel(window.shellSurface);
    xdg_toplevel_add_listener(window.toplevel, &kToplevelListener, &window);
    xdg_toplevel_set_app_id(window.toplevel, "tessarel-test-window");
    wl_surface_commit(window.surface);
    while (window.running && wl_display_dispatch(display) >= 0) {
    }
    return 0;
}
