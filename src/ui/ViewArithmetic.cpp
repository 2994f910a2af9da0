#include "ui/ViewArithmetic.h"

#include <QtGlobal>

#include <cmath>
#include <cstdint>

QString duration(double seconds) {
    // 2^63 is exactly representable; anything at or beyond it does not fit.
    constexpr double limit = 9223372036854775808.0;
    if (!std::isfinite(seconds) || seconds >= limit || seconds < -limit) {
        qFatal("duration: %f seconds cannot be shown", seconds);
    }
    const auto total = static_cast<int64_t>(seconds);
    return QString::asprintf("%02lld:%02lld:%02lld", static_cast<long long>(total / 3600),
                             static_cast<long long>((total / 60) % 60),
                             static_cast<long long>(total % 60));
}

bool MeterBars::isLit(int index, double level) {
    return static_cast<double>(index) / count < level;
}

int MeterBars::litCount(double level) {
    int lit = 0;
    for (int i = 0; i < count; ++i) {
        lit += isLit(i, level) ? 1 : 0;
    }
    return lit;
}

double MeterBars::height(int index) {
    return 16 + 2 * (index % 9);
}

double MeterBars::hue(int index) {
    return 0.36 - 0.014 * index;
}

Size PanelSize::content(TessarelMode mode) {
    switch (mode) {
    case TessarelMode::home:
        return home;
    case TessarelMode::audioSetup:
    case TessarelMode::videoSetup:
    case TessarelMode::snapshotSetup:
        return setup;
    case TessarelMode::recordingAudio:
        return audioProgress;
    case TessarelMode::recordingVideo:
        return videoProgress;
    }
    return home;
}

Size PanelSize::minimum(TessarelMode mode) {
    return mode == TessarelMode::home ? homeMinimum : content(mode);
}
