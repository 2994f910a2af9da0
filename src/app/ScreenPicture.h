#pragma once

#include "capture/CapturePlatform.h"

#include <QPixmap>

class QScreen;

// What `screen` shows now, read through the capture services at the screen's pixel size,
// with Tessarel's own windows in it as they are. Null when the services cannot read it.
// GUI thread.
QPixmap screenPicture(const CapturePlatform& capture, QScreen& screen);
