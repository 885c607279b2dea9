#include "terngetjob.h"

#include "batteryspeedlimit.h"
#include "curlprobe.h"
#include "hostdownloadsfactory.h"
#include "httpdownload.h"
#include "mediaprobe.h"
#include "ratetext.h"
#include "resumecheck.h"
#include "ternmediajob.h"

#include <terncl/core/qtabstractbatteryinfo.h>
#include <terncl/core/sourceplace.h>
#include <terncl/fs/qt/utils/filenamerules.h>
#include <terncl/inet/qt/download/abstractdownloadfileops.h>
#include <terncl/inet/qt/download/abstractdownloadsnetworkrequestslogger.h>
#include <terncl/inet/qt/download/abstractdownloadsspeedmeter.h>
#include <terncl/inet/qt/download/independentsegmentsdownloader.h>
#include <terncl/qt/media/ffmpeg/qtffmpegavmerger.h>
#include <terncl/qt/media/ffmpeg/qtffmpegmanager.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTextStream>

#include <cstdio>

namespace {
const QString kMediaKind = QStringLiteral("media");
constexpr int maxProbeBytes = 4 * 1024 * 1024;
// The shortest time between two saves of a growing record. Over a real network a segment takes
// longer than this, so each one is saved as it ends; on a fast link, where segments end every
// millisecond, saving each would cost more than fetching it, and a kill costs the segments that
// ended in this time besides those in flight.
constexpr int minCriticalSaveIntervalMs = 50;

QString errorText(const AbstractError& error) {
    const QString description = QString::fromStdString(error.description);
    QString summary;
    if (error.category == AbstractError::HttpError)
        summary = QStringLiteral("HTTP error %1").arg(error.code);
    else if (error.category == AbstractError::QtNetworkError)
        summary = QStringLiteral("network error");
    else if (error.category == AbstractError::QtFileError)
        summary = QStringLiteral("file error");
    else
        summary = QStringLiteral("error");
    if (!description.isEmpty())
        summary += QStringLiteral(": ") + description;
    return summary + QStringLiteral("\n  ") + error.toText();
}

bool looksLikePlaylist(const QUrl& url, const HttpHeaders& head) {
    return url.path().endsWith(QStringLiteral(".m3u8"), Qt::CaseInsensitive) ||
           head.value("Content-Type").toLower().contains("mpegurl");
}

ProgressPrinter::Style progressStyle(const TernGetJob::Options& options) {
    if (options.jsonProgress)
        return ProgressPrinter::Style::Json;
    return options.progressBar ? ProgressPrinter::Style::Bar : ProgressPrinter::Style::Lines;
}

// What the media job may take: besides playlists, DASH manifests and web pages.
bool looksLikeMedia(const QUrl& url, const HttpHeaders& head) {
    const QString type = QString::fromLatin1(head.value("Content-Type")).toLower();
    return looksLikePlaylist(url, head) ||
           url.path().endsWith(QStringLiteral(".mpd"), Qt::CaseInsensitive) ||
           type.contains(QStringLiteral("dash+xml")) ||
           type.startsWith(QStringLiteral("text/html"));
}
} // namespace

TernGetJob::TernGetJob(Options options, QObject* parent)
    : QObject(parent)
    , m_options(std::move(options))
    , m_store(m_options.stateDir)
    , m_err(new QTextStream(stderr))
    , m_printer(progressStyle(m_options), m_options.quiet, *m_err) {
    m_key = key();
    m_progressTimer.setInterval(m_printer.intervalMs());
    connect(&m_progressTimer, &QTimer::timeout, this, [this] { showProgress(false); });
    m_saveTimer.setSingleShot(true);
    m_saveTimer.setInterval(500);
    connect(&m_saveTimer, &QTimer::timeout, this, &TernGetJob::save);
    m_criticalSaveTimer.setSingleShot(true);
    connect(&m_criticalSaveTimer, &QTimer::timeout, this, &TernGetJob::save);
    m_writers.setObjectName(QStringLiteral("writers"));
    m_writers.start();
    m_factory.reset(new HostDownloadsFactory(&m_writers));
    HttpDownload::Options downloadOptions;
    downloadOptions.maxRetries = m_options.retries;
    // Waiting for the first byte of an answer is a stall like any other.
    downloadOptions.stallTimeoutMs = m_options.stallTimeoutMs;
    downloadOptions.firstByteTimeoutMs = m_options.stallTimeoutMs;
    m_factory->setDownloadOptions(downloadOptions);
    m_speedMeter.reset(new AbstractDownloadsSpeedMeter());
    const QString ffmpeg = QStandardPaths::findExecutable(QStringLiteral("ffmpeg"));
    QSharedPointer<QtProcessSandboxManager> sandbox;
    if (m_options.sandbox)
        sandbox.reset(new QtProcessSandboxManager(QStringLiteral("tern-get")));
    m_ffmpeg.reset(
        new QtFfmpegManager(QFileInfo(ffmpeg).absolutePath(), QStringLiteral("ffmpeg"), sandbox));
    m_merger.reset(new QtFfmpegAvMerger(m_ffmpeg));
    setUpRequestLogs();
    setUpBatteryLimit();
}

