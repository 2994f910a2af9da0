#include "controller/linux/DesktopServices.h"

#include "alert/ReadableAlert.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QMessageBox>
#include <QPushButton>
#include <QStandardPaths>
#include <QTimer>

#include <cmath>

std::optional<QUrl> DesktopFolderChooser::runModal(const FolderChooserOptions& options) {
    // Over the window it was opened from: a tiling Wayland compositor floats a dialog only
    // when it belongs to a window, and would tile it behind the floating panel.
    QFileDialog dialog(QApplication::activeWindow());
    dialog.setWindowTitle(options.title);
    if (options.canChooseDirectories && !options.canChooseFiles) {
        dialog.setFileMode(QFileDialog::Directory);
        dialog.setOption(QFileDialog::ShowDirsOnly, true);
    } else {
        dialog.setFileMode(options.allowsMultipleSelection ? QFileDialog::ExistingFiles
                                                           : QFileDialog::ExistingFile);
    }
    dialog.setOption(QFileDialog::ReadOnly, !options.canCreateDirectories);
    if (options.directoryURL.isValid()) {
        dialog.setDirectoryUrl(options.directoryURL);
    }
    if (dialog.exec() != QDialog::Accepted) {
        return std::nullopt;
    }
    const QList<QUrl> chosen = dialog.selectedUrls();
    if (chosen.isEmpty()) {
        return std::nullopt;
    }
    return chosen.first();
}

void DesktopAlertPresenter::runAbout(const AboutAlert& alert) {
    QMessageBox box(QApplication::activeWindow());
    box.setWindowTitle(alert.messageText);
    box.setText(alert.messageText);
    box.setInformativeText(alert.informativeText);
    if (alert.showsApplicationIcon) {
        box.setIconPixmap(QApplication::windowIcon().pixmap(64, 64));
    } else {
        box.setIcon(alert.style == AlertStyle::informational ? QMessageBox::Information
                    : alert.style == AlertStyle::critical    ? QMessageBox::Critical
                                                             : QMessageBox::Warning);
    }
    for (const QString& title : alert.buttons) {
        box.addButton(title, QMessageBox::AcceptRole);
    }
    box.setWindowFlag(Qt::WindowStaysOnTopHint);
    // After the flags: changing them restyles the box, which resets its labels.
    makeReadable(box);
    box.show();
    box.raise();
    box.activateWindow();
    box.exec();
}

QList<QUrl> DesktopStandardLocations::downloadsDirectories() {
    // QStandardPaths answers ~/Downloads even when the user's directories do not name one.
    const QString configHome = QStandardPaths::writableLocation(QStandardPaths::ConfigLocation);
    QFile userDirs(QDir(configHome).filePath(QStringLiteral("user-dirs.dirs")));
    if (!userDirs.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return {};
    }
    while (!userDirs.atEnd()) {
        if (userDirs.readLine().trimmed().startsWith("XDG_DOWNLOAD_DIR=")) {
            // A folder the entry names but nobody created is no place to save: the caller
            // falls back to the home folder.
            const QString downloads =
                QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
            if (!QFileInfo(downloads).isDir()) {
                return {};
            }
            return {QUrl::fromLocalFile(downloads)};
        }
    }
    return {};
}

QUrl DesktopStandardLocations::homeDirectory() {
    return QUrl::fromLocalFile(QDir::homePath());
}

namespace {

class QtRepeatingTimer : public RepeatingTimer {
public:
    QtRepeatingTimer(double intervalSeconds, std::function<void()> tick) {
        timer_.setInterval(static_cast<int>(std::lround(intervalSeconds * 1000)));
        QObject::connect(&timer_, &QTimer::timeout, &timer_, std::move(tick));
        timer_.start();
    }
    void invalidate() override { timer_.stop(); }

private:
    QTimer timer_;
};

} // namespace

std::unique_ptr<RepeatingTimer>
DesktopTimerScheduler::scheduleRepeating(double intervalSeconds, std::function<void()> tick) {
    return std::make_unique<QtRepeatingTimer>(intervalSeconds, std::move(tick));
}
