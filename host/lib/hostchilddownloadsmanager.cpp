#include "hostchilddownloadsmanager.h"

#include <terncl/core/sourceplace.h>
#include <terncl/inet/qt/download/abstractdownload.h>
#include <terncl/inet/qt/download/abstractdownloadssimplefactory.h>

#include <QDir>
#include <QFile>

namespace {
const QString indexKey = QStringLiteral("children");
const QString uuidsKey = QStringLiteral("uuids");

AbstractError storeError(const QString& text, std::string place) {
    return AbstractError(HostChildDownloadsManager::StoreFailedCode, AbstractError::GenericError,
                         std::move(place), text.toStdString());
}

QString fileOf(const AbstractDownloadFileInfo& file, const QString& destination) {
    return !file.tmpPath.isEmpty() ? file.tmpPath : QDir(destination).filePath(file.name);
}
} // namespace

HostChildDownloadsManager::HostChildDownloadsManager(const MediaChildren::Context& context,
                                                     const QString& recordsFolder,
                                                     const QString& downloadsFolder,
                                                     QObject* parent)
    : AbstractChildDownloadsManager(parent)
    , m_context(context)
    , m_store(recordsFolder)
    , m_recordsFolder(recordsFolder)
    , m_downloadsFolder(downloadsFolder) {}

HostChildDownloadsManager::~HostChildDownloadsManager() = default;

QSharedPointer<AbstractDownload>
HostChildDownloadsManager::createDownload(const QString& moduleName,
                                          const AbstractDownloadPersistentInfo& info,
                                          const QVariant& initData, AbstractError& error) {
    if (const auto create = MediaChildren::creator(moduleName, m_context))
        return create(info, initData, error);
    const auto factory = m_context.factory.toStrongRef();
    if (!factory) {
        error = storeError(QStringLiteral("no downloads factory"), TERNCL_SOURCE_PLACE);
        return {};
    }
    return factory->createModuleDownload(moduleName, info, initData, error);
}

bool HostChildDownloadsManager::addDownloads(
    const QList<QSharedPointer<AbstractDownload>>& downloads) {
    for (const auto& download : downloads) {
        if (download && !m_downloads.contains(download))
            m_downloads.append(download);
    }
    return true;
}

void HostChildDownloadsManager::removeDownloads(const QList<qint64>& ids, bool deleteFiles) {
    for (auto it = m_downloads.begin(); it != m_downloads.end();) {
        if (!ids.contains((*it)->id())) {
            ++it;
            continue;
        }
        const auto& info = (*it)->info();
        m_store.remove(info.uuid.toString(QUuid::WithoutBraces));
        if (deleteFiles) {
            for (const auto& file : info.files)
                QFile::remove(fileOf(file, info.destinationPath));
        }
        it = m_downloads.erase(it);
    }
}

QList<QSharedPointer<AbstractDownload>> HostChildDownloadsManager::downloads() const {
    return m_downloads;
}

QSharedPointer<AbstractDownload> HostChildDownloadsManager::download(const QUuid& uuid) const {
    for (const auto& download : m_downloads) {
        if (download->info().uuid == uuid)
            return download;
    }
    return {};
}

QString HostChildDownloadsManager::downloadsFolder() const {
    return m_downloadsFolder;
}

// Each record first, the index last: a kill in between leaves the old index, whose records
// are all still there.
bool HostChildDownloadsManager::saveDownloads(AbstractError& error) {
    QStringList uuids;
    QString text;
    for (const auto& download : std::as_const(m_downloads)) {
        const QString uuid = download->info().uuid.toString(QUuid::WithoutBraces);
        if (!m_store.save(uuid, {download->info(), {}}, &text)) {
            error = storeError(text, TERNCL_SOURCE_PLACE);
            return false;
        }
        uuids.append(uuid);
    }
    RecordStore::Entry index;
    index.host.insert(uuidsKey, uuids);
    if (!m_store.save(indexKey, index, &text)) {
        error = storeError(text, TERNCL_SOURCE_PLACE);
        return false;
    }
    for (const QString& gone : std::as_const(m_savedUuids)) {
        if (!uuids.contains(gone))
            m_store.remove(gone);
    }
    m_savedUuids = uuids;
    return true;
}

bool HostChildDownloadsManager::loadDownloads(AbstractError& error) {
    QString text;
    const auto index = m_store.load(indexKey, &text);
    if (!text.isEmpty()) {
        error = storeError(text, TERNCL_SOURCE_PLACE);
        return false;
    }
    QList<QSharedPointer<AbstractDownload>> loaded;
    const QStringList uuids = index ? index->host.value(uuidsKey).toStringList() : QStringList();
    for (const QString& uuid : uuids) {
        const auto entry = m_store.load(uuid, &text);
        if (!entry) {
            error = storeError(text.isEmpty() ? QStringLiteral("no record of child ") + uuid : text,
                               TERNCL_SOURCE_PLACE);
            return false;
        }
        const auto download = restore(entry->record, error);
        if (!download)
            return false;
        loaded.append(download);
    }
    m_downloads = loaded;
    m_savedUuids = uuids;
    return true;
}

QSharedPointer<AbstractDownload>
HostChildDownloadsManager::restore(const AbstractDownloadPersistentInfo& record,
                                   AbstractError& error) {
    if (const auto create = MediaChildren::creator(record.moduleName, m_context))
        return create(record, QVariant(), error);
    const auto factory = m_context.factory.toStrongRef();
    if (!factory) {
        error = storeError(QStringLiteral("no downloads factory"), TERNCL_SOURCE_PLACE);
        return {};
    }
    return factory->createDownload(record, error);
}

void HostChildDownloadsManager::removeRecords() {
    for (const QString& uuid : std::as_const(m_savedUuids))
        m_store.remove(uuid);
    m_store.remove(indexKey);
    m_savedUuids.clear();
    QDir().rmdir(m_recordsFolder);
}
