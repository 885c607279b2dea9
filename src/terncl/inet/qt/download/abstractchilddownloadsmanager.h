#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>

#include <QList>
#include <QObject>
#include <QSharedPointer>
#include <QUuid>
#include <QVariant>

class AbstractDownload;

// Keeps the child downloads of one composite download (a media download's audio, video and
// subtitle parts): makes them, stores them with the application's downloads so that they
// survive a restart, and hands them back. One manager per composite download, made by
// AbstractChildDownloadsManagersChief. Main thread.
class TERNCL_EXPORT AbstractChildDownloadsManager : public QObject {
    Q_OBJECT

public:
    explicit AbstractChildDownloadsManager(QObject* parent = nullptr);
    ~AbstractChildDownloadsManager() override;

    // A new child of the named module; it is not kept until addDownloads.
    virtual QSharedPointer<AbstractDownload>
    createDownload(const QString& moduleName, const AbstractDownloadPersistentInfo& info,
                   const QVariant& initData, AbstractError& error) = 0;
    virtual bool addDownloads(const QList<QSharedPointer<AbstractDownload>>& downloads) = 0;
    virtual void removeDownloads(const QList<qint64>& ids, bool deleteFiles) = 0;
    virtual QList<QSharedPointer<AbstractDownload>> downloads() const = 0;
    // The kept child with that uuid (AbstractDownloadPersistentInfo::uuid), or null.
    virtual QSharedPointer<AbstractDownload> download(const QUuid& uuid) const = 0;
    // The folder the children put their files in.
    virtual QString downloadsFolder() const = 0;
    virtual bool saveDownloads(AbstractError& error) = 0;
    virtual bool loadDownloads(AbstractError& error) = 0;
};
