#include "hostdownloadsfactory.h"

#include "curlmulti.h"
#include "httpdownload.h"
#include "httpfilemodule.h"
#include "mediachildmodule.h"

#include <terncl/core/sourceplace.h>

#include <QUrl>

const QString HostDownloadsFactory::HttpModule = QStringLiteral("http");

HostDownloadsFactory::HostDownloadsFactory(QThread* writersThread, QObject* parent)
    : AbstractDownloadsSimpleFactory(parent)
    , m_network(new CurlMulti(this))
    , m_writersThread(writersThread) {
    const auto creator = [this](qint64 id, const AbstractDownloadPersistentInfo& info,
                                AbstractError& error) {
        return createHttpDownload(id, info, error);
    };
    // A record without a module name is the host's own file.
    m_keeper.addModule(QSharedPointer<HttpFileModule>::create(HttpModule, 1, creator));
    // The context is read when a child is made, so that services set later reach it.
    for (const QString& name : MediaChildren::moduleNames()) {
        m_keeper.addModule(QSharedPointer<MediaChildModule>::create(
            name, [this, name](const AbstractDownloadPersistentInfo& info, const QVariant& initData,
                               AbstractError& error) {
                return MediaChildren::creator(name, mediaContext())(info, initData, error);
            }));
    }
    m_keeper.onFinishedAddingModules();
    m_keeper.initializeModules(true);
}

HostDownloadsFactory::~HostDownloadsFactory() = default;

void HostDownloadsFactory::setMediaServices(
    const QSharedPointer<AbstractDownloadsSpeedMeter>& speedMeter,
    const QSharedPointer<QtFfmpegAvMerger>& merger, int concurrentSegments) {
    m_speedMeter = speedMeter;
    m_merger = merger;
    m_concurrentSegments = concurrentSegments;
}

MediaChildren::Context HostDownloadsFactory::mediaContext() {
    MediaChildren::Context context;
    context.factory = sharedFromThis();
    context.speedMeter = m_speedMeter;
    context.merger = m_merger;
    context.network = m_network;
    context.writersThread = m_writersThread;
    context.concurrentSegments = m_concurrentSegments;
    return context;
}

QSharedPointer<AbstractDownload>
HostDownloadsFactory::createDownload(const AbstractDownloadPersistentInfo& info,
                                     AbstractError& error) {
    return createModuleDownload(info.moduleName, info, {}, error);
}

QSharedPointer<AbstractDownload>
HostDownloadsFactory::createModuleDownload(const QString& moduleName,
                                           const AbstractDownloadPersistentInfo& info,
                                           const QVariant& initData, AbstractError& error) {
    const QString module =
        moduleName.isEmpty() ? m_keeper.moduleForUrl(QUrl(info.resourceUrl)) : moduleName;
    if (module.isEmpty()) {
        error = AbstractError(
            1, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
            QStringLiteral("no download can fetch %1").arg(info.resourceUrl).toStdString());
        return {};
    }
    return m_keeper.createDownload(module, m_nextId++, info, initData, error);
}

QSharedPointer<AbstractDownload>
HostDownloadsFactory::createHttpDownload(qint64 id, const AbstractDownloadPersistentInfo& info,
                                         AbstractError& error) {
    if (!m_network) {
        error = AbstractError(
            1, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
            QStringLiteral("no download can fetch %1").arg(info.resourceUrl).toStdString());
        return {};
    }
    QSharedPointer<HttpDownload> download(new HttpDownload(id, m_network), &QObject::deleteLater);
    download->setInfo(info);
    download->setWritersThread(m_writersThread);
    HttpDownload::Options options = m_options;
    if (info.testFlag(AbstractDownloadPersistentInfo::PartOfParentDownload))
        options.expectedContent = m_segmentContent;
    download->setOptions(options);
    download->setTokenBucket(m_bucket);
    download->setProxyFactory(m_proxyFactory);
    download->setAuth(m_passwords, m_authRequestor);
    download->setKnownSslHosts(m_knownHosts);
    return download;
}
