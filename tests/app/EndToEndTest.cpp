#include "EndToEndSession.h"

#include "capture/CaptureEngine.h"
#include "support/EventLoop.h"
#include "support/ProcessLibraries.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <QUrl>

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

namespace {

// Sizes of Tessarel's windows in pixels at scale 1.
const QSize kPopup(480, 402);
const QSize kHome(650, 430);
const QSize kSetup(700, 460);
const QSize kRecordingAudio(720, 318);
const QSize kRecordingVideo(720, 220);

// Where a person clicks, relative to a window's top-left corner, in points.
// The popup's rows are 92 high and start 88 below its top.
QPoint popupRow(const QRect& popup, int row) {
    return {popup.center().x(), popup.top() + 88 + 46 + 92 * row};
}
// The set-up screens' start button sits at the right end of the 86-point bottom bar, the
// format row's menu in the middle of the settings.
const QPoint kStartButton(560, 417);
const QPoint kFormatButton(400, 272);
// The stop button, at the right of the progress screens.
const QPoint kStopAudio(600, 266);
const QPoint kStopVideo(600, 156);

QPoint at(const QRect& window, const QPoint& offset, int scale = 1) {
    return window.topLeft() + offset * scale;
}

// The files in the save folder.
QStringList captures(const EndToEndSession& session) {
    return QDir(session.saveFolder()).entryList(QDir::Files, QDir::Name);
}

// Checks the name's pattern and that its time lies within the test's run, in local time.
void expectCaptureName(const QString& fileName, const QString& prefix, const QString& extension,
                       const QDateTime& before, const QDateTime& after) {
    const QRegularExpression pattern(
        QStringLiteral("^") + QRegularExpression::escape(prefix) +
        QStringLiteral(" (\\d{4}-\\d{2}-\\d{2} at \\d{2}\\.\\d{2}\\.\\d{2})\\.") +
        QRegularExpression::escape(extension) + QStringLiteral("$"));
    const auto match = pattern.match(fileName);
    ASSERT_TRUE(match.hasMatch()) << fileName.toStdString();
    const QDateTime stamp =
        QDateTime::fromString(match.captured(1), QStringLiteral("yyyy-MM-dd 'at' HH.mm.ss"));
    ASSERT_TRUE(stamp.isValid()) << fileName.toStdString();
    EXPECT_GE(stamp, before.addSecs(-1));
    EXPECT_LE(stamp, after.addSecs(1));
}

// The one capture in the save folder, revealed by exactly one ShowItems call for it.
QString expectOneRevealedCapture(EndToEndSession& session) {
    EXPECT_TRUE(session.waitForReveals(1));
    const QStringList files = captures(session);
    EXPECT_EQ(files.size(), 1) << files.join(QStringLiteral(", ")).toStdString();
    if (files.size() != 1) {
        return {};
    }
    const QString path = QDir(session.saveFolder()).filePath(files.first());
    const auto& calls = session.fileManager().showItemsCalls();
    EXPECT_EQ(calls.size(), 1u);
    if (!calls.empty()) {
        EXPECT_EQ(calls.front().uris,
                  QStringList{QUrl::fromLocalFile(path).toString(QUrl::FullyEncoded)});
    }
    EXPECT_TRUE(session.fileManager().otherCalls().isEmpty());
    return path;
}

// Counts the pixels of `area` (in the picture's coordinates) that differ from `reference`
// seen from `origin`.
int differingPixels(const QImage& picture, const QImage& reference, const QRect& area,
                    const QPoint& origin = QPoint(0, 0)) {
    const QImage a = picture.convertToFormat(QImage::Format_RGB32);
    const QImage b = reference.convertToFormat(QImage::Format_RGB32);
    int differing = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            if ((a.pixel(x, y) & 0xffffff) !=
                (b.pixel(origin.x() + x, origin.y() + y) & 0xffffff)) {
                ++differing;
            }
        }
    }
    return differing;
}

class EndToEndTest : public testing::Test {
protected:
    struct Snapshot {
        QImage picture;
        QRect panel; // where the panel stood when the snapshot was taken
    };

