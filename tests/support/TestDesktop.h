#pragma once

#include "support/VirtualDisplay.h"

#include <QString>
#include <QStringList>

// The X desktop a windowed test runs on: a private Xvfb that the test main starts before the
// QApplication connects to it, and, when a test asks, the desktop programs a person has
// around their windows: a window manager (openbox), a compositor (picom) and a panel (tint2).
// Each program is stopped again by `stop` or at the end of the run. GUI thread only.
class TestDesktop {
public:
    enum class Program { windowManager, compositor, taskPanel };

    static VirtualDisplay& display();
    // Starts the program, unless it runs already, and returns once it has taken over its part
    // of the display.
    static void start(Program program);
    static void stop(Program program);
    // Runs an X client against the display and returns what it printed.
    static QByteArray run(const QString& program, const QStringList& arguments);
};
