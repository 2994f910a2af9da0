#include "controller/linux/ScanlineEncoder.h"

#include <endian.h>
#include <libdeflate.h>
#include <libyuv.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

// On desktop content levels 2 to 6 save only 5 to 7 % of the size for 10 to 60 % more time.
constexpr int kCompressionLevel = 1;
// Below this many filtered bytes per band a thread costs more than it saves.
constexpr std::size_t kMinimumBandBytes = 1 << 20;
constexpr int kMaximumBandCount = 16;

struct CompressorDeleter {
    void operator()(libdeflate_compressor* compressor) const {
        libdeflate_free_compressor(compressor);
    }
};
using Compressor = std::unique_ptr<libdeflate_compressor, CompressorDeleter>;

// ---- Finding the end of a raw deflate stream ------------------------------------------
// libdeflate always ends its output with a final block. To continue the stream after a
// band, the final block's BFINAL bit is cleared and an empty stored block appended where
// the block's last code ends; both places are found by walking the band's blocks.

class BitReader {
public:
    BitReader(const unsigned char* data, std::size_t size) : data_(data), size_(size) {}

    // Tops the buffer up to at least 56 bits, so that one code with its extra bits, or a
    // length and a distance code with theirs, can be read without another refill. Bits
    // past the end read as zeros; overran() tells.
    void refill() {
        if (next_ + 8 <= size_) {
            std::uint64_t word;
            std::memcpy(&word, data_ + next_, 8);
            buffer_ |= le64toh(word) << available_;
            next_ += static_cast<std::size_t>(63 - available_) >> 3;
            available_ |= 56;
            return;
        }
        while (available_ <= 56) {
            const std::uint64_t byte = next_ < size_ ? data_[next_] : 0;
            buffer_ |= byte << available_;
            ++next_;
            available_ += 8;
        }
    }
    // Within what the last refill provided.
    std::uint32_t peek(int count) const {
        return static_cast<std::uint32_t>(buffer_ & ((std::uint64_t{1} << count) - 1));
    }
    void skip(int count) {
        buffer_ >>= count;
        available_ -= count;
    }
    std::uint32_t read(int count) {
        const std::uint32_t value = peek(count);
        skip(count);
        return value;
    }
    void alignToByte() { skip(available_ & 7); }
    // Only when aligned to a byte.
    void skipBytes(std::size_t count) {
        next_ = bitPosition() / 8 + count;
        buffer_ = 0;
        available_ = 0;
    }
    std::size_t bitPosition() const { return next_ * 8 - static_cast<std::size_t>(available_); }
    bool overran() const { return bitPosition() > size_ * 8; }

private:
    const unsigned char* data_;
    std::size_t size_;
    std::size_t next_ = 0;
    std::uint64_t buffer_ = 0;
    int available_ = 0;
};

// A canonical Huffman code: a table for codes up to kFastBits long, a walk over the code
// lengths for the rare longer ones.
class HuffmanDecoder {
public:
    // False when the lengths over-subscribe the code space.
    bool build(const unsigned char* lengths, int count) {
        counts_.fill(0);
        for (int i = 0; i < count; ++i)
            ++counts_[lengths[i]];
        counts_[0] = 0;
        int left = 1;
        for (int length = 1; length <= kMaxBits; ++length) {
            left = (left << 1) - counts_[length];
            if (left < 0)
                return false;
        }
        std::array<int, kMaxBits + 2> offsets{};
        for (int length = 1; length <= kMaxBits; ++length)
            offsets[length + 1] = offsets[length] + counts_[length];
        for (int i = 0; i < count; ++i) {
            if (lengths[i] != 0)
                symbols_[offsets[lengths[i]]++] = static_cast<std::uint16_t>(i);
        }
        fast_.fill(0);
        int code = 0;
        int index = 0;
        for (int length = 1; length <= kFastBits; ++length) {
            for (int k = 0; k < counts_[length]; ++k, ++index, ++code) {
                const auto entry = static_cast<std::uint16_t>(symbols_[index] | length << 9);
                for (int slot = reversed(code, length); slot < (1 << kFastBits);
                     slot += 1 << length)
                    fast_[slot] = entry;
            }
            code <<= 1;
        }
        return true;
    }

