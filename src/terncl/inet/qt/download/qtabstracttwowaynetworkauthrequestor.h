#pragma once

#include <terncl/inet/qt/download/qtabstractnetworkauthrequestor.h>

// A requestor whose answer comes from outside: it announces authRequested and takes the
// answer through setAuth.
class TERNCL_EXPORT QtAbstractTwoWayNetworkAuthRequestor : public QtAbstractNetworkAuthRequestor {
    Q_OBJECT

public:
    explicit QtAbstractTwoWayNetworkAuthRequestor(QObject* parent = nullptr);

    Q_INVOKABLE virtual void setAuth(const QtNetworkAuthScope& scope,
                                     const QtNetworkAuthRecord& record, bool remember) = 0;

Q_SIGNALS:
    void authRequested(const QtNetworkAuthScope& scope);
};
