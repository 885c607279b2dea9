#include "independentsegmentsdownloader.h"

#include "abstractdownloadfileops.h"
#include "abstractdownloadssimplefactory.h"
#include "abstractdownloadsspeedmeter.h"

#include <terncl/core/qtappdefaultlogger.h>
#include <terncl/core/qtqobjectstracker.h>
#include <terncl/core/sourceplace.h>

#include <QAuthenticator>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QThread>

const QString IndependentSegmentsDownloader::CurrentSegmentSourceKey =
    QStringLiteral("currentSegmentSource");
const QString IndependentSegmentsDownloader::CurrentSegmentFileKey =
    QStringLiteral("currentSegmentFile");
const QString IndependentSegmentsDownloader::CurrentSegmentResumeKey =
    QStringLiteral("currentSegmentDownloadHasResumeSupport");
const QString IndependentSegmentsDownloader::DownloadedSegmentsTotalKey =
    QStringLiteral("downloadedSegmentsTotalBytes");
const QString IndependentSegmentsDownloader::SegmentSourceKey = QStringLiteral("segmentSource");

namespace {
AbstractError genericError(int code, const std::string& place, const QString& text) {
    return AbstractError(code, AbstractError::GenericError, place, text.toStdString());
}

// Records read back from JSON hold maps (or JSON objects) where they were written as hashes.
QVariantHash toHash(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::QVariantHash:
        return value.toHash();
    case QMetaType::QVariantMap: {
        const QVariantMap map = value.toMap();
        return QVariantHash(map.cbegin(), map.cend());
    }
    case QMetaType::QJsonObject:
        return value.toJsonObject().toVariantHash();
    default:
        return {};
    }
}

// The size a finished segment adds to the total.
qint64 finishedSegmentSize(const AbstractDownloadPersistentInfo& info) {
    if (info.files.isEmpty())
        return 0;
    const auto& file = info.files.constFirst();
    return file.size >= 0 ? file.size : file.downloadedBytes();
}
} // namespace

IndependentSegmentsDownloader::IndependentSegmentsDownloader(
    qint64 id, QWeakPointer<AbstractDownloadsSimpleFactory> factory,
    QSharedPointer<AbstractDownloadsSpeedMeter> speedMeter,
    const QWeakPointer<QtFfmpegAvMerger>& avMerger, QObject* parent)
    : AbstractDownload(id, parent)
    , m_factory(std::move(factory))
    , m_speedMeter(std::move(speedMeter))
    , m_companion(
          std::make_unique<AbstractDownloadFilesOpsCompanion>(this, m_info, m_settings, avMerger)) {
    using Companion = AbstractDownloadFilesOpsCompanion;
    const Companion* companion = m_companion.get();
    connect(companion, &Companion::operationFinished, this,
            &IndependentSegmentsDownloader::onFileOperationFinished);
    connect(companion, &Companion::changed, this, &AbstractDownload::changed);
    connect(companion, &Companion::performingFilesOperations, this,
            &AbstractDownload::signalPerformingFilesOperations);
    connect(companion, &Companion::fileExistsActionRequired, this,
            &AbstractDownload::fileExistsActionRequired);
    connect(companion, &Companion::fileExistsActionApplied, this,
            &AbstractDownload::fileExistsActionApplied);
    if (const auto tracker = QtQObjectsTracker::instance())
        tracker->registerObject(this, "IndependentSegmentsDownloader");
}

IndependentSegmentsDownloader::~IndependentSegmentsDownloader() {
    m_companion->disconnect(this);
    if (m_segment && m_segment->isRunning()) {
        m_segment->disconnect(this);
        m_segment->doCommand(AbstractDownloadCommand::Stop);
    }
    releaseCurrentSegmentDownload();
}

