#include "support/FakeControllerPlatform.h"

#include <QFile>

#include <algorithm>

void FakeWorkspace::activateFileViewerSelecting(const QList<QUrl>& urls) {
    if (onCall) {
        onCall();
    }
    revealed.push_back(urls);
}

void FakeWorkspace::openURL(const QUrl& url) {
    if (onCall) {
        onCall();
    }
    opened.push_back(url);
}

std::optional<QUrl> FakeFolderChooser::runModal(const FolderChooserOptions& options) {
    runs.push_back(options);
    return answer;
}

const QByteArray FakeSnapshotEncoders::pngSignature = QByteArrayLiteral("\x89PNG\r\n\x1a\n");
const QByteArray FakeSnapshotEncoders::jpegSignature = QByteArrayLiteral("\xff\xd8\xff");
const QByteArray FakeSnapshotEncoders::pdfSignature = QByteArrayLiteral("%PDF-1.4\n");

namespace {

QByteArray describe(const Image& image) {
    return QByteArray::number(image.width) + 'x' + QByteArray::number(image.height);
}

} // namespace

std::optional<QByteArray> FakeSnapshotEncoders::encodePNG(const Image& image) {
    ++pngCount;
    if (pngFails) {
        return std::nullopt;
    }
    return pngSignature + describe(image);
}

std::optional<QByteArray> FakeSnapshotEncoders::encodeJPEG(const Image& image, double quality) {
    jpegQualities.push_back(quality);
    if (jpegFails) {
        return std::nullopt;
    }
    return jpegSignature + describe(image);
}

bool FakeSnapshotEncoders::writePDF(const Image& image, const QUrl& url, const Size& mediaBox) {
    pdfMediaBoxes.push_back(mediaBox);
    if (pdfFails) {
        return false;
    }
    QFile file(url.toLocalFile());
    if (!file.open(QIODevice::WriteOnly)) {
        return false;
    }
    file.write(pdfSignature + describe(image));
    return true;
}

std::unique_ptr<RepeatingTimer> FakeTimerScheduler::scheduleRepeating(double intervalSeconds,
                                                                      std::function<void()> tick) {
    class Handle : public RepeatingTimer {
    public:
        explicit Handle(std::shared_ptr<Scheduled> scheduled) : scheduled_(std::move(scheduled)) {}
        void invalidate() override { scheduled_->invalidated = true; }

    private:
        std::shared_ptr<Scheduled> scheduled_;
    };
    auto scheduled =
        std::make_shared<Scheduled>(Scheduled{intervalSeconds, std::move(tick), false});
    scheduled_.push_back(scheduled);
    return std::make_unique<Handle>(scheduled);
}

void FakeTimerScheduler::fire() {
    // Copy: a tick may schedule or invalidate timers.
    const auto timers = scheduled_;
    for (const auto& timer : timers) {
        if (!timer->invalidated) {
            timer->tick();
        }
    }
}

std::size_t FakeTimerScheduler::runningCount() const {
    return static_cast<std::size_t>(
        std::count_if(scheduled_.begin(), scheduled_.end(),
                      [](const auto& timer) { return !timer->invalidated; }));
}

void FakeSelectionOverlayHost::showOverlay(const ScreenDescription& screen,
                                           OverlayCallbacks callbacks) {
    overlays.push_back({screen, std::move(callbacks)});
}

void FakeSelectionOverlayHost::closeOverlays() {
    ++closeCount;
    overlays.clear();
}

void FakeSelectionOverlayHost::select(std::size_t index, const Rect& viewRect) {
    // Copy: a successful selection closes the overlays it is called from.
    const OverlayCallbacks callbacks = overlays.at(index).callbacks;
    callbacks.onSelection(viewRect);
}

void FakeSelectionOverlayHost::pressEscape(std::size_t index) {
    const OverlayCallbacks callbacks = overlays.at(index).callbacks;
    callbacks.onCancel();
}

ControllerPlatform FakeControllerPlatform::platform() {
    return {screens,  permission, workspace, folderChooser, alerts,
            encoders, locations,  clock,     timers};
}
