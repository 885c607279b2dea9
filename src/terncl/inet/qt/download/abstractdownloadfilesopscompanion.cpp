#include "abstractdownloadfilesopscompanion.h"

#include "abstractdownload.h"

#include <terncl/core/qtqobjectstracker.h>
#include <terncl/core/sourceplace.h>
#include <terncl/fs/qt/utils/filenamerules.h>
#include <terncl/qt/media/ffmpeg/qtffmpegavmerger.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

namespace {
const QString mergedExtension = QStringLiteral("mp4");

// "name.m4s" -> "name.mp4"; a name without such an extension gets ".mp4" appended.
QString withMergedExtension(const QString& path) {
    const QString extension = QFileInfo(path).suffix();
    if (AbstractDownloadFilesOpsCompanion::isSelfMergeSource(path))
        return path.left(path.size() - extension.size()) + mergedExtension;
    return path + QLatin1Char('.') + mergedExtension;
}

void registerCompanionMetaTypes() {
    qRegisterMetaType<AbstractDownloadFilesOpsCompanion::OperationType>(
        "AbstractDownloadFilesOpsCompanion::OperationType");
}
} // namespace

Q_COREAPP_STARTUP_FUNCTION(registerCompanionMetaTypes)

AbstractDownloadFilesOpsCompanion::AbstractDownloadFilesOpsCompanion(
    AbstractDownload* download, AbstractDownloadPersistentInfo& info,
    AbstractDownloadSettings& settings, const QWeakPointer<QtFfmpegAvMerger>& avMerger)
    : m_download(download)
    , m_info(info)
    , m_settings(settings)
    , m_avMerger(avMerger) {
    if (const auto tracker = QtQObjectsTracker::instance())
        tracker->registerObject(this, "AbstractDownloadFilesOpsCompanion");
}

AbstractDownloadFilesOpsCompanion::~AbstractDownloadFilesOpsCompanion() {
    if (m_performing && m_operation == SelfMerge && m_mergeId >= 0) {
        if (const auto merger = m_avMerger.toStrongRef()) {
            merger->disconnect(this);
            merger->abort(m_mergeId);
        }
        QFile::remove(m_mergeResult);
    }
    releaseFileOps();
}

void AbstractDownloadFilesOpsCompanion::beginPerformFilesOperations() {
    if (++m_filesOpsDepth == 1)
        Q_EMIT performingFilesOperations(true);
}

void AbstractDownloadFilesOpsCompanion::finishPerformFilesOperations() {
    if (m_filesOpsDepth == 0)
        return;
    if (--m_filesOpsDepth == 0)
        Q_EMIT performingFilesOperations(false);
}

bool AbstractDownloadFilesOpsCompanion::isStandardOpRequired() const {
    return m_info.isFinished() && m_info.hasFiles() &&
           !AbstractDownloadFileOps::calcFilesInitOps(m_settings, m_info, true).isEmpty();
}

int AbstractDownloadFilesOpsCompanion::selfMergeFileIndex() const {
    for (int i = 0; i < m_info.files.size(); ++i) {
        if (isSelfMergeSource(m_info.files.at(i).name))
            return i;
    }
    return -1;
}

bool AbstractDownloadFilesOpsCompanion::isSelfMergeSource(const QString& fileName) {
    const QString extension = QFileInfo(fileName).suffix().toLower();
    return extension == QLatin1String("cmfv") || extension == QLatin1String("m4s") ||
           extension == QLatin1String("fmp4");
}

// --- Standard operation --------------------------------------------------------------------------

void AbstractDownloadFilesOpsCompanion::performRequiredStandardOp() {
    if (m_performing)
        return;
    const auto ops = AbstractDownloadFileOps::calcFilesInitOps(m_settings, m_info, true);
    if (ops.isEmpty())
        return;
    beginOperation(StandardOperation);
    makeFileOps();
    // Always queued, so that the end never arrives inside this call.
    QMetaObject::invokeMethod(
        m_fileOps,
        [fileOps = m_fileOps, dstPath = m_info.destinationPath, ops] {
            fileOps->performInitializeOps(dstPath, ops);
        },
        Qt::QueuedConnection);
}

void AbstractDownloadFilesOpsCompanion::makeFileOps() {
    if (m_fileOps)
        return;
    m_fileOps = new AbstractDownloadFileOps;
    auto reaction = m_settings.existingFileReaction;
    if (reaction == AbstractDownloadExistingFileReaction::Ask &&
        !(m_download && m_download->interactive()))
        reaction = AbstractDownloadExistingFileReaction::RenameToUniqueName;
    m_fileOps->setExistingFileReaction(reaction);
    m_fileOps->setTruncateFilesWhenCreating(
        m_settings.testFlag(AbstractDownloadSettings::TruncateFilesWhenCreating));
    if (m_writersThread)
        m_fileOps->moveToThread(m_writersThread);
    if (const auto tracker = QtQObjectsTracker::instance())
        tracker->registerObject(m_fileOps, "AbstractDownloadFileOps");
    connect(m_fileOps, &AbstractDownloadFileOps::performInitializeOpsFinished, this,
            &AbstractDownloadFilesOpsCompanion::onPerformInitializeOpsFinished);
    connect(m_fileOps, &AbstractDownloadFileOps::fileExistsActionRequired, this,
            &AbstractDownloadFilesOpsCompanion::fileExistsActionRequired);
    connect(m_fileOps, &AbstractDownloadFileOps::fileExistsActionApplied, this,
            &AbstractDownloadFilesOpsCompanion::fileExistsActionApplied);
}