void IndependentSegmentsDownloader::setSegmentsSources(
    const QList<AbstractDownloadSourceInfo>& sources, bool sourcesComplete, bool mergeRequired) {
    if (isRunning())
        return;
    m_sources = sources;
    m_sourcesComplete = sourcesComplete;
    m_mergeRequired = mergeRequired;
    m_currentIndex = 0;
    releaseCurrentSegmentDownload();
}

// --- Commands ------------------------------------------------------------------------------------

void IndependentSegmentsDownloader::doCommand(AbstractDownloadCommand command) {
    switch (command) {
    case AbstractDownloadCommand::Start:
        start();
        break;
    case AbstractDownloadCommand::Stop:
        stop(genericError(StopCommandCode, TERNCL_SOURCE_PLACE, QStringLiteral("stopped")));
        break;
    default:
        break;
    }
}

void IndependentSegmentsDownloader::fileExistsAction(int fileIndex,
                                                     AbstractDownloadFileExistsAction action) {
    m_companion->fileExistsAction(fileIndex, action);
}

// A finished record starts only for the files work it still owes (a remux, a move that was
// stopped or failed); its segments are never fetched again.
void IndependentSegmentsDownloader::start() {
    if (isRunning() || (m_info.isFinished() && !hasPendingFilesWork()))
        return;
    const bool hadError = m_lastError.isSet();
    m_lastError = {};
    m_lastErrorTime = {};
    log(QStringLiteral("starting at segment %1 of %2").arg(m_currentIndex).arg(m_sources.size()));
    setRunning(true);
    if (hadError)
        Q_EMIT changed(false);
    continueToStart();
}

void IndependentSegmentsDownloader::continueToStart() {
    if (!isRunning())
        return;
    if (testState(Stopping)) {
        continueToStop();
        return;
    }
    if (testState(Finalizing))
        return;
    if (m_info.isFinished()) {
        finishFilesWork();
        return;
    }
    if (checkNeedStandardFileOp())
        return;
    continueToDownloadSegments();
}

bool IndependentSegmentsDownloader::checkNeedStandardFileOp() {
    if (m_companion->isPerformingOperation())
        return true;
    if (!m_companion->isStandardOpRequired())
        return false;
    log(QStringLiteral("performing the files operation..."));
    m_companion->performRequiredStandardOp();
    return true;
}

bool IndependentSegmentsDownloader::hasPendingFilesWork() const {
    return canSelfMerge() || m_companion->isStandardOpRequired();
}

void IndependentSegmentsDownloader::finishFilesWork() {
    if (mergeIfRequired() || checkNeedStandardFileOp())
        return;
    onPostDownloadJobFinished();
}

void IndependentSegmentsDownloader::stop(const AbstractError& error) {
    if (!isRunning())
        return;
    if (!testState(Stopping)) {
        setState(Stopping, true);
        Q_EMIT stopping();
    }
    if (error.isSet() && error != m_pendingError) {
        m_pendingError = error;
        m_pendingErrorTime = QDateTime::currentDateTime();
    }
    if (m_companion->isPerformingOperation())
        m_companion->abortOperation();
    continueToStop();
}

void IndependentSegmentsDownloader::continueToStop() {
    if (!isRunning() || !testState(Stopping))
        return;
    if (testState(Finalizing) || m_companion->isPerformingOperation())
        return;
    if (m_segment) {
        if (m_segment->isRunning()) {
            if (!m_segment->isStopping())
                m_segment->doCommand(AbstractDownloadCommand::Stop); // may finish the stop
            return;
        }
        releaseCurrentSegmentDownload();
    }
    const AbstractError pending = std::exchange(m_pendingError, {});
    const QDateTime pendingTime = std::exchange(m_pendingErrorTime, {});
    if (pending.isSet() && pending != m_lastError) {
        m_lastError = pending;
        m_lastErrorTime = pendingTime;
        log(QStringLiteral("stopped with error: ") + pending.toText());
        Q_EMIT changed(true);
    }
    setRunning(false);
}

// --- Segments ------------------------------------------------------------------------------------