TernGetJob::~TernGetJob() {
    m_download.reset();
    delete m_requestsLogger;
    waitForWritersThread();
    m_writers.quit();
    m_writers.wait();
    delete m_err;
}

QString TernGetJob::key() const {
    const QString output = m_options.output.isEmpty()
                               ? QStringLiteral("<auto>")
                               : QFileInfo(m_options.output).absoluteFilePath();
    return m_options.url.toString(QUrl::FullyEncoded) + u'\n' + output;
}

QString TernGetJob::outputPath(const QString& suggestedName) const {
    if (!m_options.output.isEmpty())
        return QFileInfo(m_options.output).absoluteFilePath();
    QString name = FileNameRules::sanitizedFileName(suggestedName, true, QStringLiteral("_"));
    if (name.isEmpty())
        name = QStringLiteral("download.bin");
    return QDir::current().absoluteFilePath(name);
}

void TernGetJob::start() {
    if (!m_options.output.isEmpty() && !takeOutput(outputPath(QString())))
        return;
    QString error;
    const auto entry = m_store.load(m_key, &error);
    if (!error.isEmpty())
        m_printer.error(QStringLiteral("ignoring saved state: ") + error);
    if (m_options.listFormats || !m_options.format.isEmpty() ||
        (entry && entry->host.value(ResumeCheck::KindKey).toString() == kMediaKind)) {
        startMedia();
        return;
    }
    if (entry) {
        resumeSaved(*entry);
        return;
    }
    probe(m_options.url, 0);
}

// --- Finding out what the URL is ------------------------------------------------------------

// Asked with the downloads' own engine and limits, so that it retries and times out alike.
void TernGetJob::probe(const QUrl& url, int depth) {
    const HttpDownload::Options& limits = m_factory->downloadOptions();
    CurlTransfer::Request request;
    request.url = url;
    request.maxRedirects = limits.maxRedirects;
    request.connectTimeoutMs = limits.connectTimeoutMs;
    request.firstByteTimeoutMs = limits.firstByteTimeoutMs;
    request.stallTimeoutMs = limits.stallTimeoutMs;
    request.lowSpeedLimit = limits.lowSpeedLimit;
    request.lowSpeedTimeMs = limits.lowSpeedTimeMs;
    auto* probe = new CurlProbe(m_factory->network(), request, this);
    probe->setRetries(limits.maxRetries, limits.retryBaseDelayMs);
    probe->setMaxBodySize(maxProbeBytes);
    // A plain file is left to the download proper, which fetches it with resume and limits.
    probe->wantBody = [depth](const HttpHeaders& head, const QUrl& answerUrl) {
        return depth == 0 ? looksLikeMedia(answerUrl, head) : looksLikePlaylist(answerUrl, head);
    };
    connect(probe, &CurlProbe::finished, this, [this, probe, depth] {
        probe->deleteLater();
        onProbeAnswer(probe, depth);
    });
    probe->start();
}

void TernGetJob::onProbeAnswer(CurlProbe* answer, int depth) {
    if (answer->error().isSet()) {
        fail(answer->error());
        return;
    }
    if (!answer->bodyWanted()) {
        if (depth > 0)
            fail(QStringLiteral("the master playlist names a variant that is not a playlist"));
        else
            startFile(QFileInfo(answer->url().path()).fileName());
        return;
    }
    const auto kind = MediaProbe::kindOf(
        answer->body(), QString::fromLatin1(answer->headers().value("Content-Type")),
        answer->url());
    if (depth == 0 && (kind == MediaProbe::Kind::HlsMaster || kind == MediaProbe::Kind::Dash ||
                       kind == MediaProbe::Kind::Page)) {
        startMedia();
        return;
    }
    AbstractError error;
    const auto playlist = HlsPlaylistReader::parse(answer->body(), answer->url(), &error);
    if (error.isSet()) {
        fail(error);
    } else if (playlist.isMaster && depth == 0) {
        probe(HlsPlaylistReader::bestVariant(playlist), depth + 1);
    } else if (playlist.isMaster || playlist.segments.isEmpty()) {
        fail(QStringLiteral("the playlist lists no segments"));
    } else {
        startHls(playlist, answer->url());
    }
}

