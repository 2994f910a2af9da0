// Which screen layer the capture module, loaded as Tessarel loads it, takes on a Wayland
// desktop: the compositor's screencopy where offered (sway), the desktop portal otherwise
// (weston, which lets no application copy the screen).

#include "MovieInspection.h"
#include "capture/OutputNumbering.h"
#include "support/PortalDesktop.h"
#include "support/VirtualDisplay.h"
#include "support/WaylandDesktop.h"

#include <QElapsedTimer>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

const QSize kOutputPixels(640, 360);
// The backend's sliding block runs through the lower quarter; above it its pictures are the
// output's test pattern (seed 1 for the first output), the pointer a square at (40, 40).
constexpr int kBlockBandTop = 360 - 360 / 8 - 24;
const QRect kPointerBox(36, 36, 24, 24);

struct Printed {
    QStringList lines;
    qint64 milliseconds = 0;
};

class PortalChoice : public testing::Test {
protected:
    explicit PortalChoice(WaylandDesktop::Compositor compositor)
        : desktop_(WaylandDesktop::Options{kOutputPixels, false, compositor}),
          portal_(desktop_, {}) {}

    // The probe in this desktop's session, its portal on the portal's bus.
    Printed probe(const QStringList& arguments) const {
        QProcessEnvironment environment = desktop_.environment();
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("wayland"));
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), portal_.busAddress());
        environment.insert(QStringLiteral("XDG_STATE_HOME"), directory_.path());
        QProcess process;
        process.setProcessEnvironment(environment);
        QElapsedTimer clock;
        clock.start();
        process.start(QStringLiteral(PLATFORM_LOADER_PROBE), arguments);
        EXPECT_TRUE(process.waitForFinished(60000));
        Printed printed{QString::fromUtf8(process.readAllStandardOutput())
                            .split(QLatin1Char('\n'), Qt::SkipEmptyParts),
                        clock.elapsed()};
        EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
        return printed;
    }

    QString path(const QString& name) const { return directory_.filePath(name); }

    QTemporaryDir directory_;
    WaylandDesktop desktop_;
    PortalDesktop portal_;
};

class PortalChoiceOnWeston : public PortalChoice {
protected:
    PortalChoiceOnWeston() : PortalChoice(WaylandDesktop::Compositor::weston) {}
};

class PortalChoiceOnSway : public PortalChoice {
protected:
    PortalChoiceOnSway() : PortalChoice(WaylandDesktop::Compositor::sway) {}
};

} // namespace

TEST_F(PortalChoiceOnWeston, SnapshotAndMovieComeFromThePortalsStream) {
    const QImage pattern = VirtualDisplay::testPattern(kOutputPixels, 1);

    ASSERT_EQ(probe({QStringLiteral("snapshot"), path(QStringLiteral("snapshot.png"))}).lines,
              QStringList{QStringLiteral("snapshot 640x360")});
    const QImage snapshot =
        QImage(path(QStringLiteral("snapshot.png"))).convertToFormat(QImage::Format_RGB32);
    long long mismatches = 0;
    for (int y = 0; y < kBlockBandTop; ++y) {
        for (int x = 0; x < kOutputPixels.width(); ++x) {
            mismatches += (snapshot.pixel(x, y) & 0xffffff) != (pattern.pixel(x, y) & 0xffffff);
        }
    }
    EXPECT_EQ(mismatches, 0);
    EXPECT_EQ(portal_.grantsGiven(), 1);

    const QString moviePath = path(QStringLiteral("movie.mp4"));
    ASSERT_EQ(probe({QStringLiteral("movie"), moviePath, QStringLiteral("1500")}).lines,
              QStringList{QStringLiteral("movie")});
    const Probe probed = ::probe(moviePath);
    EXPECT_EQ(probed.codec, "h264");
    ASSERT_EQ(probed.width, 320);
    ASSERT_EQ(probed.height, 180);
    EXPECT_GE(probed.duration, 1.3);
    const auto frames = decode(moviePath, probed.width, probed.height);
    ASSERT_FALSE(frames.empty());
    for (const QByteArray& frame : frames) {
        EXPECT_LT(meanDifference(frame, pattern, QRect(0, 0, 320, 180),
                                 [](int x, int y) { return !kPointerBox.contains(x, y); }),
                  3.0);
    }
    // The grant of the snapshot served the movie; each session closed with its capture.
    EXPECT_EQ(portal_.grantsGiven(), 1);
    EXPECT_EQ(portal_.openSessions(), 0);
}

