#pragma once

#include "capture/CapturePlatform.h"

#include <QByteArray>

// Displays of a Wayland compositor: one per output, numbered from the output's name as the
// GUI numbers its screen of that name, framed by the output's logical position and size.
// A Wayland client cannot list other clients, so Tessarel's own process is the one
// application listed. Any thread; each call asks the compositor afresh.
class WaylandContentProvider final : public ShareableContentProvider {
public:
    // An empty name means $WAYLAND_DISPLAY.
    explicit WaylandContentProvider(QByteArray displayName = {});

    ShareableContent shareableContent(bool excludingDesktopWindows,
                                      bool onScreenWindowsOnly) override;
    // The first output; the GUI knows which one holds Tessarel's focused window.
    uint32_t mainDisplayID() override;

    // Whether the compositor at `displayName` lets applications copy its outputs.
    static bool offersScreenCapture(const QByteArray& displayName = {});

private:
    const QByteArray displayName_;
};
