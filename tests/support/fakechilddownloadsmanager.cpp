#include "fakechilddownloadsmanager.h"

#include <terncl/inet/qt/download/abstractdownload.h>
#include <terncl/inet/qt/download/abstractdownloadfileops.h>
#include <terncl/inet/qt/download/abstractdownloadssimplefactory.h>

#include <QFile>

FakeChildDownloadsManager::FakeChildDownloadsManager(AbstractDownloadsSimpleFactory* factory,
                                                     const QString& folder, QObject* parent)
    : AbstractChildDownloadsManager(parent)
    , m_factory(factory)
    , m_folder(folder) {}

QSharedPointer<AbstractDownload>
FakeChildDownloadsManager::createDownload(const QString& moduleName,
                                          const AbstractDownloadPersistentInfo& info,
                                          const QVariant& initData, AbstractError& error) {
    if (!m_factory) {
        error = AbstractError(1, AbstractError::GenericError, {}, "no factory");
        return {};
    }
    return m_factory->createModuleDownload(moduleName, info, initData, error);
}

void FakeChildDownloadsManager::removeDownloads(const QList<qint64>& ids, bool deleteFiles) {
    m_removals.append({ids, deleteFiles});
    for (qsizetype i = m_kept.size() - 1; i >= 0; --i) {
        const auto& download = m_kept.at(i);
        if (!ids.contains(download->id()))
            continue;
        for (int file = 0; deleteFiles && file < download->info().files.size(); ++file)
            QFile::remove(AbstractDownloadFileOps::currentFilePath(download->info(), file));
        m_kept.removeAt(i);
    }
}

QSharedPointer<AbstractDownload> FakeChildDownloadsManager::download(const QUuid& uuid) const {
    for (const auto& download : m_kept) {
        if (download->info().uuid == uuid)
            return download;
    }
    return {};
}
