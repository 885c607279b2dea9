#pragma once

#include <terncl/inet/qt/download/qtnetworkauthrecord.h>
#include <terncl/inet/qt/download/qtnetworkauthscope.h>
#include <terncl/ternclshared_export.h>

#include <QObject>

// Stores credentials per scope.
class TERNCL_EXPORT QtAbstractNetworkPasswordsKeeper : public QObject {
    Q_OBJECT

public:
    explicit QtAbstractNetworkPasswordsKeeper(QObject* parent = nullptr);

    // remember false keeps the credentials for this session only.
    Q_INVOKABLE virtual void save(const QtNetworkAuthScope& scope,
                                  const QtNetworkAuthRecord& record, bool remember) = 0;
    // The stored credentials of the scope, or an empty record.
    virtual QtNetworkAuthRecord find(const QtNetworkAuthScope& scope) const = 0;
    virtual void remove(const QtNetworkAuthScope& scope) = 0;

Q_SIGNALS:
    void authChanged(const QtNetworkAuthScope& scope);
};
