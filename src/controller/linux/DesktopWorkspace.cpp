#include "controller/linux/DesktopWorkspace.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QFileInfo>

namespace {

void openContainingFolder(const QUrl& url) {
    QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(url.toLocalFile()).absolutePath()));
}

} // namespace

void DesktopWorkspace::activateFileViewerSelecting(const QList<QUrl>& urls) {
    if (urls.isEmpty()) {
        return;
    }
    const QUrl first = urls.first();
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        openContainingFolder(first);
        return;
    }
    QStringList uris;
    for (const QUrl& url : urls) {
        uris << url.toString(QUrl::FullyEncoded);
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << uris << QString();
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [first](QDBusPendingCallWatcher* finished) {
                         if (finished->isError()) {
                             openContainingFolder(first);
                         }
                         finished->deleteLater();
                     });
}

void DesktopWorkspace::openURL(const QUrl& url) {
    QDesktopServices::openUrl(url);
}

QUrl DesktopWorkspace::applicationBundleURL() {
    return QUrl::fromLocalFile(QCoreApplication::applicationDirPath());
}
