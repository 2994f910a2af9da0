#include "ViewTestSupport.h"

#include "ui/Appearance.h"
#include "ui/Chrome.h"
#include "ui/Views.h"

#include <QAccessible>
#include <QMenu>
#include <QPainter>
#include <QStyle>
#include <QTest>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <memory>

namespace {

// WCAG 2 relative luminance and contrast ratio.
double luminance(const QColor& color) {
    const auto channel = [](double value) {
        return value <= 0.03928 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * channel(color.redF()) + 0.7152 * channel(color.greenF()) +
           0.0722 * channel(color.blueF());
}

double contrast(const QColor& a, const QColor& b) {
    const double first = luminance(a);
    const double second = luminance(b);
    return (std::max(first, second) + 0.05) / (std::min(first, second) + 0.05);
}

// What a text looks like once drawn: the most common colour of its area is what it is drawn
// on; the pixel that differs most from that is its ink at full coverage.
struct RenderedText {
    QColor background;
    QColor ink;
};

RenderedText renderedText(const QImage& image, const QRect& area) {
    std::map<QRgb, int> counts;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            ++counts[image.pixel(x, y)];
        }
    }
    const QColor background(std::max_element(counts.begin(), counts.end(), [](auto& a, auto& b) {
                                return a.second < b.second;
                            })->first);
    QColor ink = background;
    for (const auto& [pixel, count] : counts) {
        if (contrast(QColor(pixel), background) > contrast(ink, background)) {
            ink = QColor(pixel);
        }
    }
    return {background, ink};
}

// The view as it shows on screen: grabbed over the panel's background.
QImage rendered(QWidget& view) {
    QImage image(view.size(), QImage::Format_RGB32);
    image.fill(Appearance::panelBackground());
    QPainter painter(&image);
    painter.drawPixmap(0, 0, view.grab());
    return image;
}

QRect areaIn(const QWidget& view, const QWidget& widget) {
    return QRect(widget.mapTo(&view, QPoint(0, 0)), widget.size()).intersected(view.rect());
}

bool near(const QColor& a, const QColor& b, int tolerance) {
    return std::abs(a.red() - b.red()) <= tolerance &&
           std::abs(a.green() - b.green()) <= tolerance &&
           std::abs(a.blue() - b.blue()) <= tolerance;
}

QPalette schemePalette(bool dark) {
    QPalette palette = QApplication::style()->standardPalette();
    if (dark) {
        palette.setColor(QPalette::Window, QColor(40, 40, 42));
        palette.setColor(QPalette::WindowText, QColor(240, 240, 240));
        palette.setColor(QPalette::Base, QColor(30, 30, 32));
        palette.setColor(QPalette::Text, QColor(240, 240, 240));
        palette.setColor(QPalette::Button, QColor(50, 50, 52));
        palette.setColor(QPalette::ButtonText, QColor(240, 240, 240));
    }
    return palette;
}

class LooksTest : public GuiTest {
protected:
    ~LooksTest() override { QApplication::setPalette(schemePalette(false)); }

    // Every screen of the panel, each shown at the size the panel gives it.
    std::vector<std::unique_ptr<QWidget>> everyScreen() {
        controller->lastSavedURL.set(QUrl::fromLocalFile(folder.filePath("shot-1.png")));
        std::vector<std::unique_ptr<QWidget>> screens;
        screens.push_back(std::make_unique<HomeView>(*controller));
        screens.back()->resize(Appearance::toQSize(PanelSize::home));
        screens.push_back(std::make_unique<HomeView>(*controller, true));
        screens.back()->resize(480, 402);
        for (CaptureKind kind : {CaptureKind::audio, CaptureKind::video, CaptureKind::snapshot}) {
            screens.push_back(std::make_unique<CaptureSetupView>(*controller, kind));
        }
        screens.push_back(std::make_unique<ProgressView>(*controller, true));
        screens.push_back(std::make_unique<ProgressView>(*controller, false));
        for (auto& screen : screens) {
            screen->show();
        }
        settle();
        return screens;
    }
};

} // namespace

