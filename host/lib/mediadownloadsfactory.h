#pragma once

#include "mediachildren.h"

#include <terncl/inet/qt/download/abstractdownloadssimplefactory.h>

// A downloads factory that knows the media children's modules (MediaChildren) and hands every
// other record to the factory it wraps. The media download and its size query make their
// children through it. Main thread.
class MediaDownloadsFactory final : public AbstractDownloadsSimpleFactory {
    Q_OBJECT

public:
    // context.factory is the wrapped factory.
    explicit MediaDownloadsFactory(const MediaChildren::Context& context,
                                   QObject* parent = nullptr);
    ~MediaDownloadsFactory() override;

    QSharedPointer<AbstractDownload> createDownload(const AbstractDownloadPersistentInfo& info,
                                                    AbstractError& error) override;
    QSharedPointer<AbstractDownload>
    createModuleDownload(const QString& moduleName, const AbstractDownloadPersistentInfo& info,
                         const QVariant& initData, AbstractError& error) override;

private:
    MediaChildren::Context m_context;
};
