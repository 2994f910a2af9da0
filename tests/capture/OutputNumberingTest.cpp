#include "capture/OutputNumbering.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <set>

TEST(OutputNumbering, EveryNameHasItsOwnNumber) {
    const QStringList names{"HEADLESS-1", "HEADLESS-2", "DP-1",      "DP-2",
                            "eDP-1",      "HDMI-A-1",   "Virtual-1", "WL-1"};
    std::set<uint32_t> numbers;
    for (const QString& name : names) {
        numbers.insert(displayNumberOfOutput(name));
    }
    EXPECT_EQ(numbers.size(), static_cast<size_t>(names.size()));
    EXPECT_EQ(numbers.count(0u), 0u);
}

TEST(OutputNumbering, NumberDependsOnTheNameAloneHoweverItWasSpelledOut) {
    // The GUI has the name from Qt, the capture side from the compositor's UTF-8.
    const QByteArray utf8 = QByteArrayLiteral("DP-1");
    EXPECT_EQ(displayNumberOfOutput(QString::fromUtf8(utf8)),
              displayNumberOfOutput(QStringLiteral("DP-") + QString::number(1)));
    EXPECT_NE(displayNumberOfOutput(QStringLiteral("DP-1")),
              displayNumberOfOutput(QStringLiteral("dp-1")));
}

// Published FNV-1a vectors: the number must be the same in every build and process that
// derives it, so it is checked against values computed elsewhere.
TEST(OutputNumbering, FollowsTheFnv1aDigestOfTheUtf8Name) {
    EXPECT_EQ(displayNumberOfOutput(QStringLiteral("a")), 0xe40c292cU);
    EXPECT_EQ(displayNumberOfOutput(QStringLiteral("foobar")), 0xbf9cf968U);
    // U+00E9 is C3 A9 in UTF-8 (0x1e9de8c1); read as Latin-1, one byte E9 (0x6c0b6c44).
    EXPECT_EQ(displayNumberOfOutput(QString::fromUtf8("\xc3\xa9")), 0x1e9de8c1U);
}
