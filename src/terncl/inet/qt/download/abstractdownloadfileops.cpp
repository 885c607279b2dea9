#include "abstractdownloadfileops.h"

#include <terncl/core/qtappdefaultlogger.h>
#include <terncl/core/sourceplace.h>
#include <terncl/fs/qt/utils/filenamerules.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

namespace {
using Operation = AbstractDownloadFileOps::FileInitializeOperation;

QString cleanPath(const QString& path) {
    return QDir::cleanPath(path);
}

QString pathIn(const QString& folder, const QString& relativeName) {
    return cleanPath(QDir(folder).filePath(relativeName));
}

bool hasData(const AbstractDownloadFileInfo& file) {
    return file.testFlag(AbstractDownloadFileInfo::Created) || file.downloadedBytes() > 0;
}

Operation makeOperation(int fileIndex, Operation::Kind kind, const QString& source,
                        const QString& target) {
    Operation op;
    op.fileIndex = fileIndex;
    op.kind = kind;
    op.sourcePath = source;
    op.targetPath = target;
    return op;
}

AbstractError fileError(int code, const std::string& place, const QString& text) {
    return AbstractError(code ? code : int(QFileDevice::UnspecifiedError),
                         AbstractError::QtFileError, place, text.toStdString());
}

void warn(const QString& text) {
    terncl::logLine(QtAppLogger::Warning, QtAppLogger::Files,
                    QStringLiteral("[AbstractDownloadFileOps]: ") + text);
}

// The folders mkpath would create for path's folder, outermost first.
QList<QString> missingFolders(const QString& folder) {
    QList<QString> missing;
    QString current = cleanPath(folder);
    while (!current.isEmpty() && !QFileInfo::exists(current)) {
        missing.prepend(current);
        const QString parent = QFileInfo(current).path();
        if (parent == current)
            break;
        current = parent;
    }
    return missing;
}

void registerFileOpsMetaTypes() {
    qRegisterMetaType<AbstractDownloadFileOps::FileInitializeOperation>(
        "AbstractDownloadFileOps::FileInitializeOperation");
    qRegisterMetaType<AbstractDownloadFileOps::FileInitializeOperations>(
        "AbstractDownloadFileOps::FileInitializeOperations");
    qRegisterMetaType<QList<AbstractDownloadFileOps::FileInitializeOperation>>(
        "QList<AbstractDownloadFileOps::FileInitializeOperation>");
}
} // namespace

Q_COREAPP_STARTUP_FUNCTION(registerFileOpsMetaTypes)

bool AbstractDownloadFileOps::FileInitializeOperation::operator==(
    const FileInitializeOperation& other) const {
    return fileIndex == other.fileIndex && kind == other.kind && sourcePath == other.sourcePath &&
           targetPath == other.targetPath && resultPath == other.resultPath;
}

AbstractDownloadFileOps::AbstractDownloadFileOps(QObject* parent)
    : QObject(parent) {}

AbstractDownloadFileOps::~AbstractDownloadFileOps() {
    if (m_performing)
        undoAll();
}

// --- Computing -----------------------------------------------------------------------------------

