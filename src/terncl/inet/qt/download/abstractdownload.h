#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/inet/qt/download/abstractdownloadcommand.h>
#include <terncl/inet/qt/download/abstractdownloaddestinationtype.h>
#include <terncl/inet/qt/download/abstractdownloaderrorreportdata.h>
#include <terncl/inet/qt/download/abstractdownloadfileexistsaction.h>
#include <terncl/inet/qt/download/abstractdownloadmergeoptions.h>
#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>
#include <terncl/inet/qt/download/abstractdownloadsettings.h>
#include <terncl/inet/qt/download/abstractdownloadtask.h>
#include <terncl/inet/qt/download/abstractfiletype.h>
#include <terncl/inet/qt/download/abstractitempreviewsource.h>
#include <terncl/inet/qt/download/abstractnetworkconsumerwithextratasks.h>
#include <terncl/inet/qt/download/bitflagsupdatemode.h>
#include <terncl/inet/qt/download/comparedownloadsresult.h>

#include <QHash>
#include <QList>
#include <QMap>
#include <QSet>
#include <QSharedPointer>
#include <QVariant>

class AbstractChildDownloadsManager;
class AbstractDownloadResourceVersionSelector;
class AbstractNewDownloadsSource;
class QThread;

// The base of every download: an identity, a persistent record the application stores, settings,
// options kept inside the record, commands, tasks with their progress, and the signals the user
// interface and the services listen to. Lives in one thread (usually the main one); every
// operation is called there. Subclasses own the record and answer info(); the base only reads
// and writes it through info() and rwInfo().
class TERNCL_EXPORT AbstractDownload : public AbstractNetworkConsumerWithExtraTasks {
    Q_OBJECT

public:
    explicit AbstractDownload(qint64 id, QObject* parent = nullptr);
    ~AbstractDownload() override;

    qint64 id() const override;
    // Replaces the identity without any signal.
    void setId(qint64 id);

    // "[outer originator][...][ClassName #id]: ", the prefix of every line the download logs.
    QString logHeader() const;
    // The class name, " #" and the id: how this download names itself to its children.
    QString selfOriginatorName() const;
    // Makes a child's originators this download's chain followed by this download.
    void setupChildOriginatorName(AbstractDownloadPersistentInfo& childInfo) const;
    // Hands a download made from another one what they share: destination, request, options
    // and the private mark. The target's own names and files are left alone.
    static void setupGenericFieldsBySourceDownload(const AbstractDownloadPersistentInfo& source,
                                                   AbstractDownloadPersistentInfo& target);

    // Options: single bits of a quint64 with QVariant values, kept in the record's custom data
    // under "options" as a list of {"o": id, "v": value}.
    QHash<quint64, QVariant> allOptions() const;
    void backupOptions();
    // Puts "optionsBackup" back over "options"; without a backup nothing changes.
    void restoreOptions(bool removeBackup);
    void clearAllOptions();
    static void setAllOptions(AbstractDownloadPersistentInfo& info, const QList<QVariant>& options);

