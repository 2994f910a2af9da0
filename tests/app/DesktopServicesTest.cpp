#include "controller/linux/DesktopServices.h"
#include "controller/linux/DesktopScreens.h"
#include "controller/linux/DesktopWorkspace.h"
#include "support/EventLoop.h"

#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QScreen>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>
#include <QWindow>
#include <qpa/qwindowsysteminterface.h>

#include <gtest/gtest.h>

namespace {

// Takes the URLs the desktop would open.
class UrlRecorder : public QObject {
    Q_OBJECT
public:
    QList<QUrl> opened;
public Q_SLOTS:
    void open(const QUrl& url) { opened << url; }
};

// Points the XDG configuration at a fresh folder for the life of the test.
class XdgConfig {
public:
    XdgConfig() : previous_(qgetenv("XDG_CONFIG_HOME")) {
        qputenv("XDG_CONFIG_HOME", dir_.path().toUtf8());
    }
    ~XdgConfig() { qputenv("XDG_CONFIG_HOME", previous_); }
    void writeUserDirs(const QByteArray& contents) {
        QFile file(QDir(dir_.path()).filePath("user-dirs.dirs"));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
    }

private:
    QTemporaryDir dir_;
    QByteArray previous_;
};

} // namespace

TEST(DesktopServicesTest, WithoutAnXdgDownloadEntryThereIsNoDownloadsFolder) {
    XdgConfig config;
    config.writeUserDirs("XDG_MUSIC_DIR=\"$HOME/Music\"\n");
    EXPECT_TRUE(DesktopStandardLocations().downloadsDirectories().isEmpty());
}

TEST(DesktopServicesTest, WithoutUserDirsThereIsNoDownloadsFolder) {
    XdgConfig config;
    EXPECT_TRUE(DesktopStandardLocations().downloadsDirectories().isEmpty());
}

// A fresh home folder for the life of the test.
class TemporaryHome {
public:
    TemporaryHome() : previous_(qgetenv("HOME")) { qputenv("HOME", dir_.path().toUtf8()); }
    ~TemporaryHome() { qputenv("HOME", previous_); }
    QString path() const { return dir_.path(); }

private:
    QTemporaryDir dir_;
    QByteArray previous_;
};

TEST(DesktopServicesTest, TheXdgDownloadEntryNamesTheDownloadsFolder) {
    TemporaryHome home;
    ASSERT_TRUE(QDir(home.path()).mkdir("Fetched"));
    XdgConfig config;
    config.writeUserDirs("# written by xdg-user-dirs-update\nXDG_DOWNLOAD_DIR=\"$HOME/Fetched\"\n");
    const QList<QUrl> downloads = DesktopStandardLocations().downloadsDirectories();
    ASSERT_EQ(downloads.size(), 1);
    EXPECT_EQ(downloads[0], QUrl::fromLocalFile(QDir(home.path()).filePath("Fetched")));
    EXPECT_EQ(DesktopStandardLocations().homeDirectory(), QUrl::fromLocalFile(home.path()));
}

// The save folder is then the home folder (the controller's fallback for no Downloads).
TEST(DesktopServicesTest, DownloadsFolderThatDoesNotExistIsNoDownloadsFolder) {
    TemporaryHome home;
    XdgConfig config;
    config.writeUserDirs("XDG_DOWNLOAD_DIR=\"$HOME/Downloads\"\n");
    EXPECT_TRUE(DesktopStandardLocations().downloadsDirectories().isEmpty());
    EXPECT_EQ(DesktopStandardLocations().homeDirectory(), QUrl::fromLocalFile(home.path()));
}

TEST(DesktopServicesTest, ScreenCaptureIsAlwaysAllowedAndHasNoSettingsLink) {
    DesktopScreenCapturePermission permission;
    EXPECT_TRUE(permission.preflightScreenCaptureAccess());
    EXPECT_FALSE(permission.screenRecordingSettingsURL().has_value());
}

TEST(DesktopServicesTest, ScreensAreDescribedInBottomLeftGlobalPoints) {
    const QList<QScreen*> screens = QGuiApplication::screens();
    ASSERT_EQ(screens.size(), 2);
    const DesktopScreens desktop;
    const ScreenDescription primary = desktop.describe(*screens[0]);
    const ScreenDescription secondary = desktop.describe(*screens[1]);
    EXPECT_EQ(primary.frame, (Rect{0, 0, 1920, 1080}));
    EXPECT_EQ(secondary.frame, (Rect{1920, 0, 1280, 1024}));
    EXPECT_EQ(secondary.backingScaleFactor, 1.0);
    // Display numbers are X atoms; off X11 there are none.
    EXPECT_FALSE(primary.displayNumber.isValid());
}

