#pragma once

#include "support/WaylandDesktop.h"

#include <QDir>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <map>
#include <memory>
#include <vector>

// The desktop portal on a headless Wayland desktop, on a session bus of its own run as the
// test's user: PipeWire with WirePlumber, the real xdg-desktop-portal frontend reading a private
// portal folder for a desktop of its own name, and either the test tree's ScreenCast backend
// sharing the desktop's outputs as PipeWire video nodes (each output's buffers turned as
// `turns` says, with a transform saying so) or, without it, xdg-desktop-portal-wlr serving
// Screenshot. Stopped by the destructor.
class PortalDesktop {
public:
    struct Options {
        bool withScreenCast = true;
        // Output name to how the backend sends its buffers: "0", "90", "180", "270" (turned
        // counter-clockwise), "flipped" (mirrored left to right), "flipped-90" ... .
        std::map<QString, QString> turns{{QStringLiteral("HEADLESS-2"), QStringLiteral("180")}};
        // The backend shares what the compositor shows, copied with wlr-screencopy, instead
        // of its pattern.
        bool fromScreen = false;
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
    // Every call the backend's ScreenCast or Access got.
    int requestsReceived() const;
    void declineGrants(bool decline);
    // How long the user looks at the dialog before answering.
    void takeTimeInTheDialog(int milliseconds);
    void chooseOutput(const QString& name);
    // The ScreenCast backend's process.
    qint64 screenCastBackendProcessId() const;
    // SIGKILL for the ScreenCast backend, as if it crashed.
    void killScreenCastBackend();
    // SIGSTOP for the frontend: it keeps its bus name but answers nothing.
    void freezeFrontend();

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
    QProcess* frontend_ = nullptr;
};
