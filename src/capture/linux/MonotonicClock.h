#pragma once

#include <chrono>
#include <cstdint>

// The one clock that capture times come from, so that sound and pictures share a time line.
inline int64_t monotonicNowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
