#pragma once

#include "curlmulti.h"
#include "curlprobe.h"
#include "hlsplaylistreader.h"

#include <terncl/inet/qt/download/independentsegmentsdownloader.h>

#include <QPointer>

// A stream made of segments fetched into one file: an HLS media playlist, read when the download
// starts, or a fixed list of sources (the init segment and media segments of a DASH
// representation). The segments themselves go through the segments downloader it extends.
//
// Everything it needs to resume lives in its record's custom data, so a restored record goes on
// where it stopped: the playlist's address or the fixed sources, whether the joined segments are
// remuxed, and how many segments are already in the file. A playlist is read again on every
// start (its addresses may carry tokens that expire); segments already in the file are never
// fetched again. Reading the playlist counts as running (running(true) comes when it starts),
// and the segments downloader then reports running(true) once more as the segments start:
// listeners must take a repeated running(true) as no change, as the packs do. Lives on the main
// thread.
class StreamSegmentsDownload final : public IndependentSegmentsDownloader {
    Q_OBJECT

public:
    // Custom-data keys of its record.
    static const QString PlaylistUrlKey;   // "streamPlaylistUrl": an HLS media playlist
    static const QString SourcesKey;       // "streamSources": the fixed list of sources
    static const QString RemuxKey;         // "streamRemux": remux the joined segments to mp4
    static const QString SegmentsDoneKey;  // "streamSegmentsDone": segments in the file
    static const QString SegmentsTotalKey; // "streamSegmentsTotal": as last known

    // Code of the "GenericError" of a playlist that cannot be read or lists no segment.
    static constexpr int PlaylistFailedCode = 11;

    StreamSegmentsDownload(qint64 id, QWeakPointer<AbstractDownloadsSimpleFactory> factory,
                           QSharedPointer<AbstractDownloadsSpeedMeter> speedMeter,
                           const QWeakPointer<QtFfmpegAvMerger>& avMerger, CurlMulti* network,
                           QObject* parent = nullptr);
    ~StreamSegmentsDownload() override;

    // Fills the custom data of a new stream's record: a playlist to read at start.
    static void describePlaylist(AbstractDownloadPersistentInfo* info, const QUrl& playlist,
                                 bool remux);
    // ... or a fixed list of sources.
    static void describeSources(AbstractDownloadPersistentInfo* info,
                                const QList<AbstractDownloadSourceInfo>& sources, bool remux);

    int segmentsDone() const;
    int segmentsTotal() const;

    bool isRunning() const override;
    AbstractError lastError() const override;
    void clearLastError() override;

public Q_SLOTS:
    void doCommand(AbstractDownloadCommand command) override;

private:
    void readPlaylist(const QUrl& url);
    void onPlaylistRead(CurlProbe* probe);
    void startSegments(const QList<AbstractDownloadSourceInfo>& sources, bool complete);
    void failStart(const AbstractError& error);
    void onSegmentDone();

    QPointer<CurlMulti> m_network;
    QPointer<CurlProbe> m_probe;
    bool m_readingPlaylist = false;
    AbstractError m_startError;
};