    // Takes a PNG snapshot from the panel opened through the tray's popup, and checks its
    // name, format, size and that it was revealed.
    static std::optional<Snapshot> takeSnapshot(EndToEndSession& session,
                                                const QProcess& tessarel) {
        const auto setup = openFromPopup(session, tessarel, 2);
        if (!setup) {
            return std::nullopt;
        }
        session.screenshot(QStringLiteral("snapshot-setup"));
        const QDateTime before = QDateTime::currentDateTime();
        session.click(at(setup->geometry, kStartButton));
        const QString path = expectOneRevealedCapture(session);
        const QDateTime after = QDateTime::currentDateTime();
        if (path.isEmpty()) {
            return std::nullopt;
        }
        expectCaptureName(QFileInfo(path).fileName(), QStringLiteral("Tessarel Snapshot"),
                          QStringLiteral("png"), before, after);
        EXPECT_EQ(EndToEndSession::probe(path).value(QStringLiteral("codec_name")).toString(),
                  QStringLiteral("png"));
        Snapshot snapshot{QImage(path), setup->geometry};
        EXPECT_EQ(snapshot.picture.size(), session.background().size());
        return snapshot;
    }

    // Records the area dragged out from `from` to `to` for `seconds`, from the panel opened
    // through the tray's popup; false when the recording did not start.
    static bool recordMovie(EndToEndSession& session, const QProcess& tessarel, const QPoint& from,
                            const QPoint& to, int seconds) {
        const auto setup = openFromPopup(session, tessarel, 1);
        if (!setup) {
            return false;
        }
        session.click(at(setup->geometry, kStartButton));
        // The overlay covers the screen while the area is chosen.
        EXPECT_TRUE(session.waitForWindow(tessarel.processId(), [](const auto& window) {
            return window.geometry.topLeft() == QPoint(0, 0) && window.geometry.width() >= 1600;
        })) << "no selection overlay";
        session.drag(from, to);
        const auto recording = session.waitForWindowOfSize(tessarel.processId(), kRecordingVideo);
        EXPECT_TRUE(recording) << "the recording did not start";
        if (!recording) {
            return false;
        }
        session.screenshot(QStringLiteral("recording-video"));
        QThread::sleep(seconds);
        session.click(at(recording->geometry, kStopVideo));
        return true;
    }

    // Clicks the tray icon, then a row of the popup, and returns the panel showing the
    // set-up screen that row opens.
    static std::optional<EndToEndSession::WindowInfo>
    openFromPopup(EndToEndSession& session, const QProcess& tessarel, int row) {
        const auto icon = session.waitForTrayIcon(tessarel.processId());
        EXPECT_TRUE(icon) << "no tray icon docked";
        if (!icon) {
            return std::nullopt;
        }
        session.click(icon->geometry.center());
        const auto popup = session.waitForWindowOfSize(tessarel.processId(), kPopup);
        EXPECT_TRUE(popup) << "no popup under the tray icon";
        if (!popup) {
            return std::nullopt;
        }
        session.screenshot(QStringLiteral("popup"));
        session.click(popupRow(popup->geometry, row));
        const auto panel = session.waitForWindowOfSize(tessarel.processId(), kSetup);
        EXPECT_TRUE(panel) << "no panel with the set-up screen";
        return panel;
    }
};

} // namespace

