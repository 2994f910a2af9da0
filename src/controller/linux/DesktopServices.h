#pragma once

#include "controller/ControllerPlatform.h"

#include <QString>

// The controller's smaller desktop services. GUI thread only.

// X11 lets every client read the screen: capture is always allowed and there is no privacy
// pane to link to.
class DesktopScreenCapturePermission : public ScreenCapturePermission {
public:
    bool preflightScreenCaptureAccess() override { return true; }
    std::optional<QUrl> screenRecordingSettingsURL() override { return std::nullopt; }
};

// A modal QFileDialog set up with exactly the options it is given.
class DesktopFolderChooser : public FolderChooser {
public:
    std::optional<QUrl> runModal(const FolderChooserOptions& options) override;
};

// Alerts as modal message boxes in front of every other window.
class DesktopAlertPresenter : public AlertPresenter {
public:
    void runAbout(const AboutAlert& alert) override;
};

// The download folder only when the user's XDG directories name one; else the controller
// falls back to the home directory.
class DesktopStandardLocations : public StandardLocations {
public:
    QList<QUrl> downloadsDirectories() override;
    QUrl homeDirectory() override;
};

class DesktopClock : public Clock {
public:
    QDateTime now() override { return QDateTime::currentDateTime(); }
};

// Repeating timers on the GUI thread's event loop.
class DesktopTimerScheduler : public TimerScheduler {
public:
    std::unique_ptr<RepeatingTimer> scheduleRepeating(double intervalSeconds,
                                                      std::function<void()> tick) override;
};
