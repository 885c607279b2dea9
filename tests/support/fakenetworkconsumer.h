#pragma once

#include <terncl/inet/qt/download/abstractnetworkconsumerwithextratasks.h>

// A network consumer whose state a test sets directly: connections (announced as deltas),
// speeds, the last error and the running flag (which it may start with).
class FakeNetworkConsumer : public AbstractNetworkConsumerWithExtraTasks {
    Q_OBJECT

public:
    explicit FakeNetworkConsumer(qint64 id, bool running = false)
        : m_id(id)
        , m_running(running) {}

    qint64 id() const override { return m_id; }
    void setNetworkSettings(const AbstractNetworkConsumerSettings& settings) override {
        m_networkSettings = settings;
    }
    AbstractNetworkConsumerSettings networkSettings() const override { return m_networkSettings; }
    void setNetworkUsageSettings(const NetworkUsageSettings& settings) override {
        m_usageSettings = settings;
    }
    NetworkUsageSettings networkUsageSettings() const override { return m_usageSettings; }
    const QtConnectionsMap& connectionsMap() const override { return m_connections; }
    qint64 speed(NetworkTrafficDirection direction, bool) const override {
        return m_speeds[int(direction)];
    }
    AbstractError lastError() const override { return m_lastError; }
    QList<QSslError> lastSslErrors() const override { return {}; }
    QtSslHost lastUnknownSslHost() const override { return {}; }
    QDateTime lastErrorTime() const override { return m_lastErrorTime; }
    void clearLastError() override { failWith({}, {}); }
    bool isRunning() const override { return m_running; }

    // Scripting. Sets the count for one endpoint and emits the delta (0 removes the endpoint).
    void setConnections(const QtHostAndPort& endpoint, int count) {
        const int before = m_connections.value(endpoint).count;
        if (count == 0)
            m_connections.remove(endpoint);
        else
            m_connections[endpoint].count = count;
        QtConnectionsMap delta;
        delta[endpoint].count = count - before;
        Q_EMIT connectionsMapChangedDelta(delta);
    }
    void setSpeed(NetworkTrafficDirection direction, qint64 bytesPerSecond) {
        m_speeds[int(direction)] = bytesPerSecond;
    }
    void failWith(const AbstractError& error, const QDateTime& time) {
        m_lastError = error;
        m_lastErrorTime = time;
    }
    void setRunningState(bool running) {
        if (m_running == running)
            return;
        m_running = running;
        Q_EMIT AbstractNetworkConsumerWithExtraTasks::running(running);
    }

private:
    qint64 m_id;
    AbstractNetworkConsumerSettings m_networkSettings;
    NetworkUsageSettings m_usageSettings;
    QtConnectionsMap m_connections;
    qint64 m_speeds[2] = {}; // by direction
    AbstractError m_lastError;
    QDateTime m_lastErrorTime;
    bool m_running = false;
};
