#include "abstractdownloadresourceversionsquerysizes.h"

#include "abstractdownloadspack.h"
#include "abstractdownloadssimplefactory.h"
#include "mediachilddata_p.h"

#include <terncl/core/sourceplace.h>

#include <QDateTime>

const QString AbstractDownloadResourceVersionsQuerySizes::ChildModuleName =
    QStringLiteral("downloadswww");

namespace {
using Selector = AbstractDownloadResourceVersionSelector;

// Sizes are written only by those who hold the selector on behalf of its owner, hence the
// protected setter reached through a derived name.
struct SizeWriter : Selector {
    static void write(Selector& selector, int version, int part, qint64 size) {
        (selector.*&SizeWriter::updateResourceSize)(version, part, size);
    }
};

AbstractDownloadPersistentInfo probeInfo(const Selector::Version& version) {
    AbstractDownloadPersistentInfo info;
    info.downloadType = AbstractDownloadType::Resource;
    info.resourceUrl = version.url.toString();
    info.referrer = version.referrer.toString();
    info.requestData = version.requestData;
    info.creationTime = QDateTime::currentDateTime();
    info.setFlag(AbstractDownloadPersistentInfo::SizeQueryOnly);
    return info;
}
} // namespace

AbstractDownloadResourceVersionsQuerySizes::AbstractDownloadResourceVersionsQuerySizes(
    QSharedPointer<AbstractDownloadResourceVersionSelector> selector,
    QWeakPointer<AbstractDownloadsSimpleFactory> factory, QObject* parent)
    : QObject(parent)
    , m_selector(std::move(selector))
    , m_factory(std::move(factory))
    , m_pack(std::make_unique<AbstractDownloadsPack>(0)) {
    connect(m_pack.get(), &AbstractDownloadsPack::running, this,
            &AbstractDownloadResourceVersionsQuerySizes::onDownloadsRunning);
}

AbstractDownloadResourceVersionsQuerySizes::~AbstractDownloadResourceVersionsQuerySizes() {
    m_pack->disconnect(this);
    if (m_pack->isRunning())
        m_pack->doCommand(AbstractDownloadCommand::Stop);
}

void AbstractDownloadResourceVersionsQuerySizes::query() {
    if (m_querying)
        return;
    m_querying = true;
    m_lastError = {};
    m_factoryError = {};
    m_indexes.clear();
    const auto factory = m_factory.toStrongRef();
    QList<QSharedPointer<AbstractDownload>> children;
    const auto versions =
        m_selector ? m_selector->resourceVersions() : QList<Selector::CompositeVersion>();
    for (int i = 0; factory && i < versions.size(); ++i) {
        const auto& version = versions.at(i);
        if (version.originType != 0)
            continue;
        if (version.parts.isEmpty()) {
            if (version.size == -1)
                addChild(*factory, version, i, -1, children);
            continue;
        }
        for (int j = 0; j < version.parts.size(); ++j) {
            if (version.parts.at(j).size == -1)
                addChild(*factory, version.parts.at(j), i, j, children);
        }
    }
    if (children.isEmpty()) {
        // The pack never changes its running state without children.
        QMetaObject::invokeMethod(this, &AbstractDownloadResourceVersionsQuerySizes::finish,
                                  Qt::QueuedConnection);
        return;
    }
    m_pack->addDownloads(children);
    m_pack->doCommand(AbstractDownloadCommand::Start);
    // Children that ended within the start command leave no running(false) behind.
    if (!m_pack->isRunning())
        QMetaObject::invokeMethod(
            this, [this] { onDownloadsRunning(m_pack->isRunning()); }, Qt::QueuedConnection);
}

bool AbstractDownloadResourceVersionsQuerySizes::addChild(
    AbstractDownloadsSimpleFactory& factory, const Selector::Version& version, int versionIndex,
    int partIndex, QList<QSharedPointer<AbstractDownload>>& children) {
    AbstractError error;
    const auto child = factory.createModuleDownload(
        ChildModuleName, probeInfo(version), terncl::media::childInitData(version, nullptr), error);
    if (!child) {
        if (!m_factoryError.isSet())
            m_factoryError = error;
        return false;
    }
    m_indexes.insert(child->id(), {versionIndex, partIndex});
    children.append(child);
    return true;
}

void AbstractDownloadResourceVersionsQuerySizes::onDownloadsRunning(bool isRunning) {
    if (isRunning || !m_querying)
        return;
    writeBackSizes();
    // Read before the children go: the pack's error is that of its children.
    const AbstractError packError = m_pack->lastError();
    m_pack->removeDownloads(m_pack->downloadsIds());
    if (packError.isSet())
        m_lastError = packError;
    finish();
}

void AbstractDownloadResourceVersionsQuerySizes::writeBackSizes() {
    for (const auto& child : m_pack->downloads()) {
        const auto& info = child->info();
        if (!info.hasFiles() || info.files.constFirst().size == -1)
            continue;
        const auto found = m_indexes.constFind(child->id());
        if (found == m_indexes.cend() || !m_selector)
            continue;
        SizeWriter::write(*m_selector, found->first, found->second, info.files.constFirst().size);
    }
}

void AbstractDownloadResourceVersionsQuerySizes::finish() {
    if (!m_querying)
        return;
    m_querying = false;
    if (!m_lastError.isSet())
        m_lastError = m_factoryError;
    m_indexes.clear();
    Q_EMIT finished(m_lastError);
}
