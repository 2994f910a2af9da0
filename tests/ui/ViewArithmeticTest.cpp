#include "ui/ViewArithmetic.h"

#include <gtest/gtest.h>

#include <limits>

TEST(DurationTest, ZeroSecondsGivesAllZeros) {
    EXPECT_EQ(duration(0), "00:00:00");
}

TEST(DurationTest, FractionsAreTruncated) {
    EXPECT_EQ(duration(59.9), "00:00:59");
}

TEST(DurationTest, HoursMinutesAndSeconds) {
    EXPECT_EQ(duration(3661), "01:01:01");
}

TEST(DurationTest, HundredHoursAreNotWrapped) {
    EXPECT_EQ(duration(360000), "100:00:00");
}

TEST(DurationDeathTest, NonFiniteValueIsFatal) {
    EXPECT_DEATH(duration(std::numeric_limits<double>::infinity()), "");
}

TEST(MeterBarsTest, LevelZeroLightsNoBar) {
    EXPECT_EQ(MeterBars::litCount(0), 0);
}

TEST(MeterBarsTest, LevelOneLightsAllTwentyTwoBars) {
    EXPECT_EQ(MeterBars::litCount(1), 22);
}

TEST(MeterBarsTest, LevelFivePercentLightsBarsZeroAndOne) {
    EXPECT_TRUE(MeterBars::isLit(0, 0.05));
    EXPECT_TRUE(MeterBars::isLit(1, 0.05));
    EXPECT_FALSE(MeterBars::isLit(2, 0.05));
    EXPECT_EQ(MeterBars::litCount(0.05), 2);
}

TEST(MeterBarsTest, LevelHalfLightsBarsZeroToTen) {
    EXPECT_TRUE(MeterBars::isLit(10, 0.5));
    EXPECT_FALSE(MeterBars::isLit(11, 0.5));
    EXPECT_EQ(MeterBars::litCount(0.5), 11);
}

TEST(MeterBarsTest, AnyLevelAboveTwentyOneTwentySecondsLightsAll) {
    EXPECT_EQ(MeterBars::litCount(21.0 / 22.0 + 1e-9), 22);
    EXPECT_EQ(MeterBars::litCount(21.0 / 22.0), 21);
}

TEST(MeterBarsTest, HeightsClimbFrom16To32AndStartAgainOnBars9And18) {
    EXPECT_EQ(MeterBars::height(0), 16);
    EXPECT_EQ(MeterBars::height(1), 18);
    EXPECT_EQ(MeterBars::height(8), 32);
    EXPECT_EQ(MeterBars::height(9), 16);
    EXPECT_EQ(MeterBars::height(17), 32);
    EXPECT_EQ(MeterBars::height(18), 16);
    EXPECT_EQ(MeterBars::height(21), 22);
}

TEST(MeterBarsTest, HuesRunFromGreenTowardsOrange) {
    EXPECT_DOUBLE_EQ(MeterBars::hue(0), 0.36);
    EXPECT_NEAR(MeterBars::hue(21), 0.066, 1e-12);
    EXPECT_DOUBLE_EQ(MeterBars::saturation, 0.95);
    EXPECT_DOUBLE_EQ(MeterBars::brightness, 1.0);
}

TEST(TessarelColorTest, PaletteComponents) {
    EXPECT_EQ(TessarelColor::audio, (RGBColor{1.0, 0.2, 0.28}));
    EXPECT_EQ(TessarelColor::video, (RGBColor{0.1, 0.52, 1.0}));
    EXPECT_EQ(TessarelColor::snapshot, (RGBColor{0.5, 0.2, 0.92}));
    EXPECT_EQ(TessarelColor::green, (RGBColor{0.05, 0.82, 0.35}));
}