TEST(DesktopServicesTest, WithoutAFocusedWindowTheMainScreenIsThePrimary) {
    DesktopScreens screens;
    const std::optional<ScreenDescription> main = screens.mainScreen();
    ASSERT_TRUE(main.has_value());
    EXPECT_EQ(main->frame, (Rect{0, 0, 1920, 1080}));
}

// On Wayland a click does not always bring the keyboard to the panel (a seat without a
// keyboard, a compositor that keeps it elsewhere): the window the user just used still tells
// the screen they work on.
TEST(DesktopServicesTest, WithoutAFocusedWindowTheMainScreenIsTheShownWindows) {
    QWindow panel;
    panel.setScreen(QGuiApplication::screens().at(1));
    panel.setGeometry(QRect(QPoint(2000, 100), QSize(200, 100)));
    panel.show();
    QWindowSystemInterface::handleWindowActivated(nullptr);
    QCoreApplication::processEvents();
    ASSERT_EQ(QGuiApplication::focusWindow(), nullptr);
    const std::optional<ScreenDescription> main = DesktopScreens().mainScreen();
    ASSERT_TRUE(main.has_value());
    EXPECT_EQ(main->frame, (Rect{1920, 0, 1280, 1024}));
}

TEST(DesktopServicesTest, RevealingFallsBackToOpeningTheFolder) {
    UrlRecorder recorder;
    QDesktopServices::setUrlHandler("file", &recorder, "open");
    DesktopWorkspace workspace;
    // Whether no session bus or no file manager answers, the folder is opened instead.
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/tessarel-test-bus");
    workspace.activateFileViewerSelecting({QUrl::fromLocalFile("/x/y/shot.png")});
    EXPECT_TRUE(processEventsUntil([&recorder] { return !recorder.opened.isEmpty(); }));
    QDesktopServices::unsetUrlHandler("file");
    ASSERT_EQ(recorder.opened.size(), 1);
    EXPECT_EQ(recorder.opened[0], QUrl::fromLocalFile("/x/y"));
}

TEST(DesktopServicesTest, TheApplicationIsLocatedByItsExecutablesFolder) {
    EXPECT_EQ(DesktopWorkspace().applicationBundleURL(),
              QUrl::fromLocalFile(QCoreApplication::applicationDirPath()));
}

TEST(DesktopServicesTest, TheFolderChooserIsSetUpWithExactlyItsOptions) {
    QTemporaryDir start;
    FolderChooserOptions options;
    options.title = QStringLiteral("Choose where Tessarel saves captures");
    options.canChooseDirectories = true;
    options.canChooseFiles = false;
    options.canCreateDirectories = true;
    options.allowsMultipleSelection = false;
    options.directoryURL = QUrl::fromLocalFile(start.path());

    bool inspected = false;
    QTimer::singleShot(0, [&] {
        auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        ASSERT_NE(dialog, nullptr);
        EXPECT_EQ(dialog->windowTitle(), options.title);
        EXPECT_EQ(dialog->fileMode(), QFileDialog::Directory);
        EXPECT_TRUE(dialog->testOption(QFileDialog::ShowDirsOnly));
        EXPECT_FALSE(dialog->testOption(QFileDialog::ReadOnly));
        EXPECT_EQ(QDir(dialog->directory()).canonicalPath(), QDir(start.path()).canonicalPath());
        inspected = true;
        dialog->reject();
    });
    EXPECT_FALSE(DesktopFolderChooser().runModal(options).has_value());
    EXPECT_TRUE(inspected);
}

TEST(DesktopServicesTest, RepeatingTimersTickUntilInvalidated) {
    int ticks = 0;
    const std::unique_ptr<RepeatingTimer> timer =
        DesktopTimerScheduler().scheduleRepeating(0.001, [&ticks] { ++ticks; });
    EXPECT_TRUE(processEventsUntil([&ticks] { return ticks >= 3; }));
    timer->invalidate();
    const int stoppedAt = ticks;
    QCoreApplication::processEvents();
    EXPECT_EQ(ticks, stoppedAt);
}

#include "DesktopServicesTest.moc"
