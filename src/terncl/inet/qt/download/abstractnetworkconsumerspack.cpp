#include "abstractnetworkconsumerspack.h"

#include "abstractnetworkconsumersstats.h"

#include <terncl/core/sourceplace.h>

#include <QAuthenticator>
#include <QCoreApplication>

#include <algorithm>

namespace {

void registerPackMetaTypes() {
    static const bool registered = [] {
        qRegisterMetaType<AbstractNetworkConsumersPack::ItemPtr>(
            "AbstractNetworkConsumersPack::ItemPtr");
        qRegisterMetaType<QList<AbstractNetworkConsumersPack::ItemPtr>>(
            "QVector<AbstractNetworkConsumersPack::ItemPtr>");
        return true;
    }();
    Q_UNUSED(registered);
}

constexpr int defaultRedivisionIntervalMsec = 1000;

// An item moves data in a direction when its speed there is above this: a hundredth of the
// limit, at most 100, and 100 when the direction has no limit.
qint64 activityThreshold(qint64 limit) {
    return limit == 0 ? 100 : qMin<qint64>(limit / 100, 100);
}

// A share never becomes 0, which would read as "no limit".
template <typename Limit> Limit dividedLimit(Limit limit, int count) {
    if (limit == 0)
        return 0;
    const Limit share = limit / count;
    return share == 0 ? 1 : share;
}

// The item's settings as they would be if it already held the share: every limit the share
// sets replaces the item's own, everything else stays.
NetworkUsageSettings withShareLimits(NetworkUsageSettings settings,
                                     const NetworkUsageSettings& share) {
    if (share.downloadSpeedLimit != 0)
        settings.downloadSpeedLimit = share.downloadSpeedLimit;
    if (share.uploadSpeedLimit != 0)
        settings.uploadSpeedLimit = share.uploadSpeedLimit;
    if (share.connectionsLimit != 0)
        settings.connectionsLimit = share.connectionsLimit;
    if (share.connectionsPerServerLimit != 0)
        settings.connectionsPerServerLimit = share.connectionsPerServerLimit;
    return settings;
}

// A limit the pack lifted (non-zero before, zero now) lifts the share derived from it too.
NetworkUsageSettings withLiftedLimits(NetworkUsageSettings settings,
                                      const NetworkUsageSettings& before,
                                      const NetworkUsageSettings& now) {
    if (before.downloadSpeedLimit != 0 && now.downloadSpeedLimit == 0)
        settings.downloadSpeedLimit = 0;
    if (before.uploadSpeedLimit != 0 && now.uploadSpeedLimit == 0)
        settings.uploadSpeedLimit = 0;
    if (before.connectionsLimit != 0 && now.connectionsLimit == 0)
        settings.connectionsLimit = 0;
    if (before.connectionsPerServerLimit != 0 && now.connectionsPerServerLimit == 0)
        settings.connectionsPerServerLimit = 0;
    return settings;
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(registerPackMetaTypes)

AbstractNetworkConsumersPack::AbstractNetworkConsumersPack(QObject* parent)
    : AbstractNetworkConsumer(parent)
    , m_stats(new AbstractNetworkConsumersStats(this))
    , m_redivisionTimer(this) {
    registerPackMetaTypes();
    connect(m_stats, &AbstractNetworkConsumersStats::connectionsMapChangedDelta, this,
            &AbstractNetworkConsumer::connectionsMapChangedDelta);
    m_redivisionTimer.setSingleShot(true);
    setRedivisionInterval(defaultRedivisionIntervalMsec);
    connect(&m_redivisionTimer, &QTimer::timeout, this,
            &AbstractNetworkConsumersPack::applySettingsToRunningItems);
}

AbstractNetworkConsumersPack::~AbstractNetworkConsumersPack() {
    // Items may outlive the pack or die with it; either way none of them may reach the pack or its
    // statistics while they are being taken apart.
    for (const Entry& entry : m_items) {
        disconnect(entry.item.get(), nullptr, this, nullptr);
        disconnect(entry.item.get(), nullptr, m_stats, nullptr);
    }
}

void AbstractNetworkConsumersPack::addItem(const ItemPtr& item) {
    if (!item || findItem(item->id()))
        return;
    item->setNetworkSettings(m_networkSettings);
    const qint64 id = item->id();
    const auto position =
        std::lower_bound(m_items.begin(), m_items.end(), id,
                         [](const Entry& entry, qint64 key) { return entry.id < key; });
    m_items.insert(position, Entry{id, item});
    registerItem(item.get(), true);
    applySettingsToRunningItems();
    Q_EMIT itemsAdded({id});
}

void AbstractNetworkConsumersPack::addItems(const QList<ItemPtr>& items) {
    // Newcomers are sorted once among themselves and merged into the sorted list. The stable sort
    // keeps the first of several items given with one id, which is the one that is added.
    const auto byId = [](const Entry& a, const Entry& b) {
        return a.id < b.id;
    };
    Entries incoming;
    incoming.reserve(size_t(items.size()));
    for (const ItemPtr& item : items) {
        if (item && !findItem(item->id()))
            incoming.push_back(Entry{item->id(), item});
    }
    std::stable_sort(incoming.begin(), incoming.end(), byId);
    incoming.erase(std::unique(incoming.begin(), incoming.end(),
                               [](const Entry& a, const Entry& b) { return a.id == b.id; }),
                   incoming.end());

    // Settings and registration follow the order given, and so do the announced ids.
    QList<AbstractNetworkConsumer*> accepted;
    accepted.reserve(qsizetype(incoming.size()));
    std::vector<bool> taken(incoming.size(), false);
    for (const ItemPtr& item : items) {
        if (!item)
            continue;
        const auto found =
            std::lower_bound(incoming.begin(), incoming.end(), Entry{item->id(), {}}, byId);
        const size_t index = size_t(found - incoming.begin());
        if (found == incoming.end() || found->item != item || taken[index])
            continue;
        taken[index] = true;
        item->setNetworkSettings(m_networkSettings);
        accepted.append(item.get());
    }

    const auto middle = m_items.insert(m_items.end(), std::make_move_iterator(incoming.begin()),
                                       std::make_move_iterator(incoming.end()));
    std::inplace_merge(m_items.begin(), middle, m_items.end(), byId);

    QList<qint64> ids;
    ids.reserve(accepted.size());
    for (AbstractNetworkConsumer* item : std::as_const(accepted)) {
        registerItem(item, true);
        ids.append(item->id());
    }
    applySettingsToRunningItems();
    Q_EMIT itemsAdded(ids);
}

void AbstractNetworkConsumersPack::removeItem(qint64 id) {
    Q_EMIT beforeItemsRemoved({id});
    const auto found = findItemIter(id);
    if (found == m_items.end())
        return;
    const ItemPtr item = std::move(found->item);
    m_items.erase(found);
    registerItem(item.get(), false);
    applySettingsToRunningItems();
    Q_EMIT itemsRemoved({id});
}

void AbstractNetworkConsumersPack::removeItems(const QList<qint64>& ids) {
    Q_EMIT beforeItemsRemoved(ids);
    // Items leave the list in one pass (the order of the rest is kept), and only then are they
    // unregistered, so that anyone called back meanwhile sees the list without them.
    std::vector<ItemPtr> removed;
    for (const qint64 id : ids) {
        const auto found = findItemIter(id);
        if (found != m_items.end() && found->item)
            removed.push_back(std::move(found->item));
    }
    m_items.erase(std::remove_if(m_items.begin(), m_items.end(),
                                 [](const Entry& entry) { return !entry.item; }),
                  m_items.end());
    for (const ItemPtr& item : removed)
        registerItem(item.get(), false);
    applySettingsToRunningItems();
    Q_EMIT itemsRemoved(ids);
}

AbstractNetworkConsumersPack::ItemPtr AbstractNetworkConsumersPack::item(qint64 id) const {
    const auto found = findItemIter(id);
    return found == m_items.end() ? ItemPtr() : found->item;
}

QList<AbstractNetworkConsumersPack::ItemPtr> AbstractNetworkConsumersPack::items() const {
    QList<ItemPtr> result;
    result.reserve(size());
    for (const Entry& entry : m_items)
        result.append(entry.item);
    return result;
}

QList<qint64> AbstractNetworkConsumersPack::itemsIds() const {
    QList<qint64> result;
    result.reserve(size());
    for (const Entry& entry : m_items)
        result.append(entry.id);
    return result;
}

void AbstractNetworkConsumersPack::setNetworkSettings(
    const AbstractNetworkConsumerSettings& settings) {
    m_networkSettings = settings;
    // By index with a strong reference: an item may change the pack while it is being called.
    for (size_t i = 0; i < m_items.size(); ++i) {
        const ItemPtr item = m_items[i].item;
        item->setNetworkSettings(settings);
    }
}

void AbstractNetworkConsumersPack::onItemConnectionsMapChangedDelta(const QtConnectionsMap&) {
    const auto* sender = qobject_cast<AbstractNetworkConsumer*>(QObject::sender());
    if (!sender)
        return;
    const qint64 id = sender->id();
    AbstractNetworkConsumer* item = findItem(id);
    if (!item)
        return;
    if (item->connectionsMap().isEmpty()) {
        // Logs of a failed assertion name this very line (232) as the place, and readers of those
        // logs rely on it: keep the assertion on line 232 of this file.
        TERNCL_ASSERT(m_itemsIdsUsingNetwork.remove(id));
    } else {
        if (m_itemsIdsUsingNetwork.contains(id))
            return;
        m_itemsIdsUsingNetwork.insert(id, item);
    }
    applySettingsToRunningItems();
}

void AbstractNetworkConsumersPack::setNetworkUsageSettings(const NetworkUsageSettings& settings) {
    if (settings == m_usageSettings)
        return;
    const NetworkUsageSettings before = m_usageSettings;
    m_usageSettings = settings;
    for (size_t i = 0; i < m_items.size(); ++i) {
        const ItemPtr item = m_items[i].item;
        const NetworkUsageSettings current = item->networkUsageSettings();
        const NetworkUsageSettings lifted = withLiftedLimits(current, before, settings);
        if (lifted != current)
            item->setNetworkUsageSettings(lifted);
    }
    applySettingsToRunningItems();
}

const QtConnectionsMap& AbstractNetworkConsumersPack::connectionsMap() const {
    return m_stats->connectionsMap();
}

qint64 AbstractNetworkConsumersPack::speed(NetworkTrafficDirection direction,
                                           bool currentOnly) const {
    qint64 total = 0;
    for (const AbstractNetworkConsumer* item : m_itemsIdsUsingNetwork)
        total += item->speed(direction, currentOnly);
    return total;
}

void AbstractNetworkConsumersPack::applySettingsToRunningItems() {
    if (!m_usageSettings.hasLimits() || m_itemsIdsUsingNetwork.isEmpty())
        return;

    // Only items above their direction's threshold count toward the divisor, but every item with
    // connections receives the same share.
    const qint64 downloadThreshold = activityThreshold(m_usageSettings.downloadSpeedLimit);
    const qint64 uploadThreshold = activityThreshold(m_usageSettings.uploadSpeedLimit);
    int downloadCount = 0;
    int uploadCount = 0;
    for (const AbstractNetworkConsumer* item : std::as_const(m_itemsIdsUsingNetwork)) {
        if (item->speed(NetworkTrafficDirection::Download, false) > downloadThreshold)
            ++downloadCount;
        if (item->speed(NetworkTrafficDirection::Upload, false) > uploadThreshold)
            ++uploadCount;
    }
    downloadCount = qMax(downloadCount, 1);
    uploadCount = qMax(uploadCount, 1);

    NetworkUsageSettings share = m_usageSettings;
    const int divisor = qMax(downloadCount, uploadCount);
    if (divisor > 1) {
        share.downloadSpeedLimit = dividedLimit(share.downloadSpeedLimit, downloadCount);
        share.uploadSpeedLimit = dividedLimit(share.uploadSpeedLimit, uploadCount);
        share.connectionsLimit = dividedLimit(share.connectionsLimit, divisor);
    }

    // The share is handed over whole (its zero fields and its flag included) to every item that
    // does not already hold its limits. An item may change the set while it is being called: the
    // loop walks a snapshot, which stays shared (so costs nothing) unless the set changes.
    const QHash<qint64, AbstractNetworkConsumer*> snapshot = m_itemsIdsUsingNetwork;
    for (auto it = snapshot.cbegin(); it != snapshot.cend(); ++it) {
        AbstractNetworkConsumer* item = it.value();
        if (!m_itemsIdsUsingNetwork.isSharedWith(snapshot) &&
            m_itemsIdsUsingNetwork.value(it.key()) != item)
            continue;
        const NetworkUsageSettings current = item->networkUsageSettings();
        if (withShareLimits(current, share) != current)
            item->setNetworkUsageSettings(share);
    }

    m_redivisionTimer.start();
}

void AbstractNetworkConsumersPack::setRedivisionInterval(int msec) {
    m_redivisionTimer.setInterval(msec);
    // The timer type a single-shot timer of that interval gets by default.
    m_redivisionTimer.setTimerType(msec >= 2000 ? Qt::CoarseTimer : Qt::PreciseTimer);
}

AbstractError AbstractNetworkConsumersPack::lastError() const {
    const AbstractNetworkConsumer* item = lastErrorItem();
    return item ? item->lastError() : AbstractError();
}

QList<QSslError> AbstractNetworkConsumersPack::lastSslErrors() const {
    const AbstractNetworkConsumer* item = lastErrorItem();
    return item ? item->lastSslErrors() : QList<QSslError>();
}

QtSslHost AbstractNetworkConsumersPack::lastUnknownSslHost() const {
    const AbstractNetworkConsumer* item = lastErrorItem();
    return item ? item->lastUnknownSslHost() : QtSslHost();
}

QDateTime AbstractNetworkConsumersPack::lastErrorTime() const {
    const AbstractNetworkConsumer* item = lastErrorItem();
    return item ? item->lastErrorTime() : QDateTime();
}

void AbstractNetworkConsumersPack::clearLastError() {
    for (size_t i = 0; i < m_items.size(); ++i) {
        const ItemPtr item = m_items[i].item;
        item->clearLastError();
    }
}

void AbstractNetworkConsumersPack::registerItem(AbstractNetworkConsumer* item, bool doRegister) {
    m_stats->registerConsumer(item, doRegister);
    if (!doRegister) {
        disconnect(item, nullptr, this, nullptr);
        m_itemsIdsUsingNetwork.remove(item->id());
        return;
    }
    connect(item, &AbstractNetworkConsumer::connectionsMapChangedDelta, this,
            &AbstractNetworkConsumersPack::onItemConnectionsMapChangedDelta);
    connect(item, &AbstractNetworkConsumer::authenticationRequired, this,
            &AbstractNetworkConsumer::authenticationRequired);
    connect(item, &AbstractNetworkConsumer::sslAcceptUnknownHostRequired, this,
            &AbstractNetworkConsumer::sslAcceptUnknownHostRequired);
    if (!item->connectionsMap().isEmpty())
        m_itemsIdsUsingNetwork.insert(item->id(), item);
}

AbstractNetworkConsumersPack::Entries::iterator
AbstractNetworkConsumersPack::findItemIter(qint64 id) {
    const auto found =
        std::lower_bound(m_items.begin(), m_items.end(), id,
                         [](const Entry& entry, qint64 key) { return entry.id < key; });
    return found != m_items.end() && found->id == id ? found : m_items.end();
}

AbstractNetworkConsumersPack::Entries::const_iterator
AbstractNetworkConsumersPack::findItemIter(qint64 id) const {
    return const_cast<AbstractNetworkConsumersPack*>(this)->findItemIter(id);
}

AbstractNetworkConsumer* AbstractNetworkConsumersPack::findItem(qint64 id) const {
    const auto found = findItemIter(id);
    return found == m_items.end() ? nullptr : found->item.get();
}

AbstractNetworkConsumer* AbstractNetworkConsumersPack::lastErrorItem() const {
    // Strictly later replaces, so on equal times the earlier item in the list wins.
    AbstractNetworkConsumer* latest = nullptr;
    QDateTime latestTime;
    for (const Entry& entry : m_items) {
        if (!entry.item->lastError().isSet())
            continue;
        const QDateTime time = entry.item->lastErrorTime();
        if (!latest || time > latestTime) {
            latest = entry.item.get();
            latestTime = time;
        }
    }
    return latest;
}
