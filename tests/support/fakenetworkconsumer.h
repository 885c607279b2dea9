#pragma once

#include <terncl/inet/qt/download/abstractnetworkconsumerwithextratasks.h>

#include <QHash>
#include <QList>

// A network consumer whose state a test sets directly: connections (announced as deltas),
// speeds, the last error and the running flag.
class FakeNetworkConsumer : public AbstractNetworkConsumerWithExtraTasks {
    Q_OBJECT

public:
    explicit FakeNetworkConsumer(qint64 id, QObject* parent = nullptr);

    qint64 id() const override { return m_id; }
    void setNetworkSettings(const AbstractNetworkConsumerSettings& settings) override;
    AbstractNetworkConsumerSettings networkSettings() const override { return m_networkSettings; }
    void setNetworkUsageSettings(const NetworkUsageSettings& settings) override;
    NetworkUsageSettings networkUsageSettings() const override { return m_usageSettings; }
    const QtConnectionsMap& connectionsMap() const override { return m_connections; }
    qint64 speed(NetworkTrafficDirection direction, bool currentOnly) const override;
    AbstractError lastError() const override { return m_lastError; }
    QList<QSslError> lastSslErrors() const override { return m_sslErrors; }
    QtSslHost lastUnknownSslHost() const override { return m_unknownHost; }
    QDateTime lastErrorTime() const override { return m_lastErrorTime; }
    void clearLastError() override;
    bool isRunning() const override { return m_running; }

    // Scripting.
    // Sets the count for one endpoint and emits the delta (0 removes the endpoint).
    void setConnections(const QtHostAndPort& endpoint, int count);
    void setSpeed(NetworkTrafficDirection direction, qint64 bytesPerSecond);
    void failWith(const AbstractError& error, const QDateTime& time);
    void setRunningState(bool running);
    bool askAcceptUnknownHost(const QtSslHost& host);

    // How often the consumer was given network settings.
    int networkSettingsCalls = 0;

private:
    qint64 m_id;
    AbstractNetworkConsumerSettings m_networkSettings;
    NetworkUsageSettings m_usageSettings;
    QtConnectionsMap m_connections;
    QHash<int, qint64> m_speeds;
    AbstractError m_lastError;
    QDateTime m_lastErrorTime;
    QList<QSslError> m_sslErrors;
    QtSslHost m_unknownHost;
    bool m_running = false;
};
