#include "controller/TessarelController.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QMetaType>
#include <QSaveFile>
#include <QThreadPool>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
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

bool nameIsTaken(const QString& path) {
    const QFileInfo file(path);
    return file.exists() || file.isSymLink();
}

// Creates the first free numbered name from `base` as an empty file, exclusively, so that a
// name taken in the meantime is never overwritten; returns the name created.
QUrl createExclusively(const QUrl& base) {
    for (int number = 1;; ++number) {
        const QUrl candidate = TessarelController::numbered(base, number);
        const QByteArray path = QFile::encodeName(candidate.toLocalFile());
        const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) {
            ::close(fd);
            return candidate;
        }
        if (errno != EEXIST) {
            throw fileSystemError(candidate.toLocalFile(), errno);
        }
    }
}

// Replaces the file this capture created; atomic, so that a reader never sees a half-written
// image.
void writeAtomically(const QByteArray& data, const QUrl& url) {
    QSaveFile file(url.toLocalFile());
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size() || !file.commit()) {
        throw fileSystemError(url.toLocalFile(), file.errorString());
    }
}

// Removes the file a failed save created, unless the save completed.
class RemoveUnlessKept {
public:
    explicit RemoveUnlessKept(QString path) : path_(std::move(path)) {}
    ~RemoveUnlessKept() {
        if (!kept_) {
            QFile::remove(path_);
        }
    }
    RemoveUnlessKept(const RemoveUnlessKept&) = delete;
    RemoveUnlessKept& operator=(const RemoveUnlessKept&) = delete;
    void keep() { kept_ = true; }

private:
    QString path_;
    bool kept_ = false;
};

} // namespace

TessarelController::TessarelController(CaptureEngine& captureEngine, RegionSelector& regionSelector,
                                       ControllerPlatform platform)
    : saveFolder(defaultSaveFolder(platform.locations), objectWillChange), engine(captureEngine),
      selector(regionSelector), platform_(platform) {
    // From the engine's threads; handled on the GUI thread while this controller exists.
    engine.setFailureHandler([self = QPointer<TessarelController>(this)](std::exception_ptr error) {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [self, error] {
                if (self) {
                    self->captureFailed(error);
                }
            },
            Qt::QueuedConnection);
    });
}

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

QUrl TessarelController::numbered(const QUrl& url, int number) {
    QUrl result = url;
    result.setPath(numberedPath(url.path(), number));
    return result;
}

QUrl TessarelController::unnumberedDestination(const QString& prefix, const QString& extension) {
    QUrl url = saveFolder();
    QString path = url.path();
    if (!path.endsWith(QLatin1Char('/'))) {
        path += QLatin1Char('/');
    }
    url.setPath(path + fileName(prefix, platform_.clock.now(), extension));
    return url;
}

QUrl TessarelController::destination(const QString& prefix, const QString& extension) {
    const QUrl base = unnumberedDestination(prefix, extension);
    for (int number = 1;; ++number) {
        const QUrl candidate = numbered(base, number);
        if (!nameIsTaken(candidate.toLocalFile())) {
            return candidate;
        }
    }
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
    failureBeforeStart_ = nullptr;
    CaptureEngine& captureEngine = engine;
    runTask([&captureEngine, url, format] { captureEngine.startAudio(url, format); },
            [this, url] {
                mode.set(TessarelMode::recordingAudio);
                lastSavedURL.set(url);
                startTimer();
                captureStarted();
            });
}

void TessarelController::stopCapture() {
    const TessarelMode stoppedMode = mode();
    stopTimer();
    stopRequested_ = true;
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

// The capture cannot go on: it is stopped (what was written is kept and finished), then the
// failure is shown; nothing is revealed.
void TessarelController::captureFailed(const std::exception_ptr& error) {
    const TessarelMode running = mode();
    if (running != TessarelMode::recordingAudio && running != TessarelMode::recordingVideo) {
        // The first buffer can fail before the start's continuation has run.
        failureBeforeStart_ = error;
        return;
    }
    if (std::exchange(stopRequested_, true)) {
        return; // the stop under way ends it
    }
    stopTimer();
    CaptureEngine& captureEngine = engine;
    runTask([&captureEngine] { captureEngine.stop(); }, [this, error] { present(error); });
}

void TessarelController::finishBeforeQuitting() {
    for (;;) {
        QThreadPool::globalInstance()->waitForDone();
        // The continuations of what just finished: a start that has completed is now a
        // recording this loop can see and stop.
        QCoreApplication::sendPostedEvents();
        const TessarelMode running = mode();
        if ((running == TessarelMode::recordingAudio || running == TessarelMode::recordingVideo) &&
            !stopRequested_) {
            stopTimer();
            stopRequested_ = true;
            CaptureEngine& captureEngine = engine;
            runTask([&captureEngine] { captureEngine.stop(); }, [] {});
        } else if (!hasPendingWork()) {
            return;
        }
    }
}

void TessarelController::captureStarted() {
    stopRequested_ = false;
    if (const std::exception_ptr failure = std::exchange(failureBeforeStart_, nullptr)) {
        captureFailed(failure);
    }
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
    // The name and extension are fixed now; the format is read again once the image is
    // there, and the first free number is taken when the file is created.
    const QUrl base = unnumberedDestination(kSnapshotPrefix, snapshotFormat().fileExtension());
    CaptureEngine& captureEngine = engine;
    runTask<Image>([&captureEngine, id = *screenID, size,
                    scale] { return captureEngine.snapshot(id, size, scale); },
                   [this, base](const Image& image) {
                       const QUrl url = save(image, base, snapshotFormat());
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
        self->failureBeforeStart_ = nullptr;
        CaptureEngine& captureEngine = self->engine;
        TessarelController* controller = self;
        self->runTask([&captureEngine, url, region, id = *screenID, screenFrame,
                       scale] { captureEngine.startVideo(url, region, id, screenFrame, scale); },
                      [controller, url] {
                          controller->mode.set(TessarelMode::recordingVideo);
                          controller->lastSavedURL.set(url);
                          controller->startTimer();
                          controller->captureStarted();
                      });
    });
}

// ---- Snapshot encoding ------------------------------------------------------------------------

QUrl TessarelController::save(const Image& image, const QUrl& base, SnapshotExportFormat format) {
    std::optional<QByteArray> data;
    if (format != SnapshotExportFormat::pdf) {
        data = format == SnapshotExportFormat::png
                   ? platform_.encoders.encodePNG(image)
                   : platform_.encoders.encodeJPEG(image, kJPEGQuality);
        if (!data) {
            throw CaptureEngineError::cannotEncode(QStringLiteral("Image encoder unavailable"));
        }
    }
    const QUrl to = createExclusively(base);
    RemoveUnlessKept created(to.toLocalFile());
    if (data) {
        writeAtomically(*data, to);
    } else {
        // One image pixel becomes one point: the page has the pixel size of the capture.
        const Size mediaBox{static_cast<double>(image.width), static_cast<double>(image.height)};
        if (!platform_.encoders.writePDF(image, to, mediaBox)) {
            throw CaptureEngineError::cannotEncode(QStringLiteral("PDF encoder unavailable"));
        }
    }
    created.keep();
    return to;
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

bool TessarelController::isPermissionRefusal(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const ScreenCapturePermissionError&) {
        return true;
    } catch (...) {
        return false;
    }
}

void TessarelController::present(const std::exception_ptr& error) {
    stopTimer();
    if (isPermissionRefusal(error)) {
        screenCapturePermissionRequired.set(true);
    } else {
        errorMessage.set(localizedDescription(error));
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
