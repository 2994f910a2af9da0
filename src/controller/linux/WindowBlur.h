#pragma once

#include <memory>

class QWindow;

// The compositor's blur of what lies behind a window, where the desktop offers one. Only KWin
// does: on X11 it announces _KDE_NET_WM_BLUR_BEHIND_REGION on the root window, on Wayland it
// offers its org_kde_kwin_blur_manager. GUI thread only.
class WindowBlur {
public:
    virtual ~WindowBlur() = default;

    // Whether the compositor blurs behind a window that asks for it.
    virtual bool available() const = 0;
    // Asks for the blur behind the whole of `window`, for as long as the object lives; the
    // window need not be shown yet.
    virtual void blurBehind(QWindow& window) = 0;
};

// The blur of the windowing system Qt runs on.
std::unique_ptr<WindowBlur> makeWindowBlur();
