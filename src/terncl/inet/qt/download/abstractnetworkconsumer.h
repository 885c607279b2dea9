#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/core/qtobj.h>
#include <terncl/inet/qt/download/abstractnetworkconsumersettings.h>
#include <terncl/inet/qt/download/networkusagesettings.h>
#include <terncl/inet/qt/download/qtconnectionsmap.h>
#include <terncl/inet/qt/download/qtnetworkauthscope.h>
#include <terncl/inet/qt/download/qtsslhost.h>

#include <QDateTime>
#include <QList>
#include <QSslError>

class QAuthenticator;

// Anything that uses the network, as the coordination layer sees it: a download, a download
// made of downloads, a pack of consumers. Lives in one thread; every operation is called there.
// Connect authenticationRequired and sslAcceptUnknownHostRequired directly before starting the
// consumer: both carry out-parameters that must be filled before the emitting call returns.
class TERNCL_EXPORT AbstractNetworkConsumer : public QtObj {
    Q_OBJECT

public:
    explicit AbstractNetworkConsumer(QObject* parent = nullptr);

    virtual qint64 id() const = 0;
    virtual void setNetworkSettings(const AbstractNetworkConsumerSettings& settings) = 0;
    virtual AbstractNetworkConsumerSettings networkSettings() const = 0;
    // Derived classes do nothing for settings equal in all five fields to the current ones.
    virtual void setNetworkUsageSettings(const NetworkUsageSettings& settings) = 0;
    virtual NetworkUsageSettings networkUsageSettings() const = 0;
    virtual const QtConnectionsMap& connectionsMap() const = 0;
    // currentOnly asks for the speed of the transfer in progress rather than an average the
    // consumer may keep over its whole run; consumers without that distinction ignore it.
    virtual qint64 speed(NetworkTrafficDirection direction, bool currentOnly) const = 0;
    // The last error, its TLS errors, unknown host and time describe one failure, set together.
    virtual AbstractError lastError() const = 0;
    virtual QList<QSslError> lastSslErrors() const = 0;
    virtual QtSslHost lastUnknownSslHost() const = 0;
    virtual QDateTime lastErrorTime() const = 0;
    virtual void clearLastError() = 0;

Q_SIGNALS:
    // delta holds only the entries that changed, as signed counts.
    void connectionsMapChangedDelta(const QtConnectionsMap& delta);
    void progressChanged(qint64 done, qint64 total);
    void authenticationRequired(const QtNetworkAuthScope& scope, QAuthenticator* authenticator);
    void sslAcceptUnknownHostRequired(const QtSslHost& host, bool* accept);
};
