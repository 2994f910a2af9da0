#pragma once

#include "capture/CapturePlatform.h"

#include <QByteArray>

// Displays and applications of an X server: one display per RandR monitor, numbered by the
// monitor's name atom (the GUI derives the same number by interning the screen's name),
// and one application per process id among the client windows. Any thread; each call
// opens its own connection.
class X11ContentProvider final : public ShareableContentProvider {
public:
    // An empty name means $DISPLAY.
    explicit X11ContentProvider(QByteArray displayName = {});

    ShareableContent shareableContent(bool excludingDesktopWindows,
                                      bool onScreenWindowsOnly) override;
    uint32_t mainDisplayID() override;

private:
    QByteArray displayName_;
};
