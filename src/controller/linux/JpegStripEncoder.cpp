#include "controller/linux/JpegStripEncoder.h"

// jpeglib.h needs FILE and size_t declared before it.
#include <cstddef>
#include <cstdio>

#include <jpeglib.h>

#include <algorithm>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <thread>
#include <vector>

namespace {

// Rows of blocks at 4:2:0: 16 pixel rows.
constexpr int kBlockRowHeight = 16;
// Below this many pixels per strip a thread costs more than it saves.
constexpr long long kMinimumStripPixels = 1 << 20;
constexpr int kMaximumStripCount = 16;

constexpr unsigned char kMarker = 0xff;
constexpr unsigned char kFirstRestart = 0xd0;
constexpr unsigned char kStartOfFrame = 0xc0;
constexpr unsigned char kStartOfScan = 0xda;
constexpr std::size_t kEndOfImageSize = 2;

struct ErrorJump {
    jpeg_error_mgr manager{};
    std::jmp_buf jump{};
};

// libjpeg's default reaction to an error ends the process.
[[noreturn]] void jumpOut(j_common_ptr info) {
    std::longjmp(reinterpret_cast<ErrorJump*>(info->err)->jump, 1);
}

struct Strip {
    int firstRow = 0;
    int endRow = 0;
    unsigned char* jpeg = nullptr; // a whole JPEG of the strip's rows, malloc'd by libjpeg
    unsigned long size = 0;
};

// Everything touched after setjmp lives outside this function's frame, so a longjmp leaves
// nothing to destroy and nothing to reload.
void compressStrip(const Image& image, int quality, Strip& strip,
                   std::vector<JSAMPROW>& rows) noexcept {
    jpeg_compress_struct info{};
    ErrorJump error;
    info.err = jpeg_std_error(&error.manager);
    error.manager.error_exit = jumpOut;
    if (setjmp(error.jump) != 0) {
        jpeg_destroy_compress(&info);
        std::free(strip.jpeg);
        strip.jpeg = nullptr;
        strip.size = 0;
        return;
    }
    jpeg_create_compress(&info);
    jpeg_mem_dest(&info, &strip.jpeg, &strip.size);
    info.image_width = static_cast<JDIMENSION>(image.width);
    info.image_height = static_cast<JDIMENSION>(strip.endRow - strip.firstRow);
    info.input_components = 4;
    info.in_color_space = JCS_EXT_BGRX;
    jpeg_set_defaults(&info); // YCbCr at 4:2:0, accurate integer DCT
    jpeg_set_quality(&info, quality, TRUE);
    info.restart_in_rows = 1;
    jpeg_start_compress(&info, TRUE);
    for (int y = strip.firstRow; y < strip.endRow; ++y)
        rows[static_cast<std::size_t>(y - strip.firstRow)] = const_cast<JSAMPROW>(image.row(y));
    while (info.next_scanline < info.image_height)
        jpeg_write_scanlines(&info, rows.data() + info.next_scanline,
                             info.image_height - info.next_scanline);
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
}

// Where the scan's entropy-coded data begins: just after the start-of-scan segment. 0 when
// the headers cannot be walked. `frameHeight` is set to the offset of the frame's height.
std::size_t scanStart(const unsigned char* jpeg, std::size_t size, std::size_t* frameHeight) {
    std::size_t at = 2; // after the start-of-image marker
    while (at + 4 <= size && jpeg[at] == kMarker) {
        const unsigned char type = jpeg[at + 1];
        const std::size_t length = std::size_t{jpeg[at + 2]} << 8 | jpeg[at + 3];
        if (type == kStartOfFrame && frameHeight != nullptr)
            *frameHeight = at + 5; // marker, length, precision
        at += 2 + length;
        if (type == kStartOfScan)
            return at <= size ? at : 0;
    }
    return 0;
}

} // namespace

std::optional<QByteArray> JpegStripEncoder::encode(const Image& image, int quality) {
    const long long pixels = static_cast<long long>(std::max(image.width, 0)) *
                             static_cast<long long>(std::max(image.height, 0));
    const int threads = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
    const auto bySize =
        static_cast<int>(std::min<long long>(pixels / kMinimumStripPixels, kMaximumStripCount));
    return encode(image, quality, std::clamp(std::min(threads, bySize), 1, kMaximumStripCount));
}

