#include "capture/linux/FfmpegLog.h"

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace {

// A few lines explain a failure; a flood of them would only grow.
constexpr size_t kKeptErrorBytes = 1024;

// Trivially destructible: a thread-local with a destructor would keep the module holding it
// loaded until every thread that logged has ended.
struct KeptErrors {
    std::array<char, kKeptErrorBytes> text;
    size_t size;
};
thread_local KeptErrors errorsOfThisThread;

void keepErrors(void* context, int level, const char* format, va_list arguments) {
    if (level > AV_LOG_ERROR) {
        return;
    }
    std::array<char, 512> line{};
    std::vsnprintf(line.data(), line.size(), format, arguments);
    // Named by the component that logged it ("aac: ..."), without FFmpeg's pointer prefix.
    const AVClass* component = context ? *static_cast<AVClass**>(context) : nullptr;
    std::string text = component ? std::string(component->item_name(context)) + ": " : "";
    text += line.data();
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    KeptErrors& kept = errorsOfThisThread;
    const std::string_view separator = kept.size > 0 ? "; " : "";
    if (text.empty() || kept.size + separator.size() + text.size() > kept.text.size()) {
        return;
    }
    auto end = std::copy(separator.begin(), separator.end(), kept.text.begin() + kept.size);
    end = std::copy(text.begin(), text.end(), end);
    kept.size = static_cast<size_t>(end - kept.text.begin());
}

} // namespace

void routeFfmpegLog() {
    static std::once_flag routed;
    std::call_once(routed, [] { av_log_set_callback(keepErrors); });
}

QString takeFfmpegErrors() {
    KeptErrors& kept = errorsOfThisThread;
    return QString::fromUtf8(kept.text.data(), static_cast<qsizetype>(std::exchange(kept.size, 0)));
}
