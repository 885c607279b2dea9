#pragma once

#include "mediachildren.h"
#include "recordstore.h"

#include <terncl/inet/qt/download/abstractchilddownloadsmanager.h>

// Keeps the children of one media download for the host: makes them by module name
// (MediaChildren's modules, anything else through the factory), and saves their records in a
// folder of their own, so that a restarted program gets back the same children with what they
// have done. Records are saved under each child's uuid, with an index of the uuids in order.
// Main thread.
class HostChildDownloadsManager final : public AbstractChildDownloadsManager {
    Q_OBJECT

public:
    // Code of the "GenericError" of a record that cannot be saved or read back.
    static constexpr int StoreFailedCode = 13;

    // recordsFolder holds the records; downloadsFolder the children's files.
    HostChildDownloadsManager(const MediaChildren::Context& context, const QString& recordsFolder,
                              const QString& downloadsFolder, QObject* parent = nullptr);
    ~HostChildDownloadsManager() override;

    QSharedPointer<AbstractDownload> createDownload(const QString& moduleName,
                                                    const AbstractDownloadPersistentInfo& info,
                                                    const QVariant& initData,
                                                    AbstractError& error) override;
    bool addDownloads(const QList<QSharedPointer<AbstractDownload>>& downloads) override;
    // The files of the removed children go too when deleteFiles is set.
    void removeDownloads(const QList<qint64>& ids, bool deleteFiles) override;
    QList<QSharedPointer<AbstractDownload>> downloads() const override;
    QSharedPointer<AbstractDownload> download(const QUuid& uuid) const override;
    QString downloadsFolder() const override;
    bool saveDownloads(AbstractError& error) override;
    // Replaces the kept children with those of the saved records.
    bool loadDownloads(AbstractError& error) override;

    // Forgets every saved record (after the parent finished).
    void removeRecords();

private:
    QSharedPointer<AbstractDownload> restore(const AbstractDownloadPersistentInfo& record,
                                             AbstractError& error);

    MediaChildren::Context m_context;
    RecordStore m_store;
    QString m_recordsFolder;
    QString m_downloadsFolder;
    QList<QSharedPointer<AbstractDownload>> m_downloads;
    QStringList m_savedUuids;
};