// --- Starting and resuming --------------------------------------------------------------------

// Checks the output path and locks it for this run before a byte of the download is fetched.
bool TernGetJob::takeOutput(const QString& path) {
    if (m_guard.isLocked() && path == m_output)
        return true;
    QString error = OutputGuard::refusal(path);
    if (error.isEmpty() && m_guard.lock(m_options.stateDir, path, &error)) {
        m_output = path;
        return true;
    }
    fail(error);
    return false;
}

void TernGetJob::startFile(const QString& contentName) {
    m_kind = Kind::File;
    if (!takeOutput(outputPath(contentName)))
        return;
    AbstractDownloadPersistentInfo record;
    record.moduleName = HostDownloadsFactory::HttpModule;
    record.resourceUrl = m_options.url.toString(QUrl::FullyEncoded);
    record.destinationPath = QFileInfo(m_output).absolutePath();
    record.creationTime = QDateTime::currentDateTime();
    AbstractDownloadFileInfo file;
    file.name = QFileInfo(m_output).fileName();
    file.tmpPath = m_output + QStringLiteral(".part");
    record.files.append(file);
    AbstractError error;
    const auto download = m_factory->createDownload(record, error);
    if (!download) {
        fail(error);
        return;
    }
    m_speedMeter->registerDownload(download.data());
    launch(download);
}

void TernGetJob::startHls(const HlsPlaylistReader::Playlist& playlist, const QUrl& playlistUrl) {
    m_kind = Kind::Hls;
    m_playlistUrl = playlistUrl;
    m_segmentsTotal = int(playlist.segments.size());
    const bool merge = playlist.hasInitSegment;
    if (m_output.isEmpty()) {
        const QString base = QFileInfo(playlistUrl.path()).completeBaseName();
        if (!takeOutput(outputPath((base.isEmpty() ? QStringLiteral("stream") : base) +
                                   (merge ? QStringLiteral(".mp4") : QStringLiteral(".ts")))))
            return;
    }
    // An error page answered 200, or anything else that is not the container, never joins it.
    m_factory->setSegmentContent(merge ? HttpDownload::ExpectedContent::FragmentedMp4
                                       : HttpDownload::ExpectedContent::MpegTs);
    auto* downloader = new IndependentSegmentsDownloader(1, m_factory, m_speedMeter, m_merger);
    QSharedPointer<AbstractDownload> download(downloader, &QObject::deleteLater);
    if (!m_savedRecord) {
        AbstractDownloadPersistentInfo record;
        record.resourceUrl = m_options.url.toString(QUrl::FullyEncoded);
        record.destinationPath = QFileInfo(m_output).absolutePath();
        record.creationTime = QDateTime::currentDateTime();
        AbstractDownloadFileInfo file;
        // The downloader finishes its file under a name of this run's own beside the output
        // (fragmented MP4 segments are joined as ".m4s" and remuxed into "<name>.part.mp4"); only
        // a rename at the very end puts it at the output.
        file.name = QFileInfo(m_output).fileName() +
                    (merge ? QStringLiteral(".part.m4s") : QStringLiteral(".part"));
        file.tmpPath = QDir(record.destinationPath).filePath(file.name);
        record.files.append(file);
        downloader->setInfo(record);
        m_segmentEnds = {qint64(0)};
    } else {
        downloader->setInfo(*m_savedRecord);
    }
    AbstractDownloadSettings settings;
    settings.existingFileReaction = AbstractDownloadExistingFileReaction::Overwrite;
    downloader->setSettings(settings);
    downloader->setWritersThread(&m_writers);
    downloader->setSegmentsSources(playlist.segments.mid(m_segmentsDone), playlist.complete, merge);
    connect(downloader, &IndependentSegmentsDownloader::segmentFinished, this,
            &TernGetJob::onSegmentFinished);
    launch(download);
}