    // The next symbol, or -1 for a code that is not in the table. Needs 15 bits in `in`.
    int decode(BitReader& in) const {
        const std::uint16_t entry = fast_[in.peek(kFastBits)];
        if (entry != 0) {
            in.skip(entry >> 9);
            return entry & 0x1ff;
        }
        int code = 0;
        int first = 0;
        int index = 0;
        for (int length = 1; length <= kMaxBits; ++length) {
            code |= static_cast<int>(in.read(1));
            const int count = counts_[length];
            if (code - count < first)
                return symbols_[index + (code - first)];
            index += count;
            first = (first + count) << 1;
            code <<= 1;
        }
        return -1;
    }

private:
    static constexpr int kMaxBits = 15;
    static constexpr int kFastBits = 10;

    static int reversed(int code, int length) {
        int result = 0;
        for (int i = 0; i < length; ++i, code >>= 1)
            result = (result << 1) | (code & 1);
        return result;
    }

    std::array<std::uint16_t, 1 << kFastBits> fast_{}; // symbol | length << 9
    std::array<std::uint16_t, kMaxBits + 1> counts_{};
    std::array<std::uint16_t, 288> symbols_{};
};

// Skips one block's codes up to and including its end-of-block code.
bool skipCodes(BitReader& in, const HuffmanDecoder& literals, const HuffmanDecoder& distances) {
    for (;;) {
        if (in.overran())
            return false;
        in.refill(); // 15 + 5 + 15 + 13 bits at most until the next one
        const int symbol = literals.decode(in);
        if (symbol < 0 || symbol > 285)
            return false;
        if (symbol < 256)
            continue;
        if (symbol == 256)
            return true;
        in.read(symbol < 265 || symbol == 285 ? 0 : (symbol - 261) / 4); // length extra bits
        const int distance = distances.decode(in);
        if (distance < 0 || distance > 29)
            return false;
        in.read(distance < 4 ? 0 : distance / 2 - 1); // distance extra bits
    }
}

bool readDynamicCodes(BitReader& in, HuffmanDecoder& literals, HuffmanDecoder& distances) {
    static constexpr std::array<int, 19> kPrecodeOrder = {16, 17, 18, 0, 8,  7, 9,  6, 10, 5,
                                                          11, 4,  12, 3, 13, 2, 14, 1, 15};
    in.refill();
    const int literalCount = static_cast<int>(in.read(5)) + 257;
    const int distanceCount = static_cast<int>(in.read(5)) + 1;
    const int precodeCount = static_cast<int>(in.read(4)) + 4;
    std::array<unsigned char, 19> precodeLengths{};
    for (int i = 0; i < precodeCount; ++i) {
        in.refill();
        precodeLengths[kPrecodeOrder[i]] = static_cast<unsigned char>(in.read(3));
    }
    HuffmanDecoder precode;
    if (!precode.build(precodeLengths.data(), 19))
        return false;
    std::array<unsigned char, 320> lengths{};
    const int total = literalCount + distanceCount;
    for (int n = 0; n < total;) {
        in.refill();
        const int symbol = precode.decode(in);
        if (symbol < 0 || in.overran())
            return false;
        if (symbol < 16) {
            lengths[n++] = static_cast<unsigned char>(symbol);
            continue;
        }
        unsigned char value = 0;
        int repeat = 0;
        if (symbol == 16) {
            if (n == 0)
                return false;
            value = lengths[n - 1];
            repeat = 3 + static_cast<int>(in.read(2));
        } else if (symbol == 17) {
            repeat = 3 + static_cast<int>(in.read(3));
        } else {
            repeat = 11 + static_cast<int>(in.read(7));
        }
        if (n + repeat > total)
            return false;
        std::fill_n(lengths.begin() + n, repeat, value);
        n += repeat;
    }
    return literals.build(lengths.data(), literalCount) &&
           distances.build(lengths.data() + literalCount, distanceCount);
}

