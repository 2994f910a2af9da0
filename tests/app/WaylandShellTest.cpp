#include "support/EventLoop.h"
#include "support/ProcessLibraries.h"
#include "support/WaylandDesktop.h"

#include <QColor>
#include <QDir>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPainter>
#include <QProcess>
#include <QRect>
#include <QRegularExpression>
#include <QSvgRenderer>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <vector>

// Tessarel on a headless sway, driven as a person would: the pointer clicks the item in
// swaybar's tray and the windows sway shows, keys come from wtype.

namespace {

// Sizes of Tessarel's windows in points.
const QSize kPopup(480, 402);
const QSize kHome(650, 430);
const QSize kSetup(700, 460);

// The tray icon's gold, and the colour each set-up screen's header symbol is drawn in.
const QColor kIconGold(255, 184, 0);
const QColor kAudio(255, 51, 71);
const QColor kVideo(26, 133, 255);
const QColor kSnapshot(128, 51, 235);

// The popup's rows are 92 high and start 88 below its top.
QPoint popupRow(const QRect& popup, int row) {
    return {popup.center().x(), popup.top() + 88 + 46 + 92 * row};
}

struct View {
    QRect rect; // in the layout's points
    bool floating = false;
    bool fullscreen = false;
    bool focused = false;
};

bool near(QRgb pixel, const QColor& colour) {
    constexpr int tolerance = 12;
    return std::abs(qRed(pixel) - colour.red()) <= tolerance &&
           std::abs(qGreen(pixel) - colour.green()) <= tolerance &&
           std::abs(qBlue(pixel) - colour.blue()) <= tolerance;
}

// The pixels of `area` (in the picture's coordinates) near `colour`.
std::vector<QPoint> pixelsNear(const QImage& picture, const QRect& area, const QColor& colour) {
    std::vector<QPoint> found;
    const QRect inside = area.intersected(picture.rect());
    for (int y = inside.top(); y <= inside.bottom(); ++y) {
        for (int x = inside.left(); x <= inside.right(); ++x) {
            if (near(picture.pixel(x, y), colour)) {
                found.emplace_back(x, y);
            }
        }
    }
    return found;
}

// Keys as wtype types them, after a pause that lets its keyboard reach the seat; then wtype
// holds the keyboard until this ends. The seat has a keyboard, and Tessarel a focused window,
// only while wtype runs: whatever depends on the keyboard is checked while this holds it.
class HeldKeyboard {
public:
    HeldKeyboard(const QProcessEnvironment& environment, const QStringList& keys) {
        wtype_.setProcessEnvironment(environment);
        wtype_.start(QStringLiteral("wtype"),
                     QStringList{QStringLiteral("-s"), QStringLiteral("800")} + keys +
                         QStringList{QStringLiteral("-s"), QStringLiteral("60000")});
        started_ = wtype_.waitForStarted();
    }
    ~HeldKeyboard() { release(); }
    HeldKeyboard(const HeldKeyboard&) = delete;
    HeldKeyboard& operator=(const HeldKeyboard&) = delete;

    bool started() const { return started_; }
    bool holding() const { return wtype_.state() == QProcess::Running; }
    void release() {
        wtype_.kill();
        wtype_.waitForFinished();
    }

private:
    QProcess wtype_;
    bool started_ = false;
};

class WaylandShell {
public:
    explicit WaylandShell(bool withBar, QSize outputSize = {1280, 720})
        : desktop_(WaylandDesktop::Options{outputSize, withBar}) {}
    explicit WaylandShell(const WaylandDesktop::Options& options) : desktop_(options) {}

    ~WaylandShell() {
        for (auto& process : tessarel_) {
            process->terminate();
            if (!process->waitForFinished(5000)) {
                process->kill();
                process->waitForFinished(5000);
            }
        }
    }

    WaylandDesktop& desktop() { return desktop_; }

    // Starts Tessarel as a Wayland client of the desktop, as its session would. Traced, it
    // writes libwayland's record of every request and event to its standard error, kept for
    // the test to read.
    QProcess& startTessarel(bool traced = false) {
        auto process = std::make_unique<QProcess>();
        QStringList settings{QStringLiteral("XDG_SESSION_TYPE=wayland")};
        if (traced) {
            settings << QStringLiteral("WAYLAND_DEBUG=1");
        }
        const QStringList commandLine = desktop_.asDesktopUser(
            QStringLiteral("env"), settings << QStringLiteral(TESSAREL_PROGRAM));
        process->setProcessChannelMode(traced ? QProcess::SeparateChannels
                                              : QProcess::ForwardedErrorChannel);
        process->start(commandLine.front(), commandLine.mid(1));
        EXPECT_TRUE(process->waitForStarted(10000));
        tessarel_.push_back(std::move(process));
        return *tessarel_.back();
    }

