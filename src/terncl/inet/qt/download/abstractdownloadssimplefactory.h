#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>

#include <QObject>
#include <QSharedPointer>
#include <QVariant>

class AbstractDownload;

// Makes downloads for the library: a segments downloader asks it for each segment's child, a
// media download for its audio and video children, the size query for its probes. The
// application implements it; it gives every download a new id. Called in the main thread;
// holders keep it through a weak pointer.
class TERNCL_EXPORT AbstractDownloadsSimpleFactory : public QObject {
    Q_OBJECT

public:
    explicit AbstractDownloadsSimpleFactory(QObject* parent = nullptr);
    ~AbstractDownloadsSimpleFactory() override;

    // A download restored from (or described by) its record; the record's moduleName, or
    // failing that its downloadType and resourceUrl, decide its kind. On failure returns null
    // and sets error.
    virtual QSharedPointer<AbstractDownload>
    createDownload(const AbstractDownloadPersistentInfo& info, AbstractError& error) = 0;
    // A new download of the named module ("downloadswww", "downloadsm3ustm", ...), set up from
    // info and then from initData (AbstractDownload::setInitData). On failure returns null and
    // sets error.
    virtual QSharedPointer<AbstractDownload>
    createModuleDownload(const QString& moduleName, const AbstractDownloadPersistentInfo& info,
                         const QVariant& initData, AbstractError& error) = 0;
};
