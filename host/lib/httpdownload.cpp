#include "httpdownload.h"

#include "curlmulti.h"
#include "curltransfer.h"

#include <terncl/core/qtappdefaultlogger.h>
#include <terncl/core/sourceplace.h>
#include <terncl/data/qt/filedataasyncwriter.h>
#include <terncl/inet/qt/download/qtabstractknownsslhostskeeper.h>
#include <terncl/inet/qt/download/qtabstractnetworkauthrequestor.h>
#include <terncl/inet/qt/download/qtabstractnetworkpasswordskeeper.h>

#include <QDir>
#include <QFileInfo>
#include <QNetworkProxyFactory>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QSslKey>
#include <QThread>

#include <utility>

namespace {
constexpr int pumpIntervalMs = 10;
// Enough for several MPEG-TS packets and the first box of an MP4 fragment.
constexpr qsizetype contentCheckBytes = 188 * 5 + 1;
constexpr qsizetype writeBatchBytes = 256 * 1024;

QList<QString> headerLines(const QList<std::pair<QByteArray, QByteArray>>& headers) {
    QList<QString> lines;
    for (const auto& [name, value] : headers)
        lines.append(QString::fromLatin1(name + ": " + value));
    return lines;
}

bool isPrintableBoxType(const QByteArray& type) {
    for (const char c : type) {
        if (c < 0x20 || c > 0x7e)
            return false;
    }
    return type.size() == 4;
}

QString realmOf(const QByteArray& challenge) {
    static const QRegularExpression re(QStringLiteral(R"re(realm="([^"]*)")re"),
                                       QRegularExpression::CaseInsensitiveOption);
    return re.match(QString::fromLatin1(challenge)).captured(1);
}

quint32 bigEndian32(const QByteArray& bytes) {
    return quint32(quint8(bytes.at(0))) << 24 | quint32(quint8(bytes.at(1))) << 16 |
           quint32(quint8(bytes.at(2))) << 8 | quint32(quint8(bytes.at(3)));
}
} // namespace

const QString HttpDownload::SourceKey = QStringLiteral("segmentSource");

HttpDownload::HttpDownload(qint64 id, CurlMulti* network, QObject* parent)
    : AbstractDownload(id, parent)
    , m_multi(network) {
    m_pumpTimer.setInterval(pumpIntervalMs);
    m_pumpTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_pumpTimer, &QTimer::timeout, this, &HttpDownload::pump);
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &HttpDownload::sendRequest);
    m_speedClock.start();
}

HttpDownload::~HttpDownload() {
    releaseTransfer();
    releaseWriter();
}

void HttpDownload::doCommand(AbstractDownloadCommand command) {
    if (command == AbstractDownloadCommand::Start)
        start();
    else if (command == AbstractDownloadCommand::Stop)
        stop({});
}

bool HttpDownload::setInfo(const AbstractDownloadPersistentInfo& info) {
    if (m_running)
        return false;
    m_info = info;
    return true;
}

bool HttpDownload::updateInfoFields(const AbstractDownloadPersistentInfo& info, qint64 fields,
                                    BitFlagsUpdateMode mode) {
    const bool changedAnything = m_info.updateFields(info, fields, mode);
    if (changedAnything)
        Q_EMIT changed(true);
    return changedAnything;
}

QSet<AbstractDownloadDestinationType> HttpDownload::supportedDestinations() const {
    return {AbstractDownloadDestinationType::File};
}

bool HttpDownload::setWritersThread(QThread* thread) {
    if (m_running)
        return false;
    m_writersThread = thread;
    return true;
}

quint64 HttpDownload::currentTasks() const {
    return m_running ? quint64(AbstractDownloadTask::Downloading) : 0;
}

AbstractDownloadTasksProgress HttpDownload::tasksProgress() const {
    AbstractDownloadTasksProgress progress;
    if (m_running && !m_info.files.isEmpty())
        progress.insert(AbstractDownloadTask::Downloading,
                        {doneBytes(), m_info.files.constFirst().size});
    return progress;
}

void HttpDownload::setNetworkSettings(const AbstractNetworkConsumerSettings& settings) {
    m_networkSettings = settings;
}

void HttpDownload::setNetworkUsageSettings(const NetworkUsageSettings& settings) {
    if (settings == m_usageSettings)
        return;
    m_usageSettings = settings;
    if (!m_transfer)
        return;
    const qint64 rate = settings.downloadSpeedLimit;
    m_bucket->setRate(qMax<qint64>(rate, 0));
    if (rate > 0 && !m_pumpTimer.isActive())
        m_pumpTimer.start();
    else if (rate <= 0)
        pump();
}

