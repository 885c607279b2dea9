#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/inet/qt/download/abstractdownload.h>
#include <terncl/inet/qt/download/abstractdownloadfileops.h>
#include <terncl/inet/qt/download/abstractdownloadfilesopscompanion.h>
#include <terncl/inet/qt/download/abstractdownloadresourceversionselector.h>
#include <terncl/ternclshared_export.h>

#include <QDateTime>
#include <QList>
#include <QPointer>
#include <QSharedPointer>
#include <QString>
#include <QUuid>
#include <QVariantHash>
#include <QWeakPointer>

#include <memory>
#include <utility>

class AbstractChildDownloadsManager;
class AbstractDownloadResourceVersionsQuerySizes;
class AbstractDownloadsPack;
class AbstractDownloadsSimpleFactory;
class QtFfmpegAvMerger;

// A download of a media resource found on a web page (a streaming master playlist, a manifest,
// a page with media): the subclass parses the resource into versions, the user's or the default
// version is chosen, unknown sizes are measured, and the chosen version is fetched by child
// downloads: one child for a version without parts, or a video child and an audio child for a
// composite version, merged losslessly by the A/V merger into the result file, plus subtitle
// children whose files stay beside the result. Lives on the main thread, like its children.
//
// Run stages (runStage()): 0 not running; 1 starting (parsing, measuring sizes, preparing the
// children); 3 children downloading; 4 children done, merging or finishing. A query command
// (QueryInfo, RequeryInfo) ends at stage 0 once the sizes are known and makes no child.
//
// Children. They are made through the child-downloads manager when one is set (it keeps them
// with the application's downloads, so that they survive a restart of the program), else through
// the factory (they then live as long as this object). The record keeps in custom data:
// "childDownloadsInit" (the children exist; no new parse at the next start) and, for a composite
// version, "avDownloadsUuids" (the video and the audio child, in that order, until they are
// merged). After a restart of the program, children are taken back from the manager's
// downloads(). Finished children are never run again: resuming a record runs only those that
// are not finished, then merges.
//
// Files. The result is the record's first file, named from the record: its file name, else the
// record's name, else "media", with the extension (a media container's one replaced) of the
// merge format for a composite version, else of the version's format. A composite version is
// merged into "<result>.merging" in the temporary folder (the settings' one, else the destination)
// and then moved to its destination name by the standard files operation, which also settles a name
// that is taken. Its children write "<base>.video.<ext>" and "<base>.audio.<ext>" into the
// manager's downloads folder, else the temporary folder, else the destination; the extension is
// the part's format. They are removed with their files once merged. The child of a version
// without parts writes the result itself, at the destination; its file records become the
// record's. A subtitle child writes "<base>.<language>.<ext>" at the destination; its file record
// joins the record's files.
//
// A start of a record with "childDownloadsInit" checks that its children are there: at least
// one, and every one "avDownloadsUuids" names. Otherwise it stops with "GenericError" code 2
// (ChildDownloadsMissingCode): the data is gone, and a restart (command 4) makes them anew.
//
// Sizes: a failed measurement leaves sizes unknown. It is the error of a query command, which
// ends at stage 0 anyway; a start goes on, since the chosen version's child meets any real
// failure of its resource itself.
//
// A child refused its resource (HTTP 401, 403, 404 or 410, or the network errors of access
// denied, not found and gone) is often a link that expired: once per run the resource is parsed
// again and the children get their resources from the new result
// (reapplyParseResultToChildDownloads), then the run goes on. A second refusal, or any other
// failure of a child, stops the download with the child's error once no child runs any more.
//
// The end of a run is logged as "finished (<files> file(s), <bytes> bytes, <result path>)".
//
// Merge format: MP4, unless the result's name ends in ".mkv" or the MergeFormatOption option
// says "mkv" (codecs that MP4 cannot carry, such as VP8 or Vorbis, want it).
//
// What the subclass provides (its contract):
// - parse(): reads the resource and, on success, hands its versions to setParseResult() (and
//   may set the record's title); then calls onParseFinished() exactly once, at once or later.
//   A parse is abandoned by abortParse(), after which onParseFinished() must not come. It may
//   select a version itself (resourceVersionSelector()->setSelectedVersion) after
//   setParseResult(); without a selection, chooseDefaultResourceVersion() decides when the
//   children are made. The
//   versions' protocol names the module of the child that fetches them: "downloadswww" for a
//   plain request, "downloadsm3ustm" for a streaming media playlist, "downloadsfragments" for a
//   fragmented stream (init segment plus media segments); an empty protocol means
//   "downloadswww". Only versions of origin type 0 are measured by plain requests; the others
//   should carry their size when the manifest gives it.
// - makeChildDownloadDescription() may be overridden to adjust what a child is made from (call
//   the base, then change the description); chooseSubtitles() to pick subtitle children.
// - The child-downloads manager (setChildDownloadsManager) for children that outlive the
//   process; isChildDownloadsManagerRequired() answers true.
//
// What a child is given: a record with resourceUrl = the version's URL, its referrer and request
// data, the parent's Private flag and always PartOfParentDownload, originators naming the
// parent, the destination and one file record as above; init data (AbstractDownload::setInitData)
// as a QVariantHash {"source": AbstractDownloadSourceInfo::toVariantHash() of the URL and the
// request header lines, "file": the file record's toVariantHash(), "protocol": the version's
// protocol, "initData": the version's details as the parser gave them}. Its record's custom
// data holds under "mediaPart" what the parent needs to find its resource again after a new
// parse.
class TERNCL_EXPORT AbstractMediaDownload : public AbstractDownload {
    Q_OBJECT

public:
    using Selector = AbstractDownloadResourceVersionSelector;
    using Version = Selector::Version;
    using CompositeVersion = Selector::CompositeVersion;

