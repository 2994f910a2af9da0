#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

#include <functional>

// Runs the GUI thread's event loop until `done` holds. The deadline only guards against a
// hang; it never decides a result.
inline bool processEventsUntil(const std::function<bool()>& done, int deadlineMs = 30000) {
    QDeadlineTimer deadline(deadlineMs);
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        QThread::yieldCurrentThread();
    }
    return true;
}