QString HttpDownload::contentTypeMismatch(ExpectedContent expected, const QByteArray& contentType) {
    // Only a page is refused on its type alone. Other text types are left to the bytes: servers
    // label .ts files as text more often than one would think (Python's table says Qt Linguist),
    // and a text error page fails the sync-byte check anyway.
    const QByteArray type = contentType.trimmed().toLower();
    if (expected != ExpectedContent::Any && type.contains("html"))
        return QStringLiteral("the server sent %1 where media was expected")
            .arg(QString::fromLatin1(contentType));
    return {};
}

QString HttpDownload::contentMismatch(ExpectedContent expected, const QByteArray& contentType,
                                      const QByteArray& first) {
    const QString typeMismatch = contentTypeMismatch(expected, contentType);
    if (!typeMismatch.isEmpty() || expected == ExpectedContent::Any)
        return typeMismatch;
    if (expected == ExpectedContent::MpegTs) {
        if (first.isEmpty())
            return QStringLiteral("the segment is empty");
        for (qsizetype at = 0; at < first.size(); at += 188) {
            if (first.at(at) != 0x47)
                return QStringLiteral("the segment is not MPEG-TS (no sync byte at %1)").arg(at);
        }
        return {};
    }
    const bool box = first.size() >= 8 && (bigEndian32(first) >= 8 || bigEndian32(first) == 1) &&
                     isPrintableBoxType(first.mid(4, 4));
    return box ? QString() : QStringLiteral("the segment does not start with an MP4 box");
}

qint64 HttpDownload::speed(NetworkTrafficDirection direction, bool) const {
    if (direction != NetworkTrafficDirection::Download)
        return 0;
    const qint64 now = m_speedClock.elapsed();
    qint64 bytes = 0;
    for (const auto& [time, size] : m_speedSamples)
        bytes += now - time <= 1000 ? size : 0;
    return bytes;
}

void HttpDownload::clearLastError() {
    m_lastError = {};
    m_lastErrorTime = {};
    m_sslErrors.clear();
    m_unknownHost = {};
}

// --- Running ---------------------------------------------------------------------------------

void HttpDownload::start() {
    if (m_running || m_info.isFinished())
        return;
    const bool hadError = m_lastError.isSet();
    clearLastError();
    m_attempt = 0;
    m_keeperAsked = 0;
    m_requestorAsked = 0;
    m_hostProbed = false;
    m_acceptedKey.clear();
    setRunningState(true);
    if (hadError)
        Q_EMIT changed(false);
    if (m_info.files.isEmpty()) {
        AbstractDownloadFileInfo newFile;
        newFile.name = QFileInfo(QUrl(m_info.resourceUrl).path()).fileName();
        m_info.files.append(newFile);
        Q_EMIT changed(true);
    }
    // A record saved after the last byte was flushed but before the download was marked
    // finished needs no request at all.
    if (file().isComplete()) {
        finishSuccessfully();
        return;
    }
    sendRequest();
}

void HttpDownload::stop(const AbstractError& error) {
    if (!m_running || m_stopping)
        return;
    m_stopping = true;
    Q_EMIT stopping();
    m_retryTimer.stop();
    if (error.isSet()) {
        m_lastError = error;
        m_lastErrorTime = QDateTime::currentDateTime();
    }
    if (m_authError.isSet() && m_authRequestor)
        m_authRequestor->cancelRequest(m_authScope);
    m_authError = {};
    if (m_probe) {
        m_probe->abort();
        m_probe->deleteLater();
        m_probe = nullptr;
    }
    if (m_transfer && !m_draining)
        endAttempt(Outcome::Aborted, error);
    else if (!m_draining)
        onAttemptDrained();
}

