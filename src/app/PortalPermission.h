#pragma once

#include "controller/ControllerPlatform.h"

#include <future>

class DesktopPortal;

// The screen-capture permission where captures go through the desktop portal: the grant the
// desktop gave. Kept from an earlier grant, capture is allowed at once; else the desktop is
// asked now, through the portal's own dialog, and the answer is the user's. The dialog may
// stay up as long as the user looks at it: it is asked for on a thread of its own while the
// GUI thread goes on with its events. A portal that cannot ask leaves the answer to the
// capture, which then fails with its own message. GUI thread only.
class PortalPermission final : public ScreenCapturePermission {
public:
    explicit PortalPermission(DesktopPortal& portal) : portal_(portal) {}

    bool preflightScreenCaptureAccess() override;
    // No desktop names a privacy page for screen sharing that could be opened.
    std::optional<QUrl> screenRecordingSettingsURL() override { return std::nullopt; }

private:
    DesktopPortal& portal_;
    std::shared_future<bool> asking_; // a capture asked for meanwhile shares the one question
};
