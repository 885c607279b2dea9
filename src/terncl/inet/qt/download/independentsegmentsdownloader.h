#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/inet/qt/download/abstractdownload.h>
#include <terncl/inet/qt/download/abstractdownloadfilesopscompanion.h>
#include <terncl/inet/qt/download/abstractdownloadsourceinfo.h>
#include <terncl/ternclshared_export.h>

#include <QDateTime>
#include <QList>
#include <QPointer>
#include <QSharedPointer>
#include <QWeakPointer>

#include <memory>

class AbstractDownloadsSimpleFactory;
class AbstractDownloadsSpeedMeter;
class QtFfmpegAvMerger;

// A download whose resource is a list of independent segments (the fragments of a streaming
// playlist, byte ranges of one file) fetched into one target file, each by a child download of
// its own, up to maxConcurrentSegments() of them at once. It speaks no network protocol: for
// every segment it asks the factory for a child and starts it; segments reach the target strictly
// in order, and each one done adds its bytes to the running total ("downloadedSegmentsTotalBytes").
// After the last one it cuts the file to the total, remuxes it when asked to (self-merge), runs
// the standard files operation (moving the file from its temporary path to its destination name)
// and marks the record finished. The application supplies the segments with setSegmentsSources;
// after a restart of the program it supplies those not yet in the target, starting with the one
// stored under "currentSegmentSource" when there is one. Lives on the main thread.
//
// Segments in flight: a window of consecutive segments from the first one not yet in the target
// (the head). A child made while no other is in flight writes straight into the target at the
// total, as the only child does when one segment at a time is fetched. So does one made while
// every segment in flight writes straight into the target and only flushes its last bytes
// (isFinalizing() with a known size) or is done: it follows at the offset where the last one
// ends, so that fetching goes on while the writers thread catches up (at most four segments in
// such a row), and it enters the record only once the ones before it are counted. Children made
// while others are in flight ("ahead") write into a spill file of their own beside the target,
// "<target>.seg<k>" with k below maxConcurrentSegments(), because the offset of a segment is
// unknown until the ones before it end. When the head is done, finished spill files are appended to
// the target in order on the writers thread (through one 1 MiB buffer) and removed. A later segment
// finishing first waits; no segment beyond the window starts while the head is unfinished. Bounds,
// for N segments at once: at most N children fetching (besides those of a row that only flush),
// and N spill files, so the spill files hold at most N times the largest segment on disk, and the
// downloader itself holds one 1 MiB buffer in memory.
//
// The record describes only what is in the target: the total of the segments appended in order,
// and the half-done head when it writes straight into the target (its source and file record in
// custom data: "currentSegmentSource", "currentSegmentFile",
// "currentSegmentDownloadHasResumeSupport"; a restart recreates that child from them). Segments
// ahead never enter it, so after a kill at any moment nothing is written twice or skipped, and a
// restart fetches again at most the N segments that were in flight. A child that fails (after its
// own retries) stops the whole download: the others are stopped, spill files are removed, and the
// record resumes later.
//
// What a child is given, and must do (the contract of the factory's downloads):
// - The child's record has resourceUrl = the segment source's URL, and its custom data holds the
//   whole source under "segmentSource" (AbstractDownloadSourceInfo::toVariantHash(): request
//   headers and byte range). Its flags carry the parent's Private and SizeQueryOnly bits and
//   always PartOfParentDownload; its originators name the parent.
// - It has exactly one file record, with sections relative to the segment itself (offset 0 is
//   the segment's first byte). A child that writes straight into the target has tmpPath = the
//   parent's target file on disk (the parent's file tmpPath if set, else destinationPath + "/" +
//   name) and writeOffset = the segments total at its creation (for the one that follows a
//   finalizing head: the offset where the head ends). When the parent has no file record
//   yet, the child's has neither name nor tmpPath: the child names the file and the parent takes
//   its name, and its tmpPath if it set one (no segment is fetched ahead until then). A child
//   fetching ahead has tmpPath = its spill file, removed on the writers thread before the
//   child's first write, and writeOffset 0.
// - It writes its bytes at writeOffset + section offset + done through a FileDataAsyncWriter on
//   the writers thread handed to it with setWritersThread, never truncates or preallocates that
//   file, counts a byte as done only once the writer has flushed it, and reports finished only
//   after its last byte is on disk. Its file's resumeSupport says whether a half-done segment
//   can continue where it stopped; if not, it is fetched again from its first byte.
// - It may report isFinalizing() once every byte has arrived and only the flush is left, with
//   its file's size set and announced by changed(); the next segment starts then. A child that
//   never does is simply followed once it has finished.
// - Every child gets the parent's whole network usage settings: children in flight together
//   must draw on one shared budget for the speed limit to hold across them (as the host's
//   shared token bucket does).
// - It is not interactive, and it stops on the Stop command with running(false).
class TERNCL_EXPORT IndependentSegmentsDownloader : public AbstractDownload {
    Q_OBJECT

public:
    // Codes of the "GenericError"s this download stops with.
    enum ErrorCode : int {
        // The factory is gone, a child stopped unfinished without an error, or the file could
        // not be cut to the total.
        GenericFailureCode = 1,
        // The stored segment source differs from the list, a segment finished with zero bytes,
        // or there is no file record at the end.
        InconsistentSegmentsCode = 2,
        StopCommandCode = 4,
        ChildCreationFailedCode = 7,
    };