AbstractDownloadFileOps::FileInitializeOperations
AbstractDownloadFileOps::calcFilesInitOps(const AbstractDownloadSettings&,
                                          const AbstractDownloadPersistentInfo& info,
                                          bool downloadFinished) {
    FileInitializeOperations ops;
    if (info.destinationPath.isEmpty())
        return ops;
    for (int i = 0; i < info.files.size(); ++i) {
        const auto& file = info.files.at(i);
        if (file.name.isEmpty())
            continue;
        const QString wantedName = FileNameRules::unwantedFolderPath(file.name, false);
        const QString finalPath = pathIn(info.destinationPath, wantedName);
        const QString current = currentFilePath(info, i);
        if (!file.isSelected()) {
            const QString unwantedPath =
                pathIn(info.destinationPath, FileNameRules::unwantedFolderPath(wantedName, true));
            if (hasData(file) && current != unwantedPath)
                ops.append(makeOperation(i, Operation::MoveToUnwanted, current, unwantedPath));
            continue;
        }
        if (downloadFinished) {
            if (hasData(file)) {
                if (current != finalPath)
                    ops.append(makeOperation(i, Operation::MoveToFinal, current, finalPath));
            } else if (file.size == 0 && !file.testFlag(AbstractDownloadFileInfo::Initialized)) {
                ops.append(makeOperation(i, Operation::CreateFinal, QString(), finalPath));
            }
        } else if (!hasData(file)) {
            if (file.tmpPath.isEmpty())
                ops.append(makeOperation(i, Operation::CreateFinal, QString(), finalPath));
            else
                ops.append(makeOperation(i, Operation::CreateTemporary, QString(),
                                         cleanPath(file.tmpPath)));
        }
    }
    return ops;
}

bool AbstractDownloadFileOps::applyFilesInitOpsFinished(const FileInitializeOperations& ops,
                                                        int okProcessedCount,
                                                        AbstractDownloadPersistentInfo& info) {
    bool changed = false;
    const qsizetype count = qMin<qsizetype>(okProcessedCount, ops.size());
    for (qsizetype i = 0; i < count; ++i) {
        const auto& op = ops.at(i);
        if (op.resultPath.isEmpty() || op.fileIndex < 0 || op.fileIndex >= info.files.size())
            continue;
        auto& file = info.files[op.fileIndex];
        const AbstractDownloadFileInfo before = file;
        file.flags |= AbstractDownloadFileInfo::Created;
        switch (op.kind) {
        case Operation::CreateTemporary:
            break;
        case Operation::CreateFinal:
        case Operation::MoveToFinal:
            file.name = QDir(info.destinationPath).relativeFilePath(op.resultPath);
            file.tmpPath.clear();
            file.flags |= AbstractDownloadFileInfo::Initialized;
            break;
        case Operation::MoveToUnwanted:
            file.tmpPath = op.resultPath;
            file.flags &= ~quint64(AbstractDownloadFileInfo::Initialized);
            break;
        }
        changed = changed || file != before;
    }
    return changed;
}

QString AbstractDownloadFileOps::currentFilePath(const AbstractDownloadPersistentInfo& info,
                                                 int fileIndex) {
    if (fileIndex < 0 || fileIndex >= info.files.size())
        return {};
    const auto& file = info.files.at(fileIndex);
    if (!file.tmpPath.isEmpty())
        return cleanPath(file.tmpPath);
    return pathIn(info.destinationPath, file.name);
}

void AbstractDownloadFileOps::setExistingFileReaction(
    AbstractDownloadExistingFileReaction reaction) {
    m_reaction = reaction;
}

void AbstractDownloadFileOps::setTruncateFilesWhenCreating(bool truncate) {
    m_truncateWhenCreating = truncate;
}

// --- Running -------------------------------------------------------------------------------------

bool AbstractDownloadFileOps::isOwnThread() const {
    return QThread::currentThread() == thread();
}

void AbstractDownloadFileOps::performInitializeOps(const QString& dstPath,
                                                   const FileInitializeOperations& ops) {
    if (!isOwnThread()) {
        QMetaObject::invokeMethod(this,
                                  [this, dstPath, ops] { performInitializeOps(dstPath, ops); });
        return;
    }
    if (m_performing) {
        Q_EMIT performInitializeOpsFinished(
            dstPath, ops, 0,
            AbstractError(BusyErrorCode, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                          "another files operation is waiting for an answer"));
        return;
    }
    m_performing = true;
    m_dstPath = dstPath;
    m_ops = ops;
    m_next = 0;
    m_undo.clear();
    m_replacedFiles.clear();
    processOps();
}

