#include "ui/GuiFixture.h"

#include "app/DesktopShell.h"
#include "controller/linux/DesktopServices.h"
#include "support/TestDesktop.h"
#include "ui/RootView.h"

#include <QBuffer>
#include <QDeadlineTimer>
#include <QImage>
#include <QLabel>
#include <QMessageBox>
#include <QTimer>
#include <QWindow>

#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

namespace {

// The whole display as ImageMagick's `import` reads it from the X server.
QImage screenshot() {
    QImage image;
    image.loadFromData(TestDesktop::run(QStringLiteral("import"),
                                        {QStringLiteral("-window"), QStringLiteral("root"),
                                         QStringLiteral("png:-")}),
                       "PNG");
    return image.convertToFormat(QImage::Format_RGB32);
}

int largestChannelDifference(const QImage& a, const QImage& b) {
    int largest = 0;
    for (int y = 0; y < a.height(); ++y) {
        for (int x = 0; x < a.width(); ++x) {
            const QRgb first = a.pixel(x, y);
            const QRgb second = b.pixel(x, y);
            largest = std::max({largest, std::abs(qRed(first) - qRed(second)),
                                std::abs(qGreen(first) - qGreen(second)),
                                std::abs(qBlue(first) - qBlue(second))});
        }
    }
    return largest;
}

// Puts an X window at the bottom of the stacking order, under every window of the desktop.
void lowerToTheBottom(uint32_t window) {
    xcb_connection_t* connection = xcb_connect(TestDesktop::display().name().constData(), nullptr);
    const uint32_t below = XCB_STACK_MODE_BELOW;
    xcb_configure_window(connection, window, XCB_CONFIG_WINDOW_STACK_MODE, &below);
    free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    xcb_disconnect(connection);
}

// Lets the window manager and the compositor catch up with what the test changed. Only a
// guard: nothing is decided by time.
void letTheDesktopCatchUp() {
    TestDesktop::display().sync();
    QDeadlineTimer deadline(400);
    while (!deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
}

// Room for the title twice over leaves it whole beside the window manager's buttons. The title
// and the message, which contains `message` and is short enough for one line, can be selected
// with the mouse and the keyboard, and the message is not broken into a narrow column.
void expectReadable(const QMessageBox& alert, const QString& message) {
    QFont titleFont = alert.font();
    titleFont.setBold(true);
    EXPECT_GE(alert.width(), 2 * QFontMetrics(titleFont).horizontalAdvance(alert.windowTitle()));
    const Qt::TextInteractionFlags selectable =
        Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard;
    int texts = 0;
    for (const QLabel* text : alert.findChildren<QLabel*>()) {
        if (text->text().contains(message)) {
            const QRect wrapped = text->fontMetrics().boundingRect(
                QRect(0, 0, text->contentsRect().width(), 1000), Qt::TextWordWrap, text->text());
            EXPECT_LT(wrapped.height(), 2 * text->fontMetrics().lineSpacing())
                << text->text().toStdString() << " broken into lines at " << text->width();
        }
        if (text->text().contains(message) || text->text() == alert.windowTitle()) {
            EXPECT_EQ(text->textInteractionFlags() & selectable, selectable)
                << text->text().toStdString();
            ++texts;
        }
    }
    EXPECT_EQ(texts, 2);
}

// The panel on a desktop as people have it: openbox, the picom compositor, a tint2 panel.
class PanelOnADesktopTest : public GuiTest {
protected:
    PanelOnADesktopTest() {
        TestDesktop::start(TestDesktop::Program::windowManager);
        TestDesktop::start(TestDesktop::Program::taskPanel);
    }
    // The window manager and the panel stay for the next test.
    ~PanelOnADesktopTest() override {
        shell.reset();
        TestDesktop::stop(TestDesktop::Program::compositor);
    }

    void openPanel() {
        shell = std::make_unique<DesktopShell>(*controller, false);
        shell->launch();
        shell->activate();
        settle();
        ASSERT_TRUE(processEventsUntil([this] {
            return shell->panel()->windowHandle() != nullptr &&
                   shell->panel()->windowHandle()->isExposed();
        }));
        letTheDesktopCatchUp();
    }

    // The panel's own pixels in a screenshot, inside its window frame.
    QImage panelPixels(const QImage& screen) const {
        const QRect area(shell->panel()->mapToGlobal(QPoint(0, 0)), shell->panel()->size());
        return screen.copy(area);
    }

    std::unique_ptr<DesktopShell> shell;
};

} // namespace

TEST_F(PanelOnADesktopTest, APatternMovedBehindThePanelChangesNoneOfItsPixels) {
    TestDesktop::start(TestDesktop::Program::compositor);
    // Sharp black and white stripes of uneven widths, the worst case for anything showing
    // through: no shift maps them onto themselves.
    QImage pattern(900, 700, QImage::Format_RGB32);
    for (int y = 0; y < pattern.height(); ++y) {
        for (int x = 0; x < pattern.width(); ++x) {
            const bool white = ((x * x / 97 + y / 3) % 2) != 0;
            pattern.setPixel(x, y, white ? qRgb(255, 255, 255) : qRgb(0, 0, 0));
        }
    }
    const std::unique_ptr<VirtualDisplay::Window> behind =
        TestDesktop::display().showWindow(QRect(250, 100, 900, 700), pattern);
    lowerToTheBottom(behind->id());
    openPanel();
    const QRect panelArea(shell->panel()->mapToGlobal(QPoint(0, 0)), shell->panel()->size());
    ASSERT_TRUE(QRect(250, 100, 900, 700).contains(panelArea.adjusted(-20, -20, 20, 20)));
    const QImage wholeBefore = screenshot();
    behind->move(257, 105);
    letTheDesktopCatchUp();
    const QImage wholeAfter = screenshot();
    // The pattern is on show and did move beside the panel…
    const QRect beside(260, 110, 40, 40);
    ASSERT_NE(wholeBefore.copy(beside), wholeAfter.copy(beside));
    // …and nothing of it shows through the panel.
    const QImage after = panelPixels(wholeAfter);
    EXPECT_LE(largestChannelDifference(panelPixels(wholeBefore), after), 2);

    // Without the compositor the panel looks the same.
    TestDesktop::stop(TestDesktop::Program::compositor);
    shell->panel()->update();
    letTheDesktopCatchUp();
    EXPECT_LE(largestChannelDifference(after, panelPixels(screenshot())), 2);
}

TEST_F(PanelOnADesktopTest, TheWindowManagersTitleBarIsThePanelsOnlyTitle) {
    openPanel();
    // openbox framed the panel: a title bar of its own above it.
    const QByteArray extents = TestDesktop::run(
        QStringLiteral("xprop"),
        {QStringLiteral("-id"), QString::number(shell->panel()->windowHandle()->winId()),
         QStringLiteral("_NET_FRAME_EXTENTS")});
    const QList<QByteArray> sides = extents.split('=').value(1).split(',');
    ASSERT_EQ(sides.size(), 4) << extents.toStdString();
    EXPECT_GT(sides[2].trimmed().toInt(), 10);
    EXPECT_EQ(TestDesktop::run(QStringLiteral("xdotool"),
                               {QStringLiteral("getwindowname"),
                                QString::number(shell->panel()->windowHandle()->winId())})
                  .trimmed(),
              "Tessarel");
    for (const QLabel* label : shell->panel()->findChildren<QLabel*>()) {
        EXPECT_FALSE(label->isVisible() && label->text() == "Tessarel");
    }
}

TEST_F(PanelOnADesktopTest, AlertsShowTheirWholeTitleAndTheirTextCanBeSelected) {
    openPanel();
    controller->errorMessage.set(QStringLiteral("The folder “Downloads” is read-only."));
    QMessageBox* alert = nullptr;
    ASSERT_TRUE(processEventsUntil([&] {
        alert = shell->rootView()->errorAlert();
        return alert != nullptr && alert->windowHandle() != nullptr &&
               alert->windowHandle()->isExposed();
    }));
    letTheDesktopCatchUp();
    expectReadable(*alert, QStringLiteral("read-only"));
}

TEST_F(PanelOnADesktopTest, TheAboutBoxShowsItsWholeTitleAndItsTextCanBeSelected) {
    openPanel();
    // The box the controller asks for, as the desktop presents it.
    controller->showAbout();
    ASSERT_EQ(fakes.alerts.shown.size(), 1U);
    bool checked = false;
    QTimer::singleShot(0, [&checked] {
        QMessageBox* about = nullptr;
        const bool shown = processEventsUntil([&about] {
            about = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            return about != nullptr && about->windowHandle() != nullptr &&
                   about->windowHandle()->isExposed();
        });
        if (shown) {
            letTheDesktopCatchUp();
            expectReadable(*about, QStringLiteral("developers"));
            checked = true;
            about->accept();
        } else if (QWidget* modal = QApplication::activeModalWidget()) {
            modal->close();
        }
    });
    DesktopAlertPresenter().runAbout(fakes.alerts.shown[0]);
    EXPECT_TRUE(checked) << "the About box did not come up";
}

TEST_F(PanelOnADesktopTest, WhereTheDesktopBlursBehindWindowsThePanelAsksForTheBlur) {
    // What KWin announces on the root window while its blur is on.
    const QString blur = QStringLiteral("_KDE_NET_WM_BLUR_BEHIND_REGION");
    TestDesktop::run(QStringLiteral("xprop"),
                     {QStringLiteral("-root"), QStringLiteral("-f"), blur, QStringLiteral("32c"),
                      QStringLiteral("-set"), blur, QStringLiteral("0")});
    openPanel();
    const QByteArray asked = TestDesktop::run(
        QStringLiteral("xprop"),
        {QStringLiteral("-id"), QString::number(shell->panel()->windowHandle()->winId()), blur});
    TestDesktop::run(QStringLiteral("xprop"),
                     {QStringLiteral("-root"), QStringLiteral("-remove"), blur});
    EXPECT_TRUE(asked.startsWith(blur.toLatin1() + "(CARDINAL)")) << asked.toStdString();
    EXPECT_TRUE(shell->panel()->testAttribute(Qt::WA_TranslucentBackground));
}
