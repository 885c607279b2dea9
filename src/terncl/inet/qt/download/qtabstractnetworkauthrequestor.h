#pragma once

#include <terncl/inet/qt/download/qtnetworkauthrecord.h>
#include <terncl/inet/qt/download/qtnetworkauthscope.h>
#include <terncl/ternclshared_export.h>

#include <QObject>

// Obtains credentials for a scope (asks the user, looks them up) and reports them.
class TERNCL_EXPORT QtAbstractNetworkAuthRequestor : public QObject {
    Q_OBJECT

public:
    explicit QtAbstractNetworkAuthRequestor(QObject* parent = nullptr);

    // Ends with authRequestFinished for the same scope.
    Q_INVOKABLE virtual void requestAuth(const QtNetworkAuthScope& scope) = 0;
    // Drops a request in progress; authRequestFinished follows with an empty record.
    Q_INVOKABLE virtual void cancelRequest(const QtNetworkAuthScope& scope) = 0;
    virtual bool isRequesting(const QtNetworkAuthScope& scope) const = 0;

Q_SIGNALS:
    void authRequestFinished(const QtNetworkAuthScope& scope, const QtNetworkAuthRecord& record,
                             bool remember);
};
