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