    // Default choice among the versions of resourceVersionSelector(). A version that is
    // already selected (by the user, or by an earlier choice) is kept: the default never
    // overrides a selection. Each returns whether a version is selected afterwards; false, with
    // nothing changed, when there is no selector or it has no versions. The rule is that of
    // AbstractDownloadResourceVersionSelector::defaultVersionIndex.
    //
    // Reads the AbstractDownloadResourceVersionOption options of this download.
    bool chooseDefaultResourceVersion();
    // Reads the AbstractDownloadResourceVersionOption bits of the given options; other bits are
    // ignored and a missing one means no preference.
    bool chooseDefaultResourceVersion(const QHash<quint64, QVariant>& options);
    // fileType: Video, Audio, or anything else for no preference; maxHeight: 0 or less for no
    // limit; format and language: empty for no preference.
    bool chooseDefaultResourceVersion(AbstractFileType fileType, int maxHeight,
                                      const QString& format, const QString& language);

public Q_SLOTS:
    virtual void doCommand(AbstractDownloadCommand command) = 0;
    virtual void doCustomCommand(const QVariant& command, const QVariant& data);
    // The application's answer to fileExistsActionRequired.
    virtual void fileExistsAction(int fileIndex, AbstractDownloadFileExistsAction action);

public:
    virtual const AbstractDownloadPersistentInfo& info() const = 0;
    virtual bool setInfo(const AbstractDownloadPersistentInfo& info) = 0;
    // Copies the field groups of AbstractDownloadPersistentInfo::Field given in fields.
    virtual bool updateInfoFields(const AbstractDownloadPersistentInfo& info, qint64 fields,
                                  BitFlagsUpdateMode mode) = 0;
    virtual QSet<AbstractDownloadDestinationType> supportedDestinations() const = 0;
    // Data a module needs to set the download up (a parser's result, a source description).
    virtual bool setInitData(const QVariant& data);
    // The thread the download's data writers live on.
    virtual bool setWritersThread(QThread* thread) = 0;
    virtual QSharedPointer<AbstractDownloadResourceVersionSelector> resourceVersionSelector();
    virtual void setSettings(const AbstractDownloadSettings& settings) = 0;
    virtual const AbstractDownloadSettings& settings() const = 0;
    virtual bool setupBySourceDownload(QSharedPointer<AbstractDownload> source);
    // The AbstractDownloadTask bits of the work in progress.
    virtual quint64 currentTasks() const = 0;
    virtual AbstractDownloadTasksProgress tasksProgress() const = 0;
    virtual CompareDownloadsResult
    compareDownloads(const AbstractDownloadPersistentInfo& other) const;
    // Merging a duplicate: which options are possible and which are proposed, then the merge
    // in either direction.
    virtual bool acquireDownloadsMergeOptions(const AbstractDownloadPersistentInfo& other,
                                              AbstractDownloadMergeOptions& possible,
                                              AbstractDownloadMergeOptions& proposed);
    virtual bool mergeIntoThisDownload(const AbstractDownloadPersistentInfo& other,
                                       const AbstractDownloadMergeOptions& options);
    virtual bool mergeIntoOtherDownload(AbstractDownloadPersistentInfo& other,
                                        const AbstractDownloadMergeOptions& options);
    virtual bool isChildDownloadsManagerRequired() const;
    virtual void
    setChildDownloadsManager(const QSharedPointer<AbstractChildDownloadsManager>& manager);
    virtual const QList<AbstractItemPreviewSource>& previews() const;
    virtual QSharedPointer<AbstractNewDownloadsSource> newDownloadsSource() const;
    // An option whose bit is not in the record's supportedOptions is dropped silently.
    virtual void setOption(quint64 option, const QVariant& value);
    // An invalid QVariant when the option is not set.
    virtual QVariant option(quint64 option);
    virtual bool isQueryingInfo() const = 0;
    virtual bool isStopping() const = 0;
    // The final files operations are in progress.
    virtual bool isFinalizing() const;
    virtual AbstractDownloadErrorReportData errorReportData() const;
    virtual bool interactive() const;
    virtual void setInteractive(bool interactive);
    // Whether the download can write its data at AbstractDownloadFileInfo::writeOffset.
    virtual bool supportsWriteOffset() const;
    // Name-value pairs for a details view.
    virtual QMap<QString, QVariant> details() const;

public Q_SLOTS:
    // Counts nested files operations; performingFilesOperations is emitted on the outer edges.
    void signalPerformingFilesOperations(bool performing);

Q_SIGNALS:
    void changed(bool criticalChange);
    void performingFilesOperations(bool performing);
    void previewsReady();
    void stopping();
    void fileExistsActionRequired(int fileIndex, const QList<QString>& files);
    void fileExistsActionApplied(int fileIndex, AbstractDownloadFileExistsAction action,
                                 const AbstractError& error);
    void sendingRequestHeaders(qint64 connectionId, const QList<QString>& headers);
    void gotResponseHeaders(qint64 connectionId, const QList<QString>& headers);
    void mediaReadyToPlay(int);

protected:
    // The record info() returns, writable.
    virtual AbstractDownloadPersistentInfo& rwInfo();

private:
    qint32 m_filesOperationsDepth = 0;
    qint64 m_id = 0;
    bool m_interactive = false;
};
