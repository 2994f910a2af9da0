#include "support/FileManagerDouble.h"

#include <QUuid>

#include <stdexcept>

FileManagerDouble::FileManagerDouble(const QString& busAddress)
    : connectionName_(QStringLiteral("file-manager-double-") +
                      QUuid::createUuid().toString(QUuid::WithoutBraces)),
      connection_(QDBusConnection::connectToBus(busAddress, connectionName_)) {
    if (!connection_.isConnected()) {
        QDBusConnection::disconnectFromBus(connectionName_);
        throw std::runtime_error("the file manager double could not reach the bus");
    }
    if (!connection_.registerObject(QStringLiteral("/org/freedesktop/FileManager1"), this,
                                    QDBusConnection::ExportAllSlots) ||
        !connection_.registerService(QStringLiteral("org.freedesktop.FileManager1"))) {
        QDBusConnection::disconnectFromBus(connectionName_);
        throw std::runtime_error("the file manager double could not own its name");
    }
}

FileManagerDouble::~FileManagerDouble() {
    connection_.unregisterObject(QStringLiteral("/org/freedesktop/FileManager1"));
    QDBusConnection::disconnectFromBus(connectionName_);
}

void FileManagerDouble::ShowItems(const QStringList& uris, const QString& startupId) {
    showItemsCalls_.push_back({uris, startupId});
}

void FileManagerDouble::ShowFolders(const QStringList&, const QString&) {
    otherCalls_ << QStringLiteral("ShowFolders");
}

void FileManagerDouble::ShowItemProperties(const QStringList&, const QString&) {
    otherCalls_ << QStringLiteral("ShowItemProperties");
}
