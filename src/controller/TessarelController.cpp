#include "controller/TessarelController.h"

#include <QCoreApplication>
#include <QLocale>
#include <QMetaType>
#include <QSaveFile>
#include <QThreadPool>

#include <cmath>
#include <limits>

namespace {

const QString kAudioPrefix = QStringLiteral("Tessarel Audio");
const QString kVideoPrefix = QStringLiteral("Tessarel Video");
const QString kSnapshotPrefix = QStringLiteral("Tessarel Snapshot");
constexpr double kTimerIntervalSeconds = 0.1;
constexpr double kJPEGQuality = 0.92;

QUrl defaultSaveFolder(StandardLocations& locations) {
    const QList<QUrl> downloads = locations.downloadsDirectories();
    return downloads.isEmpty() ? locations.homeDirectory() : downloads.first();
}

// Atomic, so that a reader never sees a half-written image.
void writeAtomically(const QByteArray& data, const QUrl& url) {
    QSaveFile file(url.toLocalFile());
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size() || !file.commit()) {
        throw PlatformError(file.errorString());
    }
}

} // namespace

TessarelController::TessarelController(CaptureEngine& captureEngine, RegionSelector& regionSelector,
                                       ControllerPlatform platform)
    : saveFolder(defaultSaveFolder(platform.locations), objectWillChange), engine(captureEngine),
      selector(regionSelector), platform_(platform) {}

// Neither the timer nor the engine is stopped: the tick and the pending continuations hold
// the controller weakly and do nothing once it is gone.
TessarelController::~TessarelController() = default;

void TessarelController::show(TessarelMode newMode) {
    mode.set(newMode);
}

// ---- Naming and folders -------------------------------------------------------------------

QString TessarelController::fileName(const QString& prefix, const QDateTime& localTime,
                                     const QString& extension) {
    // The C locale keeps the fields exactly as the pattern shows them, in any user locale.
    const QString date =
        QLocale::c().toString(localTime, QStringLiteral("yyyy-MM-dd 'at' HH.mm.ss"));
    return prefix + QLatin1Char(' ') + date + QLatin1Char('.') + extension;
}

QUrl TessarelController::destination(const QString& prefix, const QString& extension) {
    QUrl url = saveFolder();
    QString path = url.path();
    if (!path.endsWith(QLatin1Char('/'))) {
        path += QLatin1Char('/');
    }
    url.setPath(path + fileName(prefix, platform_.clock.now(), extension));
    return url;
}

void TessarelController::chooseFolder() {
    FolderChooserOptions options;
    options.title = QStringLiteral("Choose where Tessarel saves captures");
    options.canChooseDirectories = true;
    options.canChooseFiles = false;
    options.canCreateDirectories = true;
    options.allowsMultipleSelection = false;
    options.directoryURL = saveFolder();
    if (const std::optional<QUrl> chosen = platform_.folderChooser.runModal(options)) {
        saveFolder.set(*chosen);
    }
}

void TessarelController::revealLastCapture() {
    if (const std::optional<QUrl>& url = lastSavedURL()) {
        platform_.workspace.activateFileViewerSelecting({*url});
    }
}

// ---- Permission and About -----------------------------------------------------------------

bool TessarelController::ensureScreenCapturePermission() {
    if (platform_.permission.preflightScreenCaptureAccess()) {
        return true;
    }
    screenCapturePermissionRequired.set(true);
    return false;
}

void TessarelController::openScreenRecordingSettings() {
    screenCapturePermissionRequired.set(false);
    if (const std::optional<QUrl> url = platform_.permission.screenRecordingSettingsURL()) {
        platform_.workspace.openURL(*url);
    }
}

bool TessarelController::offersScreenRecordingSettings() {
    return platform_.permission.screenRecordingSettingsURL().has_value();
}

void TessarelController::revealRunningApplication() {
    screenCapturePermissionRequired.set(false);
    platform_.workspace.activateFileViewerSelecting({platform_.workspace.applicationBundleURL()});
}

