#include "ScreenFeed.h"

#include "wlr-screencopy-unstable-v1-client.h"

#include <wayland-client.h>

#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>

namespace {

// Version 2 brings damage; later versions add nothing the feed uses.
constexpr uint32_t kScreencopyVersion = 2;
constexpr uint32_t kOutputVersionWithName = 4;
constexpr std::chrono::seconds kStillScreenRefresh{1};

} // namespace

struct ScreenFeed::State {
    wl_display* display = nullptr;
    wl_registry* registry = nullptr;
    wl_shm* shm = nullptr;
    zwlr_screencopy_manager_v1* manager = nullptr;
    wl_output* output = nullptr;
    QString wanted;

    // The shared-memory buffer the compositor copies into, kept while the size holds.
    wl_buffer* buffer = nullptr;
    void* memory = MAP_FAILED;
    size_t bytes = 0;
    uint32_t format = 0;
    int width = 0;
    int height = 0;
    int stride = 0;

    // The copy under way, kept across calls until the compositor made it.
    zwlr_screencopy_frame_v1* frame = nullptr;
    std::chrono::steady_clock::time_point asked;
    bool copiedBefore = false;
    bool done = false;
    bool failed = false;
    bool yInverted = false;
    int changedTop = 0;
    int changedBottom = 0;
    std::string upsideDownRow; // for y-inverted copies

    void releaseBuffer() {
        if (buffer) {
            wl_buffer_destroy(buffer);
            buffer = nullptr;
        }
        if (memory != MAP_FAILED) {
            munmap(memory, bytes);
            memory = MAP_FAILED;
        }
    }

    void makeBuffer(uint32_t shmFormat, int w, int h, int s) {
        if (buffer && format == shmFormat && width == w && height == h && stride == s) {
            return;
        }
        releaseBuffer();
        format = shmFormat;
        width = w;
        height = h;
        stride = s;
        bytes = static_cast<size_t>(s) * static_cast<size_t>(h);
        const int fd = memfd_create("screen-feed", MFD_CLOEXEC);
        if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
            throw std::runtime_error("no shared memory for the screen feed");
        }
        memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        wl_shm_pool* pool = wl_shm_create_pool(shm, fd, static_cast<int32_t>(bytes));
        buffer = wl_shm_pool_create_buffer(pool, 0, w, h, s, shmFormat);
        wl_shm_pool_destroy(pool);
        close(fd);
        if (memory == MAP_FAILED) {
            throw std::runtime_error("cannot map the screen feed's memory");
        }
    }
};

namespace {

void outputName(void* data, wl_output* output, const char* name) {
    auto* state = static_cast<ScreenFeed::State*>(data);
    if (state->wanted == QString::fromUtf8(name)) {
        state->output = output;
    }
}

const wl_output_listener kOutputListener = {
    [](void*, wl_output*, int32_t, int32_t, int32_t, int32_t, int32_t, const char*, const char*,
       int32_t) {},
    [](void*, wl_output*, uint32_t, int32_t, int32_t, int32_t) {},
    [](void*, wl_output*) {},
    [](void*, wl_output*, int32_t) {},
    outputName,
    [](void*, wl_output*, const char*) {},
};

void global(void* data, wl_registry* registry, uint32_t name, const char* interface,
            uint32_t version) {
    auto* state = static_cast<ScreenFeed::State*>(data);
    if (std::strcmp(interface, wl_shm_interface.name) == 0) {
        state->shm = static_cast<wl_shm*>(wl_registry_bind(registry, name, &wl_shm_interface, 1));
    } else if (std::strcmp(interface, zwlr_screencopy_manager_v1_interface.name) == 0) {
        state->manager = static_cast<zwlr_screencopy_manager_v1*>(
            wl_registry_bind(registry, name, &zwlr_screencopy_manager_v1_interface,
                             std::min(version, kScreencopyVersion)));
    } else if (std::strcmp(interface, wl_output_interface.name) == 0 &&
               version >= kOutputVersionWithName) {
        auto* output = static_cast<wl_output*>(
            wl_registry_bind(registry, name, &wl_output_interface, kOutputVersionWithName));
        wl_output_add_listener(output, &kOutputListener, state);
    }
}

const wl_registry_listener kRegistryListener = {global, [](void*, wl_registry*, uint32_t) {}};

ScreenFeed::State& stateOf(void* data) {
    return *static_cast<ScreenFeed::State*>(data);
}

const zwlr_screencopy_frame_v1_listener kFrameListener = {
    // buffer: the shared-memory buffer the compositor wants; the copy starts at once.
    [](void* data, zwlr_screencopy_frame_v1* frame, uint32_t format, uint32_t width,
       uint32_t height, uint32_t stride) {
        ScreenFeed::State& state = stateOf(data);
        state.makeBuffer(format, static_cast<int>(width), static_cast<int>(height),
                         static_cast<int>(stride));
        // The first picture at once; after it, the next one with something changed.
        if (state.copiedBefore) {
            zwlr_screencopy_frame_v1_copy_with_damage(frame, state.buffer);
        } else {
            zwlr_screencopy_frame_v1_copy(frame, state.buffer);
        }
    },
    [](void* data, zwlr_screencopy_frame_v1*, uint32_t flags) {
        stateOf(data).yInverted = flags & ZWLR_SCREENCOPY_FRAME_V1_FLAGS_Y_INVERT;
    },
    [](void* data, zwlr_screencopy_frame_v1*, uint32_t, uint32_t, uint32_t) {
        stateOf(data).done = true;
    },
    [](void* data, zwlr_screencopy_frame_v1*) {
        stateOf(data).failed = true;
        stateOf(data).done = true;
    },
    // damage: rows that changed, united.
    [](void* data, zwlr_screencopy_frame_v1*, uint32_t, uint32_t y, uint32_t, uint32_t height) {
        ScreenFeed::State& state = stateOf(data);
        const int top = static_cast<int>(y);
        const int bottom = top + static_cast<int>(height);
        if (state.changedTop == state.changedBottom) {
            state.changedTop = top;
            state.changedBottom = bottom;
        } else {
            state.changedTop = std::min(state.changedTop, top);
            state.changedBottom = std::max(state.changedBottom, bottom);
        }
    },
    nullptr,
    nullptr,
};

} // namespace