    // Tessarel's windows as sway shows them.
    std::vector<View> views(const QProcess& tessarel) const {
        std::vector<View> found;
        const std::function<void(const QJsonObject&, bool)> walk = [&](const QJsonObject& node,
                                                                       bool floating) {
            if (node[QStringLiteral("pid")].toInteger() == tessarel.processId()) {
                const QJsonObject rect = node[QStringLiteral("rect")].toObject();
                found.push_back(
                    {QRect(rect[QStringLiteral("x")].toInt(), rect[QStringLiteral("y")].toInt(),
                           rect[QStringLiteral("width")].toInt(),
                           rect[QStringLiteral("height")].toInt()),
                     floating, node[QStringLiteral("fullscreen_mode")].toInt() != 0,
                     node[QStringLiteral("focused")].toBool()});
            }
            for (const auto child : node[QStringLiteral("nodes")].toArray()) {
                walk(child.toObject(), floating);
            }
            for (const auto child : node[QStringLiteral("floating_nodes")].toArray()) {
                walk(child.toObject(), true);
            }
        };
        walk(QJsonDocument::fromJson(desktop_.swaymsg({QStringLiteral("-r"), QStringLiteral("-t"),
                                                       QStringLiteral("get_tree")}))
                 .object(),
             false);
        return found;
    }

    std::optional<View> waitForView(const QProcess& tessarel,
                                    const std::function<bool(const View&)>& accept) const {
        std::optional<View> match;
        processEventsUntil([&] {
            for (const View& view : views(tessarel)) {
                if (accept(view)) {
                    match = view;
                    return true;
                }
            }
            return false;
        });
        return match;
    }

    std::optional<View> waitForFloatingView(const QProcess& tessarel, const QSize& size) const {
        return waitForView(
            tessarel, [&](const View& view) { return view.floating && view.rect.size() == size; });
    }

    // Where Tessarel's icon shows in the bar on the first output, found by its colour.
    std::optional<QPoint> waitForTrayIcon() const {
        std::optional<QPoint> centre;
        processEventsUntil([&] {
            const QImage picture = desktop_.grim(QStringLiteral("HEADLESS-1"));
            const std::vector<QPoint> gold =
                pixelsNear(picture, QRect(0, 0, picture.width(), 40), kIconGold);
            if (gold.size() < 10) {
                return false;
            }
            QRect bounds;
            for (const QPoint& point : gold) {
                bounds = bounds.united(QRect(point, QSize(1, 1)));
            }
            centre = bounds.center();
            return true;
        });
        return centre;
    }

    void click(const QPoint& at) {
        WaylandDesktop::Pointer& pointer = desktop_.pointer();
        pointer.move(at);
        // A hand rests a moment before it presses: a press arriving in the same instant as
        // the pointer, on a window that has just appeared, was seen to go missing.
        QThread::msleep(300);
        pointer.press();
        pointer.release();
    }

    // Keys as wtype types them, after a pause that lets its keyboard reach the seat.
    void key(const QStringList& arguments) {
        desktop_.run(QStringLiteral("wtype"),
                     QStringList{QStringLiteral("-s"), QStringLiteral("800")} + arguments);
    }

    // Which set-up screen a view of the first output shows, told by its header symbol.
    std::optional<QColor> setupKind(const View& panel) const {
        const QImage picture = desktop_.grim(QStringLiteral("HEADLESS-1"));
        // The symbol's tile at the header's left end; the rest of the screen has blues of
        // its own.
        const QRect header(panel.rect.topLeft(), QSize(120, 100));
        std::optional<QColor> kind;
        for (const QColor& colour : {kAudio, kVideo, kSnapshot}) {
            if (pixelsNear(picture, header, colour).size() >= 20) {
                if (kind) {
                    return std::nullopt; // two kinds at once is no set-up screen
                }
                kind = colour;
            }
        }
        return kind;
    }

private:
    WaylandDesktop desktop_;
    std::vector<std::unique_ptr<QProcess>> tessarel_;
};

} // namespace

TEST(WaylandShellTest, ClickingTheTrayItemBringsUpTheThreeCapturesAndEachRowOpensItsScreen) {
    WaylandShell shell(true);
    QProcess& tessarel = shell.startTessarel();
    const std::optional<QPoint> icon = shell.waitForTrayIcon();
    ASSERT_TRUE(icon) << "no item in the bar";
    // With a tray, nothing shows until the user asks.
    EXPECT_TRUE(shell.views(tessarel).empty());

    const QColor kinds[] = {kAudio, kVideo, kSnapshot};
    for (int row = 0; row < 3; ++row) {
        shell.click(*icon);
        const std::optional<View> popup = shell.waitForFloatingView(tessarel, kPopup);
        ASSERT_TRUE(popup) << "no popup after a click on the item";
        EXPECT_TRUE(popup->focused);
        // sway puts it in the middle of the output the user works on.
        EXPECT_TRUE(QRect(0, 0, 1280, 720).contains(popup->rect));
        shell.click(popupRow(popup->rect, row));
        const std::optional<View> panel = shell.waitForFloatingView(tessarel, kSetup);
        ASSERT_TRUE(panel) << "row " << row << " opened no set-up screen";
        std::optional<QColor> kind;
        processEventsUntil([&] {
            kind = shell.setupKind(*panel);
            return kind == kinds[row];
        });
        EXPECT_EQ(kind, kinds[row]) << "row " << row;
        // The popup went as the screen opened.
        EXPECT_TRUE(processEventsUntil([&] {
            const std::vector<View> shown = shell.views(tessarel);
            return std::none_of(shown.begin(), shown.end(),
                                [](const View& view) { return view.rect.size() == kPopup; });
        }));
    }
}