void TessarelController::showAbout() {
    AboutAlert alert;
    alert.style = AlertStyle::informational;
    alert.showsApplicationIcon = true;
    alert.messageText = QStringLiteral("Tessarel");
    alert.informativeText = QStringLiteral("© 2026 The Tessarel developers");
    alert.buttons = {QStringLiteral("OK")};
    platform_.alerts.runAbout(alert);
}

// ---- Capture actions ------------------------------------------------------------------------

void TessarelController::startAudio() {
    if (!ensureScreenCapturePermission()) {
        return;
    }
    const AudioExportFormat format = audioFormat();
    const QUrl url = destination(kAudioPrefix, format.fileExtension());
    CaptureEngine& captureEngine = engine;
    runTask([&captureEngine, url, format] { captureEngine.startAudio(url, format); },
            [this, url] {
                mode.set(TessarelMode::recordingAudio);
                lastSavedURL.set(url);
                startTimer();
            });
}

void TessarelController::stopCapture() {
    const TessarelMode stoppedMode = mode();
    stopTimer();
    CaptureEngine& captureEngine = engine;
    runTask([&captureEngine] { captureEngine.stop(); },
            [this, stoppedMode] {
                mode.set(TessarelMode::home);
                if (stoppedMode == TessarelMode::recordingAudio ||
                    stoppedMode == TessarelMode::recordingVideo) {
                    revealLastCapture();
                }
            });
}

void TessarelController::takeSnapshot() {
    if (!ensureScreenCapturePermission()) {
        return;
    }
    const std::optional<ScreenDescription> screen = platform_.screens.mainScreen();
    if (!screen) {
        return;
    }
    const std::optional<uint32_t> screenID = displayNumber(screen->displayNumber);
    if (!screenID) {
        return;
    }
    const Size size = screen->frame.size();
    const double scale = screen->backingScaleFactor;
    // The extension is fixed now; the format is read again once the image is there.
    const QUrl url = destination(kSnapshotPrefix, snapshotFormat().fileExtension());
    CaptureEngine& captureEngine = engine;
    runTask<Image>([&captureEngine, id = *screenID, size,
                    scale] { return captureEngine.snapshot(id, size, scale); },
                   [this, url](const Image& image) {
                       save(image, url, snapshotFormat());
                       lastSavedURL.set(url);
                       mode.set(TessarelMode::home);
                       revealLastCapture();
                   });
}

void TessarelController::beginVideoSelection() {
    if (!ensureScreenCapturePermission()) {
        return;
    }
    selector.begin([self = QPointer<TessarelController>(this)](const Rect& region,
                                                               const ScreenDescription& screen) {
        if (!self) {
            return;
        }
        const std::optional<uint32_t> screenID = displayNumber(screen.displayNumber);
        if (!screenID) {
            return;
        }
        const Rect screenFrame = screen.frame;
        const double scale = screen.backingScaleFactor;
        const QUrl url = self->destination(kVideoPrefix, QStringLiteral("mp4"));
        CaptureEngine& captureEngine = self->engine;
        TessarelController* controller = self;
        self->runTask([&captureEngine, url, region, id = *screenID, screenFrame,
                       scale] { captureEngine.startVideo(url, region, id, screenFrame, scale); },
                      [controller, url] {
                          controller->mode.set(TessarelMode::recordingVideo);
                          controller->lastSavedURL.set(url);
                          controller->startTimer();
                      });
    });
}

// ---- Snapshot encoding ------------------------------------------------------------------------

