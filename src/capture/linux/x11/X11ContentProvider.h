#pragma once

#include "capture/CapturePlatform.h"

#include <QByteArray>

#include <memory>
#include <mutex>

class X11Connection;

// Displays and applications of an X server: one display per RandR monitor, numbered by the
// monitor's name atom (the GUI derives the same number by interning the screen's name),
// and one application per process id among the client windows. Any thread; calls run one
// at a time on a connection that is kept for the next one.
class X11ContentProvider final : public ShareableContentProvider {
public:
    // An empty name means $DISPLAY.
    explicit X11ContentProvider(QByteArray displayName = {});
    ~X11ContentProvider() override;

    ShareableContent shareableContent(bool excludingDesktopWindows,
                                      bool onScreenWindowsOnly) override;
    uint32_t mainDisplayID() override;

private:
    // The kept connection, or a new one when there is none or the server dropped it.
    X11Connection& liveConnection();

    const QByteArray displayName_;
    std::mutex mutex_; // guards what follows
    std::unique_ptr<X11Connection> connection_;
};