    enum RunStage : int {
        NotRunning = 0,
        Starting = 1,
        Reserved = 2, // never set by this class
        DownloadingChildren = 3,
        Finishing = 4,
    };
    Q_ENUM(RunStage)

    // What a child fetches.
    enum ChildKind : int {
        WholeVersion = 0, // a version without parts: the child's file is the result
        VideoPart = 1,
        AudioPart = 2,
        SubtitlesPart = 3,
    };
    Q_ENUM(ChildKind)

    // Codes of the "GenericError"s this download stops with.
    enum ErrorCode : int {
        MergeFailedCode = 1, // the merge could not start, or a child stopped unfinished silently
        ChildDownloadsMissingCode = 2, // children the record names are gone
        StopCommandCode = 4,
        NothingParsedCode = 6,       // the parse succeeded without any version
        ChildCreationFailedCode = 7, // the factory or manager made no child, or no version fits
        ReapplyFailedCode = 8,       // a new parse does not match the children
    };
    // Code of the "AbstractDownloadError" when the versions are gone after the size query.
    static constexpr int NoResourceVersionsCode = 4;

    // Custom-data keys of the record.
    static const QString ChildDownloadsInitKey;  // "childDownloadsInit"
    static const QString AvDownloadsUuidsKey;    // "avDownloadsUuids"
    static const QString AvDownloadsIdsKey;      // "avDownloadsIds" (older records)
    static const QString ChildDownloadsCountKey; // "childDownloadsCount" (older records)
    // Custom-data key of a child's record: {"kind": ChildKind, "media": the media description
    // hash, "title": the version's title, "protocol": the version's protocol}.
    static const QString MediaPartKey; // "mediaPart"

    // A QString: "mp4" (the default) or "mkv", the container of a merged result.
    static constexpr quint64 MergeFormatOption = quint64(1) << 33;

    // What a child is made from: the module, its record and its init data.
    struct ChildDownloadDescription {
        ChildKind kind = WholeVersion;
        QString moduleName;
        AbstractDownloadPersistentInfo info;
        QVariantHash initData;
    };

    // moduleName: the module that makes downloads of this kind; a record without one gets it,
    // so that the factory restores the download as this kind.
    AbstractMediaDownload(qint64 id, const QString& moduleName,
                          QWeakPointer<AbstractDownloadsSimpleFactory> factory,
                          const QWeakPointer<QtFfmpegAvMerger>& avMerger,
                          QObject* parent = nullptr);
    ~AbstractMediaDownload() override;

