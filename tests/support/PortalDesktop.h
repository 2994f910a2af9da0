#pragma once

#include "support/WaylandDesktop.h"

#include <QDir>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <memory>
#include <vector>

// The desktop portal on a headless Wayland desktop, on a session bus of its own run as the
// test's user: PipeWire with WirePlumber, the real xdg-desktop-portal frontend reading a private
// portal folder for a desktop of its own name, xdg-desktop-portal-wlr serving Screenshot and, when
// asked for, the test tree's ScreenCast backend sharing the desktop's outputs as PipeWire
// video nodes (the second output's buffers upside down, with a transform saying so). Stopped by the
// destructor.
class PortalDesktop {
public:
    struct Options {
        bool withScreenCast = true;
    };

    PortalDesktop(const WaylandDesktop& desktop, Options options);
    ~PortalDesktop();
    PortalDesktop(const PortalDesktop&) = delete;
    PortalDesktop& operator=(const PortalDesktop&) = delete;

    QString busAddress() const { return busAddress_; }
    // A folder of its own for the grants a client keeps.
    QString grantsDirectory() const { return directory_.filePath(QStringLiteral("grants")); }

    // The ScreenCast backend's dialog: how often it granted, whether it declines, and which
    // output the user picks in it.
    int grantsGiven() const;
    // Sessions the backend opened and has not had closed.
    int openSessions() const;
    void declineGrants(bool decline);
    void chooseOutput(const QString& name);
    // SIGKILL for the ScreenCast backend, as if it crashed.
    void killScreenCastBackend();

private:
    int linesOf(const QString& file, const QByteArray& line) const;
    QProcess& startDaemon(const QString& program, const QStringList& arguments,
                          const QProcessEnvironment& environment);
    void awaitBusName(const QString& name);
    void awaitFile(const QString& path);
    void stop();

    const WaylandDesktop& desktop_;
    QTemporaryDir directory_;
    QDir control_;
    QString busAddress_;
    std::vector<std::unique_ptr<QProcess>> daemons_; // in start order
    QProcess* screenCastBackend_ = nullptr;
};
