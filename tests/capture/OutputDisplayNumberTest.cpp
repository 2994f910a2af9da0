#include "capture/OutputDisplayNumber.h"

#include <gtest/gtest.h>

#include <QString>

// Published FNV-1a vectors: the number must be the same in any build that derives it, so
// it is checked against values computed elsewhere rather than against itself.
TEST(OutputDisplayNumberTest, FollowsTheFnv1aDigestOfTheName) {
    EXPECT_EQ(outputDisplayNumber(u"a"), 0xe40c292cU);
    EXPECT_EQ(outputDisplayNumber(u"foobar"), 0xbf9cf968U);
}

TEST(OutputDisplayNumberTest, TellsNeighbouringOutputsApart) {
    EXPECT_NE(outputDisplayNumber(u"HEADLESS-1"), outputDisplayNumber(u"HEADLESS-2"));
    EXPECT_NE(outputDisplayNumber(u"DP-1"), outputDisplayNumber(u"HDMI-A-1"));
}

TEST(OutputDisplayNumberTest, ReadsTheNameAsUtf8) {
    // U+00E9 is two bytes, C3 A9, in UTF-8; a Latin-1 reading would hash one byte E9
    // (0x6c0b6c44).
    EXPECT_EQ(outputDisplayNumber(QString::fromUtf8("\xc3\xa9")), 0x1e9de8c1U);
}