void AbstractDownloadFileOps::fileExistsAction(int fileIndex,
                                               AbstractDownloadFileExistsAction action) {
    if (!isOwnThread()) {
        QMetaObject::invokeMethod(
            this, [this, fileIndex, action] { fileExistsAction(fileIndex, action); });
        return;
    }
    if (!m_performing || m_askedFileIndex < 0 || m_askedFileIndex != fileIndex)
        return;
    m_askedFileIndex = -1;
    if (action == AbstractDownloadFileExistsAction::Abort) {
        Q_EMIT fileExistsActionApplied(fileIndex, action, AbstractError());
        undoAll();
        finish(0, AbstractError(AbortedErrorCode, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                                "the existing file was kept; the files operation was cancelled"));
        return;
    }
    const AbstractError error = carryOut(m_ops[m_next], action);
    Q_EMIT fileExistsActionApplied(fileIndex, action, error);
    if (error.isSet()) {
        fail(error);
        return;
    }
    ++m_next;
    processOps();
}

void AbstractDownloadFileOps::processOps() {
    while (m_next < m_ops.size()) {
        auto& op = m_ops[m_next];
        op.resultPath.clear();
        auto action = AbstractDownloadFileExistsAction::Rename;
        if (hasConflict(op)) {
            if (m_reaction == AbstractDownloadExistingFileReaction::Ask) {
                m_askedFileIndex = op.fileIndex;
                Q_EMIT fileExistsActionRequired(op.fileIndex, {op.targetPath});
                return;
            }
            if (m_reaction == AbstractDownloadExistingFileReaction::Overwrite)
                action = AbstractDownloadFileExistsAction::Overwrite;
        }
        const AbstractError error = carryOut(op, action);
        if (error.isSet()) {
            fail(error);
            return;
        }
        ++m_next;
    }
    commit();
    finish(int(m_ops.size()), AbstractError());
}

bool AbstractDownloadFileOps::hasConflict(const FileInitializeOperation& op) const {
    if (op.kind == FileInitializeOperation::CreateTemporary)
        return false; // the download's own unfinished data
    return QFileInfo::exists(op.targetPath) && cleanPath(op.sourcePath) != cleanPath(op.targetPath);
}

// Carries out op; with a conflict, action says how (Rename also when there is none: the target
// is then kept as it is).
AbstractError AbstractDownloadFileOps::carryOut(FileInitializeOperation& op,
                                                AbstractDownloadFileExistsAction action) {
    QString target = op.targetPath;
    if (hasConflict(op)) {
        if (action == AbstractDownloadFileExistsAction::Overwrite) {
            if (const auto error = moveAside(target); error.isSet())
                return error;
        } else {
            target = FileNameRules::uniqueFileName(target, QString(), 0, false).path;
        }
    }
    if (const auto error = makeFolderFor(target); error.isSet())
        return error;
    AbstractError error;
    switch (op.kind) {
    case FileInitializeOperation::CreateTemporary:
        error = createFile(target, m_truncateWhenCreating);
        break;
    case FileInitializeOperation::CreateFinal:
        error = createFile(target, false);
        break;
    case FileInitializeOperation::MoveToFinal:
    case FileInitializeOperation::MoveToUnwanted:
        error = moveFile(op.sourcePath, target);
        break;
    }
    if (!error.isSet())
        op.resultPath = target;
    return error;
}

// The file being replaced is renamed next to itself, so that an undo can bring it back.
AbstractError AbstractDownloadFileOps::moveAside(const QString& path) {
    if (!QFileInfo::exists(path))
        return {};
    const QFileInfo info(path);
    const QString aside =
        FileNameRules::uniqueFileName(info.dir().filePath(QStringLiteral(".") + info.fileName() +
                                                          QStringLiteral(".replaced")),
                                      QString(), 0, true)
            .path;
    QFile file(path);
    if (!file.rename(aside)) {
        return fileError(file.error(), TERNCL_SOURCE_PLACE,
                         QStringLiteral("cannot move the existing file %1 aside: %2")
                             .arg(path, file.errorString()));
    }
    m_undo.append({UndoStep::RestoreReplaced, aside, path});
    m_replacedFiles.append(aside);
    return {};
}

