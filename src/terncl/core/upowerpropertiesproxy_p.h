#pragma once

#include <QDBusAbstractInterface>
#include <QDBusPendingReply>
#include <QStringList>
#include <QVariantMap>

// The standard properties interface of one object of the UPower service: all its values at
// once, and their changes as UPower announces them. Connecting to PropertiesChanged subscribes
// to the bus signal.
class UPowerPropertiesProxy : public QDBusAbstractInterface {
    Q_OBJECT

public:
    static constexpr const char* serviceName = "org.freedesktop.UPower";

    UPowerPropertiesProxy(const QString& path, const QDBusConnection& bus,
                          QObject* parent = nullptr);
    ~UPowerPropertiesProxy() override;

    QDBusPendingReply<QVariantMap> getAll(const QString& interface);

Q_SIGNALS:
    void PropertiesChanged(const QString& interface, const QVariantMap& changed,
                           const QStringList& invalidated);
};
