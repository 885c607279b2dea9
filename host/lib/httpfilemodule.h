#pragma once

#include <terncl/core/abstractdownloadmodule.h>

#include <functional>

// The download module of a plain file fetched over HTTP(S) as one download, registered by the
// host as "http", the module of its own file records. The downloads come from a
// creator that the downloads factory hands in, so the module decides which addresses it takes
// and the factory alone knows how a download is built. Main thread.
class HttpFileModule final : public AbstractDownloadModule {
    Q_OBJECT

public:
    // Makes the download with the given id from its record; on failure returns null and sets
    // the error.
    using Creator = std::function<QSharedPointer<AbstractDownload>(
        qint64 id, const AbstractDownloadPersistentInfo& info, AbstractError& error)>;

    HttpFileModule(QString uid, int checkPriority, Creator creator, QObject* parent = nullptr);
    ~HttpFileModule() override;

    static bool isHttpUrl(const QUrl& url);

    QString uid() const override { return m_uid; }
    bool isPossiblySupportedSource(const AbstractDownload* download) const override;
    bool supportedSource(const AbstractDownload* download) const override;
    int supportedSourceCheckPriority() const override { return m_checkPriority; }
    AbstractDownloadType sourceType(const QUrl& url) const override;
    // initData is not used: the record says everything a plain file needs.
    QSharedPointer<AbstractDownload> createDownload(qint64 id,
                                                    const AbstractDownloadPersistentInfo& info,
                                                    const QVariant& initData,
                                                    AbstractError& error) override;

private:
    QString m_uid;
    int m_checkPriority;
    Creator m_creator;
};
