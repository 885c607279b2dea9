#include "mediachildmodule.h"

#include <terncl/core/sourceplace.h>
#include <terncl/inet/qt/download/abstractdownload.h>

MediaChildModule::MediaChildModule(QString uid, MediaChildren::Creator creator, QObject* parent)
    : AbstractDownloadModule(parent)
    , m_uid(std::move(uid))
    , m_creator(std::move(creator)) {}

MediaChildModule::~MediaChildModule() = default;

bool MediaChildModule::isPossiblySupportedSource(const AbstractDownload* download) const {
    return download && download->info().moduleName == m_uid;
}

bool MediaChildModule::supportedSource(const AbstractDownload* download) const {
    return isPossiblySupportedSource(download);
}

AbstractDownloadType MediaChildModule::sourceType(const QUrl&) const {
    return AbstractDownloadType::Unknown;
}

QSharedPointer<AbstractDownload>
MediaChildModule::createDownload(qint64, const AbstractDownloadPersistentInfo& info,
                                 const QVariant& initData, AbstractError& error) {
    if (!m_creator) {
        error = AbstractError(NoDownloadsErrorCode, AbstractError::GenericError,
                              TERNCL_SOURCE_PLACE, "the module makes no downloads");
        return {};
    }
    return m_creator(info, initData, error);
}
