#pragma once

#include <terncl/inet/qt/download/qtconnectionsmap.h>

#include <QObject>

class AbstractNetworkConsumer;

// Holds the merged connections map of any number of consumers, kept current from their
// deltas, and passes every change on as a delta of its own. Main thread only.
class TERNCL_EXPORT AbstractNetworkConsumersStats : public QObject {
    Q_OBJECT

public:
    explicit AbstractNetworkConsumersStats(QObject* parent = nullptr);

    // On unregister the consumer's map leaves as a negated delta, so listeners apply every
    // delta the same way. A consumer with an empty map changes nothing and emits nothing.
    void registerConsumer(AbstractNetworkConsumer* consumer, bool doRegister);
    const QtConnectionsMap& connectionsMap() const { return m_connectionsMap; }

Q_SIGNALS:
    void connectionsMapChangedDelta(const QtConnectionsMap& delta);

protected Q_SLOTS:
    void onConsumerConnectionsMapChangedDelta(const QtConnectionsMap& delta);

private:
    QtConnectionsMap m_connectionsMap;
};
