#pragma once

#include <terncl/inet/qt/download/abstractnetworkconsumerspack.h>
#include <terncl/inet/qt/download/abstractnetworkconsumerwithextratasks.h>

#include <QList>
#include <QSet>
#include <QSharedPointer>

// A pack of consumers that also run work other than network transfer. All network bookkeeping
// (the sorted items, the sharing of limits, connections, speed, last error) is done by an inner
// consumers pack, whose signals come out of this object. What this pack adds is the running
// state: it keeps the ids of the items that run and is running itself while any of them does,
// so running(bool) changes only when the first item starts and when the last one stops.
// Lives on the owning (main) thread with its items; connections are direct, nothing is locked.
// Derived classes supply id().
class TERNCL_EXPORT AbstractNetworkConsumersWithExtraTasksPack
    : public AbstractNetworkConsumerWithExtraTasks {
    Q_OBJECT

public:
    using ItemPtr = QSharedPointer<AbstractNetworkConsumerWithExtraTasks>;

    explicit AbstractNetworkConsumersWithExtraTasksPack(QObject* parent = nullptr);
    ~AbstractNetworkConsumersWithExtraTasksPack() override;

    // An item whose id is already in the pack is not added again.
    void addItem(const ItemPtr& item);
    void addItems(const QList<ItemPtr>& items);
    void removeItem(qint64 id);
    void removeItems(const QList<qint64>& ids);

    // Null when no item has that id.
    ItemPtr item(qint64 id) const;
    // In ascending order of id.
    QList<ItemPtr> items() const;
    QList<qint64> itemsIds() const { return m_pack.itemsIds(); }
    qsizetype size() const { return m_pack.size(); }
    bool empty() const { return m_pack.empty(); }
    QSet<qint64> runningItemsIds() const { return m_runningItemsIds; }

    bool isRunning() const override { return m_running; }
    void setNetworkSettings(const AbstractNetworkConsumerSettings& settings) override;
    AbstractNetworkConsumerSettings networkSettings() const override;
    void setNetworkUsageSettings(const NetworkUsageSettings& settings) override;
    NetworkUsageSettings networkUsageSettings() const override;
    const QtConnectionsMap& connectionsMap() const override;
    qint64 speed(NetworkTrafficDirection direction, bool currentOnly) const override;
    AbstractError lastError() const override;
    QList<QSslError> lastSslErrors() const override;
    QtSslHost lastUnknownSslHost() const override;
    QDateTime lastErrorTime() const override;
    void clearLastError() override;

Q_SIGNALS:
    void itemsAdded(const QList<qint64>& ids);
    void beforeItemsRemoved(const QList<qint64>& ids);
    void itemsRemoved(const QList<qint64>& ids);
    void itemRunning(qint64 id, bool running);

private Q_SLOTS:
    void onItemRunning(bool running);

private:
    // The inner pack answers id() with the id of the pack that holds it.
    class ItemsPack final : public AbstractNetworkConsumersPack {
    public:
        explicit ItemsPack(const AbstractNetworkConsumer& owner)
            : m_owner(owner) {}
        qint64 id() const override { return m_owner.id(); }

    private:
        const AbstractNetworkConsumer& m_owner;
    };

    void registerItem(const ItemPtr& item, bool doRegister);
    void processOnItemRunning(AbstractNetworkConsumerWithExtraTasks* item, bool running);
    void setRunning(bool running);

    ItemsPack m_pack;
    QSet<qint64> m_runningItemsIds;
    bool m_running = false;
};