ScreenFeed::ScreenFeed(const QString& output) : state_(std::make_unique<State>()) {
    state_->wanted = output;
    state_->display = wl_display_connect(nullptr);
    if (state_->display == nullptr) {
        throw std::runtime_error("no Wayland display for the screen feed");
    }
    state_->registry = wl_display_get_registry(state_->display);
    wl_registry_add_listener(state_->registry, &kRegistryListener, state_.get());
    wl_display_roundtrip(state_->display);
    wl_display_roundtrip(state_->display); // the outputs' names
    if (state_->shm == nullptr || state_->manager == nullptr || state_->output == nullptr) {
        throw std::runtime_error("the compositor offers no screencopy of " + output.toStdString());
    }
}

ScreenFeed::~ScreenFeed() {
    if (state_->frame) {
        zwlr_screencopy_frame_v1_destroy(state_->frame);
    }
    state_->releaseBuffer();
    wl_display_disconnect(state_->display);
}

std::optional<ScreenFeed::Picture> ScreenFeed::next(bool withPointer,
                                                    std::chrono::milliseconds wait) {
    State& state = *state_;
    if (state.frame != nullptr && state.copiedBefore &&
        std::chrono::steady_clock::now() - state.asked > kStillScreenRefresh) {
        zwlr_screencopy_frame_v1_destroy(state.frame);
        state.frame = nullptr;
        state.copiedBefore = false; // the whole picture, at once
    }
    if (state.frame == nullptr) {
        state.asked = std::chrono::steady_clock::now();
        state.done = false;
        state.failed = false;
        state.yInverted = false;
        state.changedTop = state.changedBottom = 0;
        state.frame = zwlr_screencopy_manager_v1_capture_output(state.manager, withPointer ? 1 : 0,
                                                                state.output);
        zwlr_screencopy_frame_v1_add_listener(state.frame, &kFrameListener, &state);
    }
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (!state.done) {
        while (wl_display_prepare_read(state.display) != 0) {
            wl_display_dispatch_pending(state.display);
        }
        wl_display_flush(state.display);
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd readable{wl_display_get_fd(state.display), POLLIN, 0};
        if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) <= 0) {
            wl_display_cancel_read(state.display);
            return std::nullopt; // the copy stays under way for the next call
        }
        wl_display_read_events(state.display);
        wl_display_dispatch_pending(state.display);
    }
    zwlr_screencopy_frame_v1_destroy(state.frame);
    state.frame = nullptr;
    if (state.failed || !state.done) {
        return std::nullopt;
    }
    if (!state.copiedBefore) { // all of it is new
        state.copiedBefore = true;
        state.changedTop = 0;
        state.changedBottom = state.height;
    }
    auto* pixels = static_cast<uint8_t*>(state.memory);
    if (state.yInverted) {
        state.upsideDownRow.resize(static_cast<size_t>(state.stride));
        for (int y = 0; y < state.height / 2; ++y) {
            uint8_t* top = pixels + static_cast<ptrdiff_t>(y) * state.stride;
            uint8_t* bottom = pixels + static_cast<ptrdiff_t>(state.height - 1 - y) * state.stride;
            std::memcpy(state.upsideDownRow.data(), top, static_cast<size_t>(state.stride));
            std::memcpy(top, bottom, static_cast<size_t>(state.stride));
            std::memcpy(bottom, state.upsideDownRow.data(), static_cast<size_t>(state.stride));
        }
        const int top = state.height - state.changedBottom;
        state.changedBottom = state.height - state.changedTop;
        state.changedTop = top;
    }
    return Picture{pixels,       state.width,      state.height,
                   state.stride, state.changedTop, state.changedBottom};
}
