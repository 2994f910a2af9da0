#include "capture/linux/FfmpegLog.h"

extern "C" {
#include <libavutil/log.h>
}

#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

namespace {

// A few lines explain a failure; a flood of them would only grow.
constexpr size_t kKeptErrorBytes = 1024;

thread_local std::string errorsOfThisThread;

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
    if (text.empty() || errorsOfThisThread.size() + text.size() > kKeptErrorBytes) {
        return;
    }
    if (!errorsOfThisThread.empty()) {
        errorsOfThisThread += "; ";
    }
    errorsOfThisThread += text;
}

} // namespace

void routeFfmpegLog() {
    static std::once_flag routed;
    std::call_once(routed, [] { av_log_set_callback(keepErrors); });
}

QString takeFfmpegErrors() {
    std::string taken;
    taken.swap(errorsOfThisThread);
    return QString::fromUtf8(taken.c_str());
}
