#include "streamsegmentsdownload.h"

#include <terncl/core/sourceplace.h>

#include <QVariantList>

const QString StreamSegmentsDownload::PlaylistUrlKey = QStringLiteral("streamPlaylistUrl");
const QString StreamSegmentsDownload::SourcesKey = QStringLiteral("streamSources");
const QString StreamSegmentsDownload::RemuxKey = QStringLiteral("streamRemux");
const QString StreamSegmentsDownload::SegmentsDoneKey = QStringLiteral("streamSegmentsDone");
const QString StreamSegmentsDownload::SegmentsTotalKey = QStringLiteral("streamSegmentsTotal");

namespace {
// A media playlist larger than this is not a playlist.
constexpr qint64 maxPlaylistBytes = 16 * 1024 * 1024;

AbstractError playlistError(const QString& text, std::string place) {
    return AbstractError(StreamSegmentsDownload::PlaylistFailedCode, AbstractError::GenericError,
                         std::move(place), text.toStdString());
}
} // namespace

StreamSegmentsDownload::StreamSegmentsDownload(
    qint64 id, QWeakPointer<AbstractDownloadsSimpleFactory> factory,
    QSharedPointer<AbstractDownloadsSpeedMeter> speedMeter,
    const QWeakPointer<QtFfmpegAvMerger>& avMerger, CurlMulti* network, QObject* parent)
    : IndependentSegmentsDownloader(id, std::move(factory), std::move(speedMeter), avMerger, parent)
    , m_network(network) {
    connect(this, &IndependentSegmentsDownloader::segmentFinished, this,
            &StreamSegmentsDownload::onSegmentDone);
}

StreamSegmentsDownload::~StreamSegmentsDownload() {
    delete m_probe;
}

void StreamSegmentsDownload::describePlaylist(AbstractDownloadPersistentInfo* info,
                                              const QUrl& playlist, bool remux) {
    info->customData.insert(PlaylistUrlKey, playlist.toString(QUrl::FullyEncoded));
    info->customData.remove(SourcesKey);
    info->customData.insert(RemuxKey, remux);
}

void StreamSegmentsDownload::describeSources(AbstractDownloadPersistentInfo* info,
                                             const QList<AbstractDownloadSourceInfo>& sources,
                                             bool remux) {
    QVariantList list;
    for (const auto& source : sources)
        list.append(source.toVariantHash());
    info->customData.insert(SourcesKey, list);
    info->customData.remove(PlaylistUrlKey);
    info->customData.insert(RemuxKey, remux);
}

int StreamSegmentsDownload::segmentsDone() const {
    return info().customData.value(SegmentsDoneKey).toInt();
}

int StreamSegmentsDownload::segmentsTotal() const {
    return info().customData.value(SegmentsTotalKey).toInt();
}

bool StreamSegmentsDownload::isRunning() const {
    return m_readingPlaylist || IndependentSegmentsDownloader::isRunning();
}

AbstractError StreamSegmentsDownload::lastError() const {
    return m_startError.isSet() ? m_startError : IndependentSegmentsDownloader::lastError();
}

void StreamSegmentsDownload::clearLastError() {
    m_startError = {};
    IndependentSegmentsDownloader::clearLastError();
}

void StreamSegmentsDownload::doCommand(AbstractDownloadCommand command) {
    if (command == AbstractDownloadCommand::Stop && m_readingPlaylist) {
        if (m_probe) {
            m_probe->disconnect(this);
            m_probe->deleteLater();
        }
        failStart(AbstractError(StopCommandCode, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                                "stopped"));
        return;
    }
    if (command != AbstractDownloadCommand::Start || isRunning() || info().isFinished()) {
        IndependentSegmentsDownloader::doCommand(command);
        return;
    }
    m_startError = {};
    const auto& data = info().customData;
    const QUrl playlist(data.value(PlaylistUrlKey).toString());
    if (!playlist.isEmpty()) {
        readPlaylist(playlist);
        return;
    }
    QList<AbstractDownloadSourceInfo> sources;
    for (const QVariant& source : data.value(SourcesKey).toList())
        sources.append(AbstractDownloadSourceInfo::fromVariantHash(source.toHash()));
    startSegments(sources, true);
}

// The playlist is read while the download counts as running, so that whoever started it waits
// for its end rather than taking the quiet moment for a stop.
void StreamSegmentsDownload::readPlaylist(const QUrl& url) {
    if (!m_network) {
        failStart(playlistError(QStringLiteral("no network"), TERNCL_SOURCE_PLACE));
        return;
    }
    m_readingPlaylist = true;
    CurlTransfer::Request request;
    request.url = url;
    m_probe = new CurlProbe(m_network, request, this);
    m_probe->setMaxBodySize(maxPlaylistBytes);
    m_probe->wantBody = [](const HttpHeaders&, const QUrl&) {
        return true;
    };
    CurlProbe* probe = m_probe;
    connect(probe, &CurlProbe::finished, this, [this, probe] { onPlaylistRead(probe); });
    probe->start();
    Q_EMIT running(true);
}

void StreamSegmentsDownload::onPlaylistRead(CurlProbe* probe) {
    probe->deleteLater();
    if (probe->error().isSet()) {
        AbstractError error = probe->error();
        if (error.category == AbstractError::HttpError)
            error.description += ": " + probe->url().toString().toStdString();
        failStart(error);
        return;
    }
    AbstractError error;
    const auto playlist = HlsPlaylistReader::parse(probe->body(), probe->url(), &error);
    if (!error.isSet() && (playlist.isMaster || playlist.segments.isEmpty()))
        error = playlistError(QStringLiteral("not a media playlist with segments: ") +
                                  probe->url().toString(),
                              TERNCL_SOURCE_PLACE);
    if (error.isSet()) {
        failStart(error);
        return;
    }
    m_probe = nullptr;
    rwInfo().customData.insert(RemuxKey, playlist.hasInitSegment);
    startSegments(playlist.segments, playlist.complete);
}

void StreamSegmentsDownload::startSegments(const QList<AbstractDownloadSourceInfo>& sources,
                                           bool complete) {
    const int done = segmentsDone();
    if (sources.isEmpty() || done > sources.size()) {
        failStart(playlistError(QStringLiteral("the stream has %1 segments, %2 are done already")
                                    .arg(sources.size())
                                    .arg(done),
                                TERNCL_SOURCE_PLACE));
        return;
    }
    rwInfo().customData.insert(SegmentsTotalKey, int(sources.size()));
    // The segments downloader reports its own start; reading the playlist ends quietly.
    m_readingPlaylist = false;
    setSegmentsSources(sources.mid(done), complete, info().customData.value(RemuxKey).toBool());
    IndependentSegmentsDownloader::doCommand(AbstractDownloadCommand::Start);
}

// Whoever sent the start hears of its end, also when it fails before anything ran.
void StreamSegmentsDownload::failStart(const AbstractError& error) {
    if (!m_readingPlaylist)
        Q_EMIT running(true);
    m_readingPlaylist = false;
    m_probe = nullptr;
    m_startError = error;
    Q_EMIT changed(true);
    Q_EMIT running(false);
}

// Counted in the record before the change that the segment's end sets off is reported, so a
// record saved at any moment agrees with the file.
void StreamSegmentsDownload::onSegmentDone() {
    rwInfo().customData.insert(SegmentsDoneKey, segmentsDone() + 1);
}