AbstractError AbstractDownloadFileOps::makeFolderFor(const QString& path) {
    const QString folder = QFileInfo(path).path();
    const QList<QString> missing = missingFolders(folder);
    if (missing.isEmpty())
        return {};
    if (!QDir().mkpath(folder)) {
        return fileError(QFileDevice::OpenError, TERNCL_SOURCE_PLACE,
                         QStringLiteral("cannot create the folder %1").arg(folder));
    }
    for (const auto& created : missing)
        m_undo.append({UndoStep::RemoveCreatedFolder, created, QString()});
    return {};
}

AbstractError AbstractDownloadFileOps::createFile(const QString& path, bool truncate) {
    const bool existed = QFileInfo::exists(path);
    QFile file(path);
    QIODevice::OpenMode mode = QIODevice::ReadWrite;
    if (truncate)
        mode |= QIODevice::Truncate;
    if (!file.open(mode)) {
        return fileError(file.error(), TERNCL_SOURCE_PLACE,
                         QStringLiteral("cannot create %1: %2").arg(path, file.errorString()));
    }
    file.close();
    if (!existed)
        m_undo.append({UndoStep::RemoveCreatedFile, path, QString()});
    return {};
}

AbstractError AbstractDownloadFileOps::moveFile(const QString& from, const QString& to) {
    QFile file(from);
    if (!file.exists()) {
        return fileError(QFileDevice::RenameError, TERNCL_SOURCE_PLACE,
                         QStringLiteral("cannot move %1: the file does not exist").arg(from));
    }
    // QFile::rename copies across file systems and never replaces an existing target.
    if (!file.rename(to)) {
        return fileError(
            file.error(), TERNCL_SOURCE_PLACE,
            QStringLiteral("cannot move %1 to %2: %3").arg(from, to, file.errorString()));
    }
    m_undo.append({UndoStep::MoveBack, to, from});
    return {};
}

void AbstractDownloadFileOps::fail(const AbstractError& error) {
    undoAll();
    finish(0, error);
}

// Takes every step back, newest first. A step that cannot be undone leaves its file where the
// run put it, which is logged: the data is still on disk.
void AbstractDownloadFileOps::undoAll() {
    while (!m_undo.isEmpty()) {
        const UndoStep step = m_undo.takeLast();
        bool ok = true;
        switch (step.kind) {
        case UndoStep::MoveBack:
        case UndoStep::RestoreReplaced:
            ok = QFile::rename(step.from, step.to);
            break;
        case UndoStep::RemoveCreatedFile:
            ok = QFile::remove(step.from);
            break;
        case UndoStep::RemoveCreatedFolder:
            QDir().rmdir(step.from); // only if still empty; a folder left behind loses nothing
            break;
        }
        if (!ok)
            warn(QStringLiteral("cannot undo a files operation: %1 stays in place").arg(step.from));
    }
    m_replacedFiles.clear();
}

void AbstractDownloadFileOps::commit() {
    for (const auto& replaced : std::as_const(m_replacedFiles)) {
        if (!QFile::remove(replaced))
            warn(QStringLiteral("cannot remove the replaced file %1").arg(replaced));
    }
    m_replacedFiles.clear();
    m_undo.clear();
}

void AbstractDownloadFileOps::finish(int okProcessedCount, const AbstractError& error) {
    m_performing = false;
    m_askedFileIndex = -1;
    if (okProcessedCount == 0) {
        for (auto& op : m_ops)
            op.resultPath.clear();
    }
    const FileInitializeOperations ops = std::exchange(m_ops, {});
    Q_EMIT performInitializeOpsFinished(m_dstPath, ops, okProcessedCount, error);
}
