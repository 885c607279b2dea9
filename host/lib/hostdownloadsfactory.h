#pragma once

#include "httpdownload.h"
#include "mediachildren.h"
#include "tokenbucket.h"

#include <terncl/core/abstractdownloadsmoduleskeeper.h>
#include <terncl/inet/qt/download/abstractdownloadssimplefactory.h>

#include <QPointer>

class AbstractDownloadsSpeedMeter;
class CurlMulti;
class QNetworkProxyFactory;
class QtFfmpegAvMerger;
class QThread;

// Makes the host's downloads: plain files as HttpDownloads with a new id and the writers thread,
// and the children of media downloads (MediaChildren's modules). All of them run on the factory's
// one HTTP engine, so that they reuse its connections, and share one speed-limit bucket: the
// segments of a stream run one after another or several at once, and the limit must hold across all
// of them. Main thread.
//
// Downloads are made through the keeper of the host's download modules, by the record's module
// name or, for a record without one, by the first module that takes its address. A module whose
// initialization failed is refused there while the others go on working. The media children
// need the factory itself as a shared pointer: make it with QSharedPointer.
class HostDownloadsFactory final : public AbstractDownloadsSimpleFactory,
                                   public QEnableSharedFromThis<HostDownloadsFactory> {
    Q_OBJECT

public:
    static const QString HttpModule; // "http"

    explicit HostDownloadsFactory(QThread* writersThread, QObject* parent = nullptr);
    ~HostDownloadsFactory() override;

    QSharedPointer<AbstractDownload> createDownload(const AbstractDownloadPersistentInfo& info,
                                                    AbstractError& error) override;
    QSharedPointer<AbstractDownload>
    createModuleDownload(const QString& moduleName, const AbstractDownloadPersistentInfo& info,
                         const QVariant& initData, AbstractError& error) override;

    // The engine the downloads run on, for other requests that should share its connections.
    CurlMulti* network() const { return m_network; }

    // Retries, time-outs and redirects of the downloads it makes.
    void setDownloadOptions(const HttpDownload::Options& options) { m_options = options; }
    const HttpDownload::Options& downloadOptions() const { return m_options; }
    void setMaxRetries(int retries) { m_options.maxRetries = retries; }
    // What the segments of a stream (records that are part of a parent download) must hold.
    void setSegmentContent(HttpDownload::ExpectedContent content) { m_segmentContent = content; }
    void setProxyFactory(QNetworkProxyFactory* factory) { m_proxyFactory = factory; }
    // Where the downloads find or ask for credentials (see HttpDownload::setAuth).
    void setAuth(QtAbstractNetworkPasswordsKeeper* passwords,
                 QtAbstractNetworkAuthRequestor* requestor) {
        m_passwords = passwords;
        m_authRequestor = requestor;
    }

    // The TLS hosts the user accepted (see HttpDownload::setKnownSslHosts); may be null.
    void setKnownSslHosts(QtAbstractKnownSslHostsKeeper* keeper) { m_knownHosts = keeper; }

    // What the media children share with the rest of the program; set before a media download
    // starts.
    void setMediaServices(const QSharedPointer<AbstractDownloadsSpeedMeter>& speedMeter,
                          const QSharedPointer<QtFfmpegAvMerger>& merger, int concurrentSegments);
    // What the media children are made with, for those who make or restore them outside the
    // keeper.
    MediaChildren::Context mediaContext();

    // The keeper of the modules above, initialized by the constructor; more can be added.
    AbstractDownloadsModulesKeeper* modulesKeeper() { return &m_keeper; }

private:
    QSharedPointer<AbstractDownload>
    createHttpDownload(qint64 id, const AbstractDownloadPersistentInfo& info, AbstractError& error);

    CurlMulti* m_network;
    QThread* m_writersThread;
    QNetworkProxyFactory* m_proxyFactory = nullptr;
    QtAbstractNetworkPasswordsKeeper* m_passwords = nullptr;
    QtAbstractNetworkAuthRequestor* m_authRequestor = nullptr;
    QtAbstractKnownSslHostsKeeper* m_knownHosts = nullptr;
    qint64 m_nextId = 1;
    HttpDownload::Options m_options;
    HttpDownload::ExpectedContent m_segmentContent = HttpDownload::ExpectedContent::Any;
    QSharedPointer<AbstractDownloadsSpeedMeter> m_speedMeter;
    QSharedPointer<QtFfmpegAvMerger> m_merger;
    int m_concurrentSegments = 1;
    QSharedPointer<TokenBucket> m_bucket = QSharedPointer<TokenBucket>::create();
    AbstractDownloadsModulesKeeper m_keeper;
};
