#include "ViewTestSupport.h"

TEST_F(ViewsTest, MeterAtLevelZeroShows22GreyBars) {
    Meter meter(0);
    const QImage image = meter.grab().toImage();
    for (int i = 0; i < MeterBars::count; ++i) {
        EXPECT_TRUE(looksGrey(barColor(image, i))) << "bar " << i;
    }
}

TEST_F(ViewsTest, MeterAtLevelOneShows22ColouredBars) {
    Meter meter(1);
    const QImage image = meter.grab().toImage();
    for (int i = 0; i < MeterBars::count; ++i) {
        EXPECT_TRUE(looksLit(barColor(image, i), i)) << "bar " << i;
    }
}

TEST_F(ViewsTest, MeterAtFivePercentLightsBarsZeroAndOne) {
    Meter meter(0.05);
    const QImage image = meter.grab().toImage();
    EXPECT_TRUE(looksLit(barColor(image, 0), 0));
    EXPECT_TRUE(looksLit(barColor(image, 1), 1));
    for (int i = 2; i < MeterBars::count; ++i) {
        EXPECT_TRUE(looksGrey(barColor(image, i))) << "bar " << i;
    }
}

TEST_F(ViewsTest, MeterBarsClimbInASawTooth) {
    Meter meter(1);
    const QImage image = meter.grab().toImage();
    const auto barTop = [&image](int index) {
        const int x = static_cast<int>(index * (MeterBars::width + MeterBars::spacing) + 5);
        int y = 0;
        while (y < image.height() && !looksLit(image.pixelColor(x, y), index)) {
            ++y;
        }
        return image.height() - y;
    };
    EXPECT_EQ(barTop(0), 16);
    EXPECT_EQ(barTop(8), 32);
    EXPECT_EQ(barTop(9), 16);
    EXPECT_EQ(barTop(18), 16);
}

TEST_F(ViewsTest, TheFourPaletteColours) {
    EXPECT_EQ(Appearance::color(TessarelColor::audio), QColor::fromRgbF(1.0F, 0.2F, 0.28F));
    EXPECT_EQ(Appearance::color(TessarelColor::video), QColor::fromRgbF(0.1F, 0.52F, 1.0F));
    EXPECT_EQ(Appearance::color(TessarelColor::snapshot), QColor::fromRgbF(0.5F, 0.2F, 0.92F));
    EXPECT_EQ(Appearance::color(TessarelColor::green), QColor::fromRgbF(0.05F, 0.82F, 0.35F));
}
