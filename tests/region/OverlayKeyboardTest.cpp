#include "controller/linux/DesktopScreens.h"
#include "region/RegionSelector.h"
#include "region/SelectionOverlay.h"
#include "support/EventLoop.h"
#include "support/TestDesktop.h"

#include <QWindow>

#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

namespace {

// Another X client on the same display, as a menu or a key binding of the desktop is.
class OtherClient {
public:
    OtherClient() : connection_(xcb_connect(TestDesktop::display().name().constData(), nullptr)) {
        const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
        root_ = screen->root;
        window_ = xcb_generate_id(connection_);
        const uint32_t values[] = {1};
        xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window_, root_, 0, 0, 10, 10, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                          XCB_CW_OVERRIDE_REDIRECT, values);
        xcb_map_window(connection_, window_);
        roundTrip();
    }
    ~OtherClient() { xcb_disconnect(connection_); }
    OtherClient(const OtherClient&) = delete;
    OtherClient& operator=(const OtherClient&) = delete;

    bool grabKeyboard() {
        const std::unique_ptr<xcb_grab_keyboard_reply_t, decltype(&std::free)> reply(
            xcb_grab_keyboard_reply(connection_,
                                    xcb_grab_keyboard(connection_, 0, root_, XCB_CURRENT_TIME,
                                                      XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC),
                                    nullptr),
            &std::free);
        return reply && reply->status == XCB_GRAB_STATUS_SUCCESS;
    }

    // Lets go of the keyboard and, as a closing menu does, gives the focus to its own window.
    void releaseKeyboardAndTakeFocus() {
        xcb_set_input_focus(connection_, XCB_INPUT_FOCUS_PARENT, window_, XCB_CURRENT_TIME);
        xcb_ungrab_keyboard(connection_, XCB_CURRENT_TIME);
        roundTrip();
    }

    void ungrabKeyboard() {
        xcb_ungrab_keyboard(connection_, XCB_CURRENT_TIME);
        roundTrip();
    }

private:
    void roundTrip() {
        free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
    }

    xcb_connection_t* connection_;
    xcb_window_t root_ = 0;
    xcb_window_t window_ = 0;
};

} // namespace

TEST(OverlayKeyboardTest, EscapeCancelsWhenAnotherClientHeldTheKeyboardAsTheSelectionBegan) {
    OtherClient other;
    ASSERT_TRUE(other.grabKeyboard());
    DesktopScreens screens;
    DesktopSelectionOverlayHost host(screens);
    RegionSelector selector(host);
    bool completed = false;
    selector.begin([&completed](const Rect&, const ScreenDescription&) { completed = true; });
    ASSERT_EQ(host.overlays().size(), 1u);
    SelectionOverlay* overlay = host.overlays().front();
    ASSERT_TRUE(processEventsUntil([overlay] { return overlay->windowHandle()->isExposed(); }));

    other.releaseKeyboardAndTakeFocus();
    // The overlay holds the keyboard once another client cannot take it.
    OtherClient probe;
    processEventsUntil(
        [&probe] {
            if (!probe.grabKeyboard()) {
                return true;
            }
            probe.ungrabKeyboard();
            return false;
        },
        5000);
    TestDesktop::run(QStringLiteral("xdotool"), {QStringLiteral("key"), QStringLiteral("Escape")});
    EXPECT_TRUE(processEventsUntil([&selector] { return !selector.isSelecting(); }, 5000));
    EXPECT_FALSE(completed);
}