void TernGetJob::resumeSaved(RecordStore::Entry entry) {
    if (const QString why = ResumeCheck::impossibility(entry); !why.isEmpty()) {
        startOver(why);
        return;
    }
    if (!takeOutput(entry.host.value(ResumeCheck::OutputKey).toString()))
        return;
    if (entry.record.isFinished()) {
        completeSaved(entry);
        return;
    }
    if (!fitToDataFile(entry))
        return;
    m_segmentsDone = entry.host.value(ResumeCheck::SegmentsDoneKey).toInt();
    m_segmentsTotal = entry.host.value(ResumeCheck::SegmentsTotalKey).toInt();
    m_printer.note(QStringLiteral("resuming from saved state"));
    if (entry.host.value(ResumeCheck::KindKey).toString() == QStringLiteral("hls")) {
        // The segment list is read again; the record says how far it got.
        m_savedRecord = entry.record;
        m_segmentEnds = entry.host.value(ResumeCheck::SegmentEndsKey).toList();
        probe(QUrl(entry.host.value(ResumeCheck::PlaylistUrlKey).toString()), 1);
        return;
    }
    m_kind = Kind::File;
    AbstractError error;
    const auto download = m_factory->createDownload(entry.record, error);
    if (!download) {
        fail(error);
        return;
    }
    m_speedMeter->registerDownload(download.data());
    launch(download);
}

void TernGetJob::startMedia() {
    TernMediaJob::Services services;
    services.key = m_key;
    services.network = m_factory->network();
    services.writersThread = &m_writers;
    services.factory = m_factory;
    services.speedMeter = m_speedMeter;
    services.merger = m_merger;
    services.printer = &m_printer;
    m_factory->setMediaServices(m_speedMeter, m_merger, m_options.concurrentSegments);
    m_media = new TernMediaJob(m_options, services, this);
    connect(m_media, &TernMediaJob::finished, this, [this](int exitCode) {
        if (!m_media->outputPath().isEmpty())
            m_output = m_media->outputPath();
        m_errorText = m_media->failure();
        finish(exitCode);
    });
    m_media->start();
}

// The record is kept for a look under another name, never deleted, and the download begins anew.
void TernGetJob::startOver(const QString& why) {
    QString error;
    const QString aside = m_store.setAside(m_key, &error);
    if (aside.isEmpty()) {
        fail(QStringLiteral("the saved state cannot be resumed (%1) nor set aside: %2")
                 .arg(why, error));
        return;
    }
    m_printer.error(QStringLiteral("warning: the saved state cannot be resumed (%1); it is kept as "
                                   "%2 and the download starts over")
                        .arg(why, aside));
    probe(m_options.url, 0);
}

// A run killed after its data was complete but before it reached the output.
void TernGetJob::completeSaved(const RecordStore::Entry& entry) {
    const QString data = ResumeCheck::dataPath(entry);
    if (data != m_output && QFileInfo(data).isFile()) {
        moveIntoPlace(data);
    } else if (QFileInfo::exists(m_output)) {
        m_printer.note(QStringLiteral("already downloaded: ") + m_output);
        finish(0);
    } else {
        startOver(QStringLiteral("finished, but neither %1 nor %2 exists").arg(data, m_output));
    }
}

// The record claims only what its data file holds once this returns true.
bool TernGetJob::fitToDataFile(RecordStore::Entry& entry) {
    const QString data = ResumeCheck::dataPath(entry);
    if (const QString refused = OutputGuard::refusal(data); !refused.isEmpty()) {
        fail(refused);
        return false;
    }
    const QFileInfo info(data);
    qint64 cutTo = -1;
    const QString note = ResumeCheck::fitToFile(entry, info.exists() ? info.size() : -1, &cutTo);
    if (!note.isEmpty())
        m_printer.error(QStringLiteral("warning: ") + note);
    if (cutTo >= 0 && !QFile::resize(data, cutTo)) {
        fail(QStringLiteral("cannot cut %1 to the %2 bytes saved").arg(data).arg(cutTo));
        return false;
    }
    return true;
}

void TernGetJob::launch(const QSharedPointer<AbstractDownload>& download) {
    m_download = download;
    if (m_requestsLogger)
        m_requestsLogger->registerDownload(download.data());
    connect(download.data(), &AbstractNetworkConsumerWithExtraTasks::running, this,
            &TernGetJob::onRunning);
    connect(download.data(), &AbstractDownload::changed, this, &TernGetJob::onChanged);
    NetworkUsageSettings usage;
    usage.downloadSpeedLimit = m_batteryLimit ? m_batteryLimit->limit() : m_options.limitRate;
    download->setNetworkUsageSettings(usage);
    // Through the base class, so that any download that fetches segments takes it (and hands it
    // to its children) while the others drop it.
    download->setOption(IndependentSegmentsDownloader::ConcurrentSegmentsOption,
                        m_options.concurrentSegments);
    m_startBytes = download->info().downloadedBytes();
    m_clock.start();
    save();
    m_progressTimer.start();
    download->doCommand(AbstractDownloadCommand::Start);
    if (m_interrupted)
        interrupt();
}