TEST(WaylandShellTest, ASecondClickOnTheItemOrEscapeClosesThePopup) {
    WaylandShell shell(true);
    QProcess& tessarel = shell.startTessarel();
    const std::optional<QPoint> icon = shell.waitForTrayIcon();
    ASSERT_TRUE(icon);

    shell.click(*icon);
    ASSERT_TRUE(shell.waitForFloatingView(tessarel, kPopup));
    shell.click(*icon);
    EXPECT_TRUE(processEventsUntil([&] { return shell.views(tessarel).empty(); }));

    shell.click(*icon);
    ASSERT_TRUE(shell.waitForFloatingView(tessarel, kPopup));
    // The seat loses its keyboard, and Tessarel its focus, when wtype ends: the popup must
    // be gone while wtype still holds the keyboard.
    HeldKeyboard typing(shell.desktop().environment(),
                        {QStringLiteral("-k"), QStringLiteral("Escape")});
    ASSERT_TRUE(typing.started());
    EXPECT_TRUE(
        processEventsUntil([&] { return shell.views(tessarel).empty() || !typing.holding(); }));
    EXPECT_TRUE(typing.holding()) << "the popup stayed up after Escape";
    EXPECT_TRUE(shell.views(tessarel).empty());
}

TEST(WaylandShellTest, WithoutATrayThePanelComesUpAtStartAndASecondStartRaisesIt) {
    WaylandShell shell(false);
    QProcess& tessarel = shell.startTessarel();
    const std::optional<View> panel = shell.waitForFloatingView(tessarel, kHome);
    ASSERT_TRUE(panel) << "no panel at start";
    EXPECT_TRUE(panel->focused);

    // The user closes the panel; Tessarel keeps running.
    shell.desktop().swaymsg(
        {QStringLiteral("[pid=%1]").arg(tessarel.processId()), QStringLiteral("kill")});
    ASSERT_TRUE(processEventsUntil([&] { return shell.views(tessarel).empty(); }));
    EXPECT_EQ(tessarel.state(), QProcess::Running);

    QProcess& second = shell.startTessarel();
    EXPECT_TRUE(second.waitForFinished(20000));
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_TRUE(shell.waitForFloatingView(tessarel, kHome)) << "the panel did not come back";
}

namespace {

// Whether libwayland's `trace` of a client shows a blur committed for the surface of its
// toplevel titled `title`. Object numbers are reused once freed, so each is read as the
// trace stood when the request named it.
bool blurCommittedForToplevel(const QString& trace, const QString& title) {
    static const QRegularExpression xdgSurfaceMade(
        QStringLiteral(R"re(get_xdg_surface\(new id xdg_surface@(\d+), wl_surface@(\d+)\))re"));
    static const QRegularExpression toplevelMade(
        QStringLiteral(R"re(xdg_surface@(\d+)\.get_toplevel\(new id xdg_toplevel@(\d+)\))re"));
    static const QRegularExpression titled(
        QStringLiteral(R"re(xdg_toplevel@(\d+)\.set_title\("(.*)"\))re"));
    static const QRegularExpression blurMade(QStringLiteral(
        R"re(org_kde_kwin_blur_manager@\d+\.create\(new id org_kde_kwin_blur@(\d+), wl_surface@(\d+)\))re"));
    static const QRegularExpression blurCommitted(
        QStringLiteral(R"re(org_kde_kwin_blur@(\d+)\.commit\(\))re"));
    std::map<QString, QString> surfaceOfXdgSurface;
    std::map<QString, QString> surfaceOfToplevel;
    std::map<QString, QString> surfaceOfBlur;
    std::set<QString> titledSurfaces;
    std::set<QString> blurredSurfaces;
    for (const QString& line : trace.split(QLatin1Char('\n'))) {
        QRegularExpressionMatch match;
        if ((match = xdgSurfaceMade.match(line)).hasMatch()) {
            surfaceOfXdgSurface[match.captured(1)] = match.captured(2);
        } else if ((match = toplevelMade.match(line)).hasMatch()) {
            surfaceOfToplevel[match.captured(2)] = surfaceOfXdgSurface[match.captured(1)];
        } else if ((match = titled.match(line)).hasMatch() && match.captured(2) == title) {
            titledSurfaces.insert(surfaceOfToplevel[match.captured(1)]);
        } else if ((match = blurMade.match(line)).hasMatch()) {
            surfaceOfBlur[match.captured(1)] = match.captured(2);
        } else if ((match = blurCommitted.match(line)).hasMatch()) {
            blurredSurfaces.insert(surfaceOfBlur[match.captured(1)]);
        }
    }
    return std::any_of(titledSurfaces.begin(), titledSurfaces.end(),
                       [&](const QString& surface) { return blurredSurfaces.count(surface) > 0; });
}

} // namespace

TEST(WaylandShellTest, OnKWinWithItsBlurOnThePanelAsksForTheBlurBehindItsSurface) {
    WaylandShell shell(
        WaylandDesktop::Options{{1280, 720}, false, WaylandDesktop::Compositor::kwin});
    QProcess& tessarel = shell.startTessarel(true);
    QString trace;
    const bool asked = processEventsUntil([&] {
        trace += QString::fromUtf8(tessarel.readAllStandardError());
        return blurCommittedForToplevel(trace, QStringLiteral("Tessarel"));
    });
    EXPECT_TRUE(asked) << "no blur for the panel's surface; the trace ends with:\n"
                       << trace.right(3000).toStdString();
    EXPECT_EQ(tessarel.state(), QProcess::Running);
}

