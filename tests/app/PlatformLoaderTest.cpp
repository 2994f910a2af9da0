#include "MovieInspection.h"
#include "capture/OutputNumbering.h"
#include "support/VirtualDisplay.h"
#include "support/WaylandDesktop.h"

#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

// What the probe prints in `environment`, on its standard output.
QStringList probe(const QProcessEnvironment& environment, const QStringList& arguments = {}) {
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(PLATFORM_LOADER_PROBE), arguments);
    EXPECT_TRUE(process.waitForFinished(120000));
    EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
    return QString::fromUtf8(process.readAllStandardOutput())
        .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QString displayLine(uint32_t number) {
    return QStringLiteral("display %1").arg(number);
}

class PlatformLoader : public testing::Test {
protected:
    // A Wayland desktop with XWayland's stand-in beside it: an X server on its own display.
    QProcessEnvironment both() const {
        QProcessEnvironment environment = wayland.environment();
        environment.insert(QStringLiteral("DISPLAY"), QString::fromUtf8(x11.name()));
        environment.remove(QStringLiteral("QT_QPA_PLATFORM"));
        environment.remove(QStringLiteral("XDG_SESSION_TYPE"));
        return environment;
    }

    WaylandDesktop wayland;
    VirtualDisplay x11{800, 600};
};

} // namespace

TEST_F(PlatformLoader, WaylandSessionCapturesEachOutputThroughTheCompositor) {
    QProcessEnvironment environment = both();
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("wayland"));

    EXPECT_EQ(probe(environment),
              (QStringList{displayLine(displayNumberOfOutput(QStringLiteral("HEADLESS-1"))),
                           displayLine(displayNumberOfOutput(QStringLiteral("HEADLESS-2")))}));
}

TEST_F(PlatformLoader, X11AskedForOnAWaylandDesktopKeepsTheX11LayerWhole) {
    QProcessEnvironment environment = both();
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));

    const QStringList printed = probe(environment);

    ASSERT_EQ(printed.size(), 1);
    EXPECT_TRUE(printed.front().startsWith(QStringLiteral("display ")))
        << printed.front().toStdString();
}

TEST_F(PlatformLoader, QtFallingBackToXWaylandIsRefusedWithAMessage) {
    QProcessEnvironment environment = both();
    // As Qt does where it lacks Wayland support: the first platform that loads.
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("no-such-platform;xcb"));

    const QStringList printed = probe(environment);

    ASSERT_EQ(printed.size(), 1);
    EXPECT_TRUE(
        printed.front().startsWith(QStringLiteral("unavailable: Tessarel runs through XWayland")))
        << printed.front().toStdString();
}

TEST_F(PlatformLoader, SessionWithoutAScreenToCaptureSaysSo) {
    QProcessEnvironment environment = both();
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));

    EXPECT_EQ(probe(environment),
              QStringList{QStringLiteral("unavailable: Tessarel captures the screen of X11 "
                                         "sessions and of Wayland desktops that let applications "
                                         "copy the screen.")});
}

TEST_F(PlatformLoader, TheCaptureModuleLeavesAfterAMovieAndTheNextMovieLoadsItAgain) {
    QProcessEnvironment environment = both();
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    const QTemporaryDir folder;
    const QString first = folder.filePath(QStringLiteral("first.mp4"));
    const QString second = folder.filePath(QStringLiteral("second.mp4"));

    EXPECT_EQ(probe(environment, {QStringLiteral("movies"), first, second, QStringLiteral("1000")}),
              (QStringList{QStringLiteral("movie"), QStringLiteral("unloaded"),
                           QStringLiteral("movie")}));
    // The upper left quarter of the 800 x 600 display.
    for (const QString& path : {first, second}) {
        const Probe probed = ::probe(path);
        EXPECT_EQ(probed.codec, "h264") << path.toStdString();
        EXPECT_EQ(probed.width, 400) << path.toStdString();
        EXPECT_EQ(probed.height, 300) << path.toStdString();
    }
}