void HttpDownload::sendRequest() {
    if (!m_running)
        return;
    if (!m_multi) {
        giveUp(AbstractError(1, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                             "the HTTP engine of this download is gone"));
        return;
    }
    const AbstractDownloadSourceInfo src = source();
    if (doneBytes() > 0 && file().resumeSupport == AbstractDownloadFileInfo::ResumeNotSupported &&
        !src.isByteRange())
        setDone(0);
    const qint64 done = doneBytes();
    m_rangeRequested = done > 0 || src.isByteRange();
    m_accepted = false;
    m_skipBytes = 0;
    m_takeLimit = src.rangeSize >= 0 ? src.rangeSize - done : -1;
    m_outcome = Outcome::None;
    m_outcomeError = {};
    m_transferDone = false;
    m_transferError = {};
    m_tlsUnverified = false;
    m_buffer.clear();
    m_checkBuffer.clear();
    m_checkPending = false;
    ++m_requestId;
    m_transfer = makeTransfer(src, done);
    const auto& sent = m_transfer->request().headers;
    Q_EMIT sendingRequestHeaders(
        m_requestId, QList<QString>{QStringLiteral("GET ") + src.url.toString(QUrl::FullyEncoded)} +
                         headerLines(sent));
    const qint64 rate = m_usageSettings.downloadSpeedLimit;
    m_bucket->setRate(qMax<qint64>(rate, 0));
    m_endpoint = {src.url.host(),
                  src.url.port(src.url.scheme() == QStringLiteral("https") ? 443 : 80)};
    setConnected(true);
    m_transfer->start();
    if (rate > 0)
        m_pumpTimer.start();
}

CurlTransfer* HttpDownload::makeTransfer(const AbstractDownloadSourceInfo& src, qint64 done) {
    CurlTransfer::Request request;
    request.url = src.url;
    request.headers = src.requestHeaders;
    if (m_rangeRequested) {
        QByteArray range = "bytes=" + QByteArray::number(src.rangeOffset + done) + '-';
        if (src.rangeSize >= 0)
            range += QByteArray::number(src.rangeOffset + src.rangeSize - 1);
        request.headers.append({"Range", range});
    }
    request.user = m_credentials.user;
    request.password = m_credentials.password;
    request.proxyUser = m_proxyCredentials.user;
    request.proxyPassword = m_proxyCredentials.password;
    request.userAgent = m_networkSettings.userAgent;
    request.networkInterface = m_networkSettings.networkInterface;
    request.maxRedirects = m_networkSettings.followRedirects ? m_options.maxRedirects : 0;
    request.verifyTls = !m_networkSettings.ignoreSslErrors;
    if (request.verifyTls && !m_acceptedKey.isEmpty()) {
        request.verifyTls = false;
        request.pinnedPublicKey = m_acceptedKey;
    }
    if (m_proxyFactory)
        request.proxy = m_proxyFactory->queryProxy(QNetworkProxyQuery(src.url))
                            .value(0, QNetworkProxy(QNetworkProxy::NoProxy));
    request.connectTimeoutMs = m_options.connectTimeoutMs;
    request.firstByteTimeoutMs = m_options.firstByteTimeoutMs;
    request.stallTimeoutMs = m_options.stallTimeoutMs;
    request.lowSpeedLimit =
        m_usageSettings.downloadSpeedLimit > 0 ? 0 : qMax(0, m_options.lowSpeedLimit);
    request.lowSpeedTimeMs = m_options.lowSpeedTimeMs;
    auto* transfer = new CurlTransfer(m_multi, request, this);
    transfer->onHeaders = [this](const HttpHeaders& head) {
        onResponseHead(head);
    };
    transfer->onData = [this](const char* data, qsizetype size) {
        return CurlTransfer::DataAnswer(onBody(data, size));
    };
    transfer->onFinished = [this](const AbstractError& error) {
        onTransferFinished(error);
    };
    return transfer;
}

void HttpDownload::onResponseHead(const HttpHeaders& head) {
    Q_EMIT gotResponseHeaders(m_requestId,
                              QList<QString>{QStringLiteral("HTTP/%1 %2 %3")
                                                 .arg(QString::fromLatin1(head.version()))
                                                 .arg(head.status())
                                                 .arg(QString::fromLatin1(head.reason()))} +
                                  headerLines(head.fields()));
}

// Runs inside libcurl. Under a speed limit the bytes wait in a buffer that the pump drains at
// the limit's pace; once that buffer is full the transfer is paused instead of read ahead.
int HttpDownload::onBody(const char* data, qsizetype size) {
    using Answer = CurlTransfer::DataAnswer;
    if (m_draining || (!m_accepted && !acceptResponse()))
        return int(Answer::Abort);
    if (m_usageSettings.downloadSpeedLimit > 0) {
        if (m_buffer.size() >= bufferCapacity())
            return int(Answer::Pause);
        m_buffer.append(data, size);
        return int(Answer::Taken);
    }
    consume(QByteArrayView(data, size));
    return int(m_draining ? Answer::Abort : Answer::Taken);
}

