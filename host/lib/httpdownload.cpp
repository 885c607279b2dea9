#include "httpdownload.h"

#include <terncl/core/qtappdefaultlogger.h>
#include <terncl/core/sourceplace.h>
#include <terncl/data/qt/filedataasyncwriter.h>

#include <QDir>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QThread>

namespace {
constexpr int pumpIntervalMs = 10;
constexpr qint64 unlimitedReadBuffer = 0;

bool isTransientNetworkError(QNetworkReply::NetworkError error) {
    switch (error) {
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::TimeoutError:
    case QNetworkReply::OperationCanceledError: // the transfer time-out cancels the reply
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::ProxyTimeoutError:
    case QNetworkReply::UnknownNetworkError:
    case QNetworkReply::ConnectionRefusedError:
        return true;
    default:
        return false;
    }
}

bool isTransientStatus(int status) {
    return status >= 500 || status == 408 || status == 429;
}

QList<QString> headerLines(const QList<std::pair<QByteArray, QByteArray>>& headers) {
    QList<QString> lines;
    for (const auto& [name, value] : headers)
        lines.append(QString::fromLatin1(name + ": " + value));
    return lines;
}

// "bytes a-b/total": first byte and total (-1 when "*").
bool parseContentRange(const QByteArray& header, qint64* first, qint64* total) {
    static const QRegularExpression re(QStringLiteral(R"(^bytes (\d+)-(\d+)/(\d+|\*)$)"));
    const auto match = re.match(QString::fromLatin1(header.trimmed()));
    if (!match.hasMatch())
        return false;
    *first = match.captured(1).toLongLong();
    *total = match.captured(3) == QStringLiteral("*") ? -1 : match.captured(3).toLongLong();
    return true;
}
} // namespace

const QString HttpDownload::SourceKey = QStringLiteral("segmentSource");

HttpDownload::HttpDownload(qint64 id, QNetworkAccessManager* network, QObject* parent)
    : AbstractDownload(id, parent)
    , m_network(network) {
    m_pumpTimer.setInterval(pumpIntervalMs);
    m_pumpTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_pumpTimer, &QTimer::timeout, this, &HttpDownload::pump);
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &HttpDownload::sendRequest);
    m_speedClock.start();
}

HttpDownload::~HttpDownload() {
    releaseReply();
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
    if (!m_reply)
        return;
    const qint64 rate = settings.downloadSpeedLimit;
    m_bucket->setRate(qMax<qint64>(rate, 0));
    m_reply->setReadBufferSize(rate > 0 ? m_bucket->capacity() * 2 : unlimitedReadBuffer);
    if (rate > 0 && !m_pumpTimer.isActive())
        m_pumpTimer.start();
    else if (rate <= 0)
        pump();
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
}

// --- Running ---------------------------------------------------------------------------------

void HttpDownload::start() {
    if (m_running || m_info.isFinished())
        return;
    const bool hadError = m_lastError.isSet();
    clearLastError();
    m_attempt = 0;
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
    if (m_reply && !m_draining)
        endAttempt(Outcome::Aborted, error);
    else if (!m_draining)
        onAttemptDrained();
}

void HttpDownload::sendRequest() {
    if (!m_running)
        return;
    const AbstractDownloadSourceInfo src = source();
    if (doneBytes() > 0 && file().resumeSupport == AbstractDownloadFileInfo::ResumeNotSupported &&
        !src.isByteRange())
        setDone(0);
    const qint64 done = doneBytes();
    QNetworkRequest request(src.url);
    for (const auto& [name, value] : src.requestHeaders)
        request.setRawHeader(name, value);
    if (!m_networkSettings.userAgent.isEmpty())
        request.setHeader(QNetworkRequest::UserAgentHeader, m_networkSettings.userAgent);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         m_networkSettings.followRedirects
                             ? QNetworkRequest::NoLessSafeRedirectPolicy
                             : QNetworkRequest::ManualRedirectPolicy);
    request.setTransferTimeout(m_options.transferTimeoutMs);
    m_rangeRequested = done > 0 || src.isByteRange();
    if (m_rangeRequested) {
        const qint64 first = src.rangeOffset + done;
        QByteArray range = "bytes=" + QByteArray::number(first) + '-';
        if (src.rangeSize >= 0)
            range += QByteArray::number(src.rangeOffset + src.rangeSize - 1);
        request.setRawHeader("Range", range);
    }
    m_accepted = false;
    m_skipBytes = 0;
    m_takeLimit = src.rangeSize >= 0 ? src.rangeSize - done : -1;
    m_outcome = Outcome::None;
    m_outcomeError = {};
    ++m_requestId;
    QList<std::pair<QByteArray, QByteArray>> sent;
    for (const QByteArray& name : request.rawHeaderList())
        sent.append({name, request.rawHeader(name)});
    Q_EMIT sendingRequestHeaders(
        m_requestId, QList<QString>{QStringLiteral("GET ") + src.url.toString(QUrl::FullyEncoded)} +
                         headerLines(sent));

    m_reply = m_network->get(request);
    const qint64 rate = m_usageSettings.downloadSpeedLimit;
    m_bucket->setRate(qMax<qint64>(rate, 0));
    m_reply->setReadBufferSize(rate > 0 ? m_bucket->capacity() * 2 : unlimitedReadBuffer);
    connect(m_reply, &QNetworkReply::readyRead, this, &HttpDownload::onReadyRead);
    connect(m_reply, &QNetworkReply::finished, this, &HttpDownload::onReplyFinished);
    connect(m_reply, &QNetworkReply::sslErrors, this,
            [this](const QList<QSslError>& errors) { m_sslErrors = errors; });
    m_endpoint = {src.url.host(),
                  src.url.port(src.url.scheme() == QStringLiteral("https") ? 443 : 80)};
    setConnected(true);
    if (rate > 0)
        m_pumpTimer.start();
}

