#include "abstractdownloadspack.h"

#include <QAuthenticator>
#include <QCoreApplication>

namespace {

// Once per process, and only for names nobody registered yet. The named registration also
// installs the converters that let the lists be iterated through QVariant and a download handle
// be read as QObject*.
void registerDownloadsPackMetaTypes() {
    static const bool registered = [] {
        if (!QMetaType::fromName("AbstractDownloadsPack::DownloadPtr").isValid())
            qRegisterMetaType<AbstractDownloadsPack::DownloadPtr>(
                "AbstractDownloadsPack::DownloadPtr");
        if (!QMetaType::fromName("QVector<AbstractDownloadsPack::DownloadPtr>").isValid())
            qRegisterMetaType<QList<AbstractDownloadsPack::DownloadPtr>>(
                "QVector<AbstractDownloadsPack::DownloadPtr>");
        qRegisterMetaType<QList<qint64>>();
        return true;
    }();
    Q_UNUSED(registered);
}

AbstractDownload* asDownload(const AbstractNetworkConsumersWithExtraTasksPack::ItemPtr& item) {
    return qobject_cast<AbstractDownload*>(item.get());
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(registerDownloadsPackMetaTypes)

AbstractDownloadsPack::AbstractDownloadsPack(qint64 id, QObject* parent)
    : AbstractDownload(id, parent)
    , m_items(*this) {
    registerDownloadsPackMetaTypes();
    using Items = AbstractNetworkConsumersWithExtraTasksPack;
    connect(&m_items, &Items::itemsAdded, this, &AbstractDownloadsPack::downloadsAdded);
    connect(&m_items, &Items::beforeItemsRemoved, this,
            &AbstractDownloadsPack::beforeDownloadsRemoved);
    connect(&m_items, &Items::itemsRemoved, this, &AbstractDownloadsPack::downloadsRemoved);
    connect(&m_items, &Items::itemRunning, this, &AbstractDownloadsPack::downloadRunning);
    connect(&m_items, &AbstractNetworkConsumer::connectionsMapChangedDelta, this,
            &AbstractNetworkConsumer::connectionsMapChangedDelta);
    connect(&m_items, &AbstractNetworkConsumerWithExtraTasks::running, this,
            &AbstractNetworkConsumerWithExtraTasks::running);
    connect(&m_items, &AbstractNetworkConsumer::authenticationRequired, this,
            &AbstractNetworkConsumer::authenticationRequired);
    connect(&m_items, &AbstractNetworkConsumer::sslAcceptUnknownHostRequired, this,
            &AbstractNetworkConsumer::sslAcceptUnknownHostRequired);
}

AbstractDownloadsPack::~AbstractDownloadsPack() {
    // The inner pack releases the children after this object's own part is gone: none of them
    // may signal it by then.
    for (const auto& item : m_items.items())
        disconnect(item.get(), nullptr, this, nullptr);
}

void AbstractDownloadsPack::addDownload(const DownloadPtr& download) {
    if (!acceptsNewDownload(download))
        return;
    prepareNewDownload(download);
    m_items.addItem(download);
}

void AbstractDownloadsPack::addDownloads(const QList<DownloadPtr>& downloads) {
    QList<AbstractNetworkConsumersWithExtraTasksPack::ItemPtr> items;
    items.reserve(downloads.size());
    for (const DownloadPtr& download : downloads) {
        if (!acceptsNewDownload(download))
            continue;
        prepareNewDownload(download);
        items.append(download);
    }
    m_items.addItems(items);
    // A second child given with one id in the same call was turned away by the items pack.
    for (const auto& item : std::as_const(items)) {
        if (m_items.item(item->id()) != item)
            disconnect(item.get(), nullptr, this, nullptr);
    }
}

void AbstractDownloadsPack::removeDownload(qint64 id) {
    if (const auto item = m_items.item(id))
        disconnect(item.get(), nullptr, this, nullptr);
    m_items.removeItem(id);
}

void AbstractDownloadsPack::removeDownloads(const QList<qint64>& ids) {
    for (const qint64 id : ids) {
        if (AbstractDownload* download = asDownload(m_items.item(id)))
            disconnect(download, nullptr, this, nullptr);
    }
    m_items.removeItems(ids);
}

AbstractDownloadsPack::DownloadPtr AbstractDownloadsPack::download(qint64 id) const {
    return qSharedPointerObjectCast<AbstractDownload>(m_items.item(id));
}

QList<AbstractDownloadsPack::DownloadPtr> AbstractDownloadsPack::downloads() const {
    QList<DownloadPtr> result;
    const auto items = m_items.items();
    result.reserve(items.size());
    for (const auto& item : items) {
        if (auto download = qSharedPointerObjectCast<AbstractDownload>(item))
            result.append(std::move(download));
    }
    return result;
}

void AbstractDownloadsPack::setNetworkSettings(const AbstractNetworkConsumerSettings& settings) {
    m_items.setNetworkSettings(settings);
}

AbstractNetworkConsumerSettings AbstractDownloadsPack::networkSettings() const {
    return m_items.networkSettings();
}

void AbstractDownloadsPack::setNetworkUsageSettings(const NetworkUsageSettings& settings) {
    m_items.setNetworkUsageSettings(settings);
}

NetworkUsageSettings AbstractDownloadsPack::networkUsageSettings() const {
    return m_items.networkUsageSettings();
}

const QtConnectionsMap& AbstractDownloadsPack::connectionsMap() const {
    return m_items.connectionsMap();
}

qint64 AbstractDownloadsPack::speed(NetworkTrafficDirection direction, bool currentOnly) const {
    return m_items.speed(direction, currentOnly);
}

AbstractError AbstractDownloadsPack::lastError() const {
    return m_items.lastError();
}

QList<QSslError> AbstractDownloadsPack::lastSslErrors() const {
    return m_items.lastSslErrors();
}

QtSslHost AbstractDownloadsPack::lastUnknownSslHost() const {
    return m_items.lastUnknownSslHost();
}

QDateTime AbstractDownloadsPack::lastErrorTime() const {
    return m_items.lastErrorTime();
}

void AbstractDownloadsPack::clearLastError() {
    m_items.clearLastError();
}

bool AbstractDownloadsPack::isRunning() const {
    return m_items.isRunning();
}

void AbstractDownloadsPack::doCommand(AbstractDownloadCommand command) {
    // A snapshot: a child may add or remove children while it handles the command.
    const QList<DownloadPtr> children = downloads();
    for (const DownloadPtr& child : children)
        child->doCommand(command);
}

void AbstractDownloadsPack::setSettings(const AbstractDownloadSettings& settings) {
    m_settings = settings;
    m_settingsGiven = true;
    const QList<DownloadPtr> children = downloads();
    for (const DownloadPtr& child : children)
        child->setSettings(settings);
}

bool AbstractDownloadsPack::setWritersThread(QThread* thread) {
    bool taken = false;
    const QList<DownloadPtr> children = downloads();
    for (const DownloadPtr& child : children)
        taken = child->setWritersThread(thread) || taken;
    return taken;
}

quint64 AbstractDownloadsPack::currentTasks() const {
    quint64 tasks = 0;
    for (const DownloadPtr& child : runningDownloads())
        tasks |= child->currentTasks();
    return tasks;
}

AbstractDownloadTasksProgress AbstractDownloadsPack::tasksProgress() const {
    AbstractDownloadTasksProgress total;
    for (const DownloadPtr& child : runningDownloads()) {
        const AbstractDownloadTasksProgress progress = child->tasksProgress();
        for (auto it = progress.cbegin(); it != progress.cend(); ++it) {
            auto& sums = total[it.key()];
            sums.first += it.value().first;
            sums.second += it.value().second;
        }
    }
    return total;
}

bool AbstractDownloadsPack::isQueryingInfo() const {
    return allRunningDownloads(&AbstractDownload::isQueryingInfo);
}

bool AbstractDownloadsPack::isStopping() const {
    return allRunningDownloads(&AbstractDownload::isStopping);
}

const AbstractDownloadPersistentInfo& AbstractDownloadsPack::info() const {
    static const AbstractDownloadPersistentInfo empty;
    return empty;
}

bool AbstractDownloadsPack::setInfo(const AbstractDownloadPersistentInfo&) {
    return false;
}

bool AbstractDownloadsPack::updateInfoFields(const AbstractDownloadPersistentInfo&, qint64,
                                             BitFlagsUpdateMode) {
    return false;
}

AbstractDownloadPersistentInfo& AbstractDownloadsPack::rwInfo() {
    m_scratchInfo = AbstractDownloadPersistentInfo();
    return m_scratchInfo;
}

QList<AbstractDownloadsPack::DownloadPtr> AbstractDownloadsPack::runningDownloads() const {
    QList<DownloadPtr> result;
    const QSet<qint64> ids = m_items.runningItemsIds();
    result.reserve(ids.size());
    for (const qint64 id : ids) {
        if (DownloadPtr child = download(id))
            result.append(std::move(child));
    }
    return result;
}

bool AbstractDownloadsPack::allRunningDownloads(bool (AbstractDownload::*predicate)() const) const {
    const QList<DownloadPtr> children = runningDownloads();
    for (const DownloadPtr& child : children) {
        if (!(child.get()->*predicate)())
            return false;
    }
    return !children.isEmpty();
}

bool AbstractDownloadsPack::acceptsNewDownload(const DownloadPtr& download) const {
    return download && !m_items.item(download->id());
}

void AbstractDownloadsPack::prepareNewDownload(const DownloadPtr& download) {
    if (m_settingsGiven)
        download->setSettings(m_settings);
    connect(download.get(), &AbstractDownload::changed, this, &AbstractDownload::changed,
            Qt::UniqueConnection);
}