TEST_F(EndToEndTest, AnMP3RecordingOfTheComputersSoundIsSavedUnderItsTimestampedNameAndRevealed) {
    EndToEndSession session({});
    QProcess& tessarel = session.startTessarel();
    const auto setup = openFromPopup(session, tessarel, 0);
    ASSERT_TRUE(setup);
    const QRect panel = setup->geometry;

    session.click(at(panel, kFormatButton));
    const auto menu = session.waitForWindow(tessarel.processId(), [&](const auto& window) {
        return window.geometry.size() != kSetup && window.geometry.height() < 200 &&
               window.geometry.top() > panel.top();
    });
    ASSERT_TRUE(menu) << "the format menu did not open";
    session.screenshot(QStringLiteral("format-menu"));
    // M4A, MP3, WAV: the second of three equal items.
    session.click(
        QPoint(menu->geometry.center().x(), menu->geometry.top() + menu->geometry.height() / 2));

    session.sound().playTone(440, 600);
    const QDateTime before = QDateTime::currentDateTime();
    session.click(at(panel, kStartButton));
    const auto recording = session.waitForWindowOfSize(tessarel.processId(), kRecordingAudio);
    ASSERT_TRUE(recording) << "the recording did not start";
    session.screenshot(QStringLiteral("recording-audio"));
    // Long enough for sound to reach the file.
    QThread::sleep(2);
    session.click(at(recording->geometry, kStopAudio));
    const QString path = expectOneRevealedCapture(session);
    const QDateTime after = QDateTime::currentDateTime();
    session.screenshot(QStringLiteral("home"));
    ASSERT_FALSE(path.isEmpty());

    expectCaptureName(QFileInfo(path).fileName(), QStringLiteral("Tessarel Audio"),
                      QStringLiteral("mp3"), before, after);
    const QJsonObject stream = EndToEndSession::probe(path);
    EXPECT_EQ(stream.value(QStringLiteral("format_name")).toString(), QStringLiteral("mp3"));
    EXPECT_EQ(stream.value(QStringLiteral("codec_name")).toString(), QStringLiteral("mp3"));
    EXPECT_EQ(stream.value(QStringLiteral("sample_rate")).toString(), QStringLiteral("48000"));
    EXPECT_EQ(stream.value(QStringLiteral("channels")).toInt(), 2);
    // The tone, played at half of full scale (-6 dB), is in it.
    const std::optional<double> peak = EndToEndSession::peakLevel(path);
    ASSERT_TRUE(peak);
    EXPECT_GT(*peak, -12.0);
    // The panel is back at home.
    EXPECT_TRUE(session.waitForWindowOfSize(tessarel.processId(), kHome));
}

TEST_F(EndToEndTest, ASnapshotHasTheScreensPixelSizeLeavesThePanelOutAndIsRevealed) {
    EndToEndSession session({});
    QProcess& tessarel = session.startTessarel();

    const auto snapshot = takeSnapshot(session, tessarel);

    ASSERT_TRUE(snapshot);
    // Where the panel stood, the picture shows the desktop behind it.
    EXPECT_EQ(differingPixels(snapshot->picture, session.background(), snapshot->panel), 0);
}

TEST_F(EndToEndTest, TheCaptureLibrariesAreLoadedByTheFirstCaptureNotAtStart) {
    EndToEndSession session({});
    QProcess& tessarel = session.startTessarel();
    ASSERT_TRUE(session.waitForTrayIcon(tessarel.processId()));

    for (const QString& name :
         {QStringLiteral("tessarel_screen"), QStringLiteral("tessarel_capture"),
          QStringLiteral("libavcodec"), QStringLiteral("libx264"), QStringLiteral("libpulse\\.")}) {
        EXPECT_FALSE(ProcessLibraries::maps(tessarel.processId(), name)) << name.toStdString();
    }

    ASSERT_TRUE(takeSnapshot(session, tessarel));
    EXPECT_TRUE(ProcessLibraries::maps(tessarel.processId(), QStringLiteral("tessarel_screen")));
}

TEST_F(EndToEndTest, ASnapshotLoadsNoneOfTheRecordersLibrariesAndTheFirstMovieLoadsThem) {
    EndToEndSession session({});
    QProcess& tessarel = session.startTessarel();

    ASSERT_TRUE(takeSnapshot(session, tessarel));
    const QStringList recorders{QStringLiteral("tessarel_capture"), QStringLiteral("libavcodec"),
                                QStringLiteral("libavformat"),      QStringLiteral("libx264"),
                                QStringLiteral("libpulse\\."),      QStringLiteral("libpipewire")};
    for (const QString& name : recorders) {
        EXPECT_FALSE(ProcessLibraries::maps(tessarel.processId(), name)) << name.toStdString();
    }

    ASSERT_TRUE(recordMovie(session, tessarel, QPoint(100, 100), QPoint(300, 200), 1));
    ASSERT_TRUE(session.waitForReveals(2)) << "the movie was not finished";
    for (const QString& name : {QStringLiteral("tessarel_capture"), QStringLiteral("libavcodec"),
                                QStringLiteral("libx264")}) {
        EXPECT_TRUE(ProcessLibraries::maps(tessarel.processId(), name)) << name.toStdString();
    }
}

