#include "controller/linux/LinuxSnapshotEncoders.h"

#include "controller/linux/JpegStripEncoder.h"
#include "controller/linux/ScanlineEncoder.h"

#include <QFile>

#include <libdeflate.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>

namespace {

void appendBigEndian32(QByteArray& out, std::uint32_t value) {
    const char bytes[4] = {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                           static_cast<char>(value >> 8), static_cast<char>(value)};
    out.append(bytes, 4);
}

void appendPngChunk(QByteArray& png, const char (&type)[5], const char* data, qsizetype size) {
    appendBigEndian32(png, static_cast<std::uint32_t>(size));
    png.append(type, 4);
    png.append(data, size);
    const std::uint32_t crc = libdeflate_crc32(0, png.constData() + png.size() - size - 4,
                                               static_cast<std::size_t>(size) + 4);
    appendBigEndian32(png, crc);
}

// A PDF number: integers as they are, other values in plain decimal (PDF has no exponents).
QByteArray pdfNumber(double value) {
    if (value == std::floor(value) && std::fabs(value) < 1e15)
        return QByteArray::number(static_cast<qint64>(value));
    QByteArray text = QByteArray::number(value, 'f', 4);
    while (text.endsWith('0'))
        text.chop(1);
    if (text.endsWith('.'))
        text.chop(1);
    return text;
}

// Writes the objects of a PDF one after the other and keeps their offsets for the
// cross-reference table. Objects are numbered from 1 in the order they are begun.
class PdfFileWriter {
public:
    explicit PdfFileWriter(QFile& file) : file_(file) {}

    void write(const QByteArray& bytes) {
        if (ok_)
            ok_ = file_.write(bytes) == bytes.size();
        offset_ += bytes.size();
    }
    void beginObject() {
        offsets_.push_back(offset_);
        write(QByteArray::number(offsets_.size()) + " 0 obj\n");
    }
    void writeObject(const QByteArray& body) {
        beginObject();
        write(body + "\nendobj\n");
    }
    void writeStreamObject(const QByteArray& dictionary, const QByteArray& data) {
        beginObject();
        write("<< " + dictionary + " /Length " + QByteArray::number(data.size()) + " >>\nstream\n");
        write(data);
        write("\nendstream\nendobj\n");
    }
    // The cross-reference table and the trailer; true when every byte reached the file.
    bool finish(int rootObject) {
        const qint64 xref = offset_;
        write("xref\n0 " + QByteArray::number(offsets_.size() + 1) + "\n0000000000 65535 f \n");
        for (const qint64 offset : offsets_)
            write(QByteArray::number(offset).rightJustified(10, '0') + " 00000 n \n");
        write("trailer\n<< /Size " + QByteArray::number(offsets_.size() + 1) + " /Root " +
              QByteArray::number(rootObject) + " 0 R >>\nstartxref\n" + QByteArray::number(xref) +
              "\n%%EOF\n");
        return ok_ && file_.flush();
    }

private:
    QFile& file_;
    qint64 offset_ = 0;
    QList<qint64> offsets_;
    bool ok_ = true;
};

} // namespace

bool LinuxSnapshotEncoders::holdsPixels(const Image& image) {
    return !image.isNull() && image.bytesPerRow >= 4LL * image.width &&
           image.pixels.size() >=
               static_cast<qsizetype>(image.bytesPerRow) * (image.height - 1) + 4LL * image.width;
}

std::optional<QByteArray> LinuxSnapshotEncoders::encodePNG(const Image& image) {
    if (!holdsPixels(image))
        return std::nullopt;
    const auto idat = ScanlineEncoder::encode(image);
    if (!idat)
        return std::nullopt;
    // A chunk's length field is below 2^31.
    constexpr qsizetype kMaxChunk = qsizetype{1} << 30;
    QByteArray png;
    png.reserve(8 + 25 + idat->size() + 12 * (idat->size() / kMaxChunk + 1) + 12);
    png.append("\x89PNG\r\n\x1a\n", 8);
    QByteArray header;
    appendBigEndian32(header, static_cast<std::uint32_t>(image.width));
    appendBigEndian32(header, static_cast<std::uint32_t>(image.height));
    // 8 bits, truecolour, deflate, the one filter method, no interlace.
    header.append("\x08\x02\x00\x00\x00", 5);
    appendPngChunk(png, "IHDR", header.constData(), header.size());
    for (qsizetype at = 0; at < idat->size(); at += kMaxChunk)
        appendPngChunk(png, "IDAT", idat->constData() + at, std::min(kMaxChunk, idat->size() - at));
    appendPngChunk(png, "IEND", nullptr, 0);
    return png;
}

std::optional<QByteArray> LinuxSnapshotEncoders::encodeJPEG(const Image& image, double quality) {
    if (!holdsPixels(image) || !std::isfinite(quality))
        return std::nullopt;
    const int hundredths = std::clamp(static_cast<int>(std::lround(quality * 100)), 1, 100);
    // 4:2:0 chroma, as libjpeg's own default: at quality 92, 4:4:4 made a 4K desktop's file
    // 16 % larger and took half again as long, for colour fringes few would notice.
    return JpegStripEncoder::encode(image, hundredths);
}

bool LinuxSnapshotEncoders::writePDF(const Image& image, const QUrl& url, const Size& mediaBox) {
    if (!holdsPixels(image) || !url.isLocalFile() || !std::isfinite(mediaBox.width) ||
        !std::isfinite(mediaBox.height) || mediaBox.width <= 0 || mediaBox.height <= 0)
        return false;
    QFile file(url.toLocalFile());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    const auto pixels = ScanlineEncoder::encode(image);
    if (!pixels)
        return false;

    const QByteArray width = QByteArray::number(image.width);
    const QByteArray height = QByteArray::number(image.height);
    const QByteArray pageWidth = pdfNumber(mediaBox.width);
    const QByteArray pageHeight = pdfNumber(mediaBox.height);
    PdfFileWriter pdf(file);
    // A binary comment line tells transfer tools the file is not text.
    pdf.write("%PDF-1.4\n%\xe2\xe3\xcf\xd3\n");
    pdf.writeObject("<< /Type /Catalog /Pages 2 0 R >>");
    pdf.writeObject("<< /Type /Pages /Kids [3 0 R] /Count 1 >>");
    pdf.writeObject("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 " + pageWidth + " " + pageHeight +
                    "] /Resources << /XObject << /Im0 4 0 R >> >> /Contents 5 0 R >>");
    pdf.writeStreamObject("/Type /XObject /Subtype /Image /Width " + width + " /Height " + height +
                              " /ColorSpace /DeviceRGB /BitsPerComponent 8 /Filter /FlateDecode "
                              "/DecodeParms << /Predictor 15 /Colors 3 /BitsPerComponent 8 "
                              "/Columns " +
                              width + " >>",
                          *pixels);
    // The image space is the unit square: scale it to the page.
    pdf.writeStreamObject({}, "q " + pageWidth + " 0 0 " + pageHeight + " 0 0 cm /Im0 Do Q");
    return pdf.finish(1);
}
