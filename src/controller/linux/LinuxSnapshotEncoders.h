#pragma once

#include "controller/ControllerPlatform.h"

// PNG, JPEG and one-page PDF on our own PNG, JPEG-joining and PDF writers, libdeflate and
// libjpeg-turbo.
// Keeps no state: any thread, also several at once.
class LinuxSnapshotEncoders : public SnapshotEncoders {
public:
    // 8-bit RGB, every row Up-filtered, compressed on several threads.
    std::optional<QByteArray> encodePNG(const Image& image) override;
    // Baseline JPEG with 4:2:0 chroma, `quality` (0 to 1) in hundredths, encoded in strips on
    // several threads.
    std::optional<QByteArray> encodeJPEG(const Image& image, double quality) override;
    // The image at full resolution, losslessly (the PNG's own compressed rows behind the
    // PNG predictor), drawn over the whole page. Written straight to the local file.
    bool writePDF(const Image& image, const QUrl& url, const Size& mediaBox) override;

private:
    // True when the image is not null and holds all the pixels its size promises.
    static bool holdsPixels(const Image& image);
};