    // Custom-data keys of the record.
    static const QString CurrentSegmentSourceKey;    // "currentSegmentSource"
    static const QString CurrentSegmentFileKey;      // "currentSegmentFile"
    static const QString CurrentSegmentResumeKey;    // "currentSegmentDownloadHasResumeSupport"
    static const QString DownloadedSegmentsTotalKey; // "downloadedSegmentsTotalBytes"
    // Custom-data key of a child's record that holds its segment's source.
    static const QString SegmentSourceKey; // "segmentSource"
    // The option (AbstractDownload::setOption) that holds maxConcurrentSegments(). An option
    // rather than a plain member: it is kept in the record, so a restored download fetches as it
    // was told to, and a parent passes it on to any child through the base class, which drops it
    // silently on downloads that do not fetch segments.
    static constexpr quint64 ConcurrentSegmentsOption = quint64(1) << 32;

    IndependentSegmentsDownloader(qint64 id, QWeakPointer<AbstractDownloadsSimpleFactory> factory,
                                  QSharedPointer<AbstractDownloadsSpeedMeter> speedMeter,
                                  const QWeakPointer<QtFfmpegAvMerger>& avMerger,
                                  QObject* parent = nullptr);
    // A running child is stopped and released; nothing is left behind once the event loop has
    // turned (the child and the file operations object are deleted later).
    ~IndependentSegmentsDownloader() override;

    // Ignored while running. Replaces the list, resets the segment index to 0 and releases the
    // current child. mergeRequired: remux the file into "mp4" after the last segment.
    void setSegmentsSources(const QList<AbstractDownloadSourceInfo>& sources, bool sourcesComplete,
                            bool mergeRequired);
    QList<AbstractDownloadSourceInfo> segmentsSources() const { return m_sources; }
    bool sourcesComplete() const { return m_sourcesComplete; }
    // How many segments may be in flight at once; 1 (the default) fetches them one after
    // another. Values below 1 mean 1. Raising it while running starts more segments at once;
    // lowering it lets the segments in flight end.
    void setMaxConcurrentSegments(int count);
    int maxConcurrentSegments() const;
    void setOption(quint64 option, const QVariant& value) override;

    // Index of the head segment: the number of segments of the list already in the target.
    int currentSegmentIndex() const { return m_currentIndex; }
    // The child fetching the head segment, if it is still running.
    QSharedPointer<AbstractDownload> currentSegmentDownload() const;
    const AbstractDownloadFilesOpsCompanion& filesOpsCompanion() const { return *m_companion; }

