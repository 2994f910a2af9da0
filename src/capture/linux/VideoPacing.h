#pragma once

// The pace every screen stream keeps, whatever reads the screen.

#include "capture/CapturePlatform.h"

#include <time.h>

#include <algorithm>
#include <cstdint>

// At most 30 frames a second.
inline constexpr int64_t kShortestFrameIntervalNs = 1'000'000'000 / 30;
// An unchanged picture is passed on this often all the same, so the recorder can close a
// fragment and the file stays playable up to the last second.
inline constexpr int64_t kLongestFrameIntervalNs = 1'000'000'000;

// The time between frames a stream asks for, but never shorter than the shortest.
inline int64_t frameIntervalNs(const FrameInterval& interval) {
    const int64_t requested =
        interval.timescale > 0 ? interval.value * 1'000'000'000 / interval.timescale : 0;
    return std::max(requested, kShortestFrameIntervalNs);
}

// A source side scaled to pixels, taken as the movie's side where it is one pixel more (the
// movie is rounded down to even) rather than resampled.
inline int fittedToMovie(int pixels, long long movie) {
    return pixels - movie == 1 ? static_cast<int>(movie) : pixels;
}

// The CPU seconds the calling thread has used.
inline double threadCpuSeconds() {
    timespec cpu{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
    return static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) / 1e9;
}
