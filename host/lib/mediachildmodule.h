#pragma once

#include "mediachildren.h"

#include <terncl/core/abstractdownloadmodule.h>

// The download module of one kind of media download child ("downloadswww", "downloadsm3ustm",
// "downloadsfragments"), made by a MediaChildren creator. Children are only ever made by module
// name, from a media download's version or a restored record, so the module claims no address
// of its own: a bare address stays with the host's plain file module. Main thread.
class MediaChildModule final : public AbstractDownloadModule {
    Q_OBJECT

public:
    MediaChildModule(QString uid, MediaChildren::Creator creator, QObject* parent = nullptr);
    ~MediaChildModule() override;

    QString uid() const override { return m_uid; }
    bool isPossiblySupportedSource(const AbstractDownload* download) const override;
    bool supportedSource(const AbstractDownload* download) const override;
    AbstractDownloadType sourceType(const QUrl& url) const override;
    // The id is not used: children take their ids from the creator's context.
    QSharedPointer<AbstractDownload> createDownload(qint64 id,
                                                    const AbstractDownloadPersistentInfo& info,
                                                    const QVariant& initData,
                                                    AbstractError& error) override;

private:
    QString m_uid;
    MediaChildren::Creator m_creator;
};
