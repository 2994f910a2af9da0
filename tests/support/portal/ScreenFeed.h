#pragma once

#include <QString>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

// The pictures of one output of the Wayland compositor named by WAYLAND_DISPLAY, copied with
// wlr-screencopy into shared memory, as a portal backend of a wlroots desktop gets them
// (xdg-desktop-portal-wlr does the same into DMA-BUFs, which need a GPU). Not thread-safe:
// one thread copies.
class ScreenFeed {
public:
    // A copy of the output: 32-bit BGRx rows, and the rows the compositor says changed since
    // the copy before.
    struct Picture {
        const uint8_t* pixels = nullptr;
        int width = 0;
        int height = 0;
        int stride = 0;
        int changedTop = 0;
        int changedBottom = 0; // one past
    };

    // Throws std::runtime_error when there is no such output or no screencopy.
    explicit ScreenFeed(const QString& output);
    ~ScreenFeed();
    ScreenFeed(const ScreenFeed&) = delete;
    ScreenFeed& operator=(const ScreenFeed&) = delete;

    // The output's picture (the first at once, then the next once something on it changed,
    // and the whole picture again after a second without change, as a stream's consumer that
    // joined late or lost a buffer would otherwise wait for the next change on a still
    // screen), with the pointer drawn in when asked for; none when the compositor failed the copy
    // or has not made it within `wait` (the copy then goes on, for the next call to take).
    std::optional<Picture> next(bool withPointer, std::chrono::milliseconds wait);

    struct State; // the Wayland objects, known to the listeners in the source file

private:
    std::unique_ptr<State> state_;
};
