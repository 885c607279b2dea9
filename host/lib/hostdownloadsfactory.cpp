#include "hostdownloadsfactory.h"

#include "curlmulti.h"

#include <terncl/core/sourceplace.h>

#include <QUrl>

const QString HostDownloadsFactory::HttpModule = QStringLiteral("http");

HostDownloadsFactory::HostDownloadsFactory(QThread* writersThread, QObject* parent)
    : AbstractDownloadsSimpleFactory(parent)
    , m_network(new CurlMulti(this))
    , m_writersThread(writersThread) {}

HostDownloadsFactory::~HostDownloadsFactory() = default;

QSharedPointer<AbstractDownload>
HostDownloadsFactory::createDownload(const AbstractDownloadPersistentInfo& info,
                                     AbstractError& error) {
    return createModuleDownload(info.moduleName, info, {}, error);
}

QSharedPointer<AbstractDownload>
HostDownloadsFactory::createModuleDownload(const QString& moduleName,
                                           const AbstractDownloadPersistentInfo& info,
                                           const QVariant&, AbstractError& error) {
    const QUrl url(info.resourceUrl);
    const bool http =
        url.scheme() == QStringLiteral("http") || url.scheme() == QStringLiteral("https");
    if ((!moduleName.isEmpty() && moduleName != HttpModule) || !http) {
        error = AbstractError(
            1, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
            QStringLiteral("no download can fetch %1").arg(info.resourceUrl).toStdString());
        return {};
    }
    QSharedPointer<HttpDownload> download(new HttpDownload(m_nextId++, m_network),
                                          &QObject::deleteLater);
    download->setInfo(info);
    download->setWritersThread(m_writersThread);
    HttpDownload::Options options = m_options;
    if (info.testFlag(AbstractDownloadPersistentInfo::PartOfParentDownload))
        options.expectedContent = m_segmentContent;
    download->setOptions(options);
    download->setTokenBucket(m_bucket);
    download->setProxyFactory(m_proxyFactory);
    download->setAuth(m_passwords, m_authRequestor);
    return download;
}
