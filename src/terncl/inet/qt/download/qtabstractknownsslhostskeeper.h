#pragma once

#include <terncl/inet/qt/download/qtsslhost.h>
#include <terncl/ternclshared_export.h>

#include <QObject>

// The store of TLS hosts that the user accepted.
class TERNCL_EXPORT QtAbstractKnownSslHostsKeeper : public QObject {
    Q_OBJECT

public:
    explicit QtAbstractKnownSslHostsKeeper(QObject* parent = nullptr);

    virtual bool isKnown(const QtSslHost& host) const = 0;
    virtual void addHost(const QtSslHost& host) = 0;
    virtual void removeHost(const QtSslHost& host) = 0;
};
