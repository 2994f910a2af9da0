#include "capture/OutputDisplayNumber.h"

#include <QByteArray>
#include <QString>

uint32_t outputDisplayNumber(QStringView outputName) {
    // 32-bit FNV-1a over the name's UTF-8 bytes: well spread for the short names compositors
    // give, and the same on every machine and in every process.
    constexpr uint32_t offsetBasis = 2166136261U;
    constexpr uint32_t prime = 16777619U;
    uint32_t hash = offsetBasis;
    for (const char byte : outputName.toUtf8()) {
        hash ^= static_cast<uint8_t>(byte);
        hash *= prime;
    }
    return hash != 0 ? hash : prime;
}