struct FinalBlock {
    std::size_t headerBit = 0; // where its BFINAL bit is
    std::size_t endBit = 0;    // just after its end-of-block code
};

std::optional<FinalBlock> locateFinalBlock(const unsigned char* data, std::size_t size) {
    HuffmanDecoder fixedLiterals;
    HuffmanDecoder fixedDistances;
    {
        std::array<unsigned char, 288> lengths{};
        std::fill_n(lengths.begin(), 144, 8);
        std::fill_n(lengths.begin() + 144, 112, 9);
        std::fill_n(lengths.begin() + 256, 24, 7);
        std::fill_n(lengths.begin() + 280, 8, 8);
        fixedLiterals.build(lengths.data(), 288);
        lengths.fill(5);
        fixedDistances.build(lengths.data(), 30);
    }
    HuffmanDecoder literals;
    HuffmanDecoder distances;
    BitReader in(data, size);
    for (;;) {
        in.refill();
        const std::size_t headerBit = in.bitPosition();
        const bool isFinal = in.read(1) != 0;
        const std::uint32_t type = in.read(2);
        bool valid = false;
        if (type == 0) {
            in.alignToByte();
            in.refill();
            const std::uint32_t length = in.read(16);
            const std::uint32_t complement = in.read(16);
            valid = length == (~complement & 0xffff);
            in.skipBytes(length);
        } else if (type == 1) {
            valid = skipCodes(in, fixedLiterals, fixedDistances);
        } else if (type == 2) {
            valid = readDynamicCodes(in, literals, distances) && skipCodes(in, literals, distances);
        }
        if (!valid || in.overran())
            return std::nullopt;
        if (isFinal)
            return FinalBlock{headerBit, in.bitPosition()};
    }
}

// An empty stored block after a band can take up to one byte more than the band's own
// padding, plus LEN and NLEN.
constexpr std::size_t kSyncFlushBytes = 5;

// Makes the complete raw deflate stream of `size` bytes at `stream` continuable, as a sync
// flush would have left it; the buffer must have kSyncFlushBytes to spare. Returns the new
// size, 0 when the stream could not be read.
std::size_t openFinalBlock(unsigned char* stream, std::size_t size) {
    const auto last = locateFinalBlock(stream, size);
    if (!last)
        return 0;
    stream[last->headerBit / 8] &= static_cast<unsigned char>(~(1u << (last->headerBit % 8)));
    // Three zero header bits, zero padding to the byte, then LEN 0 and NLEN 0xffff.
    const std::size_t endByte = last->endBit / 8;
    const std::size_t paddedEnd = (last->endBit + 3 + 7) / 8;
    stream[endByte] &= static_cast<unsigned char>((1u << (last->endBit % 8)) - 1);
    std::fill(stream + endByte + 1, stream + paddedEnd, 0);
    const unsigned char lengths[4] = {0x00, 0x00, 0xff, 0xff};
    std::copy(lengths, lengths + 4, stream + paddedEnd);
    return paddedEnd + 4;
}

// ---- Bands ----------------------------------------------------------------------------

// out = row - above, byte by byte modulo 256, eight bytes at a time.
void subtractRow(const unsigned char* row, const unsigned char* above, unsigned char* out,
                 std::size_t size) {
    constexpr std::uint64_t kHigh = 0x8080808080808080;
    std::size_t i = 0;
    for (; i + 8 <= size; i += 8) {
        std::uint64_t a;
        std::uint64_t b;
        std::memcpy(&a, row + i, 8);
        std::memcpy(&b, above + i, 8);
        const std::uint64_t difference = ((a | kHigh) - (b & ~kHigh)) ^ ((a ^ ~b) & kHigh);
        std::memcpy(out + i, &difference, 8);
    }
    for (; i < size; ++i)
        out[i] = static_cast<unsigned char>(row[i] - above[i]);
}

