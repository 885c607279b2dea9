#include "upowerpropertiesproxy_p.h"

UPowerPropertiesProxy::UPowerPropertiesProxy(const QString& path, const QDBusConnection& bus,
                                             QObject* parent)
    : QDBusAbstractInterface(QString::fromLatin1(serviceName), path,
                             "org.freedesktop.DBus.Properties", bus, parent) {}

UPowerPropertiesProxy::~UPowerPropertiesProxy() = default;

QDBusPendingReply<QVariantMap> UPowerPropertiesProxy::getAll(const QString& interface) {
    return asyncCall(QStringLiteral("GetAll"), interface);
}
