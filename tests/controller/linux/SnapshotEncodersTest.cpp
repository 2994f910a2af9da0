#include "DesktopPattern.h"

#include "controller/linux/JpegStripEncoder.h"
#include "controller/linux/LinuxSnapshotEncoders.h"
#include "controller/linux/ScanlineEncoder.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <libdeflate.h>

#include <cmath>
#include <unistd.h>

using desktop_pattern::desktopLike;
using desktop_pattern::noise;
using desktop_pattern::rgbOf;

namespace {

struct ToolOutput {
    int exitCode = -1;
    QByteArray output;
};

// Runs an outside tool to completion; its standard output is the answer.
ToolOutput run(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), process.readAllStandardOutput()};
}

QString write(const QTemporaryDir& dir, const QString& name, const QByteArray& data) {
    const QString path = dir.filePath(name);
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(data);
    return path;
}

QByteArray rgbOf(const QImage& decoded) {
    const QImage rgb = decoded.convertToFormat(QImage::Format_RGB888);
    QByteArray bytes;
    for (int y = 0; y < rgb.height(); ++y)
        bytes.append(reinterpret_cast<const char*>(rgb.constScanLine(y)), 3LL * rgb.width());
    return bytes;
}

// R, G, B of every pixel as ImageMagick decodes the file.
QByteArray rgbThroughImageMagick(const QString& path) {
    const ToolOutput decoded = run("convert", {path, "-depth", "8", "rgb:-"});
    EXPECT_EQ(decoded.exitCode, 0);
    return decoded.output;
}

QString identify(const QString& path, const QString& format) {
    const ToolOutput answer = run("identify", {"-format", format, path});
    EXPECT_EQ(answer.exitCode, 0);
    return QString::fromUtf8(answer.output).trimmed();
}

QString pdfInfoLine(const QString& path, const QString& key) {
    const ToolOutput info = run("pdfinfo", {path});
    EXPECT_EQ(info.exitCode, 0);
    for (const QString& line : QString::fromUtf8(info.output).split('\n'))
        if (line.startsWith(key + ":"))
            return line.mid(key.size() + 1).simplified();
    return {};
}

// The first image row of `pdfimages -list`: page num type width height color comp bpc enc...
QStringList pdfImageListing(const QString& path) {
    const ToolOutput listing = run("pdfimages", {"-list", path});
    EXPECT_EQ(listing.exitCode, 0);
    const QStringList lines = QString::fromUtf8(listing.output).split('\n');
    return lines.size() > 2 ? lines[2].simplified().split(' ') : QStringList{};
}

QUrl urlOf(const QString& path) {
    return QUrl::fromLocalFile(path);
}

Size pixelSize(const Image& image) {
    return {static_cast<double>(image.width), static_cast<double>(image.height)};
}

// Mean absolute difference per channel between two RGB buffers of the same size.
double meanDifference(const QByteArray& a, const QByteArray& b) {
    double sum = 0;
    for (qsizetype i = 0; i < a.size(); ++i)
        sum += std::abs(static_cast<unsigned char>(a[i]) - static_cast<unsigned char>(b[i]));
    return a.isEmpty() ? 0 : sum / static_cast<double>(a.size());
}

const QList<QSize> kOddSizes = {{1, 1}, {3, 7}, {1921, 1081}};

} // namespace

TEST(SnapshotEncoders, PngRoundTripsPixelExactThroughQt) {
    LinuxSnapshotEncoders encoders;
    for (const QSize size : kOddSizes) {
        SCOPED_TRACE(size.width());
        const Image image = desktopLike(size.width(), size.height());
        const auto png = encoders.encodePNG(image);
        ASSERT_TRUE(png);
        const QImage decoded = QImage::fromData(*png, "PNG");
        ASSERT_EQ(decoded.size(), size);
        EXPECT_EQ(rgbOf(decoded), rgbOf(image));
    }
}