TEST(WaylandShellTest, WhereTheCompositorDoesNotBlurThePanelIsOpaque) {
    WaylandShell shell(false);
    // Behind the panel, a pattern sliding on the whole output.
    const auto behind =
        shell.desktop().showWindow(QStringLiteral("HEADLESS-1"), 7, WaylandDesktop::Motion::slide);
    QProcess& tessarel = shell.startTessarel();
    const std::optional<View> panel = shell.waitForFloatingView(tessarel, kHome);
    ASSERT_TRUE(panel);
    // Once Qt has drawn the panel, it stays as it is.
    QImage before = shell.desktop().grim(QStringLiteral("HEADLESS-1"));
    processEventsUntil([&] {
        const QImage now = shell.desktop().grim(QStringLiteral("HEADLESS-1"));
        const bool settled = now.copy(panel->rect) == before.copy(panel->rect);
        before = now;
        return settled;
    });

    int largestChange = 0;
    bool backgroundMoved = false;
    for (int look = 0; look < 5; ++look) {
        QThread::msleep(200);
        const QImage after = shell.desktop().grim(QStringLiteral("HEADLESS-1"));
        // The pattern beside the panel moved...
        const QRect beside(panel->rect.right() + 1, panel->rect.top(), 64, panel->rect.height());
        backgroundMoved = backgroundMoved || after.copy(beside) != before.copy(beside);
        // ...and none of it shows through the panel.
        for (int y = panel->rect.top(); y <= panel->rect.bottom(); ++y) {
            for (int x = panel->rect.left(); x <= panel->rect.right(); ++x) {
                const QRgb was = before.pixel(x, y);
                const QRgb is = after.pixel(x, y);
                largestChange = std::max({largestChange, std::abs(qRed(was) - qRed(is)),
                                          std::abs(qGreen(was) - qGreen(is)),
                                          std::abs(qBlue(was) - qBlue(is))});
            }
        }
    }
    EXPECT_TRUE(backgroundMoved) << "the pattern behind did not move";
    EXPECT_LE(largestChange, 2);
}

namespace {

// The home screen's audio symbol, as its drawing shows it straight at `scale`: the coverage of
// each device pixel of its 30-point square, from 0 to 1.
std::vector<std::vector<double>> micCoverage(int scale) {
    const int side = 30 * scale;
    QImage image(side, side, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    QSvgRenderer(QStringLiteral(TESSAREL_ICONS_DIR "/mic.svg")).render(&painter);
    painter.end();
    std::vector<std::vector<double>> coverage(side, std::vector<double>(side));
    for (int y = 0; y < side; ++y) {
        for (int x = 0; x < side; ++x) {
            coverage[y][x] = qAlpha(image.pixel(x, y)) / 255.0;
        }
    }
    return coverage;
}

struct SymbolOnScreen {
    QSize fullyCovered;           // the box of the pixels the symbol covers whole, in device pixels
    double largestDifference = 1; // from the drawing's own coverage, 0 to 1
};

// The audio symbol as `picture` (an output's device pixels) shows it within `area`: where it is
// covered whole, and how far each pixel's coverage of the tint over the row's background
// departs from the drawing at `scale`. An enlarged copy of a smaller picture departs along
// every edge.
SymbolOnScreen audioSymbol(const QImage& picture, const QRect& area, int scale) {
    const std::vector<QPoint> covered = pixelsNear(picture, area, kAudio);
    QRect box;
    for (const QPoint& point : covered) {
        box = box.united(QRect(point, QSize(1, 1)));
    }
    SymbolOnScreen found{box.size()};
    if (covered.empty()) {
        return found;
    }
    const std::vector<std::vector<double>> drawing = micCoverage(scale);
    const int side = static_cast<int>(drawing.size());
    QRect drawingBox;
    for (int y = 0; y < side; ++y) {
        for (int x = 0; x < side; ++x) {
            if (drawing[y][x] > 0.95) {
                drawingBox = drawingBox.united(QRect(x, y, 1, 1));
            }
        }
    }
    // The drawing laid where the symbol shows, give or take a pixel.
    for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) {
            const QPoint origin = box.topLeft() - drawingBox.topLeft() + QPoint(dx, dy);
            const QRgb background = picture.pixel(origin);
            double largest = 0;
            for (int y = 0; y < side; ++y) {
                for (int x = 0; x < side; ++x) {
                    const QRgb pixel = picture.pixel(origin + QPoint(x, y));
                    // Green parts the tint from a light or a dark background most.
                    const double coverage = std::clamp(double(qGreen(background) - qGreen(pixel)) /
                                                           (qGreen(background) - kAudio.green()),
                                                       0.0, 1.0);
                    largest = std::max(largest, std::abs(coverage - drawing[y][x]));
                }
            }
            found.largestDifference = std::min(found.largestDifference, largest);
        }
    }
    return found;
}

} // namespace

