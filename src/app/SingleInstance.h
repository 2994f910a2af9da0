#pragma once

#include <QObject>
#include <QVariantMap>

// Keeps Tessarel to one process per user session: the first start owns the application's
// D-Bus name; a later start asks that process to come forward and ends. GUI thread only.
class SingleInstance : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")
public:
    explicit SingleInstance(const QString& applicationID);

    // True when this process is the one to run: it owns the name, or there is no session
    // bus to ask. False when a running instance has been asked to come forward.
    bool claim();

public Q_SLOTS:
    Q_SCRIPTABLE void Activate(const QVariantMap& platformData);

Q_SIGNALS:
    void activated();

private:
    QString applicationID_;
    QString objectPath_;
};