TEST(SnapshotEncoders, PngRoundTripsPixelExactThroughImageMagick) {
    LinuxSnapshotEncoders encoders;
    QTemporaryDir dir;
    for (const QSize size : kOddSizes) {
        SCOPED_TRACE(size.width());
        const Image image = desktopLike(size.width(), size.height());
        const QString path = write(dir, "snapshot.png", *encoders.encodePNG(image));
        EXPECT_EQ(identify(path, "%m %w %h %z"),
                  QString("PNG %1 %2 8").arg(size.width()).arg(size.height()));
        EXPECT_EQ(rgbThroughImageMagick(path), rgbOf(image));
    }
}

TEST(SnapshotEncoders, PngIsEightBitRgbWithoutAlpha) {
    const auto png = LinuxSnapshotEncoders().encodePNG(desktopLike(5, 4));
    ASSERT_TRUE(png);
    // Signature, then IHDR: length 13, type, width, height, depth, colour type.
    ASSERT_GT(png->size(), 26);
    EXPECT_EQ(png->mid(12, 4), "IHDR");
    EXPECT_EQ(png->at(24), 8);
    EXPECT_EQ(png->at(25), 2);
}

TEST(SnapshotEncoders, PngIgnoresRowPaddingAndTheFourthByte) {
    const Image image = desktopLike(37, 19, 4 * 37 + 24);
    const auto png = LinuxSnapshotEncoders().encodePNG(image);
    ASSERT_TRUE(png);
    EXPECT_EQ(rgbOf(QImage::fromData(*png, "PNG")), rgbOf(image));
}

namespace {

// The image's scanline stream cut into `bands` bands decodes as one zlib stream, checksum
// included, into the image's own pixels behind the Up filter.
void expectScanlinesOf(const Image& image, int bands) {
    SCOPED_TRACE(bands);
    const std::size_t rowSize = 1 + 3 * static_cast<std::size_t>(image.width);
    const auto height = static_cast<std::size_t>(image.height);
    const auto stream = ScanlineEncoder::encode(image, bands);
    ASSERT_TRUE(stream);
    std::vector<unsigned char> rows(rowSize * height);
    libdeflate_decompressor* decompressor = libdeflate_alloc_decompressor();
    const libdeflate_result result = libdeflate_zlib_decompress(
        decompressor, stream->constData(), static_cast<std::size_t>(stream->size()), rows.data(),
        rows.size(), nullptr);
    libdeflate_free_decompressor(decompressor);
    ASSERT_EQ(result, LIBDEFLATE_SUCCESS); // also checks the joined Adler-32
    // Undo the Up filter and compare.
    QByteArray rgb;
    for (std::size_t y = 0; y < height; ++y) {
        unsigned char* row = rows.data() + y * rowSize;
        ASSERT_EQ(row[0], ScanlineEncoder::kRowFilter);
        for (std::size_t i = 1; i < rowSize; ++i) {
            if (y > 0)
                row[i] = static_cast<unsigned char>(row[i] + row[i - rowSize]);
            rgb.append(static_cast<char>(row[i]));
        }
    }
    EXPECT_EQ(rgb, rgbOf(image));
}

} // namespace

TEST(SnapshotEncoders, ScanlineBandsJoinIntoOneValidZlibStream) {
    // Noise makes stored blocks, flat rows fixed-code blocks, the desktop dynamic ones.
    Image image = noise(300, 240);
    const Image desktop = desktopLike(300, 80);
    image.pixels.replace(160 * image.bytesPerRow, desktop.pixels.size(), desktop.pixels);
    image.pixels.replace(80 * image.bytesPerRow, 80 * image.bytesPerRow,
                         QByteArray(80 * image.bytesPerRow, '\x40'));
    for (const int bands : {1, 2, 7, 240})
        expectScanlinesOf(image, bands);
}

TEST(SnapshotEncoders, BandOfSeveralMegabytesIsCompressedInPiecesThatJoinIntoOneStream) {
    // 4 MB of rows: each band is compressed a megabyte at a time. Noise at the top and
    // where pieces meet, so that no piece is one block by chance.
    Image image = desktopLike(1500, 900);
    const Image stripe = noise(1500, 300);
    for (const int row : {0, 200, 600})
        image.pixels.replace(row * image.bytesPerRow, stripe.pixels.size() / 3,
                             stripe.pixels.left(stripe.pixels.size() / 3));
    for (const int bands : {1, 2, 3})
        expectScanlinesOf(image, bands);
}

