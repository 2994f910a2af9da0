#pragma once

// The platform services the controller needs, each behind a small interface.
// Real implementations live in controller/linux; tests use fakes. GUI thread only.

#include "capture/Geometry.h"
#include "capture/Image.h"
#include "screen/ScreenDescription.h"

#include <QDateTime>
#include <QList>
#include <QString>
#include <QUrl>
#include <QVariant>

#include <functional>
#include <memory>
#include <optional>

class ScreenProvider {
public:
    virtual ~ScreenProvider() = default;
    // The screen of the window that has keyboard focus, else the primary screen; none
    // when no screen is attached.
    virtual std::optional<ScreenDescription> mainScreen() = 0;
};

class ScreenCapturePermission {
public:
    virtual ~ScreenCapturePermission() = default;
    // Asks, without any dialog, whether screen capture is allowed now.
    virtual bool preflightScreenCaptureAccess() = 0;
    // The link to the system's screen-recording privacy settings, when there is one.
    virtual std::optional<QUrl> screenRecordingSettingsURL() = 0;
};

class Workspace {
public:
    virtual ~Workspace() = default;
    // Shows a file-manager window with these files selected. Failures are silent.
    virtual void activateFileViewerSelecting(const QList<QUrl>& urls) = 0;
    virtual void openURL(const QUrl& url) = 0;
    // The running application's own location (its executable or installation directory).
    virtual QUrl applicationBundleURL() = 0;
};

struct FolderChooserOptions {
    QString title;
    bool canChooseDirectories = false;
    bool canChooseFiles = true;
    bool canCreateDirectories = false;
    bool allowsMultipleSelection = false;
    QUrl directoryURL;
    friend bool operator==(const FolderChooserOptions&, const FolderChooserOptions&) = default;
};

class FolderChooser {
public:
    virtual ~FolderChooser() = default;
    // Runs modally. Returns the chosen URL when the user confirmed and the chooser has one.
    virtual std::optional<QUrl> runModal(const FolderChooserOptions& options) = 0;
};

enum class AlertStyle { warning = 0, informational = 1, critical = 2 };

struct AboutAlert {
    AlertStyle style = AlertStyle::informational;
    bool showsApplicationIcon = false;
    QString messageText;
    QString informativeText;
    QList<QString> buttons;
};

class AlertPresenter {
public:
    virtual ~AlertPresenter() = default;
    // Brings the application to the front and runs the alert modally.
    virtual void runAbout(const AboutAlert& alert) = 0;
};

class SnapshotEncoders {
public:
    virtual ~SnapshotEncoders() = default;
    // None when the encoder cannot produce data for this image.
    virtual std::optional<QByteArray> encodePNG(const Image& image) = 0;
    virtual std::optional<QByteArray> encodeJPEG(const Image& image, double quality) = 0;
    // Writes a one-page PDF straight to `url` with the image filling a page of `mediaBox`
    // points. False when no document can be made there.
    virtual bool writePDF(const Image& image, const QUrl& url, const Size& mediaBox) = 0;
};

class StandardLocations {
public:
    virtual ~StandardLocations() = default;
    // The user's download folders, most preferred first; may be empty.
    virtual QList<QUrl> downloadsDirectories() = 0;
    virtual QUrl homeDirectory() = 0;
};

class Clock {
public:
    virtual ~Clock() = default;
    virtual QDateTime now() = 0; // local time
};

class RepeatingTimer {
public:
    virtual ~RepeatingTimer() = default;
    virtual void invalidate() = 0;
};

class TimerScheduler {
public:
    virtual ~TimerScheduler() = default;
    // Schedules `tick` every `intervalSeconds` on the GUI thread's event loop.
    virtual std::unique_ptr<RepeatingTimer> scheduleRepeating(double intervalSeconds,
                                                              std::function<void()> tick) = 0;
};

// Everything the controller reaches the platform through. The services outlive it.
struct ControllerPlatform {
    ScreenProvider& screens;
    ScreenCapturePermission& permission;
    Workspace& workspace;
    FolderChooser& folderChooser;
    AlertPresenter& alerts;
    SnapshotEncoders& encoders;
    StandardLocations& locations;
    Clock& clock;
    TimerScheduler& timers;
};
