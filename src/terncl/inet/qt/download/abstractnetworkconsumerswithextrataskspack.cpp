#include "abstractnetworkconsumerswithextrataskspack.h"

#include <QAuthenticator>
#include <QCoreApplication>

namespace {

void registerWithExtraTasksPackMetaTypes() {
    static const bool registered = [] {
        qRegisterMetaType<AbstractNetworkConsumersWithExtraTasksPack::ItemPtr>(
            "AbstractNetworkConsumersWithExtraTasksPack::ItemPtr");
        qRegisterMetaType<QList<AbstractNetworkConsumersWithExtraTasksPack::ItemPtr>>(
            "QVector<AbstractNetworkConsumersWithExtraTasksPack::ItemPtr>");
        return true;
    }();
    Q_UNUSED(registered);
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(registerWithExtraTasksPackMetaTypes)

AbstractNetworkConsumersWithExtraTasksPack::AbstractNetworkConsumersWithExtraTasksPack(
    QObject* parent)
    : AbstractNetworkConsumerWithExtraTasks(parent)
    , m_pack(*this) {
    registerWithExtraTasksPackMetaTypes();
    connect(&m_pack, &AbstractNetworkConsumer::connectionsMapChangedDelta, this,
            &AbstractNetworkConsumer::connectionsMapChangedDelta);
    connect(&m_pack, &AbstractNetworkConsumersPack::itemsAdded, this,
            &AbstractNetworkConsumersWithExtraTasksPack::itemsAdded);
    connect(&m_pack, &AbstractNetworkConsumersPack::beforeItemsRemoved, this,
            &AbstractNetworkConsumersWithExtraTasksPack::beforeItemsRemoved);
    connect(&m_pack, &AbstractNetworkConsumersPack::itemsRemoved, this,
            &AbstractNetworkConsumersWithExtraTasksPack::itemsRemoved);
    connect(&m_pack, &AbstractNetworkConsumer::authenticationRequired, this,
            &AbstractNetworkConsumer::authenticationRequired);
    connect(&m_pack, &AbstractNetworkConsumer::sslAcceptUnknownHostRequired, this,
            &AbstractNetworkConsumer::sslAcceptUnknownHostRequired);
}

AbstractNetworkConsumersWithExtraTasksPack::~AbstractNetworkConsumersWithExtraTasksPack() {
    // The inner pack releases the items after this object's own part is gone: none of them may
    // report running to it by then.
    for (const auto& item : m_pack.items())
        disconnect(item.get(), nullptr, this, nullptr);
}

void AbstractNetworkConsumersWithExtraTasksPack::addItem(const ItemPtr& item) {
    if (!item)
        return;
    m_pack.addItem(item);
    if (m_pack.item(item->id()) == item)
        registerItem(item, true);
}

void AbstractNetworkConsumersWithExtraTasksPack::addItems(const QList<ItemPtr>& items) {
    QList<AbstractNetworkConsumersPack::ItemPtr> consumers;
    consumers.reserve(items.size());
    for (const ItemPtr& item : items)
        consumers.append(item);
    m_pack.addItems(consumers);
    // Items the inner pack turned away (an id already there) are not this pack's to track.
    for (const ItemPtr& item : items) {
        if (item && m_pack.item(item->id()) == item)
            registerItem(item, true);
    }
}

void AbstractNetworkConsumersWithExtraTasksPack::removeItem(qint64 id) {
    const ItemPtr found = item(id);
    m_pack.removeItem(id);
    if (found)
        registerItem(found, false);
}

void AbstractNetworkConsumersWithExtraTasksPack::removeItems(const QList<qint64>& ids) {
    QList<ItemPtr> found;
    found.reserve(ids.size());
    for (const qint64 id : ids) {
        if (ItemPtr candidate = item(id))
            found.append(candidate);
    }
    m_pack.removeItems(ids);
    for (const ItemPtr& removed : std::as_const(found))
        registerItem(removed, false);
}

AbstractNetworkConsumersWithExtraTasksPack::ItemPtr
AbstractNetworkConsumersWithExtraTasksPack::item(qint64 id) const {
    return qSharedPointerObjectCast<AbstractNetworkConsumerWithExtraTasks>(m_pack.item(id));
}

QList<AbstractNetworkConsumersWithExtraTasksPack::ItemPtr>
AbstractNetworkConsumersWithExtraTasksPack::items() const {
    QList<ItemPtr> result;
    const QList<AbstractNetworkConsumersPack::ItemPtr> all = m_pack.items();
    result.reserve(all.size());
    for (const auto& candidate : all) {
        if (auto item = qSharedPointerObjectCast<AbstractNetworkConsumerWithExtraTasks>(candidate))
            result.append(std::move(item));
    }
    return result;
}

void AbstractNetworkConsumersWithExtraTasksPack::setNetworkSettings(
    const AbstractNetworkConsumerSettings& settings) {
    m_pack.setNetworkSettings(settings);
}

AbstractNetworkConsumerSettings
AbstractNetworkConsumersWithExtraTasksPack::networkSettings() const {
    return m_pack.networkSettings();
}

void AbstractNetworkConsumersWithExtraTasksPack::setNetworkUsageSettings(
    const NetworkUsageSettings& settings) {
    m_pack.setNetworkUsageSettings(settings);
}

NetworkUsageSettings AbstractNetworkConsumersWithExtraTasksPack::networkUsageSettings() const {
    return m_pack.networkUsageSettings();
}

const QtConnectionsMap& AbstractNetworkConsumersWithExtraTasksPack::connectionsMap() const {
    return m_pack.connectionsMap();
}

qint64 AbstractNetworkConsumersWithExtraTasksPack::speed(NetworkTrafficDirection direction,
                                                         bool currentOnly) const {
    return m_pack.speed(direction, currentOnly);
}

AbstractError AbstractNetworkConsumersWithExtraTasksPack::lastError() const {
    return m_pack.lastError();
}

QList<QSslError> AbstractNetworkConsumersWithExtraTasksPack::lastSslErrors() const {
    return m_pack.lastSslErrors();
}

QtSslHost AbstractNetworkConsumersWithExtraTasksPack::lastUnknownSslHost() const {
    return m_pack.lastUnknownSslHost();
}

QDateTime AbstractNetworkConsumersWithExtraTasksPack::lastErrorTime() const {
    return m_pack.lastErrorTime();
}

void AbstractNetworkConsumersWithExtraTasksPack::clearLastError() {
    m_pack.clearLastError();
}

void AbstractNetworkConsumersWithExtraTasksPack::onItemRunning(bool running) {
    const auto* sender = qobject_cast<AbstractNetworkConsumerWithExtraTasks*>(QObject::sender());
    if (!sender)
        return;
    if (const ItemPtr found = item(sender->id()))
        processOnItemRunning(found.get(), running);
}

void AbstractNetworkConsumersWithExtraTasksPack::registerItem(const ItemPtr& item,
                                                              bool doRegister) {
    if (doRegister) {
        connect(item.get(), &AbstractNetworkConsumerWithExtraTasks::running, this,
                &AbstractNetworkConsumersWithExtraTasksPack::onItemRunning, Qt::UniqueConnection);
        if (item->isRunning()) {
            processOnItemRunning(item.get(), true);
            return;
        }
    } else {
        disconnect(item.get(), nullptr, this, nullptr);
    }
    processOnItemRunning(item.get(), false);
}

void AbstractNetworkConsumersWithExtraTasksPack::processOnItemRunning(
    AbstractNetworkConsumerWithExtraTasks* item, bool running) {
    const qint64 id = item->id();
    if (running) {
        if (m_runningItemsIds.contains(id))
            return;
        m_runningItemsIds.insert(id);
        setRunning(true);
        // A listener of running(true) may already have stopped the item.
        if (item->isRunning())
            Q_EMIT itemRunning(id, true);
        return;
    }
    if (!m_runningItemsIds.remove(id))
        return;
    Q_EMIT itemRunning(id, false);
    if (m_runningItemsIds.isEmpty())
        setRunning(false);
}

void AbstractNetworkConsumersWithExtraTasksPack::setRunning(bool running) {
    if (m_running == running)
        return;
    m_running = running;
    Q_EMIT AbstractNetworkConsumerWithExtraTasks::running(running);
}