void IndependentSegmentsDownloader::continueToDownloadSegments() {
    if (!isRunning())
        return;
    if (testState(Stopping)) {
        continueToStop();
        return;
    }
    if (testState(Finalizing) || m_companion->isPerformingOperation())
        return;
    if (m_segment) {
        if (m_segment->isRunning())
            return;
        releaseCurrentSegmentDownload();
    }
    if (m_currentIndex < m_sources.size()) {
        if (const AbstractError error = createNextSegmentDownload(); error.isSet()) {
            stop(error);
            return;
        }
        const QSharedPointer<AbstractDownload> segment = m_segment;
        segment->doCommand(AbstractDownloadCommand::Start);
        // A child that neither ran nor said so would leave the download waiting for ever.
        if (m_segment == segment && isRunning() && !segment->isRunning())
            onCurrentSegmentStopped();
        return;
    }
    if (m_sourcesComplete) {
        finalizeDownload();
        return;
    }
    // Everything supplied so far is done: wait, stopped, for the application to supply more.
    log(QStringLiteral("waiting for more segments"));
    m_sources.clear();
    m_currentIndex = 0;
    stop(AbstractError());
}

AbstractError IndependentSegmentsDownloader::createNextSegmentDownload() {
    const auto factory = m_factory.toStrongRef();
    if (!factory) {
        return genericError(GenericFailureCode, TERNCL_SOURCE_PLACE,
                            QStringLiteral("the downloads factory is gone"));
    }
    const AbstractDownloadSourceInfo& source = m_sources.at(m_currentIndex);
    auto& customData = m_info.customData;
    const bool resume =
        customData.contains(CurrentSegmentSourceKey) && customData.contains(CurrentSegmentFileKey);
    if (resume) {
        const auto stored = AbstractDownloadSourceInfo::fromVariantHash(
            toHash(customData.value(CurrentSegmentSourceKey)));
        if (stored != source) {
            return genericError(InconsistentSegmentsCode, TERNCL_SOURCE_PLACE,
                                QStringLiteral("the half-done segment %1 is not segment %2 of the "
                                               "list (%3)")
                                    .arg(stored.url.toString())
                                    .arg(m_currentIndex)
                                    .arg(source.url.toString()));
        }
    } else {
        customData.insert(CurrentSegmentSourceKey, source.toVariantHash());
    }
    AbstractError error;
    const auto segment = factory->createDownload(makeSegmentInfo(source, resume), error);
    if (!segment) {
        return genericError(ChildCreationFailedCode, TERNCL_SOURCE_PLACE,
                            QStringLiteral("cannot create the download of segment %1: %2")
                                .arg(m_currentIndex)
                                .arg(error.toText()));
    }
    log(QStringLiteral("%1 segment %2 of %3: %4")
            .arg(resume ? QStringLiteral("resuming") : QStringLiteral("fetching"))
            .arg(m_currentIndex)
            .arg(m_sources.size())
            .arg(source.url.toString()));
    m_segment = segment;
    AbstractDownloadSettings settings = m_settings;
    settings.flags &= ~qint32(AbstractDownloadSettings::TruncateFilesWhenCreating);
    segment->setSettings(settings);
    segment->setInteractive(false);
    segment->setNetworkSettings(m_networkSettings);
    segment->setNetworkUsageSettings(m_usageSettings);
    if (m_writersThread)
        segment->setWritersThread(m_writersThread);
    if (m_speedMeter)
        m_speedMeter->registerDownload(segment.data());
    connectSegmentDownload(segment.data());
    return {};
}

