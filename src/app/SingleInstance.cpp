#include "app/SingleInstance.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>

SingleInstance::SingleInstance(const QString& applicationID)
    : applicationID_(applicationID),
      objectPath_(QLatin1Char('/') +
                  QString(applicationID).replace(QLatin1Char('.'), QLatin1Char('/'))) {}

bool SingleInstance::claim() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return true;
    }
    bus.registerObject(objectPath_, this, QDBusConnection::ExportScriptableSlots);
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
        bus.interface()->registerService(applicationID_, QDBusConnectionInterface::DontQueueService,
                                         QDBusConnectionInterface::DontAllowReplacement);
    if (reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered) {
        return true;
    }
    bus.unregisterObject(objectPath_);
    QDBusMessage activate = QDBusMessage::createMethodCall(
        applicationID_, objectPath_, QStringLiteral("org.freedesktop.Application"),
        QStringLiteral("Activate"));
    activate << QVariantMap();
    const QDBusMessage answer = bus.call(activate);
    // A name held by a process that does not answer is no reason to stay away.
    return answer.type() == QDBusMessage::ErrorMessage;
}

void SingleInstance::Activate(const QVariantMap&) {
    Q_EMIT activated();
}
