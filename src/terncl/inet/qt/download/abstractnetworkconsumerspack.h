#pragma once

#include <terncl/inet/qt/download/abstractnetworkconsumer.h>

#include <QHash>
#include <QList>
#include <QSharedPointer>
#include <QTimer>

#include <vector>

class AbstractNetworkConsumersStats;

// A network consumer made of other consumers (its items), seen from outside as one consumer.
// It keeps the items sorted by id and announces additions and removals; it shares its own usage
// limits out among the items that currently have connections, re-dividing them once a second
// while limits are set and some item uses the network; and it aggregates the items' speed,
// connections map and last error. Ids are the items' identity: an item whose id is already in
// the pack is not added again.
// Lives on the owning (main) thread with its items; the timer and all connections run in that
// thread's event loop and nothing is locked. Derived classes supply id().
class TERNCL_EXPORT AbstractNetworkConsumersPack : public AbstractNetworkConsumer {
    Q_OBJECT

public:
    using ItemPtr = QSharedPointer<AbstractNetworkConsumer>;

    explicit AbstractNetworkConsumersPack(QObject* parent = nullptr);
    ~AbstractNetworkConsumersPack() override;

    void addItem(const ItemPtr& item);
    // Announces all new items in one itemsAdded, with their ids in the order given.
    void addItems(const QList<ItemPtr>& items);
    // beforeItemsRemoved comes even for an unknown id; itemsRemoved only for a known one.
    void removeItem(qint64 id);
    // One beforeItemsRemoved and one itemsRemoved, each with ids as given (unknown ones too).
    void removeItems(const QList<qint64>& ids);

    // Null when no item has that id.
    ItemPtr item(qint64 id) const;
    // In ascending order of id.
    QList<ItemPtr> items() const;
    QList<qint64> itemsIds() const;
    qsizetype size() const { return qsizetype(m_items.size()); }
    bool empty() const { return m_items.empty(); }

    // The pack's own settings, handed to every item (present and later).
    void setNetworkSettings(const AbstractNetworkConsumerSettings& settings) override;
    AbstractNetworkConsumerSettings networkSettings() const override { return m_networkSettings; }
    // The pack's limits, shared among the items that use the network. Lifting a limit (non-zero
    // to zero) also lifts the share every item received from it.
    void setNetworkUsageSettings(const NetworkUsageSettings& settings) override;
    NetworkUsageSettings networkUsageSettings() const override { return m_usageSettings; }
    // The merged map of all items.
    const QtConnectionsMap& connectionsMap() const override;
    // The sum over the items that have connections.
    qint64 speed(NetworkTrafficDirection direction, bool currentOnly) const override;
    // The error of the item that failed last; on equal times the item with the lower id wins.
    AbstractError lastError() const override;
    QList<QSslError> lastSslErrors() const override;
    QtSslHost lastUnknownSslHost() const override;
    QDateTime lastErrorTime() const override;
    // Clears the last error of every item.
    void clearLastError() override;

Q_SIGNALS:
    void itemsAdded(const QList<qint64>& ids);
    void beforeItemsRemoved(const QList<qint64>& ids);
    void itemsRemoved(const QList<qint64>& ids);

protected:
    // One re-division of the limits among the items that use the network. While limits are set
    // and some item uses the network it re-arms itself to run again after the re-division
    // interval; otherwise it does nothing and the timer stays idle.
    void applySettingsToRunningItems();
    bool isRedivisionScheduled() const { return m_redivisionTimer.isActive(); }
    int redivisionInterval() const { return m_redivisionTimer.interval(); }
    // 1000 ms unless changed.
    void setRedivisionInterval(int msec);

private Q_SLOTS:
    void onItemConnectionsMapChangedDelta(const QtConnectionsMap& delta);

private:
    // The id is kept beside the item so that lookups and sorting stay inside the vector.
    struct Entry {
        qint64 id;
        ItemPtr item;
    };
    using Entries = std::vector<Entry>;

    void registerItem(AbstractNetworkConsumer* item, bool doRegister);
    Entries::iterator findItemIter(qint64 id);
    Entries::const_iterator findItemIter(qint64 id) const;
    AbstractNetworkConsumer* findItem(qint64 id) const;
    AbstractNetworkConsumer* lastErrorItem() const;

    Entries m_items;
    AbstractNetworkConsumerSettings m_networkSettings;
    NetworkUsageSettings m_usageSettings;
    AbstractNetworkConsumersStats* m_stats;
    // Ids of the items whose own connections map is not empty, with the item itself so that a
    // re-division costs nothing per item beyond the item's own calls.
    QHash<qint64, AbstractNetworkConsumer*> m_itemsIdsUsingNetwork;
    QTimer m_redivisionTimer;
};
