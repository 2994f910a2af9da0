#pragma once

#include "capture/CaptureEngine.h"
#include "capture/CaptureVocabulary.h"
#include "controller/ControllerPlatform.h"
#include "controller/Published.h"
#include "controller/TessarelMode.h"
#include "region/RegionSelector.h"

#include <QObject>
#include <QPointer>
#include <QUrl>

#include <exception>
#include <functional>
#include <memory>
#include <optional>

// The application's single state object: it holds what the panel shows and carries out
// every user action by driving the engine and the region selector.
//
// Threads: every member is called on the GUI thread. Capture actions return at once; their
// engine work runs on a background thread and resumes on the GUI thread before any property
// is written.
class TessarelController : public QObject {
    Q_OBJECT
public:
    TessarelController(CaptureEngine& engine, RegionSelector& selector,
                       ControllerPlatform platform);
    ~TessarelController() override;

    Signal<> objectWillChange;
    Published<TessarelMode> mode{TessarelMode::home, objectWillChange};
    Published<AudioExportFormat> audioFormat{AudioExportFormat::m4a, objectWillChange};
    Published<SnapshotExportFormat> snapshotFormat{SnapshotExportFormat::png, objectWillChange};
    Published<QUrl> saveFolder;
    Published<double> elapsed{0.0, objectWillChange};
    Published<double> meterLevel{0.62, objectWillChange};
    Published<std::optional<QString>> errorMessage{std::nullopt, objectWillChange};
    Published<bool> screenCapturePermissionRequired{false, objectWillChange};
    Published<std::optional<QUrl>> lastSavedURL{std::nullopt, objectWillChange};

    void show(TessarelMode newMode);

    void startAudio();
    void stopCapture();
    void takeSnapshot();
    void beginVideoSelection();

    // For Quit, once the event loop has ended: stops the capture running now and returns
    // when its file is finished (MP3 conversion included) and no engine work is left.
    void finishBeforeQuitting();

    void chooseFolder();
    void revealLastCapture();

    void openScreenRecordingSettings();
    // Whether the system has screen-recording privacy settings to open.
    bool offersScreenRecordingSettings();
    void revealRunningApplication();
    void showAbout();

    // Platform-free rules, public so that they can be checked on their own.
    static QString fileName(const QString& prefix, const QDateTime& localTime,
                            const QString& extension);
    // `url` with " (number)" before its extension; `url` itself for the first.
    static QUrl numbered(const QUrl& url, int number);
    static double meterLevelFor(double elapsedSeconds);
    static std::optional<uint32_t> displayNumber(const QVariant& value);
    // Only a refusal of the screen-capture permission itself raises the permission prompt.
    static bool isPermissionRefusal(const std::exception_ptr& error);

    // True while a background engine call started by this controller has not yet resumed.
    bool hasPendingWork() const { return pendingTasks_ > 0; }

private:
    // The name for a capture taken now, without a number.
    QUrl unnumberedDestination(const QString& prefix, const QString& extension);
    // The first name, numbered from the second on, that no file has yet.
    QUrl destination(const QString& prefix, const QString& extension);
    // Writes the image under the first free name from `base`; returns the name written.
    QUrl save(const Image& image, const QUrl& base, SnapshotExportFormat format);
    bool ensureScreenCapturePermission();
    void startTimer();
    void stopTimer();
    void tick();
    void present(const std::exception_ptr& error);
    void captureFailed(const std::exception_ptr& error);
    void captureStarted();
    // Runs `work` on a background thread, then `onSuccess` or present() on the GUI thread.
    template <typename Result>
    void runTask(std::function<Result()> work, std::function<void(Result)> onSuccess);
    void runTask(std::function<void()> work, std::function<void()> onSuccess);

    CaptureEngine& engine;
    RegionSelector& selector;
    ControllerPlatform platform_;
    std::unique_ptr<RepeatingTimer> timer;
    int pendingTasks_ = 0;
    std::exception_ptr failureBeforeStart_;
    bool stopRequested_ = false; // for the capture running now
};
