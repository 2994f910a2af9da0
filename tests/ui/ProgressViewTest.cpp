#include "ViewTestSupport.h"

TEST_F(ViewsTest, TheVideoProgressScreenHasNoAudioLevelRowAndIs220High) {
    ProgressView video(*controller, false);
    ProgressView audio(*controller, true);
    EXPECT_EQ(find(&video, "audioLevelRow"), nullptr);
    EXPECT_EQ(find(&video, "meter"), nullptr);
    EXPECT_EQ(video.size(), QSize(720, 220));
    EXPECT_NE(find(&audio, "audioLevelRow"), nullptr);
    EXPECT_EQ(audio.size(), QSize(720, 318));
    EXPECT_EQ(find<ReadyLabel>(&audio, QString())->text(), QStringLiteral("Capturing audio\u2026"));
    EXPECT_EQ(find<ReadyLabel>(&video, QString())->text(), QStringLiteral("Capturing video\u2026"));
}

TEST_F(ViewsTest, TheTimerTextFollowsElapsed) {
    ProgressView progress(*controller, true);
    controller->elapsed.set(3661.4);
    settle();
    EXPECT_EQ(labelText(&progress, "durationLabel"), "01:01:01");
}

TEST_F(ViewsTest, StopCaptureAndTheHeaderCloseBothStop) {
    auto view = root();
    controller->show(TessarelMode::audioSetup);
    controller->startAudio();
    waitForPendingWork();
    ASSERT_EQ(controller->mode(), TessarelMode::recordingAudio);
    QTest::mouseClick(find(view->content(), "stopButton"), Qt::LeftButton);
    waitForPendingWork();
    EXPECT_EQ(controller->mode(), TessarelMode::home);

    controller->show(TessarelMode::audioSetup);
    controller->startAudio();
    waitForPendingWork();
    ASSERT_EQ(controller->mode(), TessarelMode::recordingAudio);
    QTest::mouseClick(find(view->content(), "closeButton"), Qt::LeftButton);
    waitForPendingWork();
    EXPECT_EQ(controller->mode(), TessarelMode::home);
}
