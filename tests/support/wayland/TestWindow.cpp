// A Wayland window for tests and benchmarks, showing the test pattern of flat cells (or a
// picture from a file, from its top left corner) and moving at every frame the compositor
// asks for, as told:
//   still  nothing moves
//   band   a band of the picture around three quarters of the height (48 points high)
//          scrolls to the left by 4 points a frame
//   glow   a 320 × 240 glow at (500, 300) circles
//   slide  the picture, 600 points wider than the window, slides back and forth by 4 points
//          a frame
// It sets the pointer's image where the pointer enters it, and prints "shown" once the
// compositor has shown the first picture at the size it gave the window.
// Usage: wayland_test_window <seed> <still|band|glow|slide> [picture file]

#include "support/VirtualDisplay.h"

#include "xdg-shell-client.h"

#include <wayland-client.h>
#include <wayland-cursor.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr int kBandHeight = 48;
constexpr int kStep = 4; // points a frame, for the band and the slide
constexpr int kSlideTravel = 600;
const QRect kGlow(500, 300, 320, 240);

enum class Motion { still, band, glow, slide };

struct Buffer {
    wl_buffer* buffer = nullptr;
    uint32_t* pixels = nullptr;
    size_t size = 0;
    bool busy = false;
};

struct Window {
    int seed = 0;
    Motion motion = Motion::still;
    QImage picture; // from the file, if one was given
    wl_compositor* compositor = nullptr;
    wl_shm* shm = nullptr;
    xdg_wm_base* shell = nullptr;
    wl_seat* seat = nullptr;
    wl_pointer* pointer = nullptr;
    wl_surface* cursorSurface = nullptr;
    wl_cursor_image* cursorImage = nullptr;
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
    bool fullDamage = false; // the buffers were made anew
    bool running = true;

    int bandTop() const { return height * 3 / 4 - kBandHeight / 2; }
};

void onRegistry(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t) {
    auto* window = static_cast<Window*>(data);
    if (std::strcmp(interface, wl_compositor_interface.name) == 0) {
        window->compositor = static_cast<wl_compositor*>(
            wl_registry_bind(registry, name, &wl_compositor_interface, 4));
    } else if (std::strcmp(interface, wl_shm_interface.name) == 0) {
        window->shm = static_cast<wl_shm*>(wl_registry_bind(registry, name, &wl_shm_interface, 1));
    } else if (std::strcmp(interface, wl_seat_interface.name) == 0 && !window->seat) {
        window->seat =
            static_cast<wl_seat*>(wl_registry_bind(registry, name, &wl_seat_interface, 1));
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

// The compositor shows no pointer over a window that has not set one.
void onPointerEnter(void* data, wl_pointer* pointer, uint32_t serial, wl_surface*, wl_fixed_t,
                    wl_fixed_t) {
    const auto* window = static_cast<Window*>(data);
    const wl_cursor_image* image = window->cursorImage;
    wl_pointer_set_cursor(pointer, serial, window->cursorSurface,
                          static_cast<int32_t>(image->hotspot_x),
                          static_cast<int32_t>(image->hotspot_y));
}
void onPointerLeave(void*, wl_pointer*, uint32_t, wl_surface*) {}
void onPointerMotion(void*, wl_pointer*, uint32_t, wl_fixed_t, wl_fixed_t) {}
void onPointerButton(void*, wl_pointer*, uint32_t, uint32_t, uint32_t, uint32_t) {}
void onPointerAxis(void*, wl_pointer*, uint32_t, uint32_t, wl_fixed_t) {}
// The seat is bound at its first version, which sends none of the later events.
const wl_pointer_listener kPointerListener{
    onPointerEnter, onPointerLeave, onPointerMotion, onPointerButton, onPointerAxis,
    nullptr,        nullptr,        nullptr,         nullptr,         nullptr};

void onSeatCapabilities(void* data, wl_seat* seat, uint32_t capabilities) {
    auto* window = static_cast<Window*>(data);
    if ((capabilities & WL_SEAT_CAPABILITY_POINTER) != 0 && !window->pointer) {
        window->pointer = wl_seat_get_pointer(seat);
        wl_pointer_add_listener(window->pointer, &kPointerListener, window);
    }
}
const wl_seat_listener kSeatListener{onSeatCapabilities, nullptr};

void onBufferRelease(void* data, wl_buffer*) {
    static_cast<Buffer*>(data)->busy = false;
}
const wl_buffer_listener kBufferListener{onBufferRelease};

// The picture from `left` on, over the whole window.
void drawBackground(const Window& window, Buffer& buffer, int left) {
    for (int y = 0; y < std::min(window.height, window.pattern.height()); ++y) {
        const auto* source = reinterpret_cast<const QRgb*>(window.pattern.constScanLine(y));
        std::memcpy(buffer.pixels + static_cast<ptrdiff_t>(y) * window.width, source + left,
                    static_cast<size_t>(std::min(window.width, window.pattern.width() - left)) * 4);
    }
}

void allocate(Window& window) {
    window.fullDamage = true;
    for (Buffer& buffer : window.buffers) {
        wl_buffer_destroy(buffer.buffer);
        munmap(buffer.pixels, buffer.size);
    }
    window.buffers.assign(2, Buffer{});
    const size_t size = static_cast<size_t>(window.width) * window.height * 4;
    window.pattern =
        window.picture.isNull()
            ? VirtualDisplay::testPattern(QSize(window.width, window.height), window.seed)
            : window.picture;
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
        drawBackground(window, buffer, 0);
    }
}

// The band as it is at the current frame.
void drawBand(const Window& window, Buffer& buffer) {
    const int shift = static_cast<int>((window.frame * kStep) % window.width);
    for (int y = window.bandTop(); y < std::min(window.height, window.bandTop() + kBandHeight);
         ++y) {
        const auto* source = reinterpret_cast<const QRgb*>(window.pattern.constScanLine(y));
        uint32_t* row = buffer.pixels + static_cast<ptrdiff_t>(y) * window.width;
        std::memcpy(row, source + shift, static_cast<size_t>(window.width - shift) * 4);
        std::memcpy(row + (window.width - shift), source, static_cast<size_t>(shift) * 4);
    }
}

// The glow as it is at the current frame.
void drawGlow(const Window& window, Buffer& buffer) {
    const QRect area = kGlow.intersected(QRect(0, 0, window.width, window.height));
    const double turn = static_cast<double>(window.frame) / 30.0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        uint32_t* row = buffer.pixels + static_cast<ptrdiff_t>(y) * window.width;
        for (int x = area.left(); x <= area.right(); ++x) {
            const double dx = x - kGlow.x() - 160 - 100 * std::sin(turn);
            const double dy = y - kGlow.y() - 120 - 60 * std::cos(turn);
            const int glow = static_cast<int>(255 * std::exp(-(dx * dx + dy * dy) / 1800));
            row[x] = qRgb(glow, 80 + glow / 2, 200 - glow / 2);
        }
    }
}

