// One-shot snapshots of a whole display.

#include "EngineTestSupport.h"

#include <QCoreApplication>

using Snapshot = EngineTest;

TEST_F(Snapshot, UnlistedScreenIDGivesNoDisplayEvenWhenOtherDisplaysExist) {
    fakes.content.setDisplays({{1, {0, 0, 1440, 900}}, {2, {1440, 0, 1920, 1080}}});
    fakes.content.setMainDisplayID(1);

    EXPECT_THROW(engine.snapshot(9, {1440, 900}, 2.0), CaptureEngineError);
    EXPECT_EQ(descriptionOfError([&] {
                  engine.snapshot(9, {1440, 900}, 2.0);
              }),
              "Tessarel could not find a display to capture.");
    EXPECT_TRUE(fakes.screenshots.captures().empty());
}

TEST_F(Snapshot, DisplayIsChosenByItsIdentifier) {
    fakes.content.setDisplays({{1, {0, 0, 1440, 900}}, {2, {1440, 0, 1920, 1080}}});
    fakes.content.setMainDisplayID(1);

    engine.snapshot(2, {1920, 1080}, 1.0);

    const auto captures = fakes.screenshots.captures();
    ASSERT_EQ(captures.size(), 1u);
    EXPECT_EQ(captures[0].filter.display.displayID, 2u);
    const auto listings = fakes.content.listings();
    ASSERT_EQ(listings.size(), 1u);
    EXPECT_FALSE(listings[0].excludingDesktopWindows);
    EXPECT_TRUE(listings[0].onScreenWindowsOnly);
}

TEST_F(Snapshot, Screen1440x900AtScale2IsCapturedAt2880x1800Pixels) {
    engine.snapshot(FakeCapturePlatform::kDefaultDisplayID, {1440, 900}, 2.0);

    const auto configuration = fakes.screenshots.captures().at(0).configuration;
    EXPECT_EQ(configuration.width, 2880);
    EXPECT_EQ(configuration.height, 1800);
    EXPECT_EQ(CaptureEngine::snapshotPixelSize({1440, 900}, 2.0), (PixelSize{2880, 1800}));
}

TEST_F(Snapshot, FractionalProductIsTruncated) {
    engine.snapshot(FakeCapturePlatform::kDefaultDisplayID, {1366.5, 768}, 1.0);

    EXPECT_EQ(fakes.screenshots.captures().at(0).configuration.width, 1366);
    EXPECT_EQ(CaptureEngine::snapshotPixelSize({1366.5, 768}, 1.0), (PixelSize{1366, 768}));
}

TEST(SnapshotPixelSize, NoEvenRoundingAndNoMinimum) {
    EXPECT_EQ(CaptureEngine::snapshotPixelSize({301.9, 151}, 1.0), (PixelSize{301, 151}));
    EXPECT_EQ(CaptureEngine::snapshotPixelSize({0.6, 0.6}, 2.0), (PixelSize{1, 1}));
    EXPECT_EQ(CaptureEngine::snapshotPixelSize({0.4, 0}, 1.0), (PixelSize{0, 0}));
    EXPECT_EQ(CaptureEngine::snapshotPixelSize({1279.75, 719.99}, 1.5), (PixelSize{1919, 1079}));
}

TEST_F(Snapshot, OwnProcessNotListedExcludesNothingAndTheCaptureProceeds) {
    fakes.content.setApplications({{QCoreApplication::applicationPid() + 1, "Player"}});

    engine.snapshot(FakeCapturePlatform::kDefaultDisplayID, {1440, 900}, 1.0);

    const auto captures = fakes.screenshots.captures();
    ASSERT_EQ(captures.size(), 1u);
    EXPECT_TRUE(captures[0].filter.excludedApplications.empty());
}

TEST_F(Snapshot, OwnProcessIsExcluded) {
    engine.snapshot(FakeCapturePlatform::kDefaultDisplayID, {1440, 900}, 1.0);

    const auto excluded = fakes.screenshots.captures().at(0).filter.excludedApplications;
    ASSERT_EQ(excluded.size(), 1u);
    EXPECT_EQ(excluded[0].processID, QCoreApplication::applicationPid());
}

TEST_F(Snapshot, PointerIsNeverDrawn) {
    engine.snapshot(FakeCapturePlatform::kDefaultDisplayID, {1440, 900}, 2.0);
    engine.snapshot(FakeCapturePlatform::kDefaultDisplayID, {1440, 900}, 1.0);

    for (const auto& capture : fakes.screenshots.captures()) {
        EXPECT_FALSE(capture.configuration.showsCursor);
    }
}

TEST_F(Snapshot, ImageIsReturnedAsTheServiceGaveIt) {
    const Image image{3, 1, 12, QByteArray("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c", 12)};
    fakes.screenshots.setImage(image);

    const Image result = engine.snapshot(FakeCapturePlatform::kDefaultDisplayID, {3, 1}, 1.0);

    EXPECT_EQ(result.width, 3);
    EXPECT_EQ(result.height, 1);
    EXPECT_EQ(result.bytesPerRow, 12);
    EXPECT_EQ(result.pixels, image.pixels);
}

TEST_F(Snapshot, ServiceErrorsAreThrownUnchanged) {
    fakes.screenshots.setError(makePlatformError("The screenshot failed."));
    EXPECT_THROW(engine.snapshot(FakeCapturePlatform::kDefaultDisplayID, {1440, 900}, 1.0),
                 PlatformError);

    fakes.content.setListingError(makePlatformError("The user declined capture."));
    EXPECT_EQ(descriptionOfError([&] {
                  engine.snapshot(FakeCapturePlatform::kDefaultDisplayID, {1440, 900}, 1.0);
              }),
              "The user declined capture.");
}

TEST_F(Snapshot, NeedsNoEngineStateAndLeavesNoneBehind) {
    engine.snapshot(FakeCapturePlatform::kDefaultDisplayID, {1440, 900}, 1.0);

    EXPECT_NO_THROW(engine.stop());
    EXPECT_TRUE(fakes.audio.streams().empty());
    EXPECT_TRUE(fakes.video.streams().empty());
    EXPECT_EQ(fakes.audioWriters.makeWriterCount(), 0);
}
