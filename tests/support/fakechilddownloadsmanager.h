#pragma once

#include <terncl/inet/qt/download/abstractchilddownloadsmanager.h>

#include <QList>
#include <QPointer>
#include <QSharedPointer>
#include <QString>

#include <utility>

class AbstractDownloadsSimpleFactory;

// A child-downloads manager that keeps its children in memory, makes them through a factory and
// records what it was asked to remove. Tests put children in it with keep() to stand for those
// a real manager loads after a restart of the program.
class FakeChildDownloadsManager : public AbstractChildDownloadsManager {
    Q_OBJECT

public:
    FakeChildDownloadsManager(AbstractDownloadsSimpleFactory* factory, const QString& folder,
                              QObject* parent = nullptr);

    QSharedPointer<AbstractDownload> createDownload(const QString& moduleName,
                                                    const AbstractDownloadPersistentInfo& info,
                                                    const QVariant& initData,
                                                    AbstractError& error) override;
    bool addDownloads(const QList<QSharedPointer<AbstractDownload>>& downloads) override {
        m_kept += downloads;
        return true;
    }
    // Files are removed too when asked to.
    void removeDownloads(const QList<qint64>& ids, bool deleteFiles) override;
    QList<QSharedPointer<AbstractDownload>> downloads() const override { return m_kept; }
    QSharedPointer<AbstractDownload> download(const QUuid& uuid) const override;
    QString downloadsFolder() const override { return m_folder; }
    bool saveDownloads(AbstractError&) override { return true; }
    bool loadDownloads(AbstractError&) override { return true; }

    void keep(const QList<QSharedPointer<AbstractDownload>>& downloads) { m_kept += downloads; }
    // Each removal: the ids and whether files went with them.
    QList<std::pair<QList<qint64>, bool>> removals() const { return m_removals; }

private:
    QPointer<AbstractDownloadsSimpleFactory> m_factory;
    QString m_folder;
    QList<QSharedPointer<AbstractDownload>> m_kept;
    QList<std::pair<QList<qint64>, bool>> m_removals;
};