TEST_F(PortalChoiceOnWeston, TheOverlaysPictureNeverWaitsOnThePortal) {
    // A portal that keeps its name on the bus but answers nothing.
    portal_.freezeFrontend();

    const Printed printed = probe({QStringLiteral("overlay-picture")});

    EXPECT_EQ(printed.lines, QStringList{QStringLiteral("no picture")});
    // Far below the portal calls' 30 s: the GUI thread did not wait on the portal.
    EXPECT_LT(printed.milliseconds, 10000);
    EXPECT_EQ(portal_.requestsReceived(), 0);
}

TEST_F(PortalChoiceOnWeston, PermissionIsTheDesktopsGrantAskedOnceWhileTheGuiGoesOn) {
    portal_.takeTimeInTheDialog(1500);

    // No grant yet: the desktop asks the user, and the GUI thread keeps running meanwhile.
    const QStringList first = probe({QStringLiteral("preflight")}).lines;
    ASSERT_EQ(first.size(), 1);
    EXPECT_TRUE(first.front().startsWith(QStringLiteral("allowed after ")))
        << first.front().toStdString();
    EXPECT_GE(first.front().section(QLatin1Char(' '), 2, 2).toInt(), 10);
    EXPECT_EQ(portal_.grantsGiven(), 1);
    EXPECT_EQ(portal_.openSessions(), 0);

    // The grant kept: a later run is allowed without a word to the portal, and its
    // snapshot restores the grant instead of asking again.
    const int requests = portal_.requestsReceived();
    EXPECT_EQ(probe({QStringLiteral("preflight")}).lines,
              QStringList{QStringLiteral("allowed after 0 ticks")});
    EXPECT_EQ(portal_.requestsReceived(), requests);
    ASSERT_EQ(probe({QStringLiteral("snapshot"), path(QStringLiteral("snapshot.png"))}).lines,
              QStringList{QStringLiteral("snapshot 640x360")});
    EXPECT_EQ(portal_.grantsGiven(), 1);
}

TEST_F(PortalChoiceOnWeston, DeclinedGrantRefusesThePermissionAndAsksAgainNextTime) {
    portal_.declineGrants(true);
    EXPECT_TRUE(probe({QStringLiteral("preflight")})
                    .lines.value(0)
                    .startsWith(QStringLiteral("refused after ")));
    EXPECT_EQ(portal_.grantsGiven(), 0);
    EXPECT_EQ(portal_.openSessions(), 0);

    portal_.declineGrants(false);
    EXPECT_TRUE(probe({QStringLiteral("preflight")})
                    .lines.value(0)
                    .startsWith(QStringLiteral("allowed after ")));
    EXPECT_EQ(portal_.grantsGiven(), 1);
}

TEST_F(PortalChoiceOnSway, ScreencopyServesAndThePortalIsNeverAsked) {
    const auto window = desktop_.showWindow(QStringLiteral("HEADLESS-1"), 3);
    const QImage expected = desktop_.grim(QStringLiteral("HEADLESS-1"));

    ASSERT_EQ(probe({QStringLiteral("snapshot"), path(QStringLiteral("snapshot.png"))}).lines,
              QStringList{QStringLiteral("snapshot 640x360")});
    EXPECT_EQ(QImage(path(QStringLiteral("snapshot.png"))).convertToFormat(QImage::Format_RGB32),
              expected);
    ASSERT_EQ(
        probe({QStringLiteral("movie"), path(QStringLiteral("movie.mp4")), QStringLiteral("1000")})
            .lines,
        QStringList{QStringLiteral("movie")});
    EXPECT_EQ(::probe(path(QStringLiteral("movie.mp4"))).codec, "h264");
    // Screen copy needs no grant.
    EXPECT_EQ(probe({QStringLiteral("preflight")}).lines,
              QStringList{QStringLiteral("allowed after 0 ticks")});

    EXPECT_EQ(portal_.requestsReceived(), 0);
}
