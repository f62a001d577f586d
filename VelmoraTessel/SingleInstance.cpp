#include "SingleInstance.h"

#include "errors/ErrorLog.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>

namespace tessel::app {

SingleInstance::SingleInstance(QDBusConnection bus, QObject* parent)
    : QObject(parent), bus_(std::move(bus)) {}

SingleInstance::~SingleInstance() {
    release();
}

SingleInstance::Claim SingleInstance::claim() {
    if (!bus_.isConnected() || !bus_.interface()) {
        log::write(log::Level::warning, "app",
                   QStringLiteral("No session bus — a second launch will start a second tray "
                                  "application."));
        return Claim::noBus;
    }
    // The object first, so whoever finds the name also finds the object.
    bus_.registerObject(QString::fromLatin1(objectPath), this,
                        QDBusConnection::ExportScriptableSlots);
    const auto reply = bus_.interface()->registerService(
        QString::fromLatin1(serviceName), QDBusConnectionInterface::DontQueueService,
        QDBusConnectionInterface::DontAllowReplacement);
    if (reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered) {
        held_ = true;
        return Claim::claimed;
    }
    bus_.unregisterObject(QString::fromLatin1(objectPath));
    const QDBusMessage call = QDBusMessage::createMethodCall(
        QString::fromLatin1(serviceName), QString::fromLatin1(objectPath),
        QString::fromLatin1(serviceName), QStringLiteral("Activate"));
    bus_.call(call, QDBus::Block, 5000);
    return Claim::anotherRuns;
}

void SingleInstance::release() {
    if (!held_) {
        return;
    }
    held_ = false;
    bus_.unregisterObject(QString::fromLatin1(objectPath));
    bus_.interface()->unregisterService(QString::fromLatin1(serviceName));
}

void SingleInstance::Activate() {
    emit activateRequested();
}

} // namespace tessel::app
