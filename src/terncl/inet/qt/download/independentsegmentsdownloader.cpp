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

#include <algorithm>
#include <functional>

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
// Segments that may write straight into the target one after another, all but the last only
// waiting for the writers thread.
constexpr int maxFollowingSegments = 4;

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

AbstractError fileError(const QFileDevice& file, const std::string& place) {
    AbstractError error(file, place);
    if (!error.isSet())
        error.code = QFileDevice::UnspecifiedError;
    return error;
}

// Copies the first size bytes of a segment fetched ahead into the target at offset, through one
// buffer, and removes the spill file once its bytes are flushed.
AbstractError appendSpilledSegment(const QString& spillPath, const QString& targetPath,
                                   qint64 offset, qint64 size) {
    constexpr qint64 bufferSize = 1 << 20;
    QFile spill(spillPath);
    if (!spill.open(QIODevice::ReadOnly))
        return fileError(spill, TERNCL_SOURCE_PLACE);
    if (spill.size() < size) {
        return AbstractError(QFileDevice::ReadError, AbstractError::QtFileError,
                             TERNCL_SOURCE_PLACE,
                             QStringLiteral("%1 holds %2 bytes, fewer than its segment's %3")
                                 .arg(spillPath)
                                 .arg(spill.size())
                                 .arg(size)
                                 .toStdString());
    }
    QFile target(targetPath);
    QDir().mkpath(QFileInfo(targetPath).path());
    if (!target.open(QIODevice::ReadWrite) || !target.seek(offset))
        return fileError(target, TERNCL_SOURCE_PLACE);
    QByteArray buffer(qMin(size, bufferSize), Qt::Uninitialized);
    for (qint64 left = size; left > 0;) {
        const qint64 read = spill.read(buffer.data(), qMin(left, bufferSize));
        if (read <= 0)
            return fileError(spill, TERNCL_SOURCE_PLACE);
        if (target.write(buffer.constData(), read) != read)
            return fileError(target, TERNCL_SOURCE_PLACE);
        left -= read;
    }
    if (!target.flush())
        return fileError(target, TERNCL_SOURCE_PLACE);
    spill.close();
    spill.remove();
    return {};
}

// Spill files of the target: "<target>.seg" followed by digits.
void removeSpillFiles(const QString& targetPath) {
    const QFileInfo target(targetPath);
    const QString prefix = target.fileName() + QStringLiteral(".seg");
    QDir dir = target.dir();
    for (const QString& name : dir.entryList({prefix + u'*'}, QDir::Files | QDir::Hidden)) {
        const QStringView rest = QStringView(name).mid(prefix.size());
        if (!rest.isEmpty() &&
            std::all_of(rest.begin(), rest.end(), [](QChar c) { return c.isDigit(); }))
            dir.remove(name);
    }
}

// The size a finished segment adds to the total.
qint64 finishedSegmentSize(const AbstractDownloadPersistentInfo& info) {
    if (info.files.isEmpty())
        return 0;
    const auto& file = info.files.constFirst();
    return file.size >= 0 ? file.size : file.downloadedBytes();
}
// Work on the segments' files that runs on the writers thread, after every write queued there
// before it, so that it sees the children's flushed bytes. Deletes itself once it has reported.
class SegmentFilesJob : public QObject {
    Q_OBJECT

public:
    SegmentFilesJob(QThread* thread, std::function<AbstractError()> work)
        : m_work(std::move(work)) {
        if (thread)
            moveToThread(thread);
    }
    // Connect to done() first.
    void start() { QMetaObject::invokeMethod(this, &SegmentFilesJob::run, Qt::QueuedConnection); }

Q_SIGNALS:
    void done(const AbstractError& error);

private:
    void run() {
        Q_EMIT done(m_work());
        deleteLater();
    }

    std::function<AbstractError()> m_work;
};

// Queued behind the writes already on the writers thread. Without one, children write on the
// calling thread at once, so the files go at once too.
void removeSpillFilesLater(QThread* thread, const QStringList& paths) {
    const auto remove = [paths] {
        for (const QString& path : paths)
            QFile::remove(path);
        return AbstractError();
    };
    if (!thread)
        remove();
    else if (!paths.isEmpty())
        (new SegmentFilesJob(thread, remove))->start();
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
    m_info.supportedOptions |= ConcurrentSegmentsOption;
    if (const auto tracker = QtQObjectsTracker::instance())
        tracker->registerObject(this, "IndependentSegmentsDownloader");
}

