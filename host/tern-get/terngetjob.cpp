#include "terngetjob.h"

#include "curlprobe.h"
#include "hostdownloadsfactory.h"
#include "httpdownload.h"
#include "ratetext.h"

#include <terncl/core/sourceplace.h>
#include <terncl/fs/qt/utils/filenamerules.h>
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
const QString kKind = QStringLiteral("kind");
const QString kOutput = QStringLiteral("output");
const QString kPlaylistUrl = QStringLiteral("playlistUrl");
const QString kSegmentsDone = QStringLiteral("segmentsDone");
const QString kSegmentsTotal = QStringLiteral("segmentsTotal");
constexpr int maxProbeBytes = 4 * 1024 * 1024;

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
} // namespace

TernGetJob::TernGetJob(Options options, QObject* parent)
    : QObject(parent)
    , m_options(std::move(options))
    , m_store(m_options.stateDir)
    , m_err(new QTextStream(stderr)) {
    m_key = key();
    m_progressTimer.setInterval(m_options.progressBar ? 250 : 2000);
    connect(&m_progressTimer, &QTimer::timeout, this, [this] { showProgress(false); });
    m_saveTimer.setSingleShot(true);
    m_saveTimer.setInterval(500);
    connect(&m_saveTimer, &QTimer::timeout, this, &TernGetJob::save);
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
}

TernGetJob::~TernGetJob() {
    m_download.reset();
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
    QString error;
    const auto entry = m_store.load(m_key, &error);
    if (!error.isEmpty())
        *m_err << "tern-get: ignoring saved state: " << error << Qt::endl;
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
    probe->wantBody = [](const HttpHeaders& head, const QUrl& answerUrl) {
        return looksLikePlaylist(answerUrl, head);
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

void TernGetJob::startFile(const QString& contentName) {
    m_kind = Kind::File;
    m_output = outputPath(contentName);
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
        m_output = outputPath((base.isEmpty() ? QStringLiteral("stream") : base) +
                              (merge ? QStringLiteral(".mp4") : QStringLiteral(".ts")));
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
        // Fragmented MP4 segments are joined as they come and remuxed into the output at the
        // end, which is what the ".m4s" name asks for.
        const QString name = QFileInfo(m_output).fileName();
        file.name = merge ? QFileInfo(m_output).completeBaseName() + QStringLiteral(".m4s") : name;
        file.tmpPath = QDir(record.destinationPath).filePath(file.name + QStringLiteral(".part"));
        record.files.append(file);
        downloader->setInfo(record);
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

void TernGetJob::resumeSaved(const RecordStore::Entry& entry) {
    m_output = entry.host.value(kOutput).toString();
    m_segmentsDone = entry.host.value(kSegmentsDone).toInt();
    m_segmentsTotal = entry.host.value(kSegmentsTotal).toInt();
    if (entry.record.isFinished() && QFile::exists(m_output)) {
        *m_err << "tern-get: already downloaded: " << m_output << Qt::endl;
        m_store.remove(m_key);
        finish(0);
        return;
    }
    *m_err << "tern-get: resuming from saved state" << Qt::endl;
    if (entry.host.value(kKind).toString() == QStringLiteral("hls")) {
        // The segment list is read again; the record says how far it got.
        m_savedRecord = entry.record;
        probe(QUrl(entry.host.value(kPlaylistUrl).toString()), 1);
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

void TernGetJob::launch(const QSharedPointer<AbstractDownload>& download) {
    m_download = download;
    connect(download.data(), &AbstractNetworkConsumerWithExtraTasks::running, this,
            &TernGetJob::onRunning);
    connect(download.data(), &AbstractDownload::changed, this, &TernGetJob::onChanged);
    NetworkUsageSettings usage;
    usage.downloadSpeedLimit = m_options.limitRate;
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
// records only ever trail the file, so their critical changes are saved once per pass of the
// event loop, after the whole burst of changes a finished segment sets off.
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
    scheduleCriticalSave();
}

void TernGetJob::scheduleCriticalSave() {
    if (m_criticalSavePending)
        return;
    m_criticalSavePending = true;
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
        *m_err << "tern-get: interrupted; run the same command again to resume" << Qt::endl;
        finish(130);
        return;
    }
    const auto& info = m_download->info();
    if (info.isFinished()) {
        if (m_kind == Kind::File)
            completeFile();
        else
            finish(0);
        return;
    }
    if (m_download->lastError().isSet())
        fail(m_download->lastError());
    else
        fail(QStringLiteral(
            "the download stopped before the end (the playlist is not complete yet)"));
}

void TernGetJob::completeFile() {
    const QString part = m_download->info().files.constFirst().tmpPath;
    QFile::remove(m_output);
    if (!QFile::rename(part, m_output)) {
        fail(QStringLiteral("cannot move %1 to %2").arg(part, m_output));
        return;
    }
    finish(0);
}

void TernGetJob::save() {
    if (!m_download || m_finished)
        return;
    m_saveTimer.stop();
    m_criticalSavePending = false;
    RecordStore::Entry entry;
    entry.record = m_download->info();
    m_savedBytes = entry.record.downloadedBytes();
    entry.host.insert(kKind, m_kind == Kind::Hls ? QStringLiteral("hls") : QStringLiteral("file"));
    entry.host.insert(kOutput, m_output);
    entry.host.insert(kPlaylistUrl, m_playlistUrl.toString(QUrl::FullyEncoded));
    entry.host.insert(kSegmentsDone, m_segmentsDone);
    entry.host.insert(kSegmentsTotal, m_segmentsTotal);
    QString error;
    if (!m_store.save(m_key, entry, &error))
        *m_err << "tern-get: " << error << Qt::endl;
}

void TernGetJob::interrupt() {
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
    const qint64 speed = m_speedMeter->speed();
    const qint64 left = total > 0 && speed > 0 ? (total - done) / speed : -1;
    const QString percent = fraction >= 0
                                ? QStringLiteral("%1%").arg(qMin(fraction, 1.0) * 100, 5, 'f', 1)
                                : QStringLiteral("  ?%");
    QString line = QStringLiteral("%1  %2").arg(percent, RateText::bytes(done));
    if (total > 0)
        line += QStringLiteral(" of ") + RateText::bytes(total);
    line += QStringLiteral("  %1/s  ETA %2").arg(RateText::bytes(speed), RateText::duration(left));
    if (m_kind == Kind::Hls)
        line += QStringLiteral("  segments %1/%2").arg(m_segmentsDone).arg(m_segmentsTotal);
    if (m_options.progressBar)
        *m_err << "\r\033[K" << line << (final ? "\n" : "") << Qt::flush;
    else
        *m_err << "progress: " << line << Qt::endl;
}

void TernGetJob::fail(const AbstractError& error) {
    fail(errorText(error));
}

void TernGetJob::fail(const QString& text) {
    if (m_finished)
        return;
    if (m_options.progressBar)
        *m_err << Qt::endl;
    *m_err << "tern-get: " << text << Qt::endl;
    finish(1);
}

void TernGetJob::finish(int exitCode) {
    if (m_finished)
        return;
    if (exitCode == 0) {
        showProgress(true);
        m_store.remove(m_key);
        QTextStream(stdout) << "Saved to " << m_output << Qt::endl;
    }
    m_finished = true;
    m_progressTimer.stop();
    m_saveTimer.stop();
    Q_EMIT finished(exitCode);
}
