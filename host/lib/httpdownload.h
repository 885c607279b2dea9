#pragma once

#include <terncl/inet/qt/download/abstractdownload.h>
#include <terncl/inet/qt/download/abstractdownloadsourceinfo.h>
#include <terncl/inet/qt/download/qtnetworkauthrecord.h>
#include <terncl/inet/qt/download/qtnetworkauthscope.h>

#include "httpheaders.h"
#include "tokenbucket.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QSharedPointer>
#include <QTimer>

#include <deque>

class CurlMulti;
class CurlTransfer;
class FileDataAsyncWriter;
class QNetworkProxyFactory;
class QtAbstractKnownSslHostsKeeper;
class QtAbstractNetworkAuthRequestor;
class QtAbstractNetworkPasswordsKeeper;

// One HTTP(S) resource fetched into one file with libcurl, on a CurlMulti shared with the other
// downloads of the same factory. The bytes go through a FileDataAsyncWriter on the writers
// thread, at the file record's writeOffset plus what is done, so that a segments downloader can
// point several of these at one file. Lives on the main thread.
//
// Resuming asks for the missing bytes with a Range request and takes the answer only when it is
// a 206 whose Content-Range starts where it asked; a 200 restarts the file from its start, and an
// error status never reaches the file. The download speed limit of its usage settings is held
// with a token bucket over a bounded buffer; when that is full the transfer is paused rather than
// read ahead, so the rate stays smooth. Transient failures (connection reset, time-outs, 5xx) are
// retried with back-off before the download stops. Nothing waits forever: connecting, the first
// byte of an answer, every next byte (the stall time-out) and a trickle below a floor speed all
// have time limits, and response heads are capped. A download that fetches a segment of a stream
// can be told what the segment must hold, so that an error page answered with 200 is refused
// before a byte of it is written. The record's "done" bytes advance only once the writer has
// flushed them, so a record saved at any moment never claims bytes that are not in the file.
// While only the flush is left it counts as finalizing, announced by a change, so that a segments
// downloader can start the next segment meanwhile.
class HttpDownload final : public AbstractDownload {
    Q_OBJECT

public:
    // What the body must be; checked on its Content-Type and its first bytes.
    enum class ExpectedContent { Any, MpegTs, FragmentedMp4 };

    struct Options {
        int maxRetries = 5;
        int retryBaseDelayMs = 500;
        int connectTimeoutMs = 30000;
        int firstByteTimeoutMs = 30000;
        int stallTimeoutMs = 30000;
        // Slower than this for lowSpeedTimeMs counts as a failed attempt; off under a speed
        // limit, which makes a download slow on purpose.
        int lowSpeedLimit = 1024;
        int lowSpeedTimeMs = 60000;
        int maxRedirects = 10;
        ExpectedContent expectedContent = ExpectedContent::Any;
    };

    // The kind of the keys in the hosts this download reports and accepts: the DER bytes of the
    // certificate's SubjectPublicKeyInfo, what a public-key pin is a hash of.
    static constexpr int SpkiDerKey = 0;

    // An unexpected body: an error page, or bytes of another kind than the segment's container.
    static constexpr int WrongContentError = 1;

    // The custom-data key that carries this download's AbstractDownloadSourceInfo (request
    // headers and byte range); without it the record's resourceUrl is fetched whole.
    static const QString SourceKey;

    HttpDownload(qint64 id, CurlMulti* network, QObject* parent = nullptr);
    ~HttpDownload() override;

    void setOptions(const Options& options) { m_options = options; }
    // Shares the speed limit's bucket with other downloads (the segments of one stream); by
    // default each download has its own.
    void setTokenBucket(const QSharedPointer<TokenBucket>& bucket) { m_bucket = bucket; }
    // Where to ask for the proxy of each request; without one the environment's proxy
    // variables apply.
    void setProxyFactory(QNetworkProxyFactory* factory) { m_proxyFactory = factory; }
    // Credentials for a server that asks (401, Basic or Digest): those in the URL, else the
    // keeper's for the server and realm, else the requestor's answer, which the keeper then
    // stores as the requestor says. Either may be null. A proxy that asks (407) goes the same
    // way, after the credentials of the QNetworkProxy itself, with a scope of kind
    // QtNetworkAuthScope::Proxy whose URL is the proxy's (scheme, host and port).
    void setAuth(QtAbstractNetworkPasswordsKeeper* passwords,
                 QtAbstractNetworkAuthRequestor* requestor);
    // A server whose certificate does not verify is looked up by its key: a host the keeper
    // knows, or one that the receiver of sslAcceptUnknownHostRequired accepts (storing it is the
    // receiver's choice), is fetched again with exactly that key pinned. Otherwise the download
    // fails with the TLS error and reports the host as lastUnknownSslHost. May be null.
    void setKnownSslHosts(QtAbstractKnownSslHostsKeeper* keeper);

