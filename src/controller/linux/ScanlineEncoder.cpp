#include "controller/linux/ScanlineEncoder.h"

#include <libdeflate.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

namespace {

// Fastest level: on desktop content it is within a few per cent of the higher levels'
// size at a fraction of their time.
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

    // Bits past the end read as zeros; overran() tells.
    std::uint32_t peek(int count) {
        refill();
        return static_cast<std::uint32_t>(buffer_ & ((std::uint64_t{1} << count) - 1));
    }
    // Only after a peek of at least `count` bits.
    void skip(int count) {
        buffer_ >>= count;
        available_ -= count;
    }
    std::uint32_t read(int count) {
        const std::uint32_t value = peek(count);
        skip(count);
        return value;
    }
    void alignToByte() {
        refill();
        skip(available_ & 7);
    }
    // Only when aligned to a byte.
    void skipBytes(std::size_t count) {
        next_ = bitPosition() / 8 + count;
        buffer_ = 0;
        available_ = 0;
    }
    std::size_t bitPosition() const { return next_ * 8 - static_cast<std::size_t>(available_); }
    bool overran() const { return bitPosition() > size_ * 8; }

private:
    void refill() {
        while (available_ <= 56) {
            const std::uint64_t byte = next_ < size_ ? data_[next_] : 0;
            buffer_ |= byte << available_;
            ++next_;
            available_ += 8;
        }
    }

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

    // The next symbol, or -1 for a code that is not in the table.
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
    const int literalCount = static_cast<int>(in.read(5)) + 257;
    const int distanceCount = static_cast<int>(in.read(5)) + 1;
    const int precodeCount = static_cast<int>(in.read(4)) + 4;
    std::array<unsigned char, 19> precodeLengths{};
    for (int i = 0; i < precodeCount; ++i)
        precodeLengths[kPrecodeOrder[i]] = static_cast<unsigned char>(in.read(3));
    HuffmanDecoder precode;
    if (!precode.build(precodeLengths.data(), 19))
        return false;
    std::array<unsigned char, 320> lengths{};
    const int total = literalCount + distanceCount;
    for (int n = 0; n < total;) {
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
        const std::size_t headerBit = in.bitPosition();
        const bool isFinal = in.read(1) != 0;
        const std::uint32_t type = in.read(2);
        bool valid = false;
        if (type == 0) {
            in.alignToByte();
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

// Makes a complete raw deflate stream continuable, as a sync flush would have left it.
bool openFinalBlock(std::vector<unsigned char>& stream) {
    const auto last = locateFinalBlock(stream.data(), stream.size());
    if (!last)
        return false;
    stream[last->headerBit / 8] &= static_cast<unsigned char>(~(1u << (last->headerBit % 8)));
    // An empty stored block: three zero header bits, zero padding to the byte, LEN, NLEN.
    stream.resize((last->endBit + 3 + 7) / 8, 0);
    const std::size_t endByte = last->endBit / 8;
    stream[endByte] &= static_cast<unsigned char>((1u << (last->endBit % 8)) - 1);
    std::fill(stream.begin() + static_cast<std::ptrdiff_t>(endByte) + 1, stream.end(), 0);
    stream.insert(stream.end(), {0x00, 0x00, 0xff, 0xff});
    return true;
}

// ---- Bands ----------------------------------------------------------------------------

void filterRow(const unsigned char* bgrx, const unsigned char* above, int width,
               unsigned char* out) {
    *out++ = ScanlineEncoder::kRowFilter;
    if (above == nullptr) {
        for (int x = 0; x < width; ++x, bgrx += 4, out += 3) {
            out[0] = bgrx[2];
            out[1] = bgrx[1];
            out[2] = bgrx[0];
        }
        return;
    }
    for (int x = 0; x < width; ++x, bgrx += 4, above += 4, out += 3) {
        out[0] = static_cast<unsigned char>(bgrx[2] - above[2]);
        out[1] = static_cast<unsigned char>(bgrx[1] - above[1]);
        out[2] = static_cast<unsigned char>(bgrx[0] - above[0]);
    }
}

struct Band {
    int firstRow = 0;
    int endRow = 0;
    bool isLast = false;
    std::vector<unsigned char> deflated;
    std::uint32_t adler = 1;
    std::size_t filteredSize = 0;
    bool ok = false;
};

void compressBand(const Image& image, Band& band) noexcept try {
    const std::size_t rowSize = 1 + 3 * static_cast<std::size_t>(image.width);
    std::vector<unsigned char> filtered(rowSize *
                                        static_cast<std::size_t>(band.endRow - band.firstRow));
    for (int y = band.firstRow; y < band.endRow; ++y)
        filterRow(image.row(y), y > 0 ? image.row(y - 1) : nullptr, image.width,
                  filtered.data() + rowSize * static_cast<std::size_t>(y - band.firstRow));
    band.filteredSize = filtered.size();
    band.adler = libdeflate_adler32(1, filtered.data(), filtered.size());

    const Compressor compressor(libdeflate_alloc_compressor(kCompressionLevel));
    if (!compressor)
        return;
    band.deflated.resize(libdeflate_deflate_compress_bound(compressor.get(), filtered.size()));
    const std::size_t size =
        libdeflate_deflate_compress(compressor.get(), filtered.data(), filtered.size(),
                                    band.deflated.data(), band.deflated.size());
    if (size == 0)
        return;
    band.deflated.resize(size);
    band.ok = band.isLast || openFinalBlock(band.deflated);
} catch (const std::bad_alloc&) {
    band.ok = false;
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

void appendBigEndian32(QByteArray& out, std::uint32_t value) {
    const char bytes[4] = {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                           static_cast<char>(value >> 8), static_cast<char>(value)};
    out.append(bytes, 4);
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
    std::vector<Band> bands(static_cast<std::size_t>(bandCount));
    for (int i = 0; i < bandCount; ++i) {
        Band& band = bands[static_cast<std::size_t>(i)];
        band.firstRow = static_cast<int>(static_cast<long long>(image.height) * i / bandCount);
        band.endRow = static_cast<int>(static_cast<long long>(image.height) * (i + 1) / bandCount);
        band.isLast = i == bandCount - 1;
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

    qsizetype total = 2 + 4;
    for (const Band& band : bands) {
        if (!band.ok)
            return std::nullopt;
        total += static_cast<qsizetype>(band.deflated.size());
    }
    QByteArray stream;
    stream.reserve(total);
    // zlib header: deflate with a 32 KiB window, fastest level, check bits.
    stream.append('\x78');
    stream.append('\x01');
    std::uint32_t adler = 1;
    for (const Band& band : bands) {
        stream.append(reinterpret_cast<const char*>(band.deflated.data()),
                      static_cast<qsizetype>(band.deflated.size()));
        adler = combineAdler32(adler, band.adler, band.filteredSize);
    }
    appendBigEndian32(stream, adler);
    return stream;
}