TEST_F(LooksTest, SecondaryTextsAreDrawnInTheSecondaryColourInLightAndDarkAlike) {
    const auto screens = everyScreen();
    for (const bool dark : {false, true}) {
        // The same widgets, repainted after the desktop switched its scheme.
        QApplication::setPalette(schemePalette(dark));
        settle();
        ASSERT_EQ(Appearance::darkScheme(), dark);
        int checked = 0;
        for (const auto& screen : screens) {
            const QImage image = rendered(*screen);
            for (const QString name : {"rowSubtitle", "shortcutBadge", "readyText"}) {
                for (const QWidget* text : screen->findChildren<QWidget*>(name)) {
                    const RenderedText drawn = renderedText(image, areaIn(*screen, *text));
                    EXPECT_TRUE(near(drawn.ink, Appearance::secondaryText(), 6))
                        << name.toStdString() << (dark ? " dark " : " light ")
                        << drawn.ink.name().toStdString();
                    ++checked;
                }
            }
        }
        // Home: three subtitles, three badges, the footer; the popup's home without the
        // footer; the setup and progress screens' ready labels.
        EXPECT_EQ(checked, 7 + 6 + 3 + 2);
    }
}

TEST_F(LooksTest, EveryTextKeepsAContrastOfAtLeastFourAndAHalfInBothSchemes) {
    const auto screens = everyScreen();
    for (const bool dark : {false, true}) {
        QApplication::setPalette(schemePalette(dark));
        settle();
        int checked = 0;
        for (const auto& screen : screens) {
            const QImage image = rendered(*screen);
            for (const QWidget* text : screen->findChildren<QWidget*>()) {
                const bool isText = qobject_cast<const QLabel*>(text) != nullptr ||
                                    qobject_cast<const QPushButton*>(text) != nullptr;
                if (!isText || !text->isVisible() || !text->isVisibleTo(screen.get())) {
                    continue;
                }
                const RenderedText drawn = renderedText(image, areaIn(*screen, *text));
                EXPECT_GE(contrast(drawn.ink, drawn.background), 4.5)
                    << screen->objectName().toStdString() << " " << text->objectName().toStdString()
                    << (dark ? " dark " : " light ") << drawn.ink.name().toStdString() << " on "
                    << drawn.background.name().toStdString();
                ++checked;
            }
        }
        EXPECT_GT(checked, 30);
    }
}

TEST_F(LooksTest, TheFormatMenuIsAsWideAsItsBoxAndOpensJustBelowItInThePanelsColours) {
    CaptureSetupView setup(*controller, CaptureKind::audio);
    setup.show();
    settle();
    const QWidget* box = setup.findChild<QWidget*>("formatButtonBox");
    ASSERT_NE(box, nullptr);
    QTest::mouseClick(setup.findChild<QWidget*>("formatButton"), Qt::LeftButton);
    QMenu* menu = openMenu("formatMenu");
    ASSERT_NE(menu, nullptr);
    settle();
    EXPECT_EQ(menu->width(), box->width());
    EXPECT_EQ(menu->x(), box->mapToGlobal(QPoint(0, 0)).x());
    const int boxBottom = box->mapToGlobal(QPoint(0, box->height())).y();
    EXPECT_GE(menu->y(), boxBottom);
    EXPECT_LE(menu->y(), boxBottom + 8);
    const QImage image = menu->grab().toImage();
    EXPECT_TRUE(near(image.pixelColor(menu->width() / 2, 3), Appearance::panelBackground(), 2));
    menu->close();
}

TEST_F(LooksTest, TheFormatMenuIsKeyboardNavigableAndEscapeClosesIt) {
    CaptureSetupView setup(*controller, CaptureKind::snapshot);
    setup.show();
    setup.activateWindow();
    settle();
    auto* format = setup.findChild<QAbstractButton*>("formatButton");
    format->setFocus(Qt::TabFocusReason);
    QTest::keyClick(format, Qt::Key_Return);
    QMenu* menu = nullptr;
    ASSERT_TRUE(processEventsUntil([&menu] { return (menu = openMenu("formatMenu")) != nullptr; }));
    EXPECT_EQ(menu->activeAction()->text(), "PNG");
    QTest::keyClick(menu, Qt::Key_Escape);
    settle();
    EXPECT_EQ(openMenu("formatMenu"), nullptr);
    QTest::keyClick(format, Qt::Key_Space);
    menu = openMenu("formatMenu");
    ASSERT_NE(menu, nullptr);
    QTest::keyClick(menu, Qt::Key_Down);
    QTest::keyClick(menu, Qt::Key_Return);
    settle();
    EXPECT_EQ(controller->snapshotFormat(), SnapshotExportFormat::allCases().at(1));
}