// What of the window changes at each frame.
QRect movingPart(const Window& window) {
    switch (window.motion) {
    case Motion::band:
        return {0, window.bandTop(), window.width, kBandHeight};
    case Motion::glow:
        return kGlow;
    case Motion::slide:
        return {0, 0, window.width, window.height};
    case Motion::still:
        break;
    }
    return {};
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
    if (window->motion != Motion::still) {
        ++window->frame;
        draw(*window);
    }
}
const wl_callback_listener kFrameListener{onFrameDone};

// Draws the picture of the current frame into a free buffer.
void draw(Window& window) {
    auto free = std::find_if(window.buffers.begin(), window.buffers.end(),
                             [](const Buffer& buffer) { return !buffer.busy; });
    if (free == window.buffers.end()) {
        free = window.buffers.begin(); // shm buffers may be drawn over while held
    }
    const QRect damage = std::exchange(window.fullDamage, false)
                             ? QRect(0, 0, window.width, window.height)
                             : movingPart(window);
    switch (window.motion) {
    case Motion::band:
        drawBand(window, *free);
        break;
    case Motion::glow:
        drawGlow(window, *free);
        break;
    case Motion::slide: {
        const int offset = static_cast<int>((window.frame * kStep) % (2 * kSlideTravel));
        drawBackground(window, *free, offset < kSlideTravel ? offset : 2 * kSlideTravel - offset);
        break;
    }
    case Motion::still:
        break;
    }
    free->busy = true;
    wl_surface_attach(window.surface, free->buffer, 0, 0);
    wl_surface_damage_buffer(window.surface, damage.x(), damage.y(), damage.width(),
                             damage.height());
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
    } else if (window->motion == Motion::still) {
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
    const std::map<std::string, Motion> motions{{"still", Motion::still},
                                                {"band", Motion::band},
                                                {"glow", Motion::glow},
                                                {"slide", Motion::slide}};
    if (argc < 3 || argc > 4 || motions.count(argv[2]) == 0) {
        std::fprintf(stderr, "usage: %s seed still|band|glow|slide [picture]\n", argv[0]);
        return 2;
    }
    Window window;
    window.seed = std::atoi(argv[1]);
    window.motion = motions.at(argv[2]);
    if (argc == 4) {
        window.picture =
            QImage(QString::fromLocal8Bit(argv[3])).convertToFormat(QImage::Format_RGB32);
        if (window.picture.isNull()) {
            std::fprintf(stderr, "cannot read %s\n", argv[3]);
            return 1;
        }
    }
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
    wl_cursor_theme* theme = wl_cursor_theme_load(nullptr, 24, window.shm);
    wl_cursor* cursor = theme ? wl_cursor_theme_get_cursor(theme, "left_ptr") : nullptr;
    if (!cursor) {
        std::fprintf(stderr, "no pointer image\n");
        return 1;
    }
    window.cursorImage = cursor->images[0];
    window.cursorSurface = wl_compositor_create_surface(window.compositor);
    wl_surface_attach(window.cursorSurface, wl_cursor_image_get_buffer(window.cursorImage), 0, 0);
    wl_surface_commit(window.cursorSurface);
    if (window.seat) {
        wl_seat_add_listener(window.seat, &kSeatListener, &window);
    }
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