AbstractDownloadPersistentInfo
IndependentSegmentsDownloader::makeSegmentInfo(const AbstractDownloadSourceInfo& source,
                                               bool resume) const {
    AbstractDownloadPersistentInfo info;
    setupChildOriginatorName(info);
    info.downloadType = AbstractDownloadType::Resource;
    info.resourceUrl = source.url.toString();
    info.name = m_info.name;
    info.title = m_info.title;
    info.referrer = m_info.referrer;
    info.requestData = m_info.requestData;
    info.destinationPath = m_info.destinationPath;
    info.creationTime = QDateTime::currentDateTime();
    info.customData.insert(SegmentSourceKey, source.toVariantHash());
    constexpr quint64 inherited =
        AbstractDownloadPersistentInfo::Private | AbstractDownloadPersistentInfo::SizeQueryOnly;
    info.flags = (m_info.flags & inherited) | AbstractDownloadPersistentInfo::PartOfParentDownload;

    AbstractDownloadFileInfo file;
    if (resume) {
        file = AbstractDownloadFileInfo::fromVariantHash(
            toHash(m_info.customData.value(CurrentSegmentFileKey)));
        // Without resume support the half-done segment is fetched again from its first byte.
        if (!m_info.customData.value(CurrentSegmentResumeKey).toBool()) {
            file.sections.clear();
            file.size = -1;
        }
    } else if (m_info.hasFiles()) {
        file = m_info.files.constFirst();
        file.sections.clear();
        file.size = -1;
        file.flags = 0;
        file.resumeSupport = AbstractDownloadFileInfo::ResumeUnknown;
    }
    if (const QString target = targetFilePath(); !target.isEmpty())
        file.tmpPath = target;
    file.writeOffset = segmentsTotal();
    info.files = {file};
    return info;
}

void IndependentSegmentsDownloader::connectSegmentDownload(AbstractDownload* download) {
    connect(download, &AbstractDownload::changed, this,
            &IndependentSegmentsDownloader::onSegmentDownloadChanged);
    connect(download, &AbstractNetworkConsumerWithExtraTasks::running, this,
            &IndependentSegmentsDownloader::onSegmentDownloadRunning);
    connect(download, &AbstractNetworkConsumer::connectionsMapChangedDelta, this,
            &AbstractNetworkConsumer::connectionsMapChangedDelta);
    connect(download, &AbstractDownload::sendingRequestHeaders, this,
            &AbstractDownload::sendingRequestHeaders);
    connect(download, &AbstractDownload::gotResponseHeaders, this,
            &AbstractDownload::gotResponseHeaders);
    // Both carry out-parameters: the application answers within the emitting call.
    connect(download, &AbstractNetworkConsumer::authenticationRequired, this,
            &AbstractNetworkConsumer::authenticationRequired, Qt::DirectConnection);
    connect(download, &AbstractNetworkConsumer::sslAcceptUnknownHostRequired, this,
            &AbstractNetworkConsumer::sslAcceptUnknownHostRequired, Qt::DirectConnection);
}

// The child is deleted later: this may run inside one of its own signals.
void IndependentSegmentsDownloader::releaseCurrentSegmentDownload() {
    if (!m_segment)
        return;
    const QSharedPointer<AbstractDownload> segment = std::exchange(m_segment, {});
    segment->disconnect(this);
    segment->setParent(nullptr);
    if (auto* app = QCoreApplication::instance())
        QMetaObject::invokeMethod(
            app, [segment] {}, Qt::QueuedConnection);
}