TEST_F(LooksTest, ALongFolderNameIsShortenedAndLeavesTheChevronInsideTheBox) {
    const QString name =
        QStringLiteral("start") + QString(190, QLatin1Char('n')) + QStringLiteral("close");
    const QString path = folder.filePath(name);
    controller->saveFolder.set(QUrl::fromLocalFile(path));
    CaptureSetupView setup(*controller, CaptureKind::audio);
    setup.show();
    settle();
    const QWidget* box = setup.findChild<QWidget*>("saveToButtonBox");
    const QWidget* saveTo = setup.findChild<QWidget*>("saveToButton");
    const QWidget* chevron = saveTo->findChild<QWidget*>("chevron");
    const QRect chevronArea(chevron->mapTo(box, QPoint(0, 0)), chevron->size());
    EXPECT_TRUE(box->rect().contains(chevronArea)) << chevronArea.x() << " in " << box->width();
    // The chevron is drawn where it sits.
    const RenderedText drawn = renderedText(rendered(setup), areaIn(setup, *chevron));
    EXPECT_GT(contrast(drawn.ink, drawn.background), 3.0);
    EXPECT_EQ(saveTo->toolTip(), path);
    // Both ends of the name stay readable, and what is drawn fits before the chevron.
    const auto* folderName = setup.findChild<TextLabel*>("folderName");
    const QString shown = folderName->shownText();
    EXPECT_TRUE(shown.startsWith("start") && shown.endsWith("close") &&
                shown.contains(QChar(0x2026)))
        << shown.toStdString();
    EXPECT_LE(folderName->fontMetrics().horizontalAdvance(shown), folderName->width());
    EXPECT_LE(folderName->mapTo(box, QPoint(folderName->width(), 0)).x(), chevronArea.left());
}

TEST_F(LooksTest, TheFooterIsWholeAtTheSmallestSizeOfEveryScreen) {
    TessarelRootView root(*controller);
    root.show();
    for (TessarelMode mode : {TessarelMode::home, TessarelMode::audioSetup,
                              TessarelMode::videoSetup, TessarelMode::snapshotSetup,
                              TessarelMode::recordingAudio, TessarelMode::recordingVideo}) {
        controller->mode.set(mode);
        settle();
        root.resize(root.minimumSize());
        settle();
        const bool home = mode == TessarelMode::home;
        const QWidget* footer = root.content()->findChild<QWidget*>(home ? "footer" : "bottomBar");
        ASSERT_NE(footer, nullptr);
        const QRect area(footer->mapTo(&root, QPoint(0, 0)), footer->size());
        EXPECT_TRUE(root.rect().contains(area))
            << static_cast<int>(mode) << ": " << area.bottom() << " in " << root.height();
        EXPECT_EQ(footer->height(), home ? 64 : footer->minimumHeight());
        // Nothing above it runs into it.
        for (const QAbstractButton* control : root.content()->findChildren<QAbstractButton*>()) {
            if (footer->isAncestorOf(control) || !control->isVisible()) {
                continue;
            }
            const QRect controlArea(control->mapTo(&root, QPoint(0, 0)), control->size());
            EXPECT_FALSE(controlArea.intersects(area)) << control->objectName().toStdString();
            EXPECT_TRUE(root.rect().contains(controlArea)) << control->objectName().toStdString();
        }
    }
}

TEST_F(LooksTest, ScreenReadersReadEveryControlByName) {
    HomeView home(*controller);
    QAccessibleInterface* row =
        QAccessible::queryAccessibleInterface(home.findChild<QWidget*>("recordAudioRow"));
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->text(QAccessible::Name) + ", " + row->text(QAccessible::Description),
              "Record Audio, Record system audio");
    const auto screens = everyScreen();
    for (const auto& screen : screens) {
        for (QWidget* control : screen->findChildren<QWidget*>()) {
            if (control->focusPolicy() == Qt::NoFocus) {
                continue;
            }
            QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(control);
            ASSERT_NE(accessible, nullptr);
            EXPECT_FALSE(accessible->text(QAccessible::Name).isEmpty())
                << control->objectName().toStdString();
        }
    }
}