qint64 HttpDownload::bufferCapacity() const {
    return m_bucket->capacity() * 2;
}

bool HttpDownload::acceptResponse() {
    const HttpHeaders& head = m_transfer->headers();
    if (!head.isComplete() || head.status() == 0) {
        endAttempt(Outcome::Failed, CurlTransfer::networkError(
                                        int(QNetworkReply::ProtocolUnknownError),
                                        QStringLiteral("the answer is not an HTTP response")));
        return false;
    }
    if (!acceptStatus(head))
        return false;
    m_accepted = true;
    return true;
}

bool HttpDownload::acceptStatus(const HttpHeaders& head) {
    const int status = head.status();
    if (status == 401)
        setAuthScope(QtNetworkAuthScope::Server, head);
    else if (status == 407)
        setAuthScope(QtNetworkAuthScope::Proxy, head);
    if (status >= 400) {
        endAttempt(Outcome::Failed,
                   AbstractError(status, AbstractError::HttpError, TERNCL_SOURCE_PLACE,
                                 head.reason().toStdString()));
        return false;
    }
    if (status != 200 && status != 206) {
        endAttempt(Outcome::Failed,
                   AbstractError(status, AbstractError::HttpError, TERNCL_SOURCE_PLACE,
                                 "unexpected status without a body to save"));
        return false;
    }
    const QString mismatch =
        contentTypeMismatch(m_options.expectedContent, head.value("Content-Type"));
    if (!mismatch.isEmpty()) {
        endAttempt(
            Outcome::Failed,
            AbstractError(
                WrongContentError, AbstractError::DownloadError, TERNCL_SOURCE_PLACE,
                (mismatch + QStringLiteral(" from ") + source().url.toString()).toStdString()));
        return false;
    }
    return prepareRangeResponse(head);
}

// Decides where the answer's bytes go. Only a 206 that starts exactly where we asked continues
// the file; a 200 means the whole resource, so a plain download starts over and a byte-range
// source skips to its range.
bool HttpDownload::prepareRangeResponse(const HttpHeaders& head) {
    const AbstractDownloadSourceInfo src = source();
    const qint64 done = doneBytes();
    const QByteArray acceptRanges = head.value("Accept-Ranges").trimmed().toLower();
    auto& record = file();
    bool restart = false;
    if (head.status() == 206) {
        HttpHeaders::ContentRange range;
        const bool valid = HttpHeaders::parseContentRange(head.value("Content-Range"), &range);
        if (!valid || !m_rangeRequested || range.first != src.rangeOffset + done) {
            endAttempt(Outcome::Failed,
                       AbstractError(206, AbstractError::HttpError, TERNCL_SOURCE_PLACE,
                                     "the server answered another range than the one asked for"));
            return false;
        }
        record.resumeSupport = AbstractDownloadFileInfo::ResumeSupported;
        if (record.size < 0)
            record.size = src.rangeSize >= 0 ? src.rangeSize : range.total;
    } else {
        restart = done > 0;
        if (restart)
            setDone(0);
        m_skipBytes = src.rangeOffset;
        m_takeLimit = src.rangeSize;
        record.resumeSupport = acceptRanges == "bytes" ? AbstractDownloadFileInfo::ResumeSupported
                               : acceptRanges == "none"
                                   ? AbstractDownloadFileInfo::ResumeNotSupported
                                   : AbstractDownloadFileInfo::ResumeUnknown;
        const qint64 length = head.contentLength();
        if (src.rangeSize >= 0)
            record.size = src.rangeSize;
        else if (length >= 0)
            record.size = length;
    }
    m_contentType = head.value("Content-Type");
    record.contentType = QString::fromLatin1(m_contentType);
    // Only the resource's first bytes show what it is.
    m_checkPending = m_options.expectedContent != ExpectedContent::Any && doneBytes() == 0;
    // Starting over must reach the saved record before the writer cuts the file; anything else
    // learnt here (size, resume support) is learnt again by the next attempt if it is lost.
    const bool truncate = !isShareOfAnotherFile() && doneBytes() == 0;
    Q_EMIT changed(restart || truncate);
    openWriter(truncate);
    return true;
}
void HttpDownload::openWriter(bool truncate) {
    releaseWriter();
    m_writer = new FileDataAsyncWriter(truncate ? int(QIODevice::Truncate) : 0);
    if (m_writersThread)
        m_writer->moveToThread(m_writersThread);
    connect(m_writer, &AbstractDataAsyncProcessor::dataProcessed, this,
            &HttpDownload::onDataProcessed);
    connect(m_writer, &AbstractDataAsyncProcessor::failed, this, &HttpDownload::onWriterFailed);
    m_sentToWriter = 0;
    m_confirmedBase = doneBytes();
    m_confirmed = 0;
    m_writer->open(targetPath(), file().writeOffset + m_confirmedBase);
}