// --- Running ------------------------------------------------------------------------------------

// A record that claims fewer bytes than before (a download that starts its file over) is saved
// at once, before the file shrinks: a record must never claim bytes the file has lost. Growing
// records only ever trail the file, so their critical changes are saved after the whole burst of
// changes a finished segment sets off, and no sooner than minCriticalSaveIntervalMs after the
// last save.
void TernGetJob::onChanged(bool critical) {
    if (critical && m_download->info().downloadedBytes() < m_savedBytes)
        save();
    else if (critical)
        scheduleCriticalSave();
    else if (!m_saveTimer.isActive())
        m_saveTimer.start();
}

void TernGetJob::onSegmentFinished() {
    ++m_segmentsDone;
    if (!m_segmentEnds.isEmpty())
        m_segmentEnds.append(
            m_download->info()
                .customData.value(IndependentSegmentsDownloader::DownloadedSegmentsTotalKey)
                .toLongLong());
    scheduleCriticalSave();
}

void TernGetJob::scheduleCriticalSave() {
    if (m_criticalSavePending)
        return;
    m_criticalSavePending = true;
    const qint64 wait =
        m_sinceSave.isValid() ? minCriticalSaveIntervalMs - m_sinceSave.elapsed() : 0;
    if (wait > 0) {
        m_criticalSaveTimer.start(int(wait));
        return;
    }
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (m_criticalSavePending)
                save();
        },
        Qt::QueuedConnection);
}

void TernGetJob::onRunning(bool running) {
    if (running || m_finished)
        return;
    save();
    if (m_interrupted) {
        showProgress(true);
        m_printer.note(QStringLiteral("interrupted; run the same command again to resume"));
        finish(130);
        return;
    }
    const auto& info = m_download->info();
    if (info.isFinished()) {
        moveIntoPlace(AbstractDownloadFileOps::currentFilePath(info, 0));
        return;
    }
    if (m_download->lastError().isSet())
        fail(m_download->lastError());
    else
        fail(QStringLiteral(
            "the download stopped before the end (the playlist is not complete yet)"));
}

void TernGetJob::moveIntoPlace(const QString& data) {
    QString error;
    if (data != m_output && !OutputGuard::replace(data, m_output, &error)) {
        fail(error);
        return;
    }
    finish(0);
}

void TernGetJob::save() {
    if (!m_download || m_finished)
        return;
    m_saveTimer.stop();
    m_criticalSaveTimer.stop();
    m_criticalSavePending = false;
    m_sinceSave.start();
    RecordStore::Entry entry;
    entry.record = m_download->info();
    m_savedBytes = entry.record.downloadedBytes();
    entry.host.insert(ResumeCheck::KindKey,
                      m_kind == Kind::Hls ? QStringLiteral("hls") : QStringLiteral("file"));
    entry.host.insert(ResumeCheck::OutputKey, m_output);
    entry.host.insert(ResumeCheck::PlaylistUrlKey, m_playlistUrl.toString(QUrl::FullyEncoded));
    entry.host.insert(ResumeCheck::SegmentsDoneKey, m_segmentsDone);
    entry.host.insert(ResumeCheck::SegmentsTotalKey, m_segmentsTotal);
    if (m_kind == Kind::Hls && !m_segmentEnds.isEmpty())
        entry.host.insert(ResumeCheck::SegmentEndsKey, m_segmentEnds);
    QString error;
    if (!m_store.save(m_key, entry, &error))
        m_printer.error(error);
}

void TernGetJob::interrupt() {
    if (m_media) {
        m_media->interrupt();
        return;
    }
    m_interrupted = true;
    if (!m_download || !m_download->isRunning()) {
        if (m_download)
            save();
        if (!m_download || m_kind == Kind::File || m_download->info().files.isEmpty())
            finish(130);
        return;
    }
    m_download->doCommand(AbstractDownloadCommand::Stop);
}

// --- Output -------------------------------------------------------------------------------------