// On a real scale-2 output the compositor shows the panel's own pixels: its symbols drawn
// again with twice the pixels, not the scale-1 picture enlarged, however often it moves.
TEST(WaylandShellTest, AnIconOnTheScaleTwoOutputHasTwiceThePixelsAndStaysSharpAfterMoves) {
    // Outputs large enough that the panel fits the scale-2 one whole.
    WaylandShell shell(false, {1600, 1000});
    QProcess& tessarel = shell.startTessarel();
    ASSERT_TRUE(shell.waitForFloatingView(tessarel, kHome));

    std::map<int, QSize> sizeAtScale;
    for (const QString& name : {QStringLiteral("HEADLESS-2"), QStringLiteral("HEADLESS-1"),
                                QStringLiteral("HEADLESS-2"), QStringLiteral("HEADLESS-1")}) {
        const WaylandDesktop::Output output = shell.desktop().output(name);
        const int scale = static_cast<int>(output.scale);
        shell.desktop().swaymsg({QStringLiteral("[pid=%1]").arg(tessarel.processId()),
                                 QStringLiteral("move"), QStringLiteral("container"),
                                 QStringLiteral("to"), QStringLiteral("output"), name});
        const std::optional<View> panel = shell.waitForView(tessarel, [&](const View& view) {
            return view.rect.size() == kHome && output.logical.contains(view.rect);
        });
        ASSERT_TRUE(panel) << "the panel did not move to " << name.toStdString();
        const QRect area(QPoint((panel->rect.topLeft() - output.logical.topLeft()) * scale),
                         panel->rect.size() * scale);
        // Qt draws the panel anew for the output's scale once the compositor tells it.
        SymbolOnScreen symbol;
        processEventsUntil([&] {
            symbol = audioSymbol(shell.desktop().grim(name), area, scale);
            return symbol.largestDifference <= 0.1;
        });
        EXPECT_LE(symbol.largestDifference, 0.1) << "on " << name.toStdString();
        if (sizeAtScale.count(scale) == 0) {
            sizeAtScale[scale] = symbol.fullyCovered;
        }
        EXPECT_EQ(symbol.fullyCovered, sizeAtScale[scale]) << "on " << name.toStdString();
    }
    ASSERT_FALSE(sizeAtScale[1].isEmpty());
    EXPECT_NEAR(sizeAtScale[2].width(), 2 * sizeAtScale[1].width(), 2);
    EXPECT_NEAR(sizeAtScale[2].height(), 2 * sizeAtScale[1].height(), 2);
}

TEST(WaylandShellTest, ATrayStartedAfterTessarelGetsItsItem) {
    WaylandShell shell(false);
    QProcess& tessarel = shell.startTessarel();
    ASSERT_TRUE(shell.waitForFloatingView(tessarel, kHome));

    // sway starts a bar, and with it a tray, when one is first named.
    shell.desktop().swaymsg({QStringLiteral("bar"), QStringLiteral("late"),
                             QStringLiteral("position"), QStringLiteral("top")});
    const std::optional<QPoint> icon = shell.waitForTrayIcon();
    ASSERT_TRUE(icon) << "the later tray shows no item";
    shell.click(*icon);
    EXPECT_TRUE(shell.waitForFloatingView(tessarel, kPopup)) << "a click on it does nothing";
}

TEST(WaylandShellTest, CtrlRVAndSOpenTheirScreensWhileTessarelIsActive) {
    WaylandShell shell(false);
    QProcess& tessarel = shell.startTessarel();
    ASSERT_TRUE(shell.waitForFloatingView(tessarel, kHome));

    const std::pair<QString, QColor> shortcuts[] = {{QStringLiteral("r"), kAudio},
                                                    {QStringLiteral("v"), kVideo},
                                                    {QStringLiteral("s"), kSnapshot}};
    for (const auto& [letter, kind] : shortcuts) {
        shell.key({QStringLiteral("-M"), QStringLiteral("ctrl"), letter, QStringLiteral("-m"),
                   QStringLiteral("ctrl")});
        const std::optional<View> panel = shell.waitForFloatingView(tessarel, kSetup);
        ASSERT_TRUE(panel) << "Ctrl+" << letter.toStdString() << " opened nothing";
        std::optional<QColor> shown;
        processEventsUntil([&] {
            shown = shell.setupKind(*panel);
            return shown == kind;
        });
        EXPECT_EQ(shown, kind) << "Ctrl+" << letter.toStdString();
    }
}