void HttpDownload::pump() {
    if (!m_transfer || m_draining) {
        m_pumpTimer.stop();
        return;
    }
    const qint64 rate = m_usageSettings.downloadSpeedLimit;
    if (rate <= 0)
        m_pumpTimer.stop();
    const qint64 budget = rate > 0 ? m_bucket->take(m_buffer.size()) : m_buffer.size();
    if (budget > 0) {
        QByteArray data = m_buffer.left(budget);
        m_buffer.remove(0, budget);
        consume(data);
        // Under a limit the file grows at the pump's pace, not in batches.
        flushWrites();
    }
    if (!m_transfer || m_draining)
        return;
    if (m_transfer->isPaused() && (rate <= 0 || m_buffer.size() < bufferCapacity()))
        m_transfer->setPaused(false);
    if (m_transfer && !m_draining && m_transferDone && m_buffer.isEmpty())
        completeAttempt();
}

void HttpDownload::consume(QByteArrayView data) {
    recordSpeed(data.size());
    if (m_skipBytes > 0) {
        const qint64 skipped = qMin<qint64>(m_skipBytes, data.size());
        data = data.sliced(skipped);
        m_skipBytes -= skipped;
    }
    if (m_takeLimit >= 0) {
        data = data.first(qMin<qint64>(data.size(), m_takeLimit));
        m_takeLimit -= data.size();
    }
    if (!m_checkPending) {
        queueWrite(data);
    } else {
        m_checkBuffer.append(data);
        if (m_checkBuffer.size() < contentCheckBytes && m_takeLimit != 0)
            return;
        if (!passContentCheck())
            return;
    }
    if (m_takeLimit == 0)
        endAttempt(Outcome::Completed, {}); // the rest of a whole-resource answer is not ours
}

// libcurl hands over 16 KiB at a time; the writers thread gets larger batches, which saves a
// cross-thread event and a write call for most of them.
void HttpDownload::queueWrite(QByteArrayView data) {
    if (data.isEmpty())
        return;
    m_sentToWriter += data.size();
    if (m_pendingWrite.isEmpty())
        m_pendingWrite.reserve(writeBatchBytes);
    m_pendingWrite.append(data);
    if (m_pendingWrite.size() >= writeBatchBytes)
        flushWrites();
}

void HttpDownload::flushWrites() {
    if (m_writer && !m_pendingWrite.isEmpty())
        m_writer->processData(std::exchange(m_pendingWrite, {}));
    m_pendingWrite.clear();
}

// The first bytes wait in a buffer until there are enough to tell what they are (or no more
// come), so that nothing of a refused body reaches the file.
bool HttpDownload::passContentCheck() {
    m_checkPending = false;
    const QByteArray first = std::exchange(m_checkBuffer, {});
    const QString mismatch = contentMismatch(m_options.expectedContent, m_contentType, first);
    if (mismatch.isEmpty()) {
        queueWrite(first);
        return true;
    }
    endAttempt(Outcome::Failed,
               AbstractError(
                   WrongContentError, AbstractError::DownloadError, TERNCL_SOURCE_PLACE,
                   (mismatch + QStringLiteral(" from ") + source().url.toString()).toStdString()));
    return false;
}

void HttpDownload::onTransferFinished(const AbstractError& error) {
    if (!m_transfer || m_draining)
        return;
    m_transferDone = true;
    m_transferError = error;
    // A proxy that refuses to open a tunnel without credentials ends the transfer with an error
    // of the transport; it is the 407 the proxy answered.
    if (error.isSet() && m_transfer->proxyTunnelStatus() == 407) {
        setAuthScope(QtNetworkAuthScope::Proxy, m_transfer->headers());
        m_transferError = AbstractError(407, AbstractError::HttpError, TERNCL_SOURCE_PLACE,
                                        "the proxy asks for credentials");
    }
    if (error.category == AbstractError::QtNetworkError &&
        error.code == int(QNetworkReply::SslHandshakeFailedError)) {
        m_tlsUnverified = m_transfer->failedVerification();
        m_unverifiedUrl = m_transfer->effectiveUrl();
        if (m_transfer->request().verifyTls)
            m_sslErrors = m_transfer->tlsErrors();
    }
    if (m_buffer.isEmpty())
        completeAttempt();
}

