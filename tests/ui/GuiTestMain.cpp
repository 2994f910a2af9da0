#include <QApplication>

#include <gtest/gtest.h>

// Widget tests draw on Qt's offscreen platform with two screens of different sizes: a
// 1920 × 1080 primary and a 1280 × 1024 screen to its right, bottom edges aligned.
int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen:configfile=" TESSAREL_OFFSCREEN_SCREENS);
    testing::InitGoogleTest(&argc, argv);
    QApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