// Rows are filtered and compressed a piece at a time, each piece continuing the stream
// like a band: the filtered bytes are still in the cache when compressed, and no band-sized
// buffer has fresh pages to fault in on every snapshot (a fifth of the time at 4K).
constexpr std::size_t kPieceBytes = 1 << 20;

int rowsPerPiece(std::size_t rowSize) {
    return static_cast<int>(std::max<std::size_t>(1, kPieceBytes / rowSize));
}

// Room for `rows` rows compressed piece by piece, each piece left continuable.
std::size_t bandCapacity(int rows, std::size_t rowSize) {
    const int pieceRows = rowsPerPiece(rowSize);
    std::size_t capacity = 0;
    for (int done = 0; done < rows; done += pieceRows) {
        const auto pieceSize = rowSize * static_cast<std::size_t>(std::min(pieceRows, rows - done));
        capacity += libdeflate_deflate_compress_bound(nullptr, pieceSize) + kSyncFlushBytes;
    }
    return capacity;
}

struct Band {
    int firstRow = 0;
    int endRow = 0;
    bool isLast = false;
    std::size_t filteredSize = 0;
    std::uint32_t adler = 1;
    unsigned char* out = nullptr; // its place in the joined stream
    std::size_t capacity = 0;
    std::size_t size = 0; // 0 until compressed
};

void compressBand(const Image& image, Band& band) noexcept try {
    const std::size_t rowSize = 1 + 3 * static_cast<std::size_t>(image.width);
    const int pieceRows = rowsPerPiece(rowSize);
    const std::unique_ptr<unsigned char[]> filtered(
        new unsigned char[rowSize * static_cast<std::size_t>(
                                        std::min(pieceRows, band.endRow - band.firstRow))]);
    // Each row in R, G, B order, beside the row above it (zeros above the first).
    const std::size_t rgbSize = rowSize - 1;
    const std::unique_ptr<unsigned char[]> rgbRows(new unsigned char[2 * rgbSize]);
    unsigned char* above = rgbRows.get();
    unsigned char* current = above + rgbSize;
    if (band.firstRow > 0)
        libyuv::ARGBToRAW(image.row(band.firstRow - 1), image.bytesPerRow, above,
                          static_cast<int>(rgbSize), image.width, 1);
    else
        std::fill_n(above, rgbSize, 0);

    const Compressor compressor(libdeflate_alloc_compressor(kCompressionLevel));
    if (!compressor)
        return;
    std::uint32_t adler = 1;
    std::size_t written = 0;
    for (int first = band.firstRow; first < band.endRow; first += pieceRows) {
        const int end = std::min(first + pieceRows, band.endRow);
        for (int y = first; y < end; ++y) {
            unsigned char* out = filtered.get() + rowSize * static_cast<std::size_t>(y - first);
            libyuv::ARGBToRAW(image.row(y), image.bytesPerRow, current, static_cast<int>(rgbSize),
                              image.width, 1);
            out[0] = ScanlineEncoder::kRowFilter;
            subtractRow(current, above, out + 1, rgbSize);
            std::swap(above, current);
        }
        const std::size_t pieceSize = rowSize * static_cast<std::size_t>(end - first);
        adler = libdeflate_adler32(adler, filtered.get(), pieceSize);
        unsigned char* out = band.out + written;
        const std::size_t size =
            libdeflate_deflate_compress(compressor.get(), filtered.get(), pieceSize, out,
                                        band.capacity - written - kSyncFlushBytes);
        const bool endsStream = band.isLast && end == band.endRow;
        const std::size_t kept = endsStream || size == 0 ? size : openFinalBlock(out, size);
        if (kept == 0)
            return;
        written += kept;
    }
    band.adler = adler;
    band.size = written;
} catch (const std::bad_alloc&) {
    band.size = 0;
}