void HttpDownload::completeAttempt() {
    if (m_transferError.isSet()) {
        endAttempt(Outcome::Failed, m_transferError);
        return;
    }
    if (!m_accepted && !acceptResponse())
        return;
    if (m_checkPending && !passContentCheck())
        return;
    const qint64 size = file().size;
    if (size >= 0 && m_confirmedBase + m_sentToWriter < size) {
        endAttempt(Outcome::Failed,
                   CurlTransfer::networkError(
                       int(QNetworkReply::RemoteHostClosedError),
                       QStringLiteral("the connection ended before the whole body arrived")));
        return;
    }
    endAttempt(Outcome::Completed, {});
}

// Ends the exchange with the server; the outcome is acted on once the writer has flushed
// everything handed to it, so that the record and the file agree.
void HttpDownload::endAttempt(Outcome outcome, const AbstractError& error) {
    if (m_draining)
        return;
    flushWrites();
    m_draining = true;
    m_outcome = outcome;
    m_outcomeError = error;
    m_pumpTimer.stop();
    releaseTransfer();
    setConnected(false);
    // Every write the writer owes is reported by its own dataProcessed, so the attempt is drained
    // as soon as the last one arrives; waiting for an extra marker from the writers thread would
    // add a round trip to every segment of a stream.
    if (!m_writer || m_confirmed == m_sentToWriter) {
        onAttemptDrained();
        return;
    }
    if (outcome == Outcome::Completed && !m_stopping) {
        auto& record = file();
        if (record.size < 0)
            record.size = m_confirmedBase + m_sentToWriter;
        Q_EMIT changed(false);
    }
}

bool HttpDownload::isFinalizing() const {
    return m_draining && m_outcome == Outcome::Completed && !m_stopping;
}

void HttpDownload::onDataProcessed(qint64 size) {
    m_confirmed += size;
    setDone(m_confirmedBase + m_confirmed);
    Q_EMIT progressChanged(doneBytes(), file().size);
    Q_EMIT changed(false);
    if (m_draining && m_confirmed == m_sentToWriter)
        onAttemptDrained();
}

void HttpDownload::onWriterFailed() {
    const AbstractError error = m_writer ? m_writer->lastError() : AbstractError();
    // A failed writer closes itself and drops what follows, so no ordering marker will come.
    releaseWriter();
    if (!m_draining)
        endAttempt(Outcome::Failed, error);
    m_outcome = Outcome::Failed;
    m_outcomeError = error;
    onAttemptDrained();
}

void HttpDownload::onAttemptDrained() {
    if (!m_draining && m_outcome == Outcome::None && m_running && !m_stopping)
        return;
    m_draining = false;
    const Outcome outcome = m_outcome;
    const AbstractError error = m_outcomeError;
    m_outcome = Outcome::None;
    releaseWriter();
    if (m_stopping) {
        m_stopping = false;
        Q_EMIT changed(true);
        setRunningState(false);
        return;
    }
    if (outcome == Outcome::Completed)
        finishSuccessfully();
    else if (outcome == Outcome::Failed)
        retryOrStop(error);
}

void HttpDownload::finishSuccessfully() {
    auto& record = file();
    if (record.size < 0)
        record.size = doneBytes();
    setDone(record.size);
    m_info.state = AbstractDownloadPersistentInfo::Finished;
    m_info.completionTime = QDateTime::currentDateTime();
    Q_EMIT progressChanged(record.size, record.size);
    Q_EMIT changed(true);
    setRunningState(false);
}

void HttpDownload::retryOrStop(const AbstractError& error) {
    const bool transient =
        CurlTransfer::isTransient(error) ||
        (error.category == AbstractError::DownloadError && error.code == WrongContentError);
    if (error.category == AbstractError::HttpError && (error.code == 401 || error.code == 407) &&
        answerChallenge(error))
        return;
    if (m_tlsUnverified && learnUnknownHost(error))
        return;
    if (transient && m_attempt < m_options.maxRetries) {
        const int delay = qMin(m_options.retryBaseDelayMs << m_attempt, 10000);
        ++m_attempt;
        terncl::logLine(QtAppLogger::Info, QtAppLogger::Download,
                        logHeader() +
                            QStringLiteral("retry %1 of %2 in %3 ms after ")
                                .arg(m_attempt)
                                .arg(m_options.maxRetries)
                                .arg(delay) +
                            error.toText());
        Q_EMIT changed(true);
        m_retryTimer.start(delay);
        return;
    }
    giveUp(error);
}