    RunStage runStage() const { return m_stage; }
    QString moduleName() const { return m_moduleName; }
    // The versions of the last parse; replaced (a new object) by every parse.
    QSharedPointer<AbstractDownloadResourceVersionSelector> resourceVersionSelector() override;
    // Subtitles offered by the last parse, chosen apart from the versions.
    QList<Version> subtitles() const { return m_subtitles; }
    // The children, in order of id.
    QList<QSharedPointer<AbstractDownload>> childDownloads() const;
    // "mp4" or "mkv".
    QString mergeFormat() const;
    const AbstractDownloadFilesOpsCompanion& filesOpsCompanion() const { return *m_companion; }

    // Network consumer: the children's.
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
    bool isRunning() const override;

    // Download.
    const AbstractDownloadPersistentInfo& info() const override;
    // Refused (false) while running.
    bool setInfo(const AbstractDownloadPersistentInfo& info) override;
    bool updateInfoFields(const AbstractDownloadPersistentInfo& info, qint64 fields,
                          BitFlagsUpdateMode mode) override;
    QSet<AbstractDownloadDestinationType> supportedDestinations() const override;
    bool setWritersThread(QThread* thread) override;
    void setSettings(const AbstractDownloadSettings& settings) override;
    const AbstractDownloadSettings& settings() const override;
    void setOption(quint64 option, const QVariant& value) override;
    quint64 currentTasks() const override;
    // Stage 1: QueryingInfo (0, 0). Stage 3: Downloading, the children's done and total bytes
    // (total -1 while a size is unknown). Merging: Merging in seconds. Files operation:
    // PerformingFilesOperations (0, 0).
    AbstractDownloadTasksProgress tasksProgress() const override;
    bool isQueryingInfo() const override;
    bool isStopping() const override;
    bool isFinalizing() const override;
    bool isChildDownloadsManagerRequired() const override { return true; }
    // Takes the manager's children back when the record says they exist. Ignored while running.
    void
    setChildDownloadsManager(const QSharedPointer<AbstractChildDownloadsManager>& manager) override;
    AbstractDownloadErrorReportData errorReportData() const override;
    QMap<QString, QVariant> details() const override;

public Q_SLOTS:
    // 0, 1: query (parse and sizes); 2: start; 3: stop; 4: restart from the parse; 5: nothing;
    // 6: finalize (start when there are no children, else pass it on). 0, 1, 2 and 4 only when
    // not running.
    void doCommand(AbstractDownloadCommand command) override;
    void fileExistsAction(int fileIndex, AbstractDownloadFileExistsAction action) override;

protected:
    AbstractDownloadPersistentInfo& rwInfo() override;

    // The subclass's parser; see the class comment.
    virtual void parse() = 0;
    virtual void abortParse() {}
    // The end of parse(). error set: the parse failed; temporary is handed to
    // onParseFailed (whether the failure may go away by itself, such as a network error).
    void onParseFinished(const AbstractError& error, bool temporary);
    // Called with the flag of a failed parse before the run ends; the default does nothing.
    virtual void onParseFailed(const AbstractError& error, bool temporary);
    // The result of a parse: the versions, in the order the selector should keep them (call
    // resourceVersionSelector()->sort() for the library's preference order), and the subtitles
    // offered. Makes a new selector; a version equal to the one selected before (same URL,
    // title and parts' URLs) stays selected.
    void setParseResult(const QList<CompositeVersion>& versions,
                        const QList<Version>& subtitles = {});

