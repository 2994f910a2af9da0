#pragma once

// Fakes of the controller's platform services and of the selector's overlay host. They
// record what they were asked and answer what the test set up. GUI thread only.

#include "controller/ControllerPlatform.h"
#include "region/RegionSelector.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QUrl>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class FakeScreenProvider : public ScreenProvider {
public:
    std::optional<ScreenDescription> main =
        ScreenDescription{QVariant::fromValue(uint32_t{1}), Rect{0, 0, 1920, 1080}, 2.0};

    std::optional<ScreenDescription> mainScreen() override { return main; }
};

class FakeScreenCapturePermission : public ScreenCapturePermission {
public:
    bool allowed = true;
    int preflightCount = 0;
    std::optional<QUrl> settingsURL = QUrl(QStringLiteral("settings://privacy/screen-recording"));

    bool preflightScreenCaptureAccess() override {
        ++preflightCount;
        return allowed;
    }
    std::optional<QUrl> screenRecordingSettingsURL() override { return settingsURL; }
};

class FakeWorkspace : public Workspace {
public:
    std::vector<QList<QUrl>> revealed;
    std::vector<QUrl> opened;
    QUrl bundleURL = QUrl::fromLocalFile(QStringLiteral("/opt/tessarel/bin/tessarel"));
    // Runs inside every call, before it is recorded: lets a test look at the caller's state.
    std::function<void()> onCall;

    void activateFileViewerSelecting(const QList<QUrl>& urls) override;
    void openURL(const QUrl& url) override;
    QUrl applicationBundleURL() override { return bundleURL; }
};

class FakeFolderChooser : public FolderChooser {
public:
    std::vector<FolderChooserOptions> runs;
    std::optional<QUrl> answer; // none: the user cancelled

    std::optional<QUrl> runModal(const FolderChooserOptions& options) override;
};

class FakeAlertPresenter : public AlertPresenter {
public:
    std::vector<AboutAlert> shown;

    void runAbout(const AboutAlert& alert) override { shown.push_back(alert); }
};

// Encodes to recognisable bytes: the format's real signature followed by the image size.
class FakeSnapshotEncoders : public SnapshotEncoders {
public:
    static const QByteArray pngSignature;
    static const QByteArray jpegSignature;
    static const QByteArray pdfSignature;

    bool pngFails = false;
    bool jpegFails = false;
    bool pdfFails = false;
    int pngCount = 0;
    std::vector<double> jpegQualities;
    std::vector<Size> pdfMediaBoxes;

    std::optional<QByteArray> encodePNG(const Image& image) override;
    std::optional<QByteArray> encodeJPEG(const Image& image, double quality) override;
    // Writes the document itself, so that an unwritable place fails as it would for real.
    bool writePDF(const Image& image, const QUrl& url, const Size& mediaBox) override;
};

class FakeStandardLocations : public StandardLocations {
public:
    QList<QUrl> downloads = {QUrl::fromLocalFile(QStringLiteral("/Users/a/Downloads"))};
    QUrl home = QUrl::fromLocalFile(QStringLiteral("/Users/a"));

    QList<QUrl> downloadsDirectories() override { return downloads; }
    QUrl homeDirectory() override { return home; }
};

class FakeClock : public Clock {
public:
    QDateTime time{QDate(2026, 3, 9), QTime(7, 3, 4)};

    QDateTime now() override { return time; }
};

// Timers fire only when the test says so. Like a run loop, the scheduler keeps a timer
// going until it is invalidated, whether or not its owner still holds it.
class FakeTimerScheduler : public TimerScheduler {
public:
    struct Scheduled {
        double intervalSeconds = 0;
        std::function<void()> tick;
        bool invalidated = false;
    };

    std::unique_ptr<RepeatingTimer> scheduleRepeating(double intervalSeconds,
                                                      std::function<void()> tick) override;

    // Ticks every timer that has not been invalidated, once.
    void fire();
    std::size_t runningCount() const;
    const std::vector<std::shared_ptr<Scheduled>>& scheduled() const { return scheduled_; }

private:
    std::vector<std::shared_ptr<Scheduled>> scheduled_;
};

// Stands in for the overlay windows: a test selects an area or presses Escape through the
// callbacks the selector handed over.
class FakeSelectionOverlayHost : public SelectionOverlayHost {
public:
    struct Overlay {
        ScreenDescription screen;
        OverlayCallbacks callbacks;
    };

    std::vector<ScreenDescription> attached = {
        ScreenDescription{QVariant::fromValue(uint32_t{1}), Rect{0, 0, 1920, 1080}, 2.0}};
    std::vector<Overlay> overlays;
    int closeCount = 0;
    int cursorPushes = 0;
    int cursorPops = 0;

    std::vector<ScreenDescription> screens() override { return attached; }
    void showOverlay(const ScreenDescription& screen, OverlayCallbacks callbacks) override;
    void closeOverlays() override;
    void pushCrosshairCursor() override { ++cursorPushes; }
    void popCursor() override { ++cursorPops; }

    // A finished drag on the overlay of screen `index`, in that overlay's coordinates.
    void select(std::size_t index, const Rect& viewRect);
    void pressEscape(std::size_t index = 0);
};

// All controller fakes together, and the platform bundle made of them.
struct FakeControllerPlatform {
    FakeScreenProvider screens;
    FakeScreenCapturePermission permission;
    FakeWorkspace workspace;
    FakeFolderChooser folderChooser;
    FakeAlertPresenter alerts;
    FakeSnapshotEncoders encoders;
    FakeStandardLocations locations;
    FakeClock clock;
    FakeTimerScheduler timers;

    ControllerPlatform platform();
};