void IndependentSegmentsDownloader::onSegmentDownloadChanged(bool criticalChange) {
    if (!m_segment || sender() != m_segment.data())
        return;
    const auto& segmentInfo = m_segment->info();
    if (segmentInfo.files.isEmpty())
        return;
    const auto& segmentFile = segmentInfo.files.constFirst();
    bool critical = criticalChange;
    if (m_info.files.isEmpty()) {
        AbstractDownloadFileInfo file;
        file.size = -1;
        file.tmpPath = segmentFile.tmpPath; // where the child chose to write
        m_info.files.append(file);
        critical = true;
    }
    auto& file = m_info.files.first();
    file.name = segmentFile.name;
    file.contentType = segmentFile.contentType;
    file.lastModified = segmentFile.lastModified;
    attachCurrentSegmentFileStats(true);
    if (segmentFile.downloadedBytes() > 0) {
        auto& customData = m_info.customData;
        if (!customData.contains(CurrentSegmentFileKey) && segmentsTotal() == 0)
            file.fileType = segmentFile.fileType;
        file.flags |= AbstractDownloadFileInfo::Created;
        customData.insert(CurrentSegmentFileKey, segmentFile.toVariantHash());
        customData.insert(CurrentSegmentResumeKey,
                          segmentFile.resumeSupport == AbstractDownloadFileInfo::ResumeSupported);
    }
    Q_EMIT changed(critical);
    Q_EMIT progressChanged(file.downloadedBytes(), file.size);
}

void IndependentSegmentsDownloader::onSegmentDownloadRunning(bool isRunning) {
    if (isRunning || !m_segment || sender() != m_segment.data() || !this->isRunning())
        return;
    onCurrentSegmentStopped();
}

// A finished segment is counted even while stopping, so that a restart goes on with the next
// one instead of fetching it again.
void IndependentSegmentsDownloader::onCurrentSegmentStopped() {
    const AbstractDownloadPersistentInfo& segmentInfo = m_segment->info();
    if (segmentInfo.isFinished()) {
        const qint64 size = finishedSegmentSize(segmentInfo);
        m_info.customData.insert(DownloadedSegmentsTotalKey, segmentsTotal() + size);
        releaseCurrentSegmentDownload();
        removeCurrentSegmentDownloadInfo(false);
        ++m_currentIndex;
        log(QStringLiteral("segment %1 finished: %2 bytes").arg(m_currentIndex - 1).arg(size));
        Q_EMIT segmentFinished();
        Q_EMIT changed(false);
        if (!isRunning())
            return;
        if (testState(Stopping))
            continueToStop();
        else if (size != 0)
            continueToDownloadSegments();
        else
            stop(genericError(InconsistentSegmentsCode, TERNCL_SOURCE_PLACE,
                              QStringLiteral("segment %1 has no data").arg(m_currentIndex - 1)));
        return;
    }
    if (testState(Stopping)) {
        continueToStop();
        return;
    }
    const AbstractError segmentError = m_segment->lastError();
    stop(segmentError.isSet()
             ? segmentError
             : genericError(GenericFailureCode, TERNCL_SOURCE_PLACE,
                            QStringLiteral("segment %1 stopped unfinished").arg(m_currentIndex)));
}

// Keeps the file's size and sections equal to the finished segments followed by the current
// one, whose sections are relative to the segment itself.
bool IndependentSegmentsDownloader::attachCurrentSegmentFileStats(bool withCurrent) {
    if (m_info.files.isEmpty())
        return false;
    const qint64 total = segmentsTotal();
    const bool isLastSegment = m_sourcesComplete && m_currentIndex == m_sources.size() - 1;
    const AbstractDownloadFileInfo* current = nullptr;
    if (withCurrent && m_segment && !m_segment->info().files.isEmpty() &&
        !m_segment->info().files.constFirst().sections.isEmpty())
        current = &m_segment->info().files.constFirst();

    qint64 size = -1;
    QList<AbstractDownloadFileSection> sections;
    if (current && total == 0 && isLastSegment) {
        size = current->size;
        sections = current->sections;
    } else if (current && current->size >= 0) {
        size = isLastSegment ? current->size + total : -1;
        sections = current->sections;
        auto& first = sections.first();
        if (first.size >= 0)
            first.size += total;
        first.done += total;
        for (qsizetype i = 1; i < sections.size(); ++i)
            sections[i].offset += total;
        if (size == -1)
            sections.last().size = -1;
    } else if (current) {
        sections = current->sections;
        sections.first().done += total;
    } else {
        const bool allDone = allSegmentsDone();
        size = allDone ? total : -1;
        sections = {{0, size, total}};
    }

    auto& file = m_info.files.first();
    bool changedStats = false;
    if (file.size != size) {
        file.size = size;
        changedStats = true;
    }
    if (file.sections != sections) {
        file.sections = sections;
        changedStats = true;
    }
    return changedStats;
}

