#include "mediadownloadsfactory.h"

#include <terncl/core/sourceplace.h>

MediaDownloadsFactory::MediaDownloadsFactory(const MediaChildren::Context& context, QObject* parent)
    : AbstractDownloadsSimpleFactory(parent)
    , m_context(context) {}

MediaDownloadsFactory::~MediaDownloadsFactory() = default;

QSharedPointer<AbstractDownload>
MediaDownloadsFactory::createDownload(const AbstractDownloadPersistentInfo& info,
                                      AbstractError& error) {
    if (const auto create = MediaChildren::creator(info.moduleName, m_context))
        return create(info, QVariant(), error);
    const auto wrapped = m_context.factory.toStrongRef();
    if (!wrapped) {
        error = AbstractError(1, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                              "no downloads factory");
        return {};
    }
    return wrapped->createDownload(info, error);
}

QSharedPointer<AbstractDownload>
MediaDownloadsFactory::createModuleDownload(const QString& moduleName,
                                            const AbstractDownloadPersistentInfo& info,
                                            const QVariant& initData, AbstractError& error) {
    if (const auto create = MediaChildren::creator(moduleName, m_context))
        return create(info, initData, error);
    const auto wrapped = m_context.factory.toStrongRef();
    if (!wrapped) {
        error = AbstractError(1, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                              "no downloads factory");
        return {};
    }
    return wrapped->createModuleDownload(moduleName, info, initData, error);
}