    // Network consumer.
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
    quint64 currentTasks() const override;
    // Running only: task Merging (current, total seconds) during a self-merge, otherwise task
    // Downloading (done bytes, file size).
    AbstractDownloadTasksProgress tasksProgress() const override;
    bool isQueryingInfo() const override;
    bool isStopping() const override;
    bool isFinalizing() const override;

public Q_SLOTS:
    // Start begins or resumes; Stop stops with "GenericError" code 4; others are ignored.
    void doCommand(AbstractDownloadCommand command) override;
    void fileExistsAction(int fileIndex, AbstractDownloadFileExistsAction action) override;

Q_SIGNALS:
    void segmentFinished();

protected:
    AbstractDownloadPersistentInfo& rwInfo() override;

private Q_SLOTS:
    void onFileOperationFinished(AbstractDownloadFilesOpsCompanion::OperationType type,
                                 const AbstractError& error);
    void onSegmentDownloadChanged(bool criticalChange);
    void onSegmentDownloadRunning(bool isRunning);

private:
    struct SegmentInFlight {
        quint64 serial = 0; // tells a late report of a released segment from a new one
        int index = 0;      // into the sources
        QSharedPointer<AbstractDownload> download; // null once the child has stopped
        QString spillPath; // empty: the child writes straight into the target
        int spillSlot = -1;
        qint64 writeOffset = 0; // in the target, when it writes straight into it
        qint64 size = -1;       // known once finished
        bool finished = false;
        bool appending = false; // its spill file is being appended to the target
    };

    enum StateFlag : quint32 {
        Running = 0x1,
        Stopping = 0x2,
        Finalizing = 0x10,
    };

    void start();
    void stop(const AbstractError& error);
    void continueToStart();
    void continueToStop();
    void continueToDownloadSegments();
    void stepDownloadSegments();
    bool canStartAnotherSegment() const;
    qint64 followOffset() const;
    void startNextSegment();
    bool checkNeedStandardFileOp();
    bool hasPendingFilesWork() const;
    void finishFilesWork();
    QSharedPointer<AbstractDownload> createSegmentDownload(const SegmentInFlight& segment,
                                                           AbstractError& error);
    AbstractDownloadPersistentInfo makeSegmentInfo(const AbstractDownloadSourceInfo& source,
                                                   bool resume,
                                                   const SegmentInFlight& segment) const;
    void connectSegmentDownload(AbstractDownload* download);
    void onSegmentConnectionsChanged(const QtConnectionsMap& delta);
    void releaseSegmentDownload(SegmentInFlight& segment);
    void releaseSegmentsInFlight();
    bool stopSegmentDownloads();
    void onSegmentStopped(AbstractDownload* download);
    void commitFinishedSegments();
    bool commitHead();
    bool takeOverFollower();
    void copyHeadIntoRecord(bool critical);
    void appendSpilledHead();
    void onSegmentAppended(quint64 serial, const AbstractError& error);
    void afterSegmentEvent();
    SegmentInFlight* findSegment(const QObject* download);
    AbstractDownload* directHeadDownload() const;
    AbstractDownload* firstSegmentDownload() const;
    bool isAppending() const;
    int freeSpillSlot() const;
    QString spillPath(int slot) const;
    bool attachCurrentSegmentFileStats(bool withCurrent);
    void removeCurrentSegmentDownloadInfo(bool emitChanged);
    void finalizeDownload();
    AbstractError cutTargetFile(qint64 size) const;
    bool canSelfMerge() const;
    bool mergeIfRequired();
    void onPostDownloadJobFinished();
    void setRunning(bool running);
    bool testState(StateFlag flag) const { return (m_state & flag) != 0; }
    void setState(StateFlag flag, bool on);
    qint64 segmentsTotal() const;
    bool allSegmentsDone() const;
    QString targetFilePath() const;
    void log(const QString& text) const;

    AbstractDownloadPersistentInfo m_info;
    AbstractDownloadSettings m_settings;
    AbstractNetworkConsumerSettings m_networkSettings;
    NetworkUsageSettings m_usageSettings;
    quint32 m_state = 0;
    AbstractError m_lastError;
    QDateTime m_lastErrorTime;
    AbstractError m_pendingError;
    QDateTime m_pendingErrorTime;
    QWeakPointer<AbstractDownloadsSimpleFactory> m_factory;
    QSharedPointer<AbstractDownloadsSpeedMeter> m_speedMeter;
    // Declared after the record and the settings, which it works on: destroyed before them.
    std::unique_ptr<AbstractDownloadFilesOpsCompanion> m_companion;
    QList<SegmentInFlight> m_inFlight; // consecutive, from the head
    quint64 m_nextSerial = 1;
    QtConnectionsMap m_connections; // of all the children in flight
    bool m_continuing = false;
    bool m_continueAgain = false;
    QPointer<QThread> m_writersThread;
    QList<AbstractDownloadSourceInfo> m_sources;
    bool m_sourcesComplete = false;
    bool m_mergeRequired = false;
    int m_currentIndex = 0;
};