void IndependentSegmentsDownloader::removeCurrentSegmentDownloadInfo(bool emitChanged) {
    auto& customData = m_info.customData;
    bool removed = customData.remove(CurrentSegmentSourceKey) > 0;
    removed = customData.remove(CurrentSegmentFileKey) > 0 || removed;
    removed = customData.remove(CurrentSegmentResumeKey) > 0 || removed;
    const bool statsChanged = attachCurrentSegmentFileStats(false);
    if ((removed || statsChanged) && emitChanged)
        Q_EMIT changed(false);
}

// --- The end -------------------------------------------------------------------------------------

// Once the file is cut the data is complete: the record is marked finished, and what is left
// (remux, files operation) is work on the file that a restart resumes.
void IndependentSegmentsDownloader::finalizeDownload() {
    setState(Finalizing, true);
    log(QStringLiteral("finalizing..."));
    removeCurrentSegmentDownloadInfo(false);
    if (!m_info.hasFiles()) {
        setState(Finalizing, false);
        stop(genericError(InconsistentSegmentsCode, TERNCL_SOURCE_PLACE,
                          QStringLiteral("no file to finalize")));
        return;
    }
    const qint64 total = segmentsTotal();
    if (const AbstractError error = cutTargetFile(total); error.isSet()) {
        setState(Finalizing, false);
        stop(genericError(GenericFailureCode, TERNCL_SOURCE_PLACE,
                          QStringLiteral("cannot cut the file to %1 bytes: %2")
                              .arg(total)
                              .arg(QString::fromStdString(error.description))));
        return;
    }
    // Removed only now: a failed cut must find the total again on the next attempt.
    m_info.customData.remove(DownloadedSegmentsTotalKey);
    m_info.files.first().flags |= AbstractDownloadFileInfo::Created;
    m_info.state = AbstractDownloadPersistentInfo::Finished;
    Q_EMIT changed(false);
    setState(Finalizing, false);
    finishFilesWork();
}

// Cuts a file preallocated beyond its data. A file shorter than its segments is an error: the
// missing bytes would otherwise read as zeros.
AbstractError IndependentSegmentsDownloader::cutTargetFile(qint64 size) const {
    const QString path = targetFilePath();
    if (path.isEmpty()) {
        return AbstractError(QFileDevice::OpenError, AbstractError::QtFileError,
                             TERNCL_SOURCE_PLACE, "the file has no name");
    }
    QFile file(path);
    if (!file.exists() && size == 0) {
        QDir().mkpath(QFileInfo(path).path());
        if (!file.open(QIODevice::WriteOnly))
            return AbstractError(file, TERNCL_SOURCE_PLACE);
        file.close();
    }
    if (file.size() < size) {
        return AbstractError(QFileDevice::ResizeError, AbstractError::QtFileError,
                             TERNCL_SOURCE_PLACE,
                             QStringLiteral("%1 holds %2 bytes, fewer than its segments")
                                 .arg(path)
                                 .arg(file.size())
                                 .toStdString());
    }
    if (file.size() > size && !file.resize(size))
        return AbstractError(file, TERNCL_SOURCE_PLACE);
    return {};
}

bool IndependentSegmentsDownloader::canSelfMerge() const {
    if (!m_mergeRequired || !m_info.hasFiles())
        return false;
    if (!m_info.isFinished() && !allSegmentsDone())
        return false;
    const auto& file = m_info.files.constFirst();
    return file.isSelected() && file.downloadedBytes() > 0 &&
           !m_info.testFlag(AbstractDownloadPersistentInfo::SizeQueryOnly) &&
           m_companion->selfMergeFileIndex() == 0;
}