void HttpDownload::onReadyRead() {
    if (!m_accepted && !acceptResponse())
        return;
    if (m_usageSettings.downloadSpeedLimit <= 0)
        takeBytes(m_reply->bytesAvailable());
}

bool HttpDownload::acceptResponse() {
    const int status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status == 0) {
        // Not an HTTP answer: a failed reply reports its own error when it finishes.
        if (m_reply->isFinished() && m_reply->error() == QNetworkReply::NoError)
            endAttempt(Outcome::Failed,
                       AbstractError(int(QNetworkReply::ProtocolUnknownError),
                                     AbstractError::QtNetworkError, TERNCL_SOURCE_PLACE,
                                     "the answer is not an HTTP response"));
        return false;
    }
    Q_EMIT gotResponseHeaders(
        m_requestId,
        QList<QString>{
            QStringLiteral("HTTP %1 %2")
                .arg(status)
                .arg(m_reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString())} +
            headerLines(m_reply->rawHeaderPairs()));
    if (!acceptStatus(status))
        return false;
    m_accepted = true;
    return true;
}

bool HttpDownload::acceptStatus(int status) {
    if (status >= 400) {
        const auto reason =
            m_reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
        endAttempt(Outcome::Failed, AbstractError(status, AbstractError::HttpError,
                                                  TERNCL_SOURCE_PLACE, reason.toStdString()));
        return false;
    }
    if (status != 200 && status != 206) {
        endAttempt(Outcome::Failed,
                   AbstractError(status, AbstractError::HttpError, TERNCL_SOURCE_PLACE,
                                 "unexpected status without a body to save"));
        return false;
    }
    return prepareRangeResponse(status);
}

// Decides where the answer's bytes go. Only a 206 that starts exactly where we asked continues
// the file; a 200 means the whole resource, so a plain download starts over and a byte-range
// source skips to its range.
bool HttpDownload::prepareRangeResponse(int status) {
    const AbstractDownloadSourceInfo src = source();
    const qint64 done = doneBytes();
    const QByteArray acceptRanges = m_reply->rawHeader("Accept-Ranges").trimmed().toLower();
    auto& record = file();
    bool restart = false;
    if (status == 206) {
        qint64 first = -1, total = -1;
        const bool valid = parseContentRange(m_reply->rawHeader("Content-Range"), &first, &total);
        if (!valid || !m_rangeRequested || first != src.rangeOffset + done) {
            endAttempt(Outcome::Failed,
                       AbstractError(206, AbstractError::HttpError, TERNCL_SOURCE_PLACE,
                                     "the server answered another range than the one asked for"));
            return false;
        }
        record.resumeSupport = AbstractDownloadFileInfo::ResumeSupported;
        if (record.size < 0)
            record.size = src.rangeSize >= 0 ? src.rangeSize : (total >= 0 ? total : -1);
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
        const qint64 length = m_reply->header(QNetworkRequest::ContentLengthHeader).toLongLong();
        if (src.rangeSize >= 0)
            record.size = src.rangeSize;
        else if (length > 0 || m_reply->hasRawHeader("Content-Length"))
            record.size = length;
    }
    record.contentType = m_reply->header(QNetworkRequest::ContentTypeHeader).toString();
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
    if (!m_reply || m_draining) {
        m_pumpTimer.stop();
        return;
    }
    if (!m_accepted && (m_reply->bytesAvailable() == 0 || !acceptResponse()))
        return;
    const qint64 rate = m_usageSettings.downloadSpeedLimit;
    if (rate <= 0) {
        m_pumpTimer.stop();
        takeBytes(m_reply->bytesAvailable());
        return;
    }
    takeBytes(m_bucket->take(m_reply->bytesAvailable()));
}

