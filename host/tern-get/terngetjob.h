#pragma once

#include "hlsplaylistreader.h"
#include "outputguard.h"
#include "progressprinter.h"
#include "recordstore.h"

#include <terncl/core/abstracterror.h>

#include <QElapsedTimer>
#include <QObject>
#include <QSharedPointer>
#include <QThread>
#include <QTimer>
#include <QUrl>

#include <optional>

class AbstractDownload;
class AbstractDownloadsNetworkRequestsLogger;
class AbstractDownloadsSpeedMeter;
class BatterySpeedLimit;
class CurlProbe;
class HostDownloadsFactory;
class QtFfmpegAvMerger;
class QtFfmpegManager;
class QTextStream;
class TernMediaJob;

// One run of tern-get: finds out what the URL is (a file or an HLS playlist), restores a saved
// record for the same URL and output or starts a new one, runs the download while showing its
// progress, keeps the record saved, and ends with an exit code. Main thread.
class TernGetJob : public QObject {
    Q_OBJECT

public:
    // More connections to one server than this help no one and look like abuse.
    static constexpr int MaxConcurrentSegments = 64;
    // Beyond this, retrying only hides a server that is down.
    static constexpr int MaxRetries = 100;

    struct Options {
        QUrl url;
        QString output; // empty: named after the resource
        qint64 limitRate = 0;
        QString stateDir;
        int retries = 5;
        int stallTimeoutMs = 30000; // no byte for this long fails the attempt
        int concurrentSegments = 4; // segments of a stream fetched at once
        bool progressBar = false;   // a single redrawn line instead of periodic lines
        bool sandbox = true;        // run ffmpeg confined where the system allows it

        QString logRequestsDir;      // request logs of each run go here; empty: none
        qint64 batteryLimitRate = 0; // the limit while on battery; 0: as on mains power
        bool quiet = false;          // no progress and no notes, only errors
        bool jsonProgress = false;   // progress and result as JSON lines on stdout
        bool listFormats = false;    // list the media versions instead of downloading
        QString format;              // the media version to download (FormatSpec); empty: default
        QString mergeFormat;         // "mp4" or "mkv" for merged video and audio; empty: by codecs
    };

    explicit TernGetJob(Options options, QObject* parent = nullptr);
    ~TernGetJob() override;

    void start();
    // Stops the download, saves its record and finishes with exit code 130.
    void interrupt();

Q_SIGNALS:
    void finished(int exitCode);

private:
    enum class Kind { File, Hls };

    void probe(const QUrl& url, int depth);
    void onProbeAnswer(CurlProbe* probe, int depth);
    void startFile(const QString& contentName);
    void startHls(const HlsPlaylistReader::Playlist& playlist, const QUrl& playlistUrl);
    bool takeOutput(const QString& path);
    void resumeSaved(RecordStore::Entry entry);
    void startOver(const QString& why);
    void completeSaved(const RecordStore::Entry& entry);
    bool fitToDataFile(RecordStore::Entry& entry);
    // HLS masters, DASH manifests and web pages go to the media job.
    void startMedia();
    void launch(const QSharedPointer<AbstractDownload>& download);
    void onRunning(bool running);
    void onChanged(bool critical);
    void onSegmentFinished();
    void moveIntoPlace(const QString& data);
    void scheduleCriticalSave();
    void save();
    void showProgress(bool final);
    void fail(const AbstractError& error);
    void fail(const QString& text);
    void finish(int exitCode);
    void setUpRequestLogs();
    void setUpBatteryLimit();
    void onBatteryLimitChanged(qint64 limit, bool onBattery);
    void waitForWritersThread();

    QString outputPath(const QString& suggestedName) const;
    QString key() const;

    Options m_options;
    RecordStore m_store;
    OutputGuard m_guard;
    QThread m_writers;
    QSharedPointer<HostDownloadsFactory> m_factory;
    QSharedPointer<AbstractDownloadsSpeedMeter> m_speedMeter;
    QSharedPointer<QtFfmpegManager> m_ffmpeg;
    QSharedPointer<QtFfmpegAvMerger> m_merger;
    QSharedPointer<AbstractDownload> m_download;
    TernMediaJob* m_media = nullptr;

    std::optional<AbstractDownloadPersistentInfo> m_savedRecord;
    Kind m_kind = Kind::File;
    QString m_output;
    QUrl m_playlistUrl;
    int m_segmentsTotal = 0;
    int m_segmentsDone = 0;
    QVariantList m_segmentEnds; // see ResumeCheck::SegmentEndsKey; empty when unknown
    bool m_interrupted = false;
    bool m_finished = false;
    bool m_criticalSavePending = false;
    qint64 m_savedBytes = 0; // what the last saved record claims
    QString m_key;
    QTimer m_progressTimer;
    QTimer m_saveTimer;
    QTimer m_criticalSaveTimer;
    QElapsedTimer m_sinceSave;
    QElapsedTimer m_clock;
    qint64 m_startBytes = 0;
    QTextStream* m_err;
    ProgressPrinter m_printer;
    QString m_errorText;
    AbstractDownloadsNetworkRequestsLogger* m_requestsLogger = nullptr;
    BatterySpeedLimit* m_batteryLimit = nullptr;
};