void HttpDownload::setKnownSslHosts(QtAbstractKnownSslHostsKeeper* keeper) {
    m_knownHosts = keeper;
}

// The failed handshake shows nothing of the server, so a second connection, which sends no
// request, learns its key without verifying it. Once per start, so a key that changes again
// ends in the TLS error.
bool HttpDownload::learnUnknownHost(const AbstractError& error) {
    if (m_hostProbed || !m_multi)
        return false;
    m_hostProbed = true;
    m_tlsError = error;
    CurlTransfer::Request request;
    request.url = m_unverifiedUrl;
    request.verifyTls = false;
    request.connectOnly = true;
    request.userAgent = m_networkSettings.userAgent;
    request.networkInterface = m_networkSettings.networkInterface;
    if (m_proxyFactory)
        request.proxy = m_proxyFactory->queryProxy(QNetworkProxyQuery(m_unverifiedUrl))
                            .value(0, QNetworkProxy(QNetworkProxy::NoProxy));
    request.connectTimeoutMs = m_options.connectTimeoutMs;
    request.firstByteTimeoutMs = m_options.connectTimeoutMs;
    m_probe = new CurlTransfer(m_multi, request, this);
    m_probe->onFinished = [this](const AbstractError& probeError) {
        onProbeFinished(probeError);
    };
    m_probe->start();
    return true;
}

void HttpDownload::onProbeFinished(const AbstractError& probeError) {
    const QList<QSslCertificate> chain =
        m_probe ? m_probe->certificates() : QList<QSslCertificate>();
    if (m_probe)
        m_probe->deleteLater();
    m_probe = nullptr;
    const AbstractError error = std::exchange(m_tlsError, {});
    if (!m_running || m_stopping)
        return;
    if (probeError.isSet() || chain.isEmpty() || chain.constFirst().publicKey().isNull()) {
        giveUp(error);
        return;
    }
    const QUrl& url = m_unverifiedUrl;
    const QtSslHost host({url.host(), url.port(443)},
                         QtSslHostPublicKey{chain.constFirst().publicKey().toDer(), SpkiDerKey});
    if (!acceptHost(host)) {
        m_unknownHost = host;
        giveUp(error);
        return;
    }
    m_acceptedKey = host.publicKey.key;
    sendRequest();
}

bool HttpDownload::acceptHost(const QtSslHost& host) {
    if (m_knownHosts && m_knownHosts->isKnown(host))
        return true;
    bool accept = false;
    Q_EMIT sslAcceptUnknownHostRequired(host, &accept);
    return accept;
}

void HttpDownload::giveUp(const AbstractError& error) {
    m_lastError = error;
    m_lastErrorTime = QDateTime::currentDateTime();
    Q_EMIT changed(true);
    setRunningState(false);
}

void HttpDownload::setAuth(QtAbstractNetworkPasswordsKeeper* passwords,
                           QtAbstractNetworkAuthRequestor* requestor) {
    m_passwords = passwords;
    if (m_authRequestor)
        m_authRequestor->disconnect(this);
    m_authRequestor = requestor;
    if (requestor)
        connect(requestor, &QtAbstractNetworkAuthRequestor::authRequestFinished, this,
                &HttpDownload::onAuthAnswered);
}

void HttpDownload::setAuthScope(int kind, const HttpHeaders& head) {
    m_authScope.kind = kind;
    if (kind == QtNetworkAuthScope::Proxy) {
        const QNetworkProxy proxy =
            m_transfer ? m_transfer->resolvedProxy() : QNetworkProxy(QNetworkProxy::NoProxy);
        const bool socks = proxy.type() == QNetworkProxy::Socks5Proxy;
        m_authScope.url = QUrl();
        if (proxy.type() != QNetworkProxy::NoProxy) {
            m_authScope.url.setScheme(socks ? QStringLiteral("socks5") : QStringLiteral("http"));
            m_authScope.url.setHost(proxy.hostName());
            m_authScope.url.setPort(proxy.port());
        }
        m_authScope.realm = realmOf(head.value("Proxy-Authenticate"));
        return;
    }
    m_authScope.url = source().url.adjusted(QUrl::RemoveUserInfo | QUrl::RemovePath |
                                            QUrl::RemoveQuery | QUrl::RemoveFragment);
    m_authScope.realm = realmOf(head.value("WWW-Authenticate"));
}