TEST_F(EndToEndTest,
       AMovieLeavesNeitherItsRecordersLibrariesMappedNorTheirCodeResidentAndTheNextLoadsThem) {
    EndToEndSession session({});
    QProcess& tessarel = session.startTessarel();
    // PulseAudio's libraries ask never to be unloaded; these can leave.
    const QStringList recorders{QStringLiteral("tessarel_capture"), QStringLiteral("libavcodec"),
                                QStringLiteral("libavformat"), QStringLiteral("libx264")};
    const auto noneMapped = [&] {
        return std::none_of(recorders.begin(), recorders.end(), [&](const QString& name) {
            return ProcessLibraries::maps(tessarel.processId(), name);
        });
    };

    // The screen module, which stays, is loaded by the snapshot.
    ASSERT_TRUE(takeSnapshot(session, tessarel));
    const ProcessLibraries::ResidentCode before =
        ProcessLibraries::residentCode(tessarel.processId());

    ASSERT_TRUE(recordMovie(session, tessarel, QPoint(100, 100), QPoint(300, 200), 1));
    ASSERT_TRUE(session.waitForReveals(2)) << "the first movie was not finished";
    EXPECT_TRUE(processEventsUntil(noneMapped, 40000));
    for (const QString& name : recorders) {
        EXPECT_FALSE(ProcessLibraries::maps(tessarel.processId(), name)) << name.toStdString();
    }
    // What the C library keeps of the movie's libraries soon holds none of their code.
    QString leftBehind;
    EXPECT_TRUE(
        ProcessLibraries::codeLoadedSinceIsReleased(tessarel.processId(), before, leftBehind))
        << leftBehind.toStdString();

    ASSERT_TRUE(recordMovie(session, tessarel, QPoint(100, 100), QPoint(300, 200), 1));
    ASSERT_TRUE(session.waitForReveals(3)) << "the second movie was not finished";
    QStringList movies = captures(session);
    movies.removeIf([](const QString& name) { return !name.endsWith(QStringLiteral(".mp4")); });
    ASSERT_EQ(movies.size(), 2) << movies.join(QStringLiteral(", ")).toStdString();
    for (const QString& movie : movies) {
        const QJsonObject stream =
            EndToEndSession::probe(QDir(session.saveFolder()).filePath(movie));
        EXPECT_EQ(stream.value(QStringLiteral("codec_name")).toString(), QStringLiteral("h264"))
            << movie.toStdString();
        EXPECT_EQ(stream.value(QStringLiteral("width")).toInt(), 200) << movie.toStdString();
        EXPECT_EQ(stream.value(QStringLiteral("height")).toInt(), 100) << movie.toStdString();
    }
}