std::optional<QByteArray> JpegStripEncoder::encode(const Image& image, int quality,
                                                   int stripCount) {
    if (image.isNull() || stripCount < 1 || image.height > 0xffff || image.width > 0xffff)
        return std::nullopt;
    const int blockRows = (image.height + kBlockRowHeight - 1) / kBlockRowHeight;
    stripCount = std::min(stripCount, blockRows);
    std::vector<Strip> strips(static_cast<std::size_t>(stripCount));
    std::vector<std::vector<JSAMPROW>> rowPointers(strips.size());
    for (int i = 0; i < stripCount; ++i) {
        Strip& strip = strips[static_cast<std::size_t>(i)];
        strip.firstRow = blockRows * i / stripCount * kBlockRowHeight;
        strip.endRow = std::min(blockRows * (i + 1) / stripCount * kBlockRowHeight, image.height);
        rowPointers[static_cast<std::size_t>(i)].resize(
            static_cast<std::size_t>(strip.endRow - strip.firstRow));
    }
    {
        std::vector<std::jthread> helpers;
        helpers.reserve(strips.size() - 1);
        for (std::size_t i = 1; i < strips.size(); ++i) {
            try {
                helpers.emplace_back([&image, quality, &strip = strips[i], &rows = rowPointers[i]] {
                    compressStrip(image, quality, strip, rows);
                });
            } catch (const std::system_error&) {
                compressStrip(image, quality, strips[i], rowPointers[i]);
            }
        }
        compressStrip(image, quality, strips.front(), rowPointers.front());
    }

    // The first strip's headers with the whole height, then each strip's scan, a restart
    // marker between two, the markers numbered on through the whole image.
    QByteArray jpeg;
    bool joined = true;
    int restartsBefore = 0;
    for (const Strip& strip : strips) {
        const unsigned char* data = strip.jpeg;
        std::size_t frameHeight = 0;
        const std::size_t start =
            data != nullptr ? scanStart(data, strip.size, &frameHeight) : std::size_t{0};
        if (start == 0 || frameHeight == 0 || start + kEndOfImageSize > strip.size) {
            joined = false;
            break;
        }
        const std::size_t scanEnd = strip.size - kEndOfImageSize;
        if (&strip == &strips.front()) {
            jpeg.reserve(static_cast<qsizetype>(strip.size) * stripCount + 2 * blockRows);
            jpeg.append(reinterpret_cast<const char*>(data), static_cast<qsizetype>(scanEnd));
            jpeg[static_cast<qsizetype>(frameHeight)] = static_cast<char>(image.height >> 8);
            jpeg[static_cast<qsizetype>(frameHeight) + 1] = static_cast<char>(image.height);
        } else {
            const char restart[2] = {static_cast<char>(kMarker),
                                     static_cast<char>(kFirstRestart + (restartsBefore - 1) % 8)};
            jpeg.append(restart, 2);
            const qsizetype first = jpeg.size();
            jpeg.append(reinterpret_cast<const char*>(data) + start,
                        static_cast<qsizetype>(scanEnd - start));
            // In the scan a marker byte is followed by a stuffed zero or a restart number.
            auto* scan = reinterpret_cast<unsigned char*>(jpeg.data());
            for (qsizetype at = first; at + 1 < jpeg.size(); ++at) {
                if (scan[at] == kMarker && (scan[at + 1] & 0xf8) == kFirstRestart) {
                    scan[at + 1] = static_cast<unsigned char>(
                        kFirstRestart + (scan[at + 1] - kFirstRestart + restartsBefore) % 8);
                    ++at;
                }
            }
        }
        restartsBefore += (strip.endRow - strip.firstRow + kBlockRowHeight - 1) / kBlockRowHeight;
    }
    for (Strip& strip : strips)
        std::free(strip.jpeg);
    if (!joined)
        return std::nullopt;
    jpeg.append("\xff\xd9", 2);
    return jpeg;
}
