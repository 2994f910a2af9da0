#include "capture/OutputNumbering.h"
#include "capture/linux/wayland/WaylandContentProvider.h"
#include "capture/linux/wayland/WaylandScreenshotService.h"
#include "support/WaylandDesktop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace {

QImage toQImage(const Image& image) {
    return QImage(reinterpret_cast<const uchar*>(image.pixels.constData()), image.width,
                  image.height, image.bytesPerRow, QImage::Format_RGB32)
        .copy();
}

// The listed display of the output called `name`.
std::optional<DisplayInfo> displayOf(const ShareableContent& content, const QString& name) {
    const auto found = std::find_if(content.displays.begin(), content.displays.end(),
                                    [&](const DisplayInfo& display) {
                                        return display.displayID == displayNumberOfOutput(name);
                                    });
    return found != content.displays.end() ? std::optional(*found) : std::nullopt;
}

class WaylandSnapshot : public testing::Test {
protected:
    static void SetUpTestSuite() {
        desktop = std::make_unique<WaylandDesktop>();
        first = desktop->showWindow(QStringLiteral("HEADLESS-1"), 21);
        second = desktop->showWindow(QStringLiteral("HEADLESS-2"), 22);
    }
    static void TearDownTestSuite() {
        first.reset();
        second.reset();
        desktop.reset();
    }

    static std::unique_ptr<WaylandDesktop> desktop;
    static std::unique_ptr<WaylandDesktop::Window> first;
    static std::unique_ptr<WaylandDesktop::Window> second;
};

std::unique_ptr<WaylandDesktop> WaylandSnapshot::desktop;
std::unique_ptr<WaylandDesktop::Window> WaylandSnapshot::first;
std::unique_ptr<WaylandDesktop::Window> WaylandSnapshot::second;

} // namespace

TEST_F(WaylandSnapshot, EachOutputIsOneDisplayNumberedByItsNameAndFramedInPoints) {
    WaylandContentProvider provider(desktop->displayName());
    const ShareableContent content = provider.shareableContent(false, true);
    const auto outputs = desktop->outputs();
    ASSERT_EQ(content.displays.size(), outputs.size());
    for (const WaylandDesktop::Output& output : outputs) {
        const auto display = displayOf(content, output.name);
        ASSERT_TRUE(display) << output.name.toStdString();
        const QRect& logical = output.logical;
        EXPECT_EQ(
            display->frame,
            (Rect{static_cast<double>(logical.x()), static_cast<double>(logical.y()),
                  static_cast<double>(logical.width()), static_cast<double>(logical.height())}));
    }
    EXPECT_EQ(provider.mainDisplayID(), displayNumberOfOutput(outputs.front().name));
}

// Asked for without the pointer, as grim asks by default. A compositor drawing the pointer
// in software (headless sway does) puts it into every copy all the same; where it has a
// pointer plane, both leave it out.
TEST_F(WaylandSnapshot, SnapshotOfEachOutputIsGrimsPictureAtFullResolution) {
    WaylandContentProvider provider(desktop->displayName());
    WaylandScreenshotService screenshots(desktop->displayName());
    const ShareableContent content = provider.shareableContent(false, true);
    for (const WaylandDesktop::Output& output : desktop->outputs()) {
        SCOPED_TRACE(output.name.toStdString());
        desktop->pointer().move(output.logical.center());
        const QImage reference = desktop->grim(output.name);
        const auto display = displayOf(content, output.name);
        ASSERT_TRUE(display);

        const Image image = screenshots.captureImage(
            {*display, {}}, {output.pixels.width(), output.pixels.height(), false});

        EXPECT_EQ(image.width, output.pixels.width());
        EXPECT_EQ(image.height, output.pixels.height());
        EXPECT_TRUE(toQImage(image) == reference);
    }
}

TEST_F(WaylandSnapshot, OutputThatIsGoneIsAnError) {
    WaylandScreenshotService screenshots(desktop->displayName());
    const DisplayInfo gone{displayNumberOfOutput(QStringLiteral("HEADLESS-9")), Rect{0, 0, 8, 8}};
    EXPECT_THROW(screenshots.captureImage({gone, {}}, {8, 8, false}), PlatformError);
}

TEST(WaylandSnapshotService, OutputConnectedAfterTheLastSnapshotIsTakenToo) {
    WaylandDesktop desktop;
    WaylandScreenshotService screenshots(desktop.displayName());
    WaylandContentProvider provider(desktop.displayName());
    const auto first =
        displayOf(provider.shareableContent(false, true), QStringLiteral("HEADLESS-1"));
    ASSERT_TRUE(first);
    screenshots.captureImage({*first, {}}, {1280, 720, false});

    desktop.swaymsg({QStringLiteral("create_output")});
    const auto window = desktop.showWindow(QStringLiteral("HEADLESS-3"), 23);
    const WaylandDesktop::Output output = desktop.output(QStringLiteral("HEADLESS-3"));
    const auto added = displayOf(provider.shareableContent(false, true), output.name);
    ASSERT_TRUE(added);
    const Image image = screenshots.captureImage(
        {*added, {}}, {output.pixels.width(), output.pixels.height(), false});

    EXPECT_TRUE(toQImage(image) == desktop.grim(output.name));
}