void TessarelController::save(const Image& image, const QUrl& to, SnapshotExportFormat format) {
    if (format == SnapshotExportFormat::pdf) {
        // One image pixel becomes one point: the page has the pixel size of the capture.
        const Size mediaBox{static_cast<double>(image.width), static_cast<double>(image.height)};
        if (!platform_.encoders.writePDF(image, to, mediaBox)) {
            throw CaptureEngineError::cannotEncode(QStringLiteral("PDF encoder unavailable"));
        }
        return;
    }
    const std::optional<QByteArray> data = format == SnapshotExportFormat::png
                                               ? platform_.encoders.encodePNG(image)
                                               : platform_.encoders.encodeJPEG(image, kJPEGQuality);
    if (!data) {
        throw CaptureEngineError::cannotEncode(QStringLiteral("Image encoder unavailable"));
    }
    writeAtomically(*data, to);
}

// ---- Timer and failures -------------------------------------------------------------------------

double TessarelController::meterLevelFor(double elapsedSeconds) {
    return 0.48 + 0.16 * std::sin(3.7 * elapsedSeconds) + 0.08 * std::sin(8.2 * elapsedSeconds);
}

void TessarelController::startTimer() {
    elapsed.set(0.0);
    if (timer) {
        timer->invalidate();
    }
    timer = platform_.timers.scheduleRepeating(kTimerIntervalSeconds,
                                               [self = QPointer<TessarelController>(this)] {
                                                   if (self) {
                                                       self->tick();
                                                   }
                                               });
}

void TessarelController::stopTimer() {
    if (timer) {
        timer->invalidate();
    }
    timer.reset();
}

// The elapsed time counts ticks; the meter is an animation, not a measurement.
void TessarelController::tick() {
    elapsed.set(elapsed() + kTimerIntervalSeconds);
    meterLevel.set(meterLevelFor(elapsed()));
}

bool TessarelController::descriptionSpeaksOfPermission(const QString& description) {
    for (const char* word : {"TCC", "declined", "permission"}) {
        if (description.contains(QLatin1String(word), Qt::CaseInsensitive)) {
            return true;
        }
    }
    return false;
}

void TessarelController::present(const std::exception_ptr& error) {
    stopTimer();
    const QString description = localizedDescription(error);
    if (descriptionSpeaksOfPermission(description)) {
        screenCapturePermissionRequired.set(true);
    } else {
        errorMessage.set(description);
    }
    mode.set(TessarelMode::home);
}

std::optional<uint32_t> TessarelController::displayNumber(const QVariant& value) {
    bool isSigned = false;
    switch (value.typeId()) {
    case QMetaType::Short:
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
        isSigned = true;
        break;
    case QMetaType::UShort:
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        break;
    default:
        return std::nullopt;
    }
    if (isSigned && value.toLongLong() < 0) {
        return std::nullopt;
    }
    const qulonglong number = value.toULongLong();
    if (number > std::numeric_limits<uint32_t>::max()) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(number);
}

// ---- Background tasks ---------------------------------------------------------------------------

template <typename Result>
void TessarelController::runTask(std::function<Result()> work,
                                 std::function<void(Result)> onSuccess) {
    ++pendingTasks_;
    // The continuation is posted to the application object rather than to `this`: the
    // controller may be destroyed while the engine works, and only the GUI thread may look at
    // the guard.
    QThreadPool::globalInstance()->start([self = QPointer<TessarelController>(this),
                                          work = std::move(work),
                                          onSuccess = std::move(onSuccess)]() mutable {
        std::optional<Result> result;
        std::exception_ptr error;
        try {
            result.emplace(work());
        } catch (...) {
            error = std::current_exception();
        }
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [self = std::move(self), onSuccess = std::move(onSuccess), result = std::move(result),
             error]() mutable {
                if (!self) {
                    return;
                }
                --self->pendingTasks_;
                if (!error) {
                    try {
                        onSuccess(std::move(*result));
                        return;
                    } catch (...) {
                        error = std::current_exception();
                    }
                }
                self->present(error);
            },
            Qt::QueuedConnection);
    });
}

void TessarelController::runTask(std::function<void()> work, std::function<void()> onSuccess) {
    runTask<bool>(
        [work = std::move(work)] {
            work();
            return true;
        },
        [onSuccess = std::move(onSuccess)](bool) { onSuccess(); });
}