    // Why the body is refused, or an empty text. first holds the body's first bytes (what
    // arrived of them when it is shorter).
    static QString contentTypeMismatch(ExpectedContent expected, const QByteArray& contentType);
    static QString contentMismatch(ExpectedContent expected, const QByteArray& contentType,
                                   const QByteArray& first);

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
    // Every byte has arrived and the file's size is known; the last ones are being flushed.
    bool isFinalizing() const override;
    bool supportsWriteOffset() const override { return true; }

    void setNetworkSettings(const AbstractNetworkConsumerSettings& settings) override;
    AbstractNetworkConsumerSettings networkSettings() const override { return m_networkSettings; }
    void setNetworkUsageSettings(const NetworkUsageSettings& settings) override;
    NetworkUsageSettings networkUsageSettings() const override { return m_usageSettings; }
    const QtConnectionsMap& connectionsMap() const override { return m_connections; }
    qint64 speed(NetworkTrafficDirection direction, bool currentOnly) const override;
    AbstractError lastError() const override { return m_lastError; }
    QList<QSslError> lastSslErrors() const override { return m_sslErrors; }
    QtSslHost lastUnknownSslHost() const override { return m_unknownHost; }
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
    CurlTransfer* makeTransfer(const AbstractDownloadSourceInfo& source, qint64 done);
    void onResponseHead(const HttpHeaders& head);
    int onBody(const char* data, qsizetype size);
    void onTransferFinished(const AbstractError& error);
    void completeAttempt();
    bool acceptResponse();
    bool acceptStatus(const HttpHeaders& head);
    bool prepareRangeResponse(const HttpHeaders& head);
    void openWriter(bool truncate);
    void pump();
    void consume(QByteArrayView data);
    void queueWrite(QByteArrayView data);
    void flushWrites();
    bool passContentCheck();
    void onDataProcessed(qint64 size);
    void onWriterFailed();
    void endAttempt(Outcome outcome, const AbstractError& error);
    void onAttemptDrained();
    void finishSuccessfully();
    void retryOrStop(const AbstractError& error);
    bool answerChallenge(const AbstractError& error);
    void setAuthScope(int kind, const HttpHeaders& head);
    QtNetworkAuthRecord& credentialsFor(int kind);
    void onAuthAnswered(const QtNetworkAuthScope& scope, const QtNetworkAuthRecord& record,
                        bool remember);
    bool learnUnknownHost(const AbstractError& error);
    void onProbeFinished(const AbstractError& probeError);
    bool acceptHost(const QtSslHost& host);
    void giveUp(const AbstractError& error);
    void setRunningState(bool running);
    void setConnected(bool connected);
    void releaseTransfer();
    void releaseWriter();
    void recordSpeed(qint64 bytes);
    qint64 bufferCapacity() const;

    AbstractDownloadFileInfo& file();
    QString targetPath() const;
    AbstractDownloadSourceInfo source() const;
    qint64 doneBytes() const;
    bool isShareOfAnotherFile() const;
    void setDone(qint64 done);

    QPointer<CurlMulti> m_multi;
    QNetworkProxyFactory* m_proxyFactory = nullptr;
    QPointer<QtAbstractNetworkPasswordsKeeper> m_passwords;
    QPointer<QtAbstractNetworkAuthRequestor> m_authRequestor;
    QtNetworkAuthScope m_authScope;
    QtNetworkAuthRecord m_credentials;
    QtNetworkAuthRecord m_proxyCredentials;
    AbstractError m_authError; // the 401 or 407 that waits for the requestor's answer
    // Scope kinds (bit 1 << kind) whose keeper or requestor was asked since the start.
    int m_keeperAsked = 0;
    int m_requestorAsked = 0;
    QPointer<QtAbstractKnownSslHostsKeeper> m_knownHosts;
    QPointer<CurlTransfer> m_probe; // learns the key of a server whose certificate failed
    QUrl m_unverifiedUrl;           // where the certificate failed, after any redirects
    bool m_tlsUnverified = false;
    bool m_hostProbed = false;
    AbstractError m_tlsError; // the failure that waits for the probe
    QByteArray m_acceptedKey; // pinned once a host is accepted, until the next start
    QtSslHost m_unknownHost;
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
    QPointer<CurlTransfer> m_transfer;
    QByteArray m_buffer; // bytes held back by the speed limit
    bool m_transferDone = false;
    AbstractError m_transferError;
    bool m_checkPending = false; // the first bytes still have to pass the content check
    QByteArray m_checkBuffer;
    QByteArray m_pendingWrite; // bytes for the writer, sent in batches
    QByteArray m_contentType;
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