TEST(WaylandShellTest, TheAreaOverlayCoversEveryOutputAndEscapeLeavesItWhileDragging) {
    WaylandShell shell(false);
    QProcess& tessarel = shell.startTessarel();
    ASSERT_TRUE(shell.waitForFloatingView(tessarel, kHome));
    shell.key({QStringLiteral("-M"), QStringLiteral("ctrl"), QStringLiteral("v"),
               QStringLiteral("-m"), QStringLiteral("ctrl")});
    const std::optional<View> panel = shell.waitForFloatingView(tessarel, kSetup);
    ASSERT_TRUE(panel);
    // The start button at the right end of the set-up screen's bottom bar.
    shell.click(panel->rect.topLeft() + QPoint(560, 417));

    // One full-screen overlay on each output, the scale-2 one included.
    const WaylandDesktop::Output first = shell.desktop().output(QStringLiteral("HEADLESS-1"));
    const WaylandDesktop::Output second = shell.desktop().output(QStringLiteral("HEADLESS-2"));
    for (const QRect& logical : {first.logical, second.logical}) {
        EXPECT_TRUE(shell.waitForView(
            tessarel, [&](const View& view) { return view.fullscreen && view.rect == logical; }))
            << "no overlay over the output at " << logical.x();
    }

    // A drag on the scale-2 output draws its outline where the pointer went, in the output's
    // own pixels.
    WaylandDesktop::Pointer& pointer = shell.desktop().pointer();
    // The hand comes to rest before it presses: a first motion can meet the overlay while
    // sway is still making it full-screen.
    pointer.move(second.logical.topLeft() + QPoint(120, 120));
    QThread::msleep(300);
    pointer.move(second.logical.topLeft() + QPoint(100, 100));
    QThread::msleep(300);
    pointer.press();
    pointer.move(second.logical.topLeft() + QPoint(200, 160));
    pointer.move(second.logical.topLeft() + QPoint(300, 250));
    const QColor outline(0, 122, 255);
    const QRect dragged(QPoint(200, 200), QPoint(600, 500)); // pixels, scale 2
    EXPECT_TRUE(processEventsUntil([&] {
        const QImage picture = shell.desktop().grim(second.name);
        const auto onEdge = [&](const QRect& strip) {
            return pixelsNear(picture, strip, outline).size() >= 20;
        };
        return onEdge(QRect(dragged.left() + 20, dragged.top() - 3, 100, 6)) &&
               onEdge(QRect(dragged.left() - 3, dragged.top() + 20, 6, 100)) &&
               onEdge(QRect(dragged.left() + 20, dragged.bottom() - 3, 100, 6)) &&
               onEdge(QRect(dragged.right() - 3, dragged.top() + 20, 6, 100)) &&
               pixelsNear(picture, dragged.adjusted(8, 8, -8, -8), outline).empty();
    })) << "no outline around the dragged area";

    // The seat loses its keyboard when wtype ends, which would end the selection too: the
    // overlays must be gone while wtype still holds the keyboard.
    HeldKeyboard typing(shell.desktop().environment(),
                        {QStringLiteral("-k"), QStringLiteral("Escape")});
    ASSERT_TRUE(typing.started());
    const auto overlaysGone = [&] {
        const std::vector<View> shown = shell.views(tessarel);
        return std::none_of(shown.begin(), shown.end(),
                            [](const View& view) { return view.fullscreen; });
    };
    EXPECT_TRUE(processEventsUntil([&] { return overlaysGone() || !typing.holding(); }));
    EXPECT_TRUE(typing.holding()) << "the overlays stayed up after Escape";
    EXPECT_TRUE(overlaysGone());
    typing.release();
    pointer.release();
    // The set-up screen stays as it was.
    EXPECT_TRUE(shell.waitForFloatingView(tessarel, kSetup));
}

TEST(WaylandShellTest, ASnapshotOfEachOutputEqualsGrimsPictureWithoutThePanelOverIt) {
    // Outputs large enough for the set-up screen at scale 2.
    WaylandShell shell(false, {1920, 1080});
    WaylandDesktop& desktop = shell.desktop();
    const auto first =
        desktop.showWindow(QStringLiteral("HEADLESS-1"), 1, WaylandDesktop::Motion::still);
    const auto second =
        desktop.showWindow(QStringLiteral("HEADLESS-2"), 2, WaylandDesktop::Motion::still);
    QProcess& tessarel = shell.startTessarel();
    ASSERT_TRUE(shell.waitForFloatingView(tessarel, kHome));

    const QDir home(desktop.homeDirectory());
    for (const QString& name : {QStringLiteral("HEADLESS-1"), QStringLiteral("HEADLESS-2")}) {
        SCOPED_TRACE(name.toStdString());
        const WaylandDesktop::Output output = desktop.output(name);
        // The panel goes to the output, and as Tessarel's focused window makes it the main
        // screen.
        const QString panel = QStringLiteral("[pid=%1]").arg(tessarel.processId());
        desktop.swaymsg({panel, QStringLiteral("move"), QStringLiteral("container"),
                         QStringLiteral("to"), QStringLiteral("output"), name});
        desktop.swaymsg({panel, QStringLiteral("focus")});
        // Ctrl+S, the keyboard held until the snapshot is taken.
        HeldKeyboard typing(desktop.environment(),
                            {QStringLiteral("-M"), QStringLiteral("ctrl"), QStringLiteral("s"),
                             QStringLiteral("-m"), QStringLiteral("ctrl")});
        ASSERT_TRUE(typing.started());
        const std::optional<View> setup = shell.waitForView(tessarel, [&](const View& view) {
            return view.rect.size() == kSetup && output.logical.contains(view.rect.center());
        });
        ASSERT_TRUE(setup) << "no snapshot screen on the output";

        const QStringList before = home.entryList({QStringLiteral("*.png")}, QDir::Files);
        const QPoint clicked = setup->rect.topLeft() + QPoint(560, 417);
        shell.click(clicked);
        QImage snapshot;
        ASSERT_TRUE(processEventsUntil([&] {
            for (const QString& file : home.entryList({QStringLiteral("*.png")}, QDir::Files)) {
                if (!before.contains(file)) {
                    snapshot = QImage(home.filePath(file));
                }
            }
            return !snapshot.isNull();
        })) << "no snapshot saved";
        typing.release();

        // The reference: grim's picture once the panel has gone, the pointer where it was.
        ASSERT_TRUE(shell.waitForFloatingView(tessarel, kHome))
            << "the panel did not come back after the snapshot";
        desktop.swaymsg({panel, QStringLiteral("kill")});
        ASSERT_TRUE(processEventsUntil([&] { return shell.views(tessarel).empty(); }));
        const QImage reference = desktop.grim(name);
        ASSERT_EQ(snapshot.size(), output.pixels);
        ASSERT_EQ(reference.size(), output.pixels);
        const QImage picture = snapshot.convertToFormat(QImage::Format_RGB32);
        // Headless sway draws the pointer into the output's picture, and its image depends on
        // which window it was last over (the panel's, or the window's once the panel left): the
        // pointer's box at the click is left out of the comparison.
        const QRect pointer =
            QRect((clicked - output.logical.topLeft()) * output.scale, QSize(64, 64) * output.scale)
                .translated(-8 * output.scale, -8 * output.scale);
        const auto differingFrom = [&picture, &pointer](const QImage& other) {
            int differing = 0;
            for (int y = 0; y < picture.height(); ++y) {
                for (int x = 0; x < picture.width(); ++x) {
                    if (pointer.contains(x, y)) {
                        continue;
                    }
                    differing += (picture.pixel(x, y) & 0xffffff) != (other.pixel(x, y) & 0xffffff);
                }
            }
            return differing;
        };
        const int differing = differingFrom(reference);
        const QString other = name == QStringLiteral("HEADLESS-1") ? QStringLiteral("HEADLESS-2")
                                                                   : QStringLiteral("HEADLESS-1");
        EXPECT_EQ(differing, 0) << "pixels differ from grim's picture; from " << other.toStdString()
                                << "'s: "
                                << (differing != 0 ? differingFrom(desktop.grim(other)) : 0);

        // Back for the next output: a second start raises the panel.
        QProcess& again = shell.startTessarel();
        again.waitForFinished(20000);
        ASSERT_TRUE(shell.waitForFloatingView(tessarel, kHome));
    }
}

