#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/inet/qt/download/abstractdownloadexistingfilereaction.h>
#include <terncl/inet/qt/download/abstractdownloadfileexistsaction.h>
#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>
#include <terncl/inet/qt/download/abstractdownloadsettings.h>
#include <terncl/ternclshared_export.h>

#include <QList>
#include <QMetaType>
#include <QObject>
#include <QString>

// Puts a download's files where they belong on disk. The operations are computed from the
// record on the download's thread (calcFilesInitOps, no disk access) and carried out here, on
// the thread this object lives on (the writers thread), so that a slow move never blocks the
// download:
// - a finished file moves from its temporary path to its destination name, folders created;
// - a deselected file moves into the ".unwanted" folder;
// - a file not created yet is created, at its temporary path or at its destination name.
// A destination that exists already is handled by the existing-file reaction: a unique name
// next to it, overwrite, or a question (fileExistsActionRequired, answered by fileExistsAction).
// Either every operation succeeds or all of them are undone: a failure leaves each file where
// it was and reports an error of category "QtFileError". An overwritten file is kept aside
// until the whole run has succeeded, so that undoing can bring it back.
//
// Public slots may be called from any thread; they re-post themselves to this object's thread.
// The results go back to the record with applyFilesInitOpsFinished on the download's thread.
class TERNCL_EXPORT AbstractDownloadFileOps : public QObject {
    Q_OBJECT

public:
    // One thing to do to one file, with where it ended up once done.
    struct FileInitializeOperation {
        enum Kind : qint32 {
            CreateTemporary = 0, // create the file at its temporary path; existing data is kept
                                 // unless files are truncated when created
            CreateFinal = 1,     // create the file at its destination name
            MoveToFinal = 2,     // move the data to the destination name
            MoveToUnwanted = 3,  // move the data of a deselected file into ".unwanted"
        };

        int fileIndex = -1;
        Kind kind = MoveToFinal;
        QString sourcePath; // moves: where the data is now
        QString targetPath; // where the file should end up
        QString resultPath; // where it did end up; set once the operation succeeded

        bool operator==(const FileInitializeOperation& other) const;
        bool operator!=(const FileInitializeOperation& other) const { return !(*this == other); }
    };
    using FileInitializeOperations = QList<FileInitializeOperation>;

    // Code of the "GenericError" a run ends with when the answer to a question was Abort.
    static constexpr int AbortedErrorCode = 4;
    // Code of the "GenericError" for a run asked for while another one waits for an answer.
    static constexpr int BusyErrorCode = 3;

    explicit AbstractDownloadFileOps(QObject* parent = nullptr);
    // A run still waiting for an answer is undone.
    ~AbstractDownloadFileOps() override;

    // The operations the record needs. With downloadFinished the selected files go to their
    // destination names; otherwise only files not created yet are created. Deselected files
    // with data go to ".unwanted" either way. A file "has data" when it is flagged Created or
    // has downloaded bytes; an empty finished file without data is created at its destination.
    // Reads the record only, never the disk; the rules here need nothing from the settings.
    static FileInitializeOperations calcFilesInitOps(const AbstractDownloadSettings& settings,
                                                     const AbstractDownloadPersistentInfo& info,
                                                     bool downloadFinished);
    // Writes the results of the first okProcessedCount operations into the record: new names,
    // temporary paths and the Created and Initialized flags. Returns whether anything changed.
    static bool applyFilesInitOpsFinished(const FileInitializeOperations& ops, int okProcessedCount,
                                          AbstractDownloadPersistentInfo& info);
    // Where the file's data is now: its temporary path, or its name in the destination folder.
    static QString currentFilePath(const AbstractDownloadPersistentInfo& info, int fileIndex);

    // Both are read when a run starts; set them before performInitializeOps. Ask waits for
    // fileExistsAction: the owner of a download that must not ask passes RenameToUniqueName.
    void setExistingFileReaction(AbstractDownloadExistingFileReaction reaction);
    void setTruncateFilesWhenCreating(bool truncate);

public Q_SLOTS:
    // Carries out ops in order; ends with performInitializeOpsFinished, whose okProcessedCount
    // is ops.size() on success and 0 after a failure (everything undone).
    void performInitializeOps(const QString& dstPath,
                              const AbstractDownloadFileOps::FileInitializeOperations& ops);
    // The answer to fileExistsActionRequired. Answers for another file, or when nothing is
    // asked, are ignored.
    void fileExistsAction(int fileIndex, AbstractDownloadFileExistsAction action);

Q_SIGNALS:
    void performInitializeOpsFinished(const QString& dstPath,
                                      const AbstractDownloadFileOps::FileInitializeOperations& ops,
                                      int okProcessedCount, const AbstractError& error);
    // files holds the existing file's path.
    void fileExistsActionRequired(int fileIndex, const QList<QString>& files);
    void fileExistsActionApplied(int fileIndex, AbstractDownloadFileExistsAction action,
                                 const AbstractError& error);

private:
    // How to take back one step of a run.
    struct UndoStep {
        enum Kind { MoveBack, RestoreReplaced, RemoveCreatedFile, RemoveCreatedFolder };
        Kind kind = MoveBack;
        QString from;
        QString to;
    };

    bool isOwnThread() const;
    void processOps();
    AbstractError carryOut(FileInitializeOperation& op, AbstractDownloadFileExistsAction action);
    bool hasConflict(const FileInitializeOperation& op) const;
    AbstractError moveAside(const QString& path);
    AbstractError makeFolderFor(const QString& path);
    AbstractError createFile(const QString& path, bool truncate);
    AbstractError moveFile(const QString& from, const QString& to);
    void fail(const AbstractError& error);
    void undoAll();
    void commit();
    void finish(int okProcessedCount, const AbstractError& error);

    AbstractDownloadExistingFileReaction m_reaction =
        AbstractDownloadExistingFileReaction::RenameToUniqueName;
    bool m_truncateWhenCreating = false;

    bool m_performing = false;
    QString m_dstPath;
    FileInitializeOperations m_ops;
    qsizetype m_next = 0;
    int m_askedFileIndex = -1; // the file whose question is waiting for an answer
    QList<UndoStep> m_undo;
    QList<QString> m_replacedFiles; // overwritten files kept aside until the run succeeds
};

Q_DECLARE_METATYPE(AbstractDownloadFileOps::FileInitializeOperation)