bool IndependentSegmentsDownloader::mergeIfRequired() {
    if (!canSelfMerge())
        return false;
    log(QStringLiteral("remuxing the segments into an mp4 file..."));
    m_companion->performSelfMerge();
    return true;
}

void IndependentSegmentsDownloader::onFileOperationFinished(
    AbstractDownloadFilesOpsCompanion::OperationType type, const AbstractError& error) {
    if (!isRunning())
        return;
    if (testState(Stopping)) {
        continueToStop();
        return;
    }
    if (error.isSet()) {
        stop(error);
        return;
    }
    if (type == AbstractDownloadFilesOpsCompanion::SelfMerge && checkNeedStandardFileOp())
        return;
    if (m_info.isFinished() || allSegmentsDone()) {
        onPostDownloadJobFinished();
        return;
    }
    continueToStart();
}

void IndependentSegmentsDownloader::onPostDownloadJobFinished() {
    m_info.state = AbstractDownloadPersistentInfo::Finished;
    if (!m_info.completionTime.isValid())
        m_info.completionTime = QDateTime::currentDateTime();
    log(QStringLiteral("finished"));
    Q_EMIT changed(true);
    stop(AbstractError());
}

// --- State ---------------------------------------------------------------------------------------

void IndependentSegmentsDownloader::setRunning(bool running) {
    const bool wasRunning = testState(Running);
    if (running)
        m_state |= Running;
    else
        m_state &= ~quint32(Running | Stopping);
    if (wasRunning != running)
        Q_EMIT this->running(running);
}

void IndependentSegmentsDownloader::setState(StateFlag flag, bool on) {
    if (on)
        m_state |= flag;
    else
        m_state &= ~quint32(flag);
}

qint64 IndependentSegmentsDownloader::segmentsTotal() const {
    return m_info.customData.value(DownloadedSegmentsTotalKey).toLongLong();
}

bool IndependentSegmentsDownloader::allSegmentsDone() const {
    return m_sourcesComplete && m_currentIndex >= m_sources.size();
}

QString IndependentSegmentsDownloader::targetFilePath() const {
    if (!m_info.hasFiles())
        return {};
    const auto& file = m_info.files.constFirst();
    if (file.tmpPath.isEmpty() && file.name.isEmpty())
        return {};
    return AbstractDownloadFileOps::currentFilePath(m_info, 0);
}

void IndependentSegmentsDownloader::log(const QString& text) const {
    terncl::logLine(QtAppLogger::Info, QtAppLogger::Download, logHeader() + text);
}

// --- Accessors -----------------------------------------------------------------------------------

void IndependentSegmentsDownloader::setNetworkSettings(
    const AbstractNetworkConsumerSettings& settings) {
    m_networkSettings = settings;
    if (m_segment)
        m_segment->setNetworkSettings(settings);
}

AbstractNetworkConsumerSettings IndependentSegmentsDownloader::networkSettings() const {
    return m_networkSettings;
}

void IndependentSegmentsDownloader::setNetworkUsageSettings(const NetworkUsageSettings& settings) {
    if (settings == m_usageSettings)
        return;
    m_usageSettings = settings;
    if (m_segment)
        m_segment->setNetworkUsageSettings(settings);
}

NetworkUsageSettings IndependentSegmentsDownloader::networkUsageSettings() const {
    return m_usageSettings;
}

const QtConnectionsMap& IndependentSegmentsDownloader::connectionsMap() const {
    static const QtConnectionsMap none;
    return m_segment ? m_segment->connectionsMap() : none;
}

qint64 IndependentSegmentsDownloader::speed(NetworkTrafficDirection direction,
                                            bool currentOnly) const {
    return m_segment ? m_segment->speed(direction, currentOnly) : 0;
}

AbstractError IndependentSegmentsDownloader::lastError() const {
    return m_lastError;
}

