#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/inet/qt/download/abstractdownloadresourceversionselector.h>
#include <terncl/ternclshared_export.h>

#include <QHash>
#include <QObject>
#include <QSharedPointer>
#include <QWeakPointer>

#include <memory>
#include <utility>

class AbstractDownload;
class AbstractDownloadsPack;
class AbstractDownloadsSimpleFactory;

// Measures the versions of a resource whose size the parser did not give, before the user
// chooses among them. Every version of origin type 0 (fetched by a plain request) whose size is
// unknown, and every such part of a composite version, gets a short child download of the module
// "downloadswww" made by the factory, flagged SizeQueryOnly (the child learns the size and writes
// no data). The children run together in a pack; once all have stopped, each size a child learnt
// is written back into the selector, and finished() comes once per query. A child that learns
// nothing leaves its size at -1: that is no error. Versions of other origins (streams whose size
// needs more than one request) and sizes already known are left alone.
//
// finished() also comes when there is nothing to measure, queued, so that it always arrives
// after query() has returned. Lives on the thread of the download that owns it (the main one).
class TERNCL_EXPORT AbstractDownloadResourceVersionsQuerySizes : public QObject {
    Q_OBJECT

public:
    // The module of the children; the factory makes plain requests of it.
    static const QString ChildModuleName; // "downloadswww"

    AbstractDownloadResourceVersionsQuerySizes(
        QSharedPointer<AbstractDownloadResourceVersionSelector> selector,
        QWeakPointer<AbstractDownloadsSimpleFactory> factory, QObject* parent = nullptr);
    // Children still running are stopped; finished() does not come any more.
    ~AbstractDownloadResourceVersionsQuerySizes() override;

    // Starts measuring; a second call while a query runs is ignored.
    void query();
    bool isQuerying() const { return m_querying; }
    // The first failure met: the pack's error, else the factory's, else code 0.
    AbstractError lastError() const { return m_lastError; }

Q_SIGNALS:
    void finished(const AbstractError& error);

private Q_SLOTS:
    void onDownloadsRunning(bool isRunning);

private:
    bool addChild(AbstractDownloadsSimpleFactory& factory,
                  const AbstractDownloadResourceVersionSelector::Version& version, int versionIndex,
                  int partIndex, QList<QSharedPointer<AbstractDownload>>& children);
    void writeBackSizes();
    void finish();

    QSharedPointer<AbstractDownloadResourceVersionSelector> m_selector;
    QWeakPointer<AbstractDownloadsSimpleFactory> m_factory;
    std::unique_ptr<AbstractDownloadsPack> m_pack;
    // Child id to (version index, part index); part -1 for a version without parts.
    QHash<qint64, std::pair<int, int>> m_indexes;
    AbstractError m_lastError;
    AbstractError m_factoryError;
    bool m_querying = false;
};