void HttpDownload::takeBytes(qint64 budget) {
    if (!m_reply || budget <= 0)
        return;
    QByteArray data = m_reply->read(budget);
    recordSpeed(data.size());
    if (m_skipBytes > 0) {
        const qint64 skipped = qMin<qint64>(m_skipBytes, data.size());
        data.remove(0, skipped);
        m_skipBytes -= skipped;
    }
    if (m_takeLimit >= 0) {
        data.truncate(qMin<qint64>(data.size(), m_takeLimit));
        m_takeLimit -= data.size();
    }
    if (data.isEmpty())
        return;
    m_sentToWriter += data.size();
    m_writer->processData(data);
    if (m_takeLimit == 0)
        endAttempt(Outcome::Completed, {}); // the rest of a whole-resource answer is not ours
}

void HttpDownload::onReplyFinished() {
    if (!m_reply || m_draining)
        return;
    if (!m_accepted && m_reply->error() == QNetworkReply::NoError && !acceptResponse())
        return;
    if (m_accepted)
        takeBytes(m_usageSettings.downloadSpeedLimit > 0 ? m_bucket->take(m_reply->bytesAvailable())
                                                         : m_reply->bytesAvailable());
    if (!m_reply || m_draining)
        return;
    if (m_accepted && m_reply->bytesAvailable() > 0) {
        // Still rationed by the speed limit: look again after the next pump.
        connect(&m_pumpTimer, &QTimer::timeout, this, &HttpDownload::onReplyFinished,
                Qt::SingleShotConnection);
        return;
    }
    completeAttempt();
}

void HttpDownload::completeAttempt() {
    const auto error = m_reply->error();
    if (error != QNetworkReply::NoError) {
        const int status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        const std::string text = m_reply->errorString().toStdString();
        endAttempt(Outcome::Failed,
                   status >= 400
                       ? AbstractError(status, AbstractError::HttpError, TERNCL_SOURCE_PLACE, text)
                       : AbstractError(int(error), AbstractError::QtNetworkError,
                                       TERNCL_SOURCE_PLACE, text));
        return;
    }
    const qint64 size = file().size;
    if (size >= 0 && m_confirmedBase + m_sentToWriter < size) {
        endAttempt(Outcome::Failed,
                   AbstractError(int(QNetworkReply::RemoteHostClosedError),
                                 AbstractError::QtNetworkError, TERNCL_SOURCE_PLACE,
                                 "the connection ended before the whole body arrived"));
        return;
    }
    endAttempt(Outcome::Completed, {});
}

// Ends the exchange with the server; the outcome is acted on once the writer has flushed
// everything handed to it, so that the record and the file agree.
void HttpDownload::endAttempt(Outcome outcome, const AbstractError& error) {
    if (m_draining)
        return;
    m_draining = true;
    m_outcome = outcome;
    m_outcomeError = error;
    m_pumpTimer.stop();
    releaseReply();
    setConnected(false);
    // Every write the writer owes is reported by its own dataProcessed, so the attempt is drained
    // as soon as the last one arrives; waiting for an extra marker from the writers thread would
    // add a round trip to every segment of a stream.
    if (!m_writer || m_confirmed == m_sentToWriter)
        onAttemptDrained();
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
        (error.category == AbstractError::QtNetworkError &&
         isTransientNetworkError(QNetworkReply::NetworkError(error.code))) ||
        (error.category == AbstractError::HttpError && isTransientStatus(error.code));
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
    m_lastError = error;
    m_lastErrorTime = QDateTime::currentDateTime();
    Q_EMIT changed(true);
    setRunningState(false);
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

void HttpDownload::releaseReply() {
    if (!m_reply)
        return;
    m_reply->disconnect(this);
    // A reply that failed already is ending on its own; aborting it again only warns.
    if (!m_reply->isFinished() && m_reply->error() == QNetworkReply::NoError)
        m_reply->abort();
    m_reply->deleteLater();
    m_reply = nullptr;
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