QList<QSslError> IndependentSegmentsDownloader::lastSslErrors() const {
    return m_segment ? m_segment->lastSslErrors() : QList<QSslError>();
}

QtSslHost IndependentSegmentsDownloader::lastUnknownSslHost() const {
    return m_segment ? m_segment->lastUnknownSslHost() : QtSslHost();
}

QDateTime IndependentSegmentsDownloader::lastErrorTime() const {
    return m_lastErrorTime;
}

void IndependentSegmentsDownloader::clearLastError() {
    m_lastError = {};
    m_lastErrorTime = {};
}

bool IndependentSegmentsDownloader::isRunning() const {
    return testState(Running);
}

const AbstractDownloadPersistentInfo& IndependentSegmentsDownloader::info() const {
    return m_info;
}

AbstractDownloadPersistentInfo& IndependentSegmentsDownloader::rwInfo() {
    return m_info;
}

bool IndependentSegmentsDownloader::setInfo(const AbstractDownloadPersistentInfo& info) {
    if (isRunning())
        return false;
    m_info = info;
    releaseCurrentSegmentDownload(); // made from the record being replaced
    return true;
}

bool IndependentSegmentsDownloader::updateInfoFields(const AbstractDownloadPersistentInfo& info,
                                                     qint64 fields, BitFlagsUpdateMode mode) {
    const bool changedFields = m_info.updateFields(info, fields, mode);
    if (changedFields)
        Q_EMIT changed(false);
    return changedFields;
}

QSet<AbstractDownloadDestinationType> IndependentSegmentsDownloader::supportedDestinations() const {
    return {AbstractDownloadDestinationType::File};
}

bool IndependentSegmentsDownloader::setWritersThread(QThread* thread) {
    m_writersThread = thread;
    m_companion->setWritersThread(thread);
    if (m_segment)
        m_segment->setWritersThread(thread);
    return true;
}

void IndependentSegmentsDownloader::setSettings(const AbstractDownloadSettings& settings) {
    m_settings = settings;
    if (m_segment) {
        AbstractDownloadSettings segmentSettings = settings;
        segmentSettings.flags &= ~qint32(AbstractDownloadSettings::TruncateFilesWhenCreating);
        m_segment->setSettings(segmentSettings);
    }
}

const AbstractDownloadSettings& IndependentSegmentsDownloader::settings() const {
    return m_settings;
}

quint64 IndependentSegmentsDownloader::currentTasks() const {
    if (!isRunning())
        return 0;
    if (m_companion->isPerformingOperation()) {
        return quint64(m_companion->operation() == AbstractDownloadFilesOpsCompanion::SelfMerge
                           ? AbstractDownloadTask::Merging
                           : AbstractDownloadTask::PerformingFilesOperations);
    }
    if (testState(Finalizing))
        return quint64(AbstractDownloadTask::PerformingFilesOperations);
    return quint64(AbstractDownloadTask::Downloading);
}

AbstractDownloadTasksProgress IndependentSegmentsDownloader::tasksProgress() const {
    if (!isRunning())
        return {};
    if (m_companion->isPerformingOperation() &&
        m_companion->operation() == AbstractDownloadFilesOpsCompanion::SelfMerge) {
        const auto [current, total] = m_companion->mergeProgress();
        if (current >= 0 && total >= current)
            return {{AbstractDownloadTask::Merging, {current, total}}};
        return {};
    }
    if (!m_info.hasFiles())
        return {};
    const auto& file = m_info.files.constFirst();
    return {{AbstractDownloadTask::Downloading, {file.downloadedBytes(), file.size}}};
}

bool IndependentSegmentsDownloader::isQueryingInfo() const {
    return false;
}

bool IndependentSegmentsDownloader::isStopping() const {
    return testState(Stopping);
}

bool IndependentSegmentsDownloader::isFinalizing() const {
    return testState(Finalizing) || m_companion->isPerformingOperation();
}