    // Fills child from version for a child of kind; false with error to refuse. The base sets
    // everything the class comment lists.
    virtual bool makeChildDownloadDescription(const Version& version, ChildKind kind,
                                              ChildDownloadDescription& child,
                                              AbstractError& error) const;
    // The subtitles to fetch with the chosen version. The default: those whose language has the
    // primary language of the PreferredResourceLanguage option; none without that option.
    virtual QList<Version> chooseSubtitles() const;

private Q_SLOTS:
    void onRvQuerySizesFinished(const AbstractError& error);
    void onResourceSelectedVersionChanged();
    void onChildDownloadsChanged(bool criticalChange);
    void onChildDownloadsRunning(bool isRunning);
    void onPerformFileInitializeOpsFinished(AbstractDownloadFilesOpsCompanion::OperationType type,
                                            const AbstractError& error);
    void onMergeProgress(int id, int current, int total);
    void onMergeFinished(int id, const AbstractError& error, qint64 fileSize);

private:
    class VersionSelector;
    using ChildVersions = QList<std::pair<Version, ChildKind>>;

    void upgradeOldInfo();
    void start(AbstractDownloadCommand command);
    void startParse();
    void stop(const AbstractError& error);
    void finishStop();
    void performRestart();
    bool checkChildDownloadsCount();
    void finishParse(const AbstractError& error, bool temporary);
    void continueToStart();
    bool prepareChildDownloads(AbstractError& error);
    // What a version is fetched by: itself, or its video and audio parts; empty when its parts
    // cannot be merged.
    static ChildVersions childVersionsOf(const CompositeVersion& version);
    bool makeChildren(const CompositeVersion& version, AbstractError& error);
    AbstractDownloadFileInfo childFile(const Version& version, ChildKind kind) const;
    QSharedPointer<AbstractDownload> createChild(const ChildDownloadDescription& description,
                                                 AbstractError& error);
    void addChildren(const QList<QSharedPointer<AbstractDownload>>& children);
    void restoreChildrenFromManager();
    std::pair<qint64, qint64> childrenProgress() const;
    void onChildDownloadFailed(const AbstractError& childError);
    bool refreshSourcesAfter(const AbstractError& childError);
    // True when it settled the run: finished, merging, or stopped.
    bool checkIfChildDownloadsFinished();
    void gatherChildFiles();
    void startMerge();
    void failMerge(const QString& text);
    void removeMergedChildren();
    void completeRun();
    void finishRun();
    bool reapplyParseResultToChildDownloads(AbstractError& error);
    bool findSameResource(const AbstractDownloadPersistentInfo& childInfo, Version& found) const;
    QList<QUuid> avDownloadsUuids() const;
    QSharedPointer<AbstractDownload> childByUuid(const QUuid& uuid) const;
    bool isResultFileComplete() const;
    void setRunning(RunStage stage);
    QString resultName() const;
    QString resultBaseName() const;
    QString resultFileName(const CompositeVersion& version) const;
    QString temporaryFolder() const;
    QString childrenFolder() const;
    void log(const QString& text) const;

    QString m_moduleName;
    AbstractDownloadPersistentInfo m_info;
    AbstractDownloadSettings m_settings;
    AbstractNetworkConsumerSettings m_networkSettings;
    NetworkUsageSettings m_usageSettings;
    RunStage m_stage = NotRunning;
    AbstractDownloadCommand m_command = AbstractDownloadCommand::Start;
    bool m_stopping = false;
    bool m_parsing = false;
    bool m_startingChildren = false;
    bool m_sourcesRefreshed = false; // one new parse per run after a child's resource is refused
    AbstractError m_lastError;
    QDateTime m_lastErrorTime;
    AbstractError m_pendingError;
    QWeakPointer<AbstractDownloadsSimpleFactory> m_factory;
    std::unique_ptr<AbstractDownloadsPack> m_children;
    QSharedPointer<AbstractChildDownloadsManager> m_manager;
    QWeakPointer<QtFfmpegAvMerger> m_avMerger;
    QPointer<QThread> m_writersThread;
    int m_mergeId = -1;
    qint64 m_mergeCurrent = -1;
    qint64 m_mergeTotal = -1;
    QSharedPointer<VersionSelector> m_selector;
    QList<Version> m_subtitles;
    std::unique_ptr<AbstractDownloadResourceVersionsQuerySizes> m_sizeQuery;
    // Declared after the record and the settings, which it works on: destroyed before them.
    std::unique_ptr<AbstractDownloadFilesOpsCompanion> m_companion;
};