namespace {

// Records `area` of the first output (in the layout's points) for two seconds as a person
// would: Ctrl+V opens the movie screen, its start button the overlay, the pointer drags out
// the area and the progress screen's stop button ends it. The progress screen's view.
std::optional<View> recordArea(WaylandShell& shell, const QProcess& tessarel, const QRect& area) {
    shell.key({QStringLiteral("-M"), QStringLiteral("ctrl"), QStringLiteral("v"),
               QStringLiteral("-m"), QStringLiteral("ctrl")});
    const std::optional<View> setup = shell.waitForFloatingView(tessarel, kSetup);
    EXPECT_TRUE(setup);
    if (!setup) {
        return std::nullopt;
    }
    shell.click(setup->rect.topLeft() + QPoint(560, 417));
    if (!shell.waitForView(tessarel, [](const View& view) { return view.fullscreen; })) {
        ADD_FAILURE() << "no overlay";
        return std::nullopt;
    }
    WaylandDesktop::Pointer& pointer = shell.desktop().pointer();
    pointer.move(area.topLeft() + QPoint(20, 20));
    QThread::msleep(300);
    pointer.move(area.topLeft());
    QThread::msleep(300);
    pointer.press();
    pointer.move(area.center());
    pointer.move(area.bottomRight() + QPoint(1, 1));
    pointer.release();
    const std::optional<View> recording = shell.waitForFloatingView(tessarel, QSize(720, 220));
    EXPECT_TRUE(recording) << "the recording did not start";
    if (!recording) {
        return std::nullopt;
    }
    QThread::sleep(2);
    // The stop button, at the right of the progress screen.
    shell.click(recording->rect.topLeft() + QPoint(600, 156));
    return recording;
}

// The movies in the desktop user's home once there are `count` of them and the panel is back.
QStringList waitForMovies(WaylandShell& shell, const QProcess& tessarel, qsizetype count) {
    const QDir home(shell.desktop().homeDirectory());
    QStringList movies;
    processEventsUntil([&] {
        movies = home.entryList({QStringLiteral("*.mp4")}, QDir::Files);
        return movies.size() >= count && shell.waitForFloatingView(tessarel, kHome).has_value();
    });
    for (QString& movie : movies) {
        movie = home.filePath(movie);
    }
    return movies;
}

// The movie's picture one second in.
QImage frameOf(const QString& movie) {
    QProcess decode;
    decode.start(QStringLiteral("ffmpeg"),
                 {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-ss"),
                  QStringLiteral("1"), QStringLiteral("-i"), movie, QStringLiteral("-frames:v"),
                  QStringLiteral("1"), QStringLiteral("-f"), QStringLiteral("image2pipe"),
                  QStringLiteral("-c:v"), QStringLiteral("ppm"), QStringLiteral("-")});
    EXPECT_TRUE(decode.waitForFinished(60000));
    return QImage::fromData(decode.readAllStandardOutput());
}

} // namespace

