#pragma once

#include <terncl/inet/qt/download/abstractdownload.h>
#include <terncl/inet/qt/download/abstractdownloadsourceinfo.h>

#include "tokenbucket.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QSharedPointer>
#include <QTimer>

#include <deque>

class FileDataAsyncWriter;
class QNetworkAccessManager;
class QNetworkReply;

// One HTTP(S) resource fetched into one file. The bytes go through a FileDataAsyncWriter on the
// writers thread, at the file record's writeOffset plus what is done, so that a segments
// downloader can point several of these at one file. Lives on the main thread.
//
// Resuming asks for the missing bytes with a Range request and takes the answer only when it is
// a 206 whose Content-Range starts where it asked; a 200 restarts the file from its start, and an
// error status never reaches the file. The download speed limit of its usage settings is held
// with a token bucket over a bounded read buffer, so the rate stays smooth. Transient failures
// (connection reset, time-outs, 5xx) are retried with back-off before the download stops.
// The record's "done" bytes advance only once the writer has flushed them, so a record saved at
// any moment never claims bytes that are not in the file.
class HttpDownload final : public AbstractDownload {
    Q_OBJECT

public:
    struct Options {
        int maxRetries = 5;
        int retryBaseDelayMs = 500;
        int transferTimeoutMs = 30000;
    };

    // The custom-data key that carries this download's AbstractDownloadSourceInfo (request
    // headers and byte range); without it the record's resourceUrl is fetched whole.
    static const QString SourceKey;

    HttpDownload(qint64 id, QNetworkAccessManager* network, QObject* parent = nullptr);
    ~HttpDownload() override;

    void setOptions(const Options& options) { m_options = options; }
    // Shares the speed limit's bucket with other downloads (the segments of one stream); by
    // default each download has its own.
    void setTokenBucket(const QSharedPointer<TokenBucket>& bucket) { m_bucket = bucket; }

    void doCommand(AbstractDownloadCommand command) override;
    const AbstractDownloadPersistentInfo& info() const override { return m_info; }
    bool setInfo(const AbstractDownloadPersistentInfo& info) override;
    bool updateInfoFields(const AbstractDownloadPersistentInfo& info, qint64 fields,
                          BitFlagsUpdateMode mode) override;
    QSet<AbstractDownloadDestinationType> supportedDestinations() const override;
    bool setWritersThread(QThread* thread) override;
    void setSettings(const AbstractDownloadSettings& settings) override { m_settings = settings; }
    const AbstractDownloadSettings& settings() const override { return m_settings; }
    quint64 currentTasks() const override;
    AbstractDownloadTasksProgress tasksProgress() const override;
    bool isQueryingInfo() const override { return false; }
    bool isStopping() const override { return m_stopping; }
    bool supportsWriteOffset() const override { return true; }

    void setNetworkSettings(const AbstractNetworkConsumerSettings& settings) override;
    AbstractNetworkConsumerSettings networkSettings() const override { return m_networkSettings; }
    void setNetworkUsageSettings(const NetworkUsageSettings& settings) override;
    NetworkUsageSettings networkUsageSettings() const override { return m_usageSettings; }
    const QtConnectionsMap& connectionsMap() const override { return m_connections; }
    qint64 speed(NetworkTrafficDirection direction, bool currentOnly) const override;
    AbstractError lastError() const override { return m_lastError; }
    QList<QSslError> lastSslErrors() const override { return m_sslErrors; }
    QtSslHost lastUnknownSslHost() const override { return {}; }
    QDateTime lastErrorTime() const override { return m_lastErrorTime; }
    void clearLastError() override;
    bool isRunning() const override { return m_running; }

protected:
    AbstractDownloadPersistentInfo& rwInfo() override { return m_info; }

private:
    enum class Outcome { None, Completed, Failed, Aborted };

    void start();
    void stop(const AbstractError& error);
    void sendRequest();
    void onReadyRead();
    void onReplyFinished();
    void completeAttempt();
    bool acceptResponse();
    bool acceptStatus(int status);
    bool prepareRangeResponse(int status);
    void openWriter(bool truncate);
    void pump();
    void takeBytes(qint64 budget);
    void onDataProcessed(qint64 size);
    void onWriterFailed();
    void endAttempt(Outcome outcome, const AbstractError& error);
    void onAttemptDrained();
    void finishSuccessfully();
    void retryOrStop(const AbstractError& error);
    void setRunningState(bool running);
    void setConnected(bool connected);
    void releaseReply();
    void releaseWriter();
    void recordSpeed(qint64 bytes);

    AbstractDownloadFileInfo& file();
    QString targetPath() const;
    AbstractDownloadSourceInfo source() const;
    qint64 doneBytes() const;
    bool isShareOfAnotherFile() const;
    void setDone(qint64 done);

    QNetworkAccessManager* m_network;
    Options m_options;
    AbstractDownloadPersistentInfo m_info;
    AbstractDownloadSettings m_settings;
    AbstractNetworkConsumerSettings m_networkSettings;
    NetworkUsageSettings m_usageSettings;
    QtConnectionsMap m_connections;
    QtHostAndPort m_endpoint;
    AbstractError m_lastError;
    QDateTime m_lastErrorTime;
    QList<QSslError> m_sslErrors;
    QThread* m_writersThread = nullptr;

    bool m_running = false;
    bool m_stopping = false;
    QPointer<QNetworkReply> m_reply;
    FileDataAsyncWriter* m_writer = nullptr;
    qint64 m_requestId = 0;
    int m_attempt = 0;
    bool m_accepted = false;
    bool m_rangeRequested = false;
    qint64 m_skipBytes = 0;  // bytes of a whole-resource answer before the wanted range
    qint64 m_takeLimit = -1; // bytes still wanted of a byte-range source, -1 without limit
    qint64 m_sentToWriter = 0;
    qint64 m_confirmedBase = 0; // done bytes when the current attempt's writes began
    qint64 m_confirmed = 0;     // bytes of this attempt that the writer has flushed
    Outcome m_outcome = Outcome::None;
    AbstractError m_outcomeError;
    bool m_draining = false;

    QTimer m_pumpTimer;
    QTimer m_retryTimer;
    QSharedPointer<TokenBucket> m_bucket = QSharedPointer<TokenBucket>::create();
    std::deque<std::pair<qint64, qint64>> m_speedSamples; // (ms since start, bytes)
    QElapsedTimer m_speedClock;
};