IndependentSegmentsDownloader::~IndependentSegmentsDownloader() {
    m_companion->disconnect(this);
    for (const auto& segment : std::as_const(m_inFlight)) {
        if (segment.download && segment.download->isRunning()) {
            segment.download->disconnect(this);
            segment.download->doCommand(AbstractDownloadCommand::Stop);
        }
    }
    releaseSegmentsInFlight();
}

void IndependentSegmentsDownloader::setSegmentsSources(
    const QList<AbstractDownloadSourceInfo>& sources, bool sourcesComplete, bool mergeRequired) {
    if (isRunning())
        return;
    m_sources = sources;
    m_sourcesComplete = sourcesComplete;
    m_mergeRequired = mergeRequired;
    m_currentIndex = 0;
    releaseSegmentsInFlight();
}

void IndependentSegmentsDownloader::setMaxConcurrentSegments(int count) {
    setOption(ConcurrentSegmentsOption, qMax(count, 1));
}

int IndependentSegmentsDownloader::maxConcurrentSegments() const {
    return qMax(allOptions().value(ConcurrentSegmentsOption).toInt(), 1);
}

void IndependentSegmentsDownloader::setOption(quint64 option, const QVariant& value) {
    AbstractDownload::setOption(option, value);
    if (option == ConcurrentSegmentsOption && isRunning())
        continueToDownloadSegments();
}

