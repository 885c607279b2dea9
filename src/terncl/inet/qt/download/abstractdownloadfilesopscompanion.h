#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/inet/qt/download/abstractdownloadfileexistsaction.h>
#include <terncl/inet/qt/download/abstractdownloadfileops.h>
#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>
#include <terncl/inet/qt/download/abstractdownloadsettings.h>
#include <terncl/ternclshared_export.h>

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QWeakPointer>

#include <utility>

class AbstractDownload;
class QThread;
class QtFfmpegAvMerger;

// Carries out, for a complete download that owns it, the operations on its target files that
// follow the transfer, one at a time: the standard operation (the initialize operations of the
// download's files computed by AbstractDownloadFileOps, for example moving the finished file to
// its destination name) and the self-merge (remuxing a fragmented MP4 file into an "mp4" file
// with the A/V merger). It counts nested files operations for the download's
// performingFilesOperations signal, reports the progress of a self-merge and passes file-exists
// questions through.
//
// Works on the download's own record and settings, by reference: the download must outlive it
// (hold it as a member declared after the record). Lives on the download's thread; the file
// operations themselves run on the writers thread.
class TERNCL_EXPORT AbstractDownloadFilesOpsCompanion : public QObject {
    Q_OBJECT

public:
    enum OperationType : qint32 {
        StandardOperation = 0,
        SelfMerge = 1,
    };
    Q_ENUM(OperationType)

    // Code of the "GenericError" when a self-merge cannot start (no merger, no file to remux).
    static constexpr int SelfMergeNotStartedErrorCode = 1;

    AbstractDownloadFilesOpsCompanion(AbstractDownload* download,
                                      AbstractDownloadPersistentInfo& info,
                                      AbstractDownloadSettings& settings,
                                      const QWeakPointer<QtFfmpegAvMerger>& avMerger);
    // Aborts a self-merge in progress and removes its partial result; a standard operation in
    // progress is undone by its file operations object on the writers thread.
    ~AbstractDownloadFilesOpsCompanion() override;

    // Nesting counter behind performingFilesOperations: only the outer edges are signalled.
    void beginPerformFilesOperations();
    void finishPerformFilesOperations();
    bool isPerformingFilesOps() const { return m_filesOpsDepth != 0; }

    bool isPerformingOperation() const { return m_performing; }
    OperationType operation() const { return m_operation; }
    // Current and total of the self-merge in progress, in seconds; -1, -1 when unknown.
    std::pair<qint64, qint64> mergeProgress() const { return {m_mergeCurrent, m_mergeTotal}; }

    // The record is finished, has files, and calcFilesInitOps finds something to do.
    bool isStandardOpRequired() const;
    // Index of the file a self-merge would remux (extension "cmfv", "m4s" or "fmp4"), or -1.
    int selfMergeFileIndex() const;
    static bool isSelfMergeSource(const QString& fileName);

    // Does nothing while an operation runs or when nothing is required.
    void performRequiredStandardOp();
    // Remuxes the fragmented MP4 file into "<name>.mp4". Without such a file, or without a
    // merger, it ends at once with operationFinished(SelfMerge, "GenericError" code 1).
    void performSelfMerge();
    // Aborts a self-merge in progress; a standard operation runs to its end.
    void abortOperation();
    void fileExistsAction(int fileIndex, AbstractDownloadFileExistsAction action);
    void setWritersThread(QThread* thread);

Q_SIGNALS:
    void changed(bool criticalChange);
    void performingFilesOperations(bool performing);
    void fileExistsActionRequired(int fileIndex, const QList<QString>& files);
    void fileExistsActionApplied(int fileIndex, AbstractDownloadFileExistsAction action,
                                 const AbstractError& error);
    void operationFinished(AbstractDownloadFilesOpsCompanion::OperationType type,
                           const AbstractError& error);

private Q_SLOTS:
    void
    onPerformInitializeOpsFinished(const QString& dstPath,
                                   const AbstractDownloadFileOps::FileInitializeOperations& ops,
                                   int okProcessedCount, const AbstractError& error);
    void onMergeProgress(int id, int current, int total);
    void onMergeFinished(int id, const AbstractError& error, qint64 fileSize);

private:
    void makeFileOps();
    void releaseFileOps();
    void beginOperation(OperationType type);
    void endOperation(OperationType type, const AbstractError& error);
    QString selfMergeResultPath(const QString& sourcePath) const;

    AbstractDownload* m_download;
    AbstractDownloadPersistentInfo& m_info;
    AbstractDownloadSettings& m_settings;
    QWeakPointer<QtFfmpegAvMerger> m_avMerger;

    quint32 m_filesOpsDepth = 0;
    bool m_performing = false;
    OperationType m_operation = StandardOperation;
    AbstractDownloadFileOps* m_fileOps = nullptr;
    QPointer<QThread> m_writersThread;
    int m_mergeId = -1;
    qint64 m_mergeCurrent = -1;
    qint64 m_mergeTotal = -1;
    // The self-merge in progress: which file, from where, into where.
    int m_mergeFileIndex = -1;
    QString m_mergeSource;
    QString m_mergeResult;
};

Q_DECLARE_METATYPE(AbstractDownloadFilesOpsCompanion::OperationType)