// The Adler-32 of two pieces joined, from each piece's checksum and the second's length.
std::uint32_t combineAdler32(std::uint32_t first, std::uint32_t second, std::size_t secondLength) {
    constexpr std::uint64_t kModulus = 65521;
    const std::uint64_t length = secondLength % kModulus;
    const std::uint64_t firstLow = first & 0xffff;
    const std::uint64_t sumLow = (firstLow + (second & 0xffff) + kModulus - 1) % kModulus;
    const std::uint64_t sumHigh =
        ((first >> 16) + (second >> 16) + length * firstLow + kModulus - length) % kModulus;
    return static_cast<std::uint32_t>(sumHigh << 16 | sumLow);
}

} // namespace

std::optional<QByteArray> ScanlineEncoder::encode(const Image& image) {
    const std::size_t filteredBytes = (1 + 3 * static_cast<std::size_t>(std::max(image.width, 0))) *
                                      static_cast<std::size_t>(std::max(image.height, 0));
    const int threads = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
    const auto bySize = static_cast<int>(
        std::min<std::size_t>(filteredBytes / kMinimumBandBytes, kMaximumBandCount));
    return encode(image, std::clamp(std::min(threads, bySize), 1, kMaximumBandCount));
}

std::optional<QByteArray> ScanlineEncoder::encode(const Image& image, int bandCount) {
    if (image.isNull() || bandCount < 1)
        return std::nullopt;
    bandCount = std::min(bandCount, image.height);
    const std::size_t rowSize = 1 + 3 * static_cast<std::size_t>(image.width);
    std::vector<Band> bands(static_cast<std::size_t>(bandCount));
    std::size_t capacity = 2 + 4; // zlib header and checksum
    for (int i = 0; i < bandCount; ++i) {
        Band& band = bands[static_cast<std::size_t>(i)];
        band.firstRow = static_cast<int>(static_cast<long long>(image.height) * i / bandCount);
        band.endRow = static_cast<int>(static_cast<long long>(image.height) * (i + 1) / bandCount);
        band.isLast = i == bandCount - 1;
        band.filteredSize = rowSize * static_cast<std::size_t>(band.endRow - band.firstRow);
        band.capacity = bandCapacity(band.endRow - band.firstRow, rowSize);
        capacity += band.capacity;
    }
    // Each band compresses into its own stretch of the result; the stretches are closed up
    // afterwards. Pages beyond each band's real size are never touched.
    QByteArray stream(static_cast<qsizetype>(capacity), Qt::Uninitialized);
    auto* out = reinterpret_cast<unsigned char*>(stream.data()) + 2;
    for (Band& band : bands) {
        band.out = out;
        out += band.capacity;
    }
    {
        std::vector<std::jthread> helpers;
        helpers.reserve(bands.size() - 1);
        for (std::size_t i = 1; i < bands.size(); ++i) {
            try {
                helpers.emplace_back([&image, &band = bands[i]] { compressBand(image, band); });
            } catch (const std::system_error&) {
                compressBand(image, bands[i]);
            }
        }
        compressBand(image, bands.front());
    }

    // zlib header: deflate with a 32 KiB window, fastest level, check bits.
    stream[0] = '\x78';
    stream[1] = '\x01';
    auto* end = reinterpret_cast<unsigned char*>(stream.data()) + 2;
    std::uint32_t adler = 1;
    for (const Band& band : bands) {
        if (band.size == 0)
            return std::nullopt;
        std::memmove(end, band.out, band.size); // down, onto the previous band's spare room
        end += band.size;
        adler = combineAdler32(adler, band.adler, band.filteredSize);
    }
    for (int shift = 24; shift >= 0; shift -= 8)
        *end++ = static_cast<unsigned char>(adler >> shift);
    stream.truncate(end - reinterpret_cast<unsigned char*>(stream.data()));
    return stream;
}