void TernGetJob::showProgress(bool final) {
    if (!m_download)
        return;
    const auto& info = m_download->info();
    const qint64 done = info.downloadedBytes();
    qint64 total = info.files.isEmpty() ? -1 : info.files.constFirst().size;
    double fraction = total > 0 ? double(done) / double(total) : -1;
    if (m_kind == Kind::Hls && m_segmentsTotal > 0) {
        fraction = double(m_segmentsDone) / m_segmentsTotal;
        if (m_segmentsDone > 0 && total < 0)
            total = qint64(double(done) / fraction);
    }
    ProgressPrinter::Snapshot snapshot;
    snapshot.state =
        ProgressPrinter::stateOf(m_download->currentTasks(), m_interrupted, info.isFinished());
    snapshot.done = done;
    snapshot.total = total > 0 ? total : -1;
    snapshot.fraction = fraction;
    snapshot.speed = m_speedMeter->speed();
    snapshot.secondsLeft =
        total > 0 && snapshot.speed > 0 ? qMax<qint64>(total - done, 0) / snapshot.speed : -1;
    if (m_kind == Kind::Hls) {
        snapshot.segmentsDone = m_segmentsDone;
        snapshot.segmentsTotal = m_segmentsTotal;
    }
    m_printer.progress(snapshot, final);
}

void TernGetJob::fail(const AbstractError& error) {
    fail(errorText(error));
}

void TernGetJob::fail(const QString& text) {
    if (m_finished)
        return;
    m_errorText = text;
    m_printer.error(text);
    finish(1);
}

void TernGetJob::finish(int exitCode) {
    if (m_finished)
        return;
    // The media job keeps and removes its own state.
    if (exitCode == 0 && !m_media) {
        showProgress(true);
        m_store.remove(m_key);
    }
    // A format list is the whole answer of -F, but for a front end reading JSON, which learns
    // the outcome as always.
    if (!m_options.listFormats || m_options.jsonProgress)
        m_printer.result(exitCode, m_output, m_errorText);
    m_finished = true;
    m_progressTimer.stop();
    m_saveTimer.stop();
    m_criticalSaveTimer.stop();
    Q_EMIT finished(exitCode);
}

// --- Request logs and battery ---------------------------------------------------------------

// The log files are written on the writers thread, which waitForWritersThread drains before it
// stops. A folder that cannot be used costs the download nothing: the logger warns once.
void TernGetJob::setUpRequestLogs() {
    if (m_options.logRequestsDir.isEmpty())
        return;
    m_requestsLogger = new AbstractDownloadsNetworkRequestsLogger(m_options.logRequestsDir, false,
                                                                  &m_writers, this);
}

void TernGetJob::setUpBatteryLimit() {
    if (m_options.batteryLimitRate <= 0)
        return;
    auto* battery = QtAbstractBatteryInfo::createForThisSystem(this);
    if (!battery) {
        m_printer.error(QStringLiteral("this system tells nothing about its battery; "
                                       "--battery-limit-rate has no effect"));
        return;
    }
    m_batteryLimit =
        new BatterySpeedLimit(battery, m_options.limitRate, m_options.batteryLimitRate, this);
    connect(m_batteryLimit, &BatterySpeedLimit::limitChanged, this,
            &TernGetJob::onBatteryLimitChanged);
    if (m_batteryLimit->onBattery())
        onBatteryLimitChanged(m_batteryLimit->limit(), true);
}

void TernGetJob::onBatteryLimitChanged(qint64 limit, bool onBattery) {
    const QString rate =
        limit > 0 ? RateText::bytes(limit) + QStringLiteral("/s") : QStringLiteral("no limit");
    m_printer.note(onBattery ? QStringLiteral("on battery power: speed limit %1").arg(rate)
                             : QStringLiteral("on mains power: speed limit %1").arg(rate));
    if (!m_download)
        return;
    NetworkUsageSettings usage = m_download->networkUsageSettings();
    usage.downloadSpeedLimit = limit;
    m_download->setNetworkUsageSettings(usage);
}

// Work already posted to the writers thread (the last lines of a request log) is done when this
// returns: the thread's queue is worked through in order.
void TernGetJob::waitForWritersThread() {
    if (!m_writers.isRunning())
        return;
    auto* marker = new QObject;
    marker->moveToThread(&m_writers);
    QMetaObject::invokeMethod(
        marker, [marker] { delete marker; }, Qt::BlockingQueuedConnection);
}
