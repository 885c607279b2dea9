#pragma once

#include "tokenbucket.h"

#include <terncl/core/abstractdownloadsmoduleskeeper.h>
#include <terncl/inet/qt/download/abstractdownloadssimplefactory.h>

#include <QNetworkAccessManager>
#include <QPointer>

class QThread;

// Makes the host's downloads. Every record becomes an HttpDownload (the only protocol the host
// speaks), with a new id, the shared network access manager and the writers thread. Its
// downloads share one speed-limit bucket: the segments of a stream run one after another or
// several at once, and the limit must hold across all of them.
//
// Downloads are made through the keeper of the host's download modules, by the record's module
// name or, for a record without one, by the first module that takes its address. A module whose
// initialization failed is refused there while the others go on working.
class HostDownloadsFactory final : public AbstractDownloadsSimpleFactory {
    Q_OBJECT

public:
    static const QString HttpModule;      // "http"
    static const QString PlainFileModule; // "downloadswww"

    HostDownloadsFactory(QNetworkAccessManager* network, QThread* writersThread,
                         QObject* parent = nullptr);

    QSharedPointer<AbstractDownload> createDownload(const AbstractDownloadPersistentInfo& info,
                                                    AbstractError& error) override;
    QSharedPointer<AbstractDownload>
    createModuleDownload(const QString& moduleName, const AbstractDownloadPersistentInfo& info,
                         const QVariant& initData, AbstractError& error) override;

    // Transient-failure retries of the downloads it makes.
    void setMaxRetries(int retries) { m_maxRetries = retries; }

    // The keeper of the modules above, initialized by the constructor; more can be added.
    AbstractDownloadsModulesKeeper* modulesKeeper() { return &m_keeper; }

private:
    QSharedPointer<AbstractDownload>
    createHttpDownload(qint64 id, const AbstractDownloadPersistentInfo& info, AbstractError& error);

    QPointer<QNetworkAccessManager> m_network;
    QThread* m_writersThread;
    qint64 m_nextId = 1;
    int m_maxRetries = 5;
    QSharedPointer<TokenBucket> m_bucket = QSharedPointer<TokenBucket>::create();
    AbstractDownloadsModulesKeeper m_keeper;
};