TEST(SnapshotEncoders, JpegDecodesWithTheImageSizeAndPixelsWithinJpegTolerance) {
    QTemporaryDir dir;
    const Image image = desktopLike(1921, 1081);
    const auto jpeg = LinuxSnapshotEncoders().encodeJPEG(image, 0.92);
    ASSERT_TRUE(jpeg);
    const QImage decoded = QImage::fromData(*jpeg, "JPEG");
    ASSERT_EQ(decoded.size(), QSize(1921, 1081));
    EXPECT_LT(meanDifference(rgbOf(decoded), rgbOf(image)), 3.0);
    const QString path = write(dir, "snapshot.jpg", *jpeg);
    EXPECT_EQ(identify(path, "%m %w %h"), "JPEG 1921 1081");
    EXPECT_LT(meanDifference(rgbThroughImageMagick(path), rgbOf(image)), 3.0);
}

TEST(SnapshotEncoders, JpegStripsJoinIntoTheFileOneEncoderWrites) {
    // 63 rows of blocks, the last one short, so that the restart numbers wrap several times
    // and strips end where they do not wrap; noise across the strips' edges.
    Image image = desktopLike(1000, 1000);
    const Image stripe = noise(1000, 200);
    image.pixels.replace(400 * image.bytesPerRow, stripe.pixels.size(), stripe.pixels);
    const auto oneStrip = JpegStripEncoder::encode(image, 92, 1);
    ASSERT_TRUE(oneStrip);
    for (const int strips : {2, 3, 7, 63}) {
        SCOPED_TRACE(strips);
        EXPECT_EQ(JpegStripEncoder::encode(image, 92, strips), oneStrip);
    }
    QTemporaryDir dir;
    const QString path = write(dir, "snapshot.jpg", *oneStrip);
    EXPECT_EQ(identify(path, "%m %w %h"), "JPEG 1000 1000");
    // Decoded to the end, where a restart marker out of order would be a warning.
    EXPECT_EQ(run("convert", {"-regard-warnings", path, "ppm:/dev/null"}).exitCode, 0);
}

TEST(SnapshotEncoders, JpegAtQualityPointNineTwoShowsQuality92) {
    QTemporaryDir dir;
    const auto jpeg = LinuxSnapshotEncoders().encodeJPEG(desktopLike(64, 48), 0.92);
    ASSERT_TRUE(jpeg);
    EXPECT_EQ(identify(write(dir, "snapshot.jpg", *jpeg), "%Q"), "92");
}

TEST(SnapshotEncoders, OneByOnePixelImageMakesOnePageOfOneByOnePoint) {
    QTemporaryDir dir;
    const QString path = dir.filePath("snapshot.pdf");
    const Image image = desktopLike(1, 1);
    ASSERT_TRUE(LinuxSnapshotEncoders().writePDF(image, urlOf(path), pixelSize(image)));
    EXPECT_EQ(pdfInfoLine(path, "Pages"), "1");
    EXPECT_EQ(pdfInfoLine(path, "Page size"), "1 x 1 pts");
}

TEST(SnapshotEncoders, PdfPageSizeIsTheImagePixelSizeNotItsSizeInPoints) {
    // A 1440 by 900 point screen at scale 2 is captured as 2880 by 1800 pixels.
    QTemporaryDir dir;
    const QString path = dir.filePath("snapshot.pdf");
    const Image image = desktopLike(2880, 1800);
    ASSERT_TRUE(LinuxSnapshotEncoders().writePDF(image, urlOf(path), pixelSize(image)));
    EXPECT_EQ(pdfInfoLine(path, "Pages"), "1");
    EXPECT_EQ(pdfInfoLine(path, "Page size"), "2880 x 1800 pts");
}

