#include "httpfilemodule.h"

#include <terncl/core/sourceplace.h>
#include <terncl/inet/qt/download/abstractdownload.h>

HttpFileModule::HttpFileModule(QString uid, int checkPriority, Creator creator, QObject* parent)
    : AbstractDownloadModule(parent)
    , m_uid(std::move(uid))
    , m_checkPriority(checkPriority)
    , m_creator(std::move(creator)) {}

HttpFileModule::~HttpFileModule() = default;

bool HttpFileModule::isHttpUrl(const QUrl& url) {
    return url.isValid() &&
           (url.scheme() == QStringLiteral("http") || url.scheme() == QStringLiteral("https"));
}

bool HttpFileModule::isPossiblySupportedSource(const AbstractDownload* download) const {
    return download && isHttpUrl(QUrl(download->info().resourceUrl));
}

bool HttpFileModule::supportedSource(const AbstractDownload* download) const {
    if (!isPossiblySupportedSource(download))
        return false;
    const AbstractDownloadType type = download->info().downloadType;
    return type == AbstractDownloadType::Unknown || type == AbstractDownloadType::Resource;
}

AbstractDownloadType HttpFileModule::sourceType(const QUrl& url) const {
    return isHttpUrl(url) ? AbstractDownloadType::Resource : AbstractDownloadType::Unknown;
}

QSharedPointer<AbstractDownload>
HttpFileModule::createDownload(qint64 id, const AbstractDownloadPersistentInfo& info,
                               const QVariant&, AbstractError& error) {
    if (!m_creator || !isHttpUrl(QUrl(info.resourceUrl))) {
        error = AbstractError(
            NoDownloadsErrorCode, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
            QStringLiteral("no download can fetch %1").arg(info.resourceUrl).toStdString());
        return {};
    }
    return m_creator(id, info, error);
}
