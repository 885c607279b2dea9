#pragma once

#include <terncl/inet/qt/download/abstractdownload.h>
#include <terncl/inet/qt/download/abstractnetworkconsumerswithextrataskspack.h>

#include <QList>
#include <QSet>
#include <QSharedPointer>

// A download made of downloads: one id, commands, settings and progress outside, any number of
// child downloads inside. The children live in an inner consumers-with-extra-tasks pack, which
// keeps them sorted by id, tracks which of them run, shares the network limits among them and
// merges their connections, speeds and errors; its signals come out of this object. The pack
// adds settings that stick to every later child, commands fanned out to all children, tasks and
// predicates aggregated over the running children only, and each child's changed(bool) re-emitted
// as its own. It has no persistent record of its own.
// Lives in the thread of its children (usually the main one); every call to them is direct.
class TERNCL_EXPORT AbstractDownloadsPack : public AbstractDownload {
    Q_OBJECT

public:
    using DownloadPtr = QSharedPointer<AbstractDownload>;

    explicit AbstractDownloadsPack(qint64 id, QObject* parent = nullptr);
    ~AbstractDownloadsPack() override;

    // Once setSettings was called, a child receives those settings before it is added. A child
    // whose id is already in the pack is not added again.
    Q_INVOKABLE void addDownload(const AbstractDownloadsPack::DownloadPtr& download);
    // All children are announced in one downloadsAdded.
    Q_INVOKABLE void addDownloads(const QList<AbstractDownloadsPack::DownloadPtr>& downloads);
    Q_INVOKABLE void removeDownload(qint64 id);
    Q_INVOKABLE void removeDownloads(const QList<qint64>& ids);
    // Null when no child has that id.
    Q_INVOKABLE AbstractDownloadsPack::DownloadPtr download(qint64 id) const;
    // In ascending order of id.
    Q_INVOKABLE QList<AbstractDownloadsPack::DownloadPtr> downloads() const;
    QList<qint64> downloadsIds() const { return m_items.itemsIds(); }
    QSet<qint64> runningDownloadsIds() const { return m_items.runningItemsIds(); }

    // Network state and limits are the inner pack's (shared among and merged over children).
    void setNetworkSettings(const AbstractNetworkConsumerSettings& settings) override;
    AbstractNetworkConsumerSettings networkSettings() const override;
    void setNetworkUsageSettings(const NetworkUsageSettings& settings) override;
    NetworkUsageSettings networkUsageSettings() const override;
    const QtConnectionsMap& connectionsMap() const override;
    qint64 speed(NetworkTrafficDirection direction, bool currentOnly) const override;
    AbstractError lastError() const override;
    QList<QSslError> lastSslErrors() const override;
    QtSslHost lastUnknownSslHost() const override;
    QDateTime lastErrorTime() const override;
    void clearLastError() override;
    // Running while any child runs.
    bool isRunning() const override;

    // Every child, in order of id.
    void doCommand(AbstractDownloadCommand command) override;
    void setSettings(const AbstractDownloadSettings& settings) override;
    const AbstractDownloadSettings& settings() const override { return m_settings; }
    // Every child gets the thread; true when at least one took it.
    bool setWritersThread(QThread* thread) override;

    // Over the running children only: a child that does not run takes no part, whatever it says.
    quint64 currentTasks() const override;
    // Per task, the sums of done and of total.
    AbstractDownloadTasksProgress tasksProgress() const override;
    // True when some child runs and every running child answers true.
    bool isQueryingInfo() const override;
    bool isStopping() const override;

    // The pack keeps no record: info() is one shared empty record for all packs, and setInfo and
    // updateInfoFields refuse.
    const AbstractDownloadPersistentInfo& info() const override;
    bool setInfo(const AbstractDownloadPersistentInfo& info) override;
    bool updateInfoFields(const AbstractDownloadPersistentInfo& info, qint64 fields,
                          BitFlagsUpdateMode mode) override;
    QSet<AbstractDownloadDestinationType> supportedDestinations() const override { return {}; }

Q_SIGNALS:
    void downloadsAdded(const QList<qint64>& ids);
    void beforeDownloadsRemoved(const QList<qint64>& ids);
    void downloadsRemoved(const QList<qint64>& ids);
    void downloadRunning(qint64 id, bool running);

protected:
    // Writes through the base's option helpers land in a scratch record that is wiped on every
    // call, so that they never reach the record shared by all packs.
    AbstractDownloadPersistentInfo& rwInfo() override;

private:
    // The inner pack answers id() with the id of this download.
    class ItemsPack final : public AbstractNetworkConsumersWithExtraTasksPack {
    public:
        explicit ItemsPack(const AbstractNetworkConsumer& owner)
            : m_owner(owner) {}
        qint64 id() const override { return m_owner.id(); }

    private:
        const AbstractNetworkConsumer& m_owner;
    };

    QList<DownloadPtr> runningDownloads() const;
    // Walks the running children; false at the first false answer and without any child.
    bool allRunningDownloads(bool (AbstractDownload::*predicate)() const) const;
    bool acceptsNewDownload(const DownloadPtr& download) const;
    void prepareNewDownload(const DownloadPtr& download);

    ItemsPack m_items;
    AbstractDownloadSettings m_settings;
    bool m_settingsGiven = false;
    AbstractDownloadPersistentInfo m_scratchInfo;
};