TEST(SnapshotEncoders, PdfEmbedsTheImageAtFullResolution) {
    QTemporaryDir dir;
    const QString path = dir.filePath("snapshot.pdf");
    const Image image = desktopLike(1921, 1081);
    ASSERT_TRUE(LinuxSnapshotEncoders().writePDF(image, urlOf(path), pixelSize(image)));
    const QStringList listing = pdfImageListing(path);
    ASSERT_GE(listing.size(), 9);
    EXPECT_EQ(listing.mid(3, 6), QStringList({"1921", "1081", "rgb", "3", "8", "image"}));
    // Lossless: the embedded pixels are the image's own.
    ASSERT_EQ(run("pdfimages", {"-png", path, dir.filePath("embedded")}).exitCode, 0);
    EXPECT_EQ(rgbOf(QImage(dir.filePath("embedded-000.png"))), rgbOf(image));
}

TEST(SnapshotEncoders, PdfRendersBackPixelExact) {
    QTemporaryDir dir;
    const QString path = dir.filePath("snapshot.pdf");
    const Image image = desktopLike(643, 401);
    ASSERT_TRUE(LinuxSnapshotEncoders().writePDF(image, urlOf(path), pixelSize(image)));

    // Cairo draws the page at 72 dpi one image pixel per device pixel.
    ASSERT_EQ(run("pdftocairo", {"-r", "72", "-png", "-singlefile", path, dir.filePath("cairo")})
                  .exitCode,
              0);
    const QImage cairo(dir.filePath("cairo.png"));
    ASSERT_EQ(cairo.size(), QSize(643, 401));
    EXPECT_EQ(rgbOf(cairo), rgbOf(image));

    // Poppler's own rasteriser smooths images drawn at less than four times their size, so
    // render at 288 dpi, where it repeats each pixel 4 by 4, and take one of each block.
    ASSERT_EQ(run("pdftoppm", {"-r", "288", "-png", "-singlefile", path, dir.filePath("splash")})
                  .exitCode,
              0);
    const QImage splash(dir.filePath("splash.png"));
    ASSERT_EQ(splash.size(), QSize(4 * 643, 4 * 401));
    QImage sampled(643, 401, QImage::Format_RGB32);
    for (int y = 0; y < sampled.height(); ++y)
        for (int x = 0; x < sampled.width(); ++x)
            sampled.setPixel(x, y, splash.pixel(4 * x + 1, 4 * y + 1));
    EXPECT_EQ(rgbOf(sampled), rgbOf(image));
}

TEST(SnapshotEncoders, PdfIntoAFolderThatCannotBeWrittenReturnsFalse) {
    QTemporaryDir dir;
    const Image image = desktopLike(8, 8);
    LinuxSnapshotEncoders encoders;
    EXPECT_FALSE(
        encoders.writePDF(image, urlOf(dir.filePath("missing/snapshot.pdf")), pixelSize(image)));
    const QString file = write(dir, "plain-file", "x");
    EXPECT_FALSE(encoders.writePDF(image, urlOf(file + "/snapshot.pdf"), pixelSize(image)));
    if (geteuid() != 0) { // permissions do not stop root
        const QString locked = dir.filePath("locked");
        ASSERT_TRUE(QDir().mkdir(locked));
        QFile::setPermissions(locked, QFile::ReadOwner | QFile::ExeOwner);
        EXPECT_FALSE(encoders.writePDF(image, urlOf(locked + "/snapshot.pdf"), pixelSize(image)));
    }
}

TEST(SnapshotEncoders, NullImageHasNoPngJpegOrPdf) {
    QTemporaryDir dir;
    LinuxSnapshotEncoders encoders;
    const Image none;
    EXPECT_FALSE(encoders.encodePNG(none));
    EXPECT_FALSE(encoders.encodeJPEG(none, 0.92));
    EXPECT_FALSE(encoders.writePDF(none, urlOf(dir.filePath("snapshot.pdf")), {1, 1}));
}

TEST(SnapshotEncoders, ImageWithFewerPixelsThanItsSizeHasNoEncoding) {
    QTemporaryDir dir;
    LinuxSnapshotEncoders encoders;
    Image truncated = desktopLike(16, 16);
    truncated.pixels.chop(1);
    EXPECT_FALSE(encoders.encodePNG(truncated));
    EXPECT_FALSE(encoders.encodeJPEG(truncated, 0.92));
    EXPECT_FALSE(encoders.writePDF(truncated, urlOf(dir.filePath("snapshot.pdf")), {16, 16}));
}