// The sound goes from the sound server's thread of the module's stream straight to the writer:
// a recording after the module has left and come back is as whole as the first.
TEST_F(EndToEndTest, SoundIsRecordedAgainAfterTheCaptureModuleHasLeft) {
    EndToEndSession session({});
    QProcess& tessarel = session.startTessarel();
    session.sound().playTone(440, 600);
    const auto recordSound = [&](size_t reveals) {
        const auto setup = openFromPopup(session, tessarel, 0);
        ASSERT_TRUE(setup);
        session.click(at(setup->geometry, kStartButton));
        const auto recording = session.waitForWindowOfSize(tessarel.processId(), kRecordingAudio);
        ASSERT_TRUE(recording) << "the recording did not start";
        QThread::sleep(2);
        session.click(at(recording->geometry, kStopAudio));
        ASSERT_TRUE(session.waitForReveals(reveals)) << "the recording was not finished";
    };

    recordSound(1);
    EXPECT_TRUE(processEventsUntil(
        [&] {
            return !ProcessLibraries::maps(tessarel.processId(),
                                           QStringLiteral("tessarel_capture"));
        },
        40000))
        << "the capture module stayed";
    recordSound(2);
    const QStringList recordings = captures(session);
    ASSERT_EQ(recordings.size(), 2) << recordings.join(QStringLiteral(", ")).toStdString();
    for (const QString& recording : recordings) {
        const QString path = QDir(session.saveFolder()).filePath(recording);
        const QJsonObject stream = EndToEndSession::probe(path);
        EXPECT_EQ(stream.value(QStringLiteral("sample_rate")).toString(), QStringLiteral("48000"))
            << recording.toStdString();
        // The tone, played at half of full scale (-6 dB), is in it.
        const std::optional<double> peak = EndToEndSession::peakLevel(path);
        ASSERT_TRUE(peak);
        EXPECT_GT(*peak, -12.0) << recording.toStdString();
    }
}

TEST_F(EndToEndTest, ASnapshotOnAServerWithoutCompositeLeavesThePanelOutAndShowsItAgain) {
    EndToEndSession::Options options;
    options.withheldExtensions = {QStringLiteral("COMPOSITE")};
    EndToEndSession session(options);
    QProcess& tessarel = session.startTessarel();

    const auto snapshot = takeSnapshot(session, tessarel);

    ASSERT_TRUE(snapshot);
    EXPECT_EQ(differingPixels(snapshot->picture, session.background(), snapshot->panel), 0);
    // The panel is on the screen again once Qt has drawn it anew.
    const QTemporaryDir pictures;
    const QString screen = pictures.filePath(QStringLiteral("screen.png"));
    const auto panelShown = [&] {
        session.display().run(QStringLiteral("import"),
                              {QStringLiteral("-window"), QStringLiteral("root"), screen});
        return differingPixels(QImage(screen), session.background(), snapshot->panel) >
               snapshot->panel.width() * snapshot->panel.height() / 2;
    };
    EXPECT_TRUE(processEventsUntil(panelShown, 10000)) << "the panel is not on the screen again";
}

TEST_F(EndToEndTest, ADraggedOutAreaIsRecordedAsH264AtTheEvenSizeTheEngineComputesAndRevealed) {
    EndToEndSession session({});
    QProcess& tessarel = session.startTessarel();
    // Odd sides, so that the recording has to round them down.
    const QPoint from(301, 251);
    const QPoint to(702, 504);
    const QDateTime before = QDateTime::currentDateTime();
    ASSERT_TRUE(recordMovie(session, tessarel, from, to, 3));
    const QString path = expectOneRevealedCapture(session);
    const QDateTime after = QDateTime::currentDateTime();
    ASSERT_FALSE(path.isEmpty());

    expectCaptureName(QFileInfo(path).fileName(), QStringLiteral("Tessarel Video"),
                      QStringLiteral("mp4"), before, after);
    const PixelSize expected = CaptureEngine::videoOutputSize(
        Size{static_cast<double>(to.x() - from.x()), static_cast<double>(to.y() - from.y())}, 1.0);
    const QJsonObject stream = EndToEndSession::probe(path);
    EXPECT_EQ(stream.value(QStringLiteral("codec_name")).toString(), QStringLiteral("h264"));
    EXPECT_TRUE(
        stream.value(QStringLiteral("format_name")).toString().contains(QStringLiteral("mp4")));
    EXPECT_EQ(stream.value(QStringLiteral("width")).toInt(), expected.width);
    EXPECT_EQ(stream.value(QStringLiteral("height")).toInt(), expected.height);
    EXPECT_EQ(expected.width, 400);
    EXPECT_EQ(expected.height, 252);
}

