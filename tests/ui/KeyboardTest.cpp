#include "GuiFixture.h"

#include "ui/Appearance.h"
#include "ui/Views.h"

#include <QFile>
#include <QPainter>
#include <QTest>

#include <algorithm>
#include <memory>

namespace {

// The panel driven with the keyboard alone, as a person who uses no pointer does.
class KeyboardTest : public GuiTest {
protected:
    KeyboardTest() {
        panel = std::make_unique<TessarelRootView>(*controller);
        panel->resize(Appearance::toQSize(PanelSize::home));
        panel->show();
        QApplication::setActiveWindow(panel.get());
        settle();
    }

    QImage rendered() const {
        QImage image(panel->size(), QImage::Format_RGB32);
        image.fill(Appearance::panelBackground());
        QPainter painter(&image);
        painter.drawPixmap(0, 0, panel->grab());
        return image;
    }

    static void press(Qt::Key key) {
        QWidget* target = QApplication::focusWidget();
        QTest::keyClick(target != nullptr ? target : QApplication::activeWindow(), key);
    }

    // Presses Tab until `name` has the focus, checking at each step that the control given
    // the focus looks different for it.
    void tabTo(const QString& name) {
        for (int step = 0; step < 12; ++step) {
            const QImage before = rendered();
            press(Qt::Key_Tab);
            settle();
            QWidget* focused = QApplication::focusWidget();
            ASSERT_NE(focused, nullptr);
            // The ring may lie just outside the control, around the box holding it.
            const QRect area = QRect(focused->mapTo(panel.get(), QPoint(0, 0)), focused->size())
                                   .adjusted(-20, -20, 20, 20)
                                   .intersected(panel->rect());
            EXPECT_NE(rendered().copy(area), before.copy(area))
                << "no visible focus on " << focused->objectName().toStdString();
            if (focused->objectName() == name) {
                return;
            }
        }
        FAIL() << "Tab never reached " << name.toStdString();
    }

    void returnKey() {
        press(Qt::Key_Return);
        // Return clicks as a press shows: released a moment later.
        const TessarelMode before = controller->mode();
        processEventsUntil([this, before] { return controller->mode() != before; }, 2000);
        waitForPendingWork();
    }

    std::unique_ptr<TessarelRootView> panel;
};

} // namespace

TEST_F(KeyboardTest, TabAndReturnAloneTakeASnapshotAndRecordTwoSecondsOfAudio) {
    tabTo("takeSnapshotRow");
    returnKey();
    ASSERT_EQ(controller->mode(), TessarelMode::snapshotSetup);
    tabTo("startButton");
    returnKey();
    ASSERT_TRUE(controller->lastSavedURL().has_value());
    EXPECT_TRUE(QFile::exists(controller->lastSavedURL()->toLocalFile()));
    EXPECT_EQ(controller->mode(), TessarelMode::home);

    tabTo("recordAudioRow");
    returnKey();
    ASSERT_EQ(controller->mode(), TessarelMode::audioSetup);
    tabTo("startButton");
    returnKey();
    ASSERT_EQ(controller->mode(), TessarelMode::recordingAudio);
    // Two seconds of the recording's ten-a-second timer.
    for (int tick = 0; tick < 20; ++tick) {
        fakes.timers.fire();
    }
    settle();
    EXPECT_EQ(panel->content()->findChild<QLabel*>("durationLabel")->text(), "00:00:02");
    tabTo("stopButton");
    returnKey();
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    ASSERT_TRUE(controller->lastSavedURL().has_value());
    EXPECT_TRUE(controller->lastSavedURL()->fileName().endsWith(".m4a"))
        << controller->lastSavedURL()->fileName().toStdString();
}

TEST_F(KeyboardTest, TabVisitsEveryControlOfEachScreenTopToBottom) {
    controller->lastSavedURL.set(QUrl::fromLocalFile(folder.filePath("shot-1.png")));
    const std::vector<std::pair<TessarelMode, QStringList>> screens{
        {TessarelMode::home,
         {"gearButton", "recordAudioRow", "recordVideoRow", "takeSnapshotRow",
          "showLastCaptureButton"}},
        {TessarelMode::audioSetup, {"closeButton", "saveToButton", "formatButton", "startButton"}},
        {TessarelMode::videoSetup, {"closeButton", "saveToButton", "startButton"}},
        {TessarelMode::recordingAudio, {"closeButton", "stopButton"}},
    };
    for (const auto& [mode, expected] : screens) {
        controller->mode.set(mode);
        settle();
        QStringList visited;
        for (int step = 0; step < expected.size(); ++step) {
            press(Qt::Key_Tab);
            settle();
            visited << QApplication::focusWidget()->objectName();
        }
        // Tab goes round: the order counts from wherever the focus started.
        const qsizetype first = std::max<qsizetype>(visited.indexOf(expected.first()), 0);
        visited = visited.mid(first) + visited.mid(0, first);
        EXPECT_EQ(visited.join(' ').toStdString(), expected.join(' ').toStdString())
            << static_cast<int>(mode);
    }
}
