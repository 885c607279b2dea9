#pragma once

#include <terncl/ternclshared_export.h>

#include <QNetworkProxyFactory>
#include <QObject>

// The application's proxy choice; queryProxy stays pure so that the subclass decides.
class TERNCL_EXPORT QtNetworkProxyFactory : public QObject, public QNetworkProxyFactory {
    Q_OBJECT

public:
    explicit QtNetworkProxyFactory(QObject* parent = nullptr);

Q_SIGNALS:
    void proxySettingsChanged();
};