TEST_F(EndToEndTest, WithoutATrayOneInstanceShowsThePanelAtHomeAndASecondStartRaisesIt) {
    EndToEndSession::Options options;
    options.trayHost = false;
    EndToEndSession session(options);
    QProcess& first = session.startTessarel();
    const auto panel = session.waitForWindowOfSize(first.processId(), kHome);
    ASSERT_TRUE(panel) << "no panel at home";
    const QByteArray named =
        session.xdotool({QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                         QStringLiteral("--name"), QStringLiteral("^Tessarel$")});
    EXPECT_TRUE(named.split('\n').contains(QByteArray::number(panel->id)));
    session.screenshot(QStringLiteral("home-without-tray"));

    // Away from home, then hidden under another window.
    session.display().movePointer(panel->geometry.left() + 200, panel->geometry.top() + 40);
    session.key(QStringLiteral("ctrl+r"));
    ASSERT_TRUE(session.waitForWindowOfSize(first.processId(), kSetup));
    const auto cover = session.display().showWindow(QRect(0, 0, 1600, 1000),
                                                    VirtualDisplay::testPattern({1600, 1000}, 3));
    auto stacking = session.stackingOrder();
    ASSERT_EQ(stacking.back(), cover->id());

    QProcess& second = session.startTessarel();
    ASSERT_TRUE(second.waitForFinished(60000));
    EXPECT_EQ(second.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_EQ(first.state(), QProcess::Running);

    const auto raised = session.waitForWindowOfSize(first.processId(), kHome);
    ASSERT_TRUE(raised) << "the panel did not come back at home";
    EXPECT_EQ(raised->id, panel->id);
    stacking = session.stackingOrder();
    const auto position = [&stacking](uint32_t id) {
        return std::find(stacking.begin(), stacking.end(), id) - stacking.begin();
    };
    EXPECT_GT(position(panel->id), position(cover->id()));
    session.screenshot(QStringLiteral("raised"));
    // Every visible window of Tessarel belongs to the first process.
    for (const QByteArray& id :
         session
             .xdotool({QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                       QStringLiteral("--name"), QStringLiteral("Tessarel")})
             .split('\n')) {
        if (!id.trimmed().isEmpty()) {
            EXPECT_EQ(session.xdotool({QStringLiteral("getwindowpid"), QString::fromLatin1(id)})
                          .trimmed()
                          .toLongLong(),
                      first.processId());
        }
    }
}

TEST_F(EndToEndTest, ASnapshotHasThePixelSizeAndPixelsOfTheMonitorHoldingTheFocusedWindow) {
    // A 1920 × 1080 monitor at scale 1 and, to its right, a 2560 × 1440 primary at scale 2.
    const QRect big(0, 0, 1920, 1080);
    const QRect dense(1920, 0, 2560, 1440);
    EndToEndSession::Options options;
    options.screenSize = QSize(4480, 1440);
    options.trayHost = false;
    options.monitors = {{QStringLiteral("Big"), big}, {QStringLiteral("*Dense"), dense}};
    options.environment = {
        {QStringLiteral("QT_SCREEN_SCALE_FACTORS"), QStringLiteral("Big=1;Dense=2")}};
    EndToEndSession session(options);
    QProcess& tessarel = session.startTessarel();

    // The panel comes up at home on the primary monitor, where a point is two pixels.
    const auto home = session.waitForWindowOfSize(tessarel.processId(), kHome * 2);
    ASSERT_TRUE(home) << "no panel at home at scale 2";
    ASSERT_TRUE(dense.contains(home->geometry))
        << home->geometry.x() << "," << home->geometry.y() << " " << home->geometry.width() << "x"
        << home->geometry.height();
    session.display().movePointer(home->geometry.left() + 400, home->geometry.top() + 80);
    session.key(QStringLiteral("ctrl+s"));
    const auto onDense = session.waitForWindowOfSize(tessarel.processId(), kSetup * 2);
    ASSERT_TRUE(onDense) << "no snapshot set-up at scale 2";
    session.screenshot(QStringLiteral("on-dense-monitor"));
    session.click(at(onDense->geometry, kStartButton, 2));
    ASSERT_TRUE(session.waitForReveals(1));
    const QStringList first = captures(session);
    ASSERT_EQ(first.size(), 1);
    const QImage denseSnapshot(QDir(session.saveFolder()).filePath(first.first()));
    ASSERT_EQ(denseSnapshot.size(), dense.size());
    // The monitor's own pixels, the panel left out.
    EXPECT_EQ(
        differingPixels(denseSnapshot, session.background(), denseSnapshot.rect(), dense.topLeft()),
        0);

    // Names have whole seconds: the next snapshot gets its own once the clock has moved on.
    const QDateTime firstTaken = QDateTime::currentDateTime();
    ASSERT_TRUE(processEventsUntil([&firstTaken] {
        return QDateTime::currentDateTime().toSecsSinceEpoch() > firstTaken.toSecsSinceEpoch();
    }));
    // No window manager draws a title bar to drag the panel by; it is moved as a window
    // manager would move it, onto the other monitor.
    session.xdotool({QStringLiteral("windowmove"), QString::number(onDense->id),
                     QStringLiteral("200"), QStringLiteral("150")});
    session.display().movePointer(260, 190);
    session.key(QStringLiteral("ctrl+r"));
    session.key(QStringLiteral("ctrl+s"));
    const auto onBig = session.waitForWindow(tessarel.processId(), [&](const auto& window) {
        return window.geometry.size() == kSetup && big.contains(window.geometry);
    });
    ASSERT_TRUE(onBig) << "no snapshot set-up at scale 1";
    session.screenshot(QStringLiteral("on-big-monitor"));
    session.click(at(onBig->geometry, kStartButton));
    ASSERT_TRUE(session.waitForReveals(2));
    QStringList second = captures(session);
    second.removeAll(first.first());
    ASSERT_EQ(second.size(), 1);
    const QImage bigSnapshot(QDir(session.saveFolder()).filePath(second.first()));
    ASSERT_EQ(bigSnapshot.size(), big.size());
    EXPECT_EQ(differingPixels(bigSnapshot, session.background(), bigSnapshot.rect()), 0);
}

// Tessarel keeps no settings: a format chosen in one run is gone in the next, which starts
// with the defaults again.
TEST_F(EndToEndTest, ASecondRunForgetsTheFormatChosenInTheFirst) {
    EndToEndSession session({});
    QProcess& first = session.startTessarel();
    const auto setup = openFromPopup(session, first, 2);
    ASSERT_TRUE(setup);
    session.click(at(setup->geometry, kFormatButton));
    const auto menu = session.waitForWindow(first.processId(), [&](const auto& window) {
        return window.geometry.size() != kSetup && window.geometry.height() < 200 &&
               window.geometry.top() > setup->geometry.top();
    });
    ASSERT_TRUE(menu) << "the format menu did not open";
    // PNG, JPEG, PDF: the second of three equal items.
    session.click(
        QPoint(menu->geometry.center().x(), menu->geometry.top() + menu->geometry.height() / 2));
    session.click(at(setup->geometry, kStartButton));
    ASSERT_TRUE(session.waitForReveals(1));
    ASSERT_EQ(captures(session).size(), 1);
    EXPECT_TRUE(captures(session).front().endsWith(QStringLiteral(".jpg")))
        << captures(session).front().toStdString();
    first.terminate();
    ASSERT_TRUE(first.waitForFinished(30000));

    QProcess& second = session.startTessarel();
    const auto again = openFromPopup(session, second, 2);
    ASSERT_TRUE(again);
    session.screenshot(QStringLiteral("second-run-snapshot-setup"));
    session.click(at(again->geometry, kStartButton));
    ASSERT_TRUE(session.waitForReveals(2));
    const QStringList files = captures(session);
    ASSERT_EQ(files.size(), 2);
    EXPECT_EQ(
        std::count_if(files.begin(), files.end(),
                      [](const QString& name) { return name.endsWith(QStringLiteral(".png")); }),
        1)
        << files.join(QStringLiteral(", ")).toStdString();
}
