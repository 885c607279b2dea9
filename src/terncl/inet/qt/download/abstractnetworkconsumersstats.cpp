#include "abstractnetworkconsumersstats.h"

#include "abstractnetworkconsumer.h"

AbstractNetworkConsumersStats::AbstractNetworkConsumersStats(QObject* parent)
    : QObject(parent) {}

void AbstractNetworkConsumersStats::registerConsumer(AbstractNetworkConsumer* consumer,
                                                     bool doRegister) {
    if (!consumer)
        return;
    if (doRegister)
        connect(consumer, &AbstractNetworkConsumer::connectionsMapChangedDelta, this,
                &AbstractNetworkConsumersStats::onConsumerConnectionsMapChangedDelta);
    else
        disconnect(consumer, nullptr, this, nullptr);

    const QtConnectionsMap map = consumer->connectionsMap();
    if (map.isEmpty())
        return;
    terncl::applyConnectionsDelta(m_connectionsMap, map, doRegister ? 1 : -1);
    Q_EMIT connectionsMapChangedDelta(doRegister ? map : terncl::negatedConnections(map));
}

void AbstractNetworkConsumersStats::onConsumerConnectionsMapChangedDelta(
    const QtConnectionsMap& delta) {
    terncl::applyConnectionsDelta(m_connectionsMap, delta);
    Q_EMIT connectionsMapChangedDelta(delta);
}
