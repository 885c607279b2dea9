#include "fakenetworkconsumer.h"

FakeNetworkConsumer::FakeNetworkConsumer(qint64 id, QObject* parent)
    : AbstractNetworkConsumerWithExtraTasks(parent)
    , m_id(id) {}

void FakeNetworkConsumer::setNetworkSettings(const AbstractNetworkConsumerSettings& settings) {
    ++networkSettingsCalls;
    m_networkSettings = settings;
}

void FakeNetworkConsumer::setNetworkUsageSettings(const NetworkUsageSettings& settings) {
    m_usageSettings = settings;
}

qint64 FakeNetworkConsumer::speed(NetworkTrafficDirection direction, bool) const {
    return m_speeds.value(static_cast<int>(direction));
}

void FakeNetworkConsumer::clearLastError() {
    m_lastError = {};
    m_lastErrorTime = {};
    m_sslErrors.clear();
    m_unknownHost = {};
}

void FakeNetworkConsumer::setConnections(const QtHostAndPort& endpoint, int count) {
    const int before = m_connections.value(endpoint).count;
    if (before == count)
        return;
    if (count == 0)
        m_connections.remove(endpoint);
    else
        m_connections[endpoint].count = count;
    QtConnectionsMap delta;
    delta[endpoint].count = count - before;
    Q_EMIT connectionsMapChangedDelta(delta);
}

void FakeNetworkConsumer::setSpeed(NetworkTrafficDirection direction, qint64 bytesPerSecond) {
    m_speeds[static_cast<int>(direction)] = bytesPerSecond;
}

void FakeNetworkConsumer::failWith(const AbstractError& error, const QDateTime& time) {
    m_lastError = error;
    m_lastErrorTime = time;
}

void FakeNetworkConsumer::setRunningState(bool running) {
    if (m_running == running)
        return;
    m_running = running;
    Q_EMIT AbstractNetworkConsumerWithExtraTasks::running(running);
}

bool FakeNetworkConsumer::askAcceptUnknownHost(const QtSslHost& host) {
    bool accept = false;
    Q_EMIT sslAcceptUnknownHostRequired(host, &accept);
    return accept;
}