QtNetworkAuthRecord& HttpDownload::credentialsFor(int kind) {
    return kind == QtNetworkAuthScope::Proxy ? m_proxyCredentials : m_credentials;
}

// Each source of credentials is tried once per start and kind of scope, so wrong ones end in
// the 401 or 407.
bool HttpDownload::answerChallenge(const AbstractError& error) {
    const int bit = 1 << m_authScope.kind;
    QtNetworkAuthRecord& current = credentialsFor(m_authScope.kind);
    if (m_passwords && !(m_keeperAsked & bit)) {
        m_keeperAsked |= bit;
        const QtNetworkAuthRecord stored = m_passwords->find(m_authScope);
        if (!stored.isEmpty() && stored != current) {
            current = stored;
            sendRequest();
            return true;
        }
    }
    if (m_authRequestor && !(m_requestorAsked & bit)) {
        m_requestorAsked |= bit;
        m_authError = error;
        m_authRequestor->requestAuth(m_authScope);
        return true;
    }
    return false;
}

void HttpDownload::onAuthAnswered(const QtNetworkAuthScope& scope,
                                  const QtNetworkAuthRecord& record, bool remember) {
    if (!m_authError.isSet() || scope != m_authScope)
        return;
    const AbstractError error = std::exchange(m_authError, {});
    if (!m_running || m_stopping)
        return;
    if (record.isEmpty()) {
        giveUp(error);
        return;
    }
    if (m_passwords)
        m_passwords->save(scope, record, remember);
    credentialsFor(scope.kind) = record;
    sendRequest();
}

void HttpDownload::setRunningState(bool running) {
    if (m_running == running)
        return;
    m_running = running;
    Q_EMIT AbstractNetworkConsumerWithExtraTasks::running(running);
}

void HttpDownload::setConnected(bool connected) {
    const bool isConnected = m_connections.contains(m_endpoint);
    if (connected == isConnected || m_endpoint.host.isEmpty())
        return;
    QtConnectionsMap delta;
    delta[m_endpoint].count = connected ? 1 : -1;
    terncl::applyConnectionsDelta(m_connections, delta);
    Q_EMIT connectionsMapChangedDelta(delta);
}

// Called from inside the transfer's callbacks too, hence abort and a later delete.
void HttpDownload::releaseTransfer() {
    if (!m_transfer)
        return;
    m_transfer->abort();
    m_transfer->deleteLater();
    m_transfer = nullptr;
    m_buffer.clear();
    m_checkBuffer.clear();
    m_pendingWrite.clear();
}

void HttpDownload::releaseWriter() {
    if (!m_writer)
        return;
    m_writer->disconnect(this);
    m_writer->close();
    m_writer->deleteLater();
    m_writer = nullptr;
}

void HttpDownload::recordSpeed(qint64 bytes) {
    const qint64 now = m_speedClock.elapsed();
    m_speedSamples.emplace_back(now, bytes);
    while (!m_speedSamples.empty() && now - m_speedSamples.front().first > 1000)
        m_speedSamples.pop_front();
}

// --- The file record ---------------------------------------------------------------------------

AbstractDownloadFileInfo& HttpDownload::file() {
    return m_info.files.first();
}

QString HttpDownload::targetPath() const {
    const auto& record = m_info.files.constFirst();
    if (!record.tmpPath.isEmpty())
        return record.tmpPath;
    return QDir(m_info.destinationPath).filePath(record.name);
}

AbstractDownloadSourceInfo HttpDownload::source() const {
    const QVariant stored = m_info.customData.value(SourceKey);
    if (stored.isValid())
        return AbstractDownloadSourceInfo::fromVariantHash(stored.toHash());
    AbstractDownloadSourceInfo plain;
    plain.url = QUrl(m_info.resourceUrl);
    return plain;
}

qint64 HttpDownload::doneBytes() const {
    return m_info.files.isEmpty() ? 0 : m_info.files.constFirst().downloadedBytes();
}

bool HttpDownload::isShareOfAnotherFile() const {
    return m_info.testFlag(AbstractDownloadPersistentInfo::PartOfParentDownload) ||
           m_info.files.constFirst().writeOffset != 0;
}

// The file is written from its start without gaps, so one section describes it.
void HttpDownload::setDone(qint64 done) {
    auto& record = file();
    AbstractDownloadFileSection section;
    section.size = record.size;
    section.done = done;
    record.sections = {section};
}
