#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QStringList>

#include <vector>

// Stands in for the desktop's file manager on a session bus: owns
// org.freedesktop.FileManager1 and records every request instead of opening windows.
//
// Threads: the thread that made it, whose event loop must run for calls to arrive.
class FileManagerDouble : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")

public:
    struct ShowItemsCall {
        QStringList uris;
        QString startupId;
    };

    // Throws std::runtime_error when the bus cannot be reached or the name is taken.
    explicit FileManagerDouble(const QString& busAddress);
    ~FileManagerDouble() override;
    FileManagerDouble(const FileManagerDouble&) = delete;
    FileManagerDouble& operator=(const FileManagerDouble&) = delete;

    const std::vector<ShowItemsCall>& showItemsCalls() const { return showItemsCalls_; }
    // Requests other than ShowItems (ShowFolders, ShowItemProperties), by method name.
    const QStringList& otherCalls() const { return otherCalls_; }

public slots:
    void ShowItems(const QStringList& uris, const QString& startupId);
    void ShowFolders(const QStringList& uris, const QString& startupId);
    void ShowItemProperties(const QStringList& uris, const QString& startupId);

private:
    QString connectionName_;
    QDBusConnection connection_;
    std::vector<ShowItemsCall> showItemsCalls_;
    QStringList otherCalls_;
};