void AbstractDownloadFilesOpsCompanion::releaseFileOps() {
    if (!m_fileOps)
        return;
    m_fileOps->disconnect(this);
    m_fileOps->deleteLater();
    m_fileOps = nullptr;
}

void AbstractDownloadFilesOpsCompanion::onPerformInitializeOpsFinished(
    const QString&, const AbstractDownloadFileOps::FileInitializeOperations& ops,
    int okProcessedCount, const AbstractError& error) {
    if (!m_performing || m_operation != StandardOperation)
        return;
    releaseFileOps();
    if (!error.isSet()) {
        AbstractDownloadFileOps::applyFilesInitOpsFinished(ops, okProcessedCount, m_info);
        Q_EMIT changed(true);
    }
    endOperation(StandardOperation, error);
}

void AbstractDownloadFilesOpsCompanion::fileExistsAction(int fileIndex,
                                                         AbstractDownloadFileExistsAction action) {
    if (m_fileOps)
        m_fileOps->fileExistsAction(fileIndex, action);
}

void AbstractDownloadFilesOpsCompanion::setWritersThread(QThread* thread) {
    m_writersThread = thread;
}

// --- Self-merge ----------------------------------------------------------------------------------

void AbstractDownloadFilesOpsCompanion::performSelfMerge() {
    if (m_performing)
        return;
    beginOperation(SelfMerge);
    const auto merger = m_avMerger.toStrongRef();
    m_mergeFileIndex = selfMergeFileIndex();
    if (!merger || m_mergeFileIndex < 0) {
        const char* reason = merger ? "no fragmented MP4 file to remux" : "no audio/video merger";
        endOperation(SelfMerge,
                     AbstractError(SelfMergeNotStartedErrorCode, AbstractError::GenericError,
                                   TERNCL_SOURCE_PLACE, reason));
        return;
    }
    m_mergeSource = AbstractDownloadFileOps::currentFilePath(m_info, m_mergeFileIndex);
    m_mergeResult = selfMergeResultPath(m_mergeSource);
    connect(merger.data(), &QtFfmpegAvMerger::progress, this,
            &AbstractDownloadFilesOpsCompanion::onMergeProgress, Qt::UniqueConnection);
    connect(merger.data(), &QtFfmpegAvMerger::finished, this,
            &AbstractDownloadFilesOpsCompanion::onMergeFinished, Qt::UniqueConnection);
    m_mergeId = merger->nextId();
    merger->merge(m_mergeId, m_mergeSource, QString(), m_mergeResult, mergedExtension);
}

// Next to the source, never over an existing file: the standard operation that follows applies
// the existing-file reaction at the destination.
QString AbstractDownloadFilesOpsCompanion::selfMergeResultPath(const QString& sourcePath) const {
    return FileNameRules::uniqueFileName(withMergedExtension(sourcePath), QString(), 0, false).path;
}

void AbstractDownloadFilesOpsCompanion::onMergeProgress(int id, int current, int total) {
    if (!m_performing || m_operation != SelfMerge || id != m_mergeId)
        return;
    m_mergeCurrent = current;
    m_mergeTotal = total;
    Q_EMIT changed(false);
}

void AbstractDownloadFilesOpsCompanion::onMergeFinished(int id, const AbstractError& error,
                                                        qint64 fileSize) {
    if (!m_performing || m_operation != SelfMerge || id != m_mergeId)
        return;
    m_mergeId = -1;
    m_mergeCurrent = -1;
    m_mergeTotal = -1;
    if (error.isSet()) {
        QFile::remove(m_mergeResult);
    } else if (m_mergeFileIndex < m_info.files.size()) {
        QFile::remove(m_mergeSource);
        auto& file = m_info.files[m_mergeFileIndex];
        file.name = withMergedExtension(file.name);
        const QString finalPath = QDir::cleanPath(QDir(m_info.destinationPath).filePath(file.name));
        file.tmpPath = m_mergeResult == finalPath ? QString() : m_mergeResult;
        file.size = fileSize;
        file.sections = {{0, fileSize, fileSize}};
        file.flags |= AbstractDownloadFileInfo::Created;
        Q_EMIT changed(true);
    }
    endOperation(SelfMerge, error);
}

void AbstractDownloadFilesOpsCompanion::abortOperation() {
    if (!m_performing || m_operation != SelfMerge || m_mergeId < 0)
        return;
    if (const auto merger = m_avMerger.toStrongRef())
        merger->abort(m_mergeId);
}

// --- Both ----------------------------------------------------------------------------------------

void AbstractDownloadFilesOpsCompanion::beginOperation(OperationType type) {
    m_performing = true;
    m_operation = type;
    beginPerformFilesOperations();
}

// Listeners of performingFilesOperations(false) see a standard operation still in progress, and
// a self-merge already over.
void AbstractDownloadFilesOpsCompanion::endOperation(OperationType type,
                                                     const AbstractError& error) {
    if (type == SelfMerge)
        m_performing = false;
    finishPerformFilesOperations();
    m_performing = false;
    Q_EMIT operationFinished(type, error);
}