QSharedPointer<AbstractDownload> IndependentSegmentsDownloader::currentSegmentDownload() const {
    return m_inFlight.isEmpty() ? nullptr : m_inFlight.constFirst().download;
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
    // An append in progress ends first: its segment is counted, not fetched again.
    if (testState(Finalizing) || m_companion->isPerformingOperation() || isAppending())
        return;
    if (stopSegmentDownloads())
        return;
    if (!isRunning() || !testState(Stopping))
        return; // a child's running(false) finished the stop meanwhile
    releaseSegmentsInFlight();
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

// Starting a child can end it at once, and the end of a segment comes back here: the outer call
// goes round again instead of nesting.
void IndependentSegmentsDownloader::continueToDownloadSegments() {
    if (m_continuing) {
        m_continueAgain = true;
        return;
    }
    m_continuing = true;
    do {
        m_continueAgain = false;
        stepDownloadSegments();
    } while (m_continueAgain);
    m_continuing = false;
}

void IndependentSegmentsDownloader::stepDownloadSegments() {
    if (!isRunning())
        return;
    if (testState(Stopping)) {
        continueToStop();
        return;
    }
    if (testState(Finalizing) || m_companion->isPerformingOperation())
        return;
    while (canStartAnotherSegment())
        startNextSegment();
    if (!m_inFlight.isEmpty() || !isRunning() || testState(Stopping))
        return;
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

bool IndependentSegmentsDownloader::canStartAnotherSegment() const {
    if (!isRunning() || testState(Stopping) || testState(Finalizing))
        return false;
    if (m_currentIndex + m_inFlight.size() >= m_sources.size())
        return false;
    if (m_inFlight.isEmpty())
        return true;
    // Spill files lie beside the target, so its name must be known first.
    if (targetFilePath().isEmpty())
        return false;
    return m_inFlight.size() < maxConcurrentSegments() || followOffset() >= 0;
}

// Where the next segment may write straight into the target: where the last one in flight ends,
// once every segment in flight writes straight into the target and has all its bytes (it only
// flushes them, or is done); -1 before that. A writers thread that lags behind the network
// holds the bytes of at most maxFollowingSegments segments.
qint64 IndependentSegmentsDownloader::followOffset() const {
    if (m_inFlight.isEmpty() || m_inFlight.size() >= maxFollowingSegments)
        return -1;
    qint64 end = -1;
    for (const SegmentInFlight& segment : m_inFlight) {
        if (!segment.spillPath.isEmpty())
            return -1;
        qint64 size = segment.finished ? segment.size : -1;
        if (!segment.finished && segment.download && segment.download->isFinalizing() &&
            !segment.download->info().files.isEmpty())
            size = segment.download->info().files.constFirst().size;
        if (size < 0)
            return -1;
        end = segment.writeOffset + size;
    }
    return end;
}

void IndependentSegmentsDownloader::startNextSegment() {
    SegmentInFlight segment;
    segment.serial = m_nextSerial++;
    segment.index = m_currentIndex + int(m_inFlight.size());
    segment.writeOffset = segmentsTotal();
    if (const qint64 offset = followOffset(); offset >= 0) {
        segment.writeOffset = offset;
    } else if (!m_inFlight.isEmpty()) {
        segment.spillSlot = freeSpillSlot();
        segment.spillPath = spillPath(segment.spillSlot);
        // A spill file left by a killed run must not lengthen the new one.
        removeSpillFilesLater(m_writersThread, {segment.spillPath});
    }
    AbstractError error;
    segment.download = createSegmentDownload(segment, error);
    if (!segment.download) {
        stop(error);
        return;
    }
    const QSharedPointer<AbstractDownload> download = segment.download;
    m_inFlight.append(segment);
    download->doCommand(AbstractDownloadCommand::Start);
    // A child that neither ran nor said so would leave the download waiting for ever.
    if (isRunning() && !download->isRunning() && findSegment(download.data()))
        onSegmentStopped(download.data());
}

QSharedPointer<AbstractDownload>
IndependentSegmentsDownloader::createSegmentDownload(const SegmentInFlight& segment,
                                                     AbstractError& error) {
    const auto factory = m_factory.toStrongRef();
    if (!factory) {
        error = genericError(GenericFailureCode, TERNCL_SOURCE_PLACE,
                             QStringLiteral("the downloads factory is gone"));
        return {};
    }
    const AbstractDownloadSourceInfo& source = m_sources.at(segment.index);
    auto& customData = m_info.customData;
    const bool ahead = !segment.spillPath.isEmpty();
    // Only the head is in the record; the segment that follows it enters when the head is done.
    const bool head = m_inFlight.isEmpty();
    const bool resume = head && customData.contains(CurrentSegmentSourceKey) &&
                        customData.contains(CurrentSegmentFileKey);
    if (resume) {
        const auto stored = AbstractDownloadSourceInfo::fromVariantHash(
            toHash(customData.value(CurrentSegmentSourceKey)));
        if (stored != source) {
            error = genericError(InconsistentSegmentsCode, TERNCL_SOURCE_PLACE,
                                 QStringLiteral("the half-done segment %1 is not segment %2 of "
                                                "the list (%3)")
                                     .arg(stored.url.toString())
                                     .arg(segment.index)
                                     .arg(source.url.toString()));
            return {};
        }
    } else if (head) {
        customData.insert(CurrentSegmentSourceKey, source.toVariantHash());
    }
    AbstractError factoryError;
    const auto download =
        factory->createDownload(makeSegmentInfo(source, resume, segment), factoryError);
    if (!download) {
        error = genericError(ChildCreationFailedCode, TERNCL_SOURCE_PLACE,
                             QStringLiteral("cannot create the download of segment %1: %2")
                                 .arg(segment.index)
                                 .arg(factoryError.toText()));
        return {};
    }
    log(QStringLiteral("%1 segment %2 of %3: %4")
            .arg(resume  ? QStringLiteral("resuming")
                 : ahead ? QStringLiteral("fetching ahead")
                 : head  ? QStringLiteral("fetching")
                         : QStringLiteral("fetching after the head"))
            .arg(segment.index)
            .arg(m_sources.size())
            .arg(source.url.toString()));
    AbstractDownloadSettings settings = m_settings;
    settings.flags &= ~qint32(AbstractDownloadSettings::TruncateFilesWhenCreating);
    download->setSettings(settings);
    download->setInteractive(false);
    download->setNetworkSettings(m_networkSettings);
    download->setNetworkUsageSettings(m_usageSettings);
    if (m_writersThread)
        download->setWritersThread(m_writersThread);
    if (m_speedMeter)
        m_speedMeter->registerDownload(download.data());
    connectSegmentDownload(download.data());
    return download;
}

AbstractDownloadPersistentInfo
IndependentSegmentsDownloader::makeSegmentInfo(const AbstractDownloadSourceInfo& source,
                                               bool resume, const SegmentInFlight& segment) const {
    const QString& spillPath = segment.spillPath;
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
    if (!spillPath.isEmpty())
        file.tmpPath = spillPath;
    else if (const QString target = targetFilePath(); !target.isEmpty())
        file.tmpPath = target;
    file.writeOffset = spillPath.isEmpty() ? segment.writeOffset : 0;
    info.files = {file};
    return info;
}

void IndependentSegmentsDownloader::connectSegmentDownload(AbstractDownload* download) {
    connect(download, &AbstractDownload::changed, this,
            &IndependentSegmentsDownloader::onSegmentDownloadChanged);
    connect(download, &AbstractNetworkConsumerWithExtraTasks::running, this,
            &IndependentSegmentsDownloader::onSegmentDownloadRunning);
    connect(download, &AbstractNetworkConsumer::connectionsMapChangedDelta, this,
            &IndependentSegmentsDownloader::onSegmentConnectionsChanged);
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

void IndependentSegmentsDownloader::onSegmentConnectionsChanged(const QtConnectionsMap& delta) {
    terncl::applyConnectionsDelta(m_connections, delta);
    Q_EMIT connectionsMapChangedDelta(delta);
}

// The child is deleted later: this may run inside one of its own signals.
void IndependentSegmentsDownloader::releaseSegmentDownload(SegmentInFlight& segment) {
    if (!segment.download)
        return;
    const QSharedPointer<AbstractDownload> download = std::exchange(segment.download, {});
    download->disconnect(this);
    download->setParent(nullptr);
    if (const QtConnectionsMap& connections = download->connectionsMap(); !connections.isEmpty())
        onSegmentConnectionsChanged(terncl::negatedConnections(connections));
    if (auto* app = QCoreApplication::instance())
        QMetaObject::invokeMethod(
            app, [download] {}, Qt::QueuedConnection);
}

// Segments not yet in the target are dropped with their spill files; the half-done head that
// writes straight into the target stays in the record.
void IndependentSegmentsDownloader::releaseSegmentsInFlight() {
    QStringList spillPaths;
    for (auto& segment : m_inFlight) {
        releaseSegmentDownload(segment);
        if (!segment.spillPath.isEmpty())
            spillPaths.append(segment.spillPath);
    }
    m_inFlight.clear();
    removeSpillFilesLater(m_writersThread, spillPaths);
}

// True while a child has yet to report running(false).
bool IndependentSegmentsDownloader::stopSegmentDownloads() {
    QList<QSharedPointer<AbstractDownload>> running;
    for (const auto& segment : std::as_const(m_inFlight)) {
        if (segment.download && segment.download->isRunning())
            running.append(segment.download);
    }
    // A child that only flushes bytes it already has ends by itself and is counted, instead of
    // being fetched again by the next run.
    for (const auto& download : std::as_const(running)) {
        if (download->isRunning() && !download->isStopping() && !download->isFinalizing())
            download->doCommand(AbstractDownloadCommand::Stop); // may finish the stop
    }
    return std::any_of(m_inFlight.cbegin(), m_inFlight.cend(), [](const SegmentInFlight& segment) {
        return segment.download && segment.download->isRunning();
    });
}

void IndependentSegmentsDownloader::onSegmentDownloadChanged(bool criticalChange) {
    // The bytes of other segments reach the record only when they become the head or are
    // appended.
    if (AbstractDownload* head = directHeadDownload(); head && sender() == head)
        copyHeadIntoRecord(criticalChange);
    if (followOffset() >= 0)
        continueToDownloadSegments();
}

void IndependentSegmentsDownloader::copyHeadIntoRecord(bool criticalChange) {
    const AbstractDownload* download = directHeadDownload();
    const auto& segmentInfo = download->info();
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
    const bool targetWasKnown = !targetFilePath().isEmpty();
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
    // Now that the file has a name, segments ahead can be spilled beside it.
    if (!targetWasKnown && !targetFilePath().isEmpty())
        QMetaObject::invokeMethod(
            this, [this] { continueToDownloadSegments(); }, Qt::QueuedConnection);
}

void IndependentSegmentsDownloader::onSegmentDownloadRunning(bool isRunning) {
    if (isRunning || !this->isRunning())
        return;
    if (auto* download = qobject_cast<AbstractDownload*>(sender()); findSegment(download))
        onSegmentStopped(download);
}

// A finished segment is counted even while stopping, so that a restart goes on with the next
// one instead of fetching it again.
void IndependentSegmentsDownloader::onSegmentStopped(AbstractDownload* download) {
    SegmentInFlight& segment = *findSegment(download);
    const AbstractDownloadPersistentInfo& segmentInfo = download->info();
    if (segmentInfo.isFinished()) {
        segment.size = finishedSegmentSize(segmentInfo);
        segment.finished = true;
        releaseSegmentDownload(segment);
        commitFinishedSegments();
        afterSegmentEvent();
        return;
    }
    if (testState(Stopping)) {
        continueToStop();
        return;
    }
    const AbstractError segmentError = download->lastError();
    stop(segmentError.isSet()
             ? segmentError
             : genericError(GenericFailureCode, TERNCL_SOURCE_PLACE,
                            QStringLiteral("segment %1 stopped unfinished").arg(segment.index)));
}

// Moves the write position over the finished segments at the front, in order. A segment fetched
// ahead is appended to the target first, on the writers thread; the ones behind it wait.
void IndependentSegmentsDownloader::commitFinishedSegments() {
    while (!m_inFlight.isEmpty() && m_inFlight.constFirst().finished &&
           !m_inFlight.constFirst().appending) {
        if (!m_inFlight.constFirst().spillPath.isEmpty()) {
            appendSpilledHead();
            return;
        }
        if (!commitHead())
            return;
    }
}

// False when the download cannot go on with the next segment.
bool IndependentSegmentsDownloader::commitHead() {
    const SegmentInFlight head = m_inFlight.takeFirst();
    m_info.customData.insert(DownloadedSegmentsTotalKey, segmentsTotal() + head.size);
    removeCurrentSegmentDownloadInfo(false);
    ++m_currentIndex;
    log(QStringLiteral("segment %1 finished: %2 bytes").arg(head.index).arg(head.size));
    const bool followed = takeOverFollower();
    Q_EMIT segmentFinished();
    Q_EMIT changed(false);
    if (head.size != 0)
        return followed && isRunning();
    if (isRunning() && !testState(Stopping))
        stop(genericError(InconsistentSegmentsCode, TERNCL_SOURCE_PLACE,
                          QStringLiteral("segment %1 has no data").arg(head.index)));
    return false;
}

// The segment that followed the head into the target is the head now, and the record takes it.
bool IndependentSegmentsDownloader::takeOverFollower() {
    if (m_inFlight.isEmpty() || !m_inFlight.constFirst().spillPath.isEmpty())
        return true;
    const SegmentInFlight& head = m_inFlight.constFirst();
    if (head.writeOffset != segmentsTotal()) {
        stop(genericError(InconsistentSegmentsCode, TERNCL_SOURCE_PLACE,
                          QStringLiteral("segment %1 was written at %2, but the segments before "
                                         "it end at %3")
                              .arg(head.index)
                              .arg(head.writeOffset)
                              .arg(segmentsTotal())));
        return false;
    }
    m_info.customData.insert(CurrentSegmentSourceKey, m_sources.at(head.index).toVariantHash());
    if (head.download && !head.download->info().files.isEmpty())
        copyHeadIntoRecord(false);
    return true;
}

void IndependentSegmentsDownloader::appendSpilledHead() {
    SegmentInFlight& head = m_inFlight.first();
    head.appending = true;
    auto* job =
        new SegmentFilesJob(m_writersThread, [spill = head.spillPath, target = targetFilePath(),
                                              offset = segmentsTotal(), size = head.size] {
            return appendSpilledSegment(spill, target, offset, size);
        });
    connect(job, &SegmentFilesJob::done, this,
            [this, serial = head.serial](const AbstractError& error) {
                onSegmentAppended(serial, error);
            });
    job->start();
}

void IndependentSegmentsDownloader::onSegmentAppended(quint64 serial, const AbstractError& error) {
    if (m_inFlight.isEmpty() || m_inFlight.constFirst().serial != serial)
        return; // released meanwhile
    SegmentInFlight& head = m_inFlight.first();
    head.appending = false;
    if (error.isSet()) {
        head.finished = false; // fetched again after a restart
        log(QStringLiteral("cannot append segment %1: %2").arg(head.index).arg(error.toText()));
        stop(error);
        return;
    }
    if (commitHead())
        commitFinishedSegments();
    afterSegmentEvent();
}

void IndependentSegmentsDownloader::afterSegmentEvent() {
    if (!isRunning())
        return;
    if (testState(Stopping))
        continueToStop();
    else
        continueToDownloadSegments();
}

IndependentSegmentsDownloader::SegmentInFlight*
IndependentSegmentsDownloader::findSegment(const QObject* download) {
    if (!download)
        return nullptr;
    for (auto& segment : m_inFlight) {
        if (segment.download.data() == download)
            return &segment;
    }
    return nullptr;
}

AbstractDownload* IndependentSegmentsDownloader::directHeadDownload() const {
    if (m_inFlight.isEmpty() || !m_inFlight.constFirst().spillPath.isEmpty())
        return nullptr;
    return m_inFlight.constFirst().download.data();
}

AbstractDownload* IndependentSegmentsDownloader::firstSegmentDownload() const {
    for (const auto& segment : m_inFlight) {
        if (segment.download)
            return segment.download.data();
    }
    return nullptr;
}

bool IndependentSegmentsDownloader::isAppending() const {
    return std::any_of(m_inFlight.cbegin(), m_inFlight.cend(),
                       [](const SegmentInFlight& segment) { return segment.appending; });
}

int IndependentSegmentsDownloader::freeSpillSlot() const {
    for (int slot = 0;; ++slot) {
        if (std::none_of(
                m_inFlight.cbegin(), m_inFlight.cend(),
                [slot](const SegmentInFlight& segment) { return segment.spillSlot == slot; }))
            return slot;
    }
}

QString IndependentSegmentsDownloader::spillPath(int slot) const {
    return targetFilePath() + QStringLiteral(".seg") + QString::number(slot);
}

// Keeps the file's size and sections equal to the finished segments followed by the current
// one, whose sections are relative to the segment itself.
bool IndependentSegmentsDownloader::attachCurrentSegmentFileStats(bool withCurrent) {
    if (m_info.files.isEmpty())
        return false;
    const qint64 total = segmentsTotal();
    const bool isLastSegment = m_sourcesComplete && m_currentIndex == m_sources.size() - 1;
    const AbstractDownloadFileInfo* current = nullptr;
    const AbstractDownload* head = withCurrent ? directHeadDownload() : nullptr;
    if (head && !head->info().files.isEmpty() &&
        !head->info().files.constFirst().sections.isEmpty())
        current = &head->info().files.constFirst();

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
    const QString target = targetFilePath();
    (new SegmentFilesJob(m_writersThread, [target] {
        removeSpillFiles(target); // left by runs that were killed
        return AbstractError();
    }))->start();
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
    for (const auto& segment : std::as_const(m_inFlight)) {
        if (segment.download)
            segment.download->setNetworkSettings(settings);
    }
}

AbstractNetworkConsumerSettings IndependentSegmentsDownloader::networkSettings() const {
    return m_networkSettings;
}

void IndependentSegmentsDownloader::setNetworkUsageSettings(const NetworkUsageSettings& settings) {
    if (settings == m_usageSettings)
        return;
    m_usageSettings = settings;
    for (const auto& segment : std::as_const(m_inFlight)) {
        if (segment.download)
            segment.download->setNetworkUsageSettings(settings);
    }
}

NetworkUsageSettings IndependentSegmentsDownloader::networkUsageSettings() const {
    return m_usageSettings;
}

const QtConnectionsMap& IndependentSegmentsDownloader::connectionsMap() const {
    return m_connections;
}

qint64 IndependentSegmentsDownloader::speed(NetworkTrafficDirection direction,
                                            bool currentOnly) const {
    qint64 total = 0;
    for (const auto& segment : m_inFlight)
        total += segment.download ? segment.download->speed(direction, currentOnly) : 0;
    return total;
}

AbstractError IndependentSegmentsDownloader::lastError() const {
    return m_lastError;
}

QList<QSslError> IndependentSegmentsDownloader::lastSslErrors() const {
    const AbstractDownload* download = firstSegmentDownload();
    return download ? download->lastSslErrors() : QList<QSslError>();
}

QtSslHost IndependentSegmentsDownloader::lastUnknownSslHost() const {
    const AbstractDownload* download = firstSegmentDownload();
    return download ? download->lastUnknownSslHost() : QtSslHost();
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
    m_info.supportedOptions |= ConcurrentSegmentsOption;
    releaseSegmentsInFlight(); // made from the record being replaced
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
    for (const auto& segment : std::as_const(m_inFlight)) {
        if (segment.download)
            segment.download->setWritersThread(thread);
    }
    return true;
}

void IndependentSegmentsDownloader::setSettings(const AbstractDownloadSettings& settings) {
    m_settings = settings;
    AbstractDownloadSettings segmentSettings = settings;
    segmentSettings.flags &= ~qint32(AbstractDownloadSettings::TruncateFilesWhenCreating);
    for (const auto& segment : std::as_const(m_inFlight)) {
        if (segment.download)
            segment.download->setSettings(segmentSettings);
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

#include "independentsegmentsdownloader.moc"