TEST(WaylandShellTest, APanelOverTheRecordedAreaIsInTheMovie) {
    WaylandShell shell(false);
    WaylandDesktop& desktop = shell.desktop();
    const auto window =
        desktop.showWindow(QStringLiteral("HEADLESS-1"), 3, WaylandDesktop::Motion::still);
    QProcess& tessarel = shell.startTessarel();
    ASSERT_TRUE(shell.waitForFloatingView(tessarel, kHome));

    // An area in the middle of the first output, where sway puts the panel.
    const QRect area(QPoint(160, 120), QPoint(1119, 599));
    const std::optional<View> recording = recordArea(shell, tessarel, area);
    ASSERT_TRUE(recording);
    ASSERT_TRUE(area.contains(recording->rect));
    const QStringList movies = waitForMovies(shell, tessarel, 1);
    ASSERT_EQ(movies.size(), 1) << "no movie saved";
    const QImage frame = frameOf(movies.front());
    ASSERT_FALSE(frame.isNull()) << "the movie does not decode";

    // The panel's light background fills its place in the movie; the test window's cells
    // around it are never that light.
    const QRect panelInMovie = recording->rect.translated(-area.topLeft());
    const QColor panelBackground(246, 246, 248);
    const QRect middle = panelInMovie.adjusted(40, 120, -40, -40);
    const size_t light = pixelsNear(frame, middle, panelBackground).size();
    EXPECT_GT(light, static_cast<size_t>(middle.width() * middle.height() / 2))
        << "the panel is not where it lay over the area";
    const QRect outside(QPoint(0, 0), QSize(frame.width(), panelInMovie.top() - 8));
    EXPECT_TRUE(pixelsNear(frame, outside, panelBackground).empty());
}

// Where screencopy serves the screen, the recorders' module leaves a while after a movie and
// the next movie loads it again.
TEST(WaylandShellTest, TheRecordersModuleLeavesAfterAMovieAndTheNextMovieLoadsItAgain) {
    WaylandShell shell(false);
    const auto window =
        shell.desktop().showWindow(QStringLiteral("HEADLESS-1"), 3, WaylandDesktop::Motion::still);
    QProcess& tessarel = shell.startTessarel();
    ASSERT_TRUE(shell.waitForFloatingView(tessarel, kHome));
    const QRect area(QPoint(160, 120), QPoint(1119, 599));
    const QString recorders = QStringLiteral("tessarel_capture");

    ASSERT_TRUE(recordArea(shell, tessarel, area));
    ASSERT_EQ(waitForMovies(shell, tessarel, 1).size(), 1) << "no movie saved";
    EXPECT_TRUE(processEventsUntil(
        [&] { return !ProcessLibraries::maps(tessarel.processId(), recorders); }, 40000))
        << "the recorders' module stayed";

    ASSERT_TRUE(recordArea(shell, tessarel, area));
    const QStringList movies = waitForMovies(shell, tessarel, 2);
    ASSERT_EQ(movies.size(), 2) << "the second movie was not saved";
    for (const QString& movie : movies) {
        const QImage frame = frameOf(movie);
        EXPECT_EQ(frame.size(), area.size()) << movie.toStdString();
    }
}

TEST(WaylandShellTest, TheFolderChooserOpensOverThePanelAndEscapeCancelsIt) {
    WaylandShell shell(false);
    QProcess& tessarel = shell.startTessarel();
    ASSERT_TRUE(shell.waitForFloatingView(tessarel, kHome));
    // Ctrl+S, and three seconds later Escape; the keyboard held for the rest of the test.
    HeldKeyboard typing(shell.desktop().environment(),
                        {QStringLiteral("-M"), QStringLiteral("ctrl"), QStringLiteral("s"),
                         QStringLiteral("-m"), QStringLiteral("ctrl"), QStringLiteral("-s"),
                         QStringLiteral("3000"), QStringLiteral("-k"), QStringLiteral("Escape")});
    ASSERT_TRUE(typing.started());
    const std::optional<View> setup = shell.waitForFloatingView(tessarel, kSetup);
    ASSERT_TRUE(setup);
    // The "Save To" row of the set-up screen.
    shell.click(setup->rect.topLeft() + QPoint(410, 192));
    const std::optional<View> chooser = shell.waitForView(
        tessarel, [](const View& view) { return view.floating && view.rect.size() != kSetup; });
    EXPECT_TRUE(chooser) << "no folder chooser floating over the panel";
    // Escape, typed three seconds after Ctrl+S, closes it; the set-up screen stays.
    EXPECT_TRUE(processEventsUntil([&] { return shell.views(tessarel).size() == 1; }));
    EXPECT_TRUE(shell.waitForFloatingView(tessarel, kSetup));
    EXPECT_TRUE(typing.holding());
}

TEST(WaylandShellTest, TheAboutBoxOpensFromTheOptionsMenuOverThePanel) {
    WaylandShell shell(false);
    QProcess& tessarel = shell.startTessarel();
    const std::optional<View> panel = shell.waitForFloatingView(tessarel, kHome);
    ASSERT_TRUE(panel);
    // The gear at the header's right end, then the menu's first item, "About…".
    shell.click(panel->rect.topLeft() + QPoint(601, 40));
    shell.click(panel->rect.topLeft() + QPoint(560, 75));
    const std::optional<View> about = shell.waitForView(tessarel, [&](const View& view) {
        return view.floating && view.rect.size() != kHome && panel->rect.contains(view.rect);
    });
    ASSERT_TRUE(about) << "no About box over the panel";
    // Its OK button, bottom right.
    shell.click(about->rect.bottomRight() - QPoint(52, 25));
    EXPECT_TRUE(processEventsUntil([&] { return shell.views(tessarel).size() == 1; }))
        << "OK did not close the About box";
}
