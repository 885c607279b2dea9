#include "sizeprobedownload.h"

#include <terncl/core/sourceplace.h>
#include <terncl/inet/qt/download/abstractdownloadtask.h>

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>

SizeProbeDownload::SizeProbeDownload(qint64 id, QNetworkAccessManager* network, QObject* parent)
    : AbstractDownload(id, parent)
    , m_network(network) {}

SizeProbeDownload::~SizeProbeDownload() {
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
        m_reply->deleteLater();
    }
}

bool SizeProbeDownload::setInfo(const AbstractDownloadPersistentInfo& info) {
    if (isRunning())
        return false;
    m_info = info;
    return true;
}

bool SizeProbeDownload::updateInfoFields(const AbstractDownloadPersistentInfo& info, qint64 fields,
                                         BitFlagsUpdateMode mode) {
    return m_info.updateFields(info, fields, mode);
}

quint64 SizeProbeDownload::currentTasks() const {
    return m_reply ? quint64(AbstractDownloadTask::QueryingInfo) : 0;
}

void SizeProbeDownload::clearLastError() {
    m_lastError = {};
    m_lastErrorTime = {};
}

void SizeProbeDownload::doCommand(AbstractDownloadCommand command) {
    if (command == AbstractDownloadCommand::Stop && m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
        m_reply->deleteLater();
        end(-1, AbstractError(4, AbstractError::GenericError, TERNCL_SOURCE_PLACE, "stopped"));
        return;
    }
    if (command != AbstractDownloadCommand::Start || isRunning() || !m_network)
        return;
    clearLastError();
    request(true);
    Q_EMIT running(true);
}

void SizeProbeDownload::request(bool head) {
    QNetworkRequest request{QUrl(m_info.resourceUrl)};
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setTransferTimeout(30000);
    if (!m_info.referrer.isEmpty())
        request.setRawHeader("Referer", m_info.referrer.toUtf8());
    if (!head)
        request.setRawHeader("Range", "bytes=0-0");
    m_reply = head ? m_network->head(request) : m_network->get(request);
    QNetworkReply* reply = m_reply;
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, head] { onFinished(reply, head); });
}

// A HEAD that gives no length is asked again as a GET of one byte, whose Content-Range
// carries the total.
void SizeProbeDownload::onFinished(QNetworkReply* reply, bool head) {
    reply->deleteLater();
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    if (head && status >= 200 && status < 300 && length.isValid()) {
        end(length.toLongLong(), {});
        return;
    }
    if (head && (status < 400 || status == 405 || status == 501)) {
        request(false);
        return;
    }
    static const QRegularExpression total(QStringLiteral("/(\\d+)\\s*$"));
    const auto match = total.match(QString::fromLatin1(reply->rawHeader("Content-Range")));
    if (status == 206 && match.hasMatch())
        end(match.captured(1).toLongLong(), {});
    else if (status == 200 && length.isValid())
        end(length.toLongLong(), {});
    else if (status >= 400)
        end(-1, AbstractError(status, AbstractError::HttpError, TERNCL_SOURCE_PLACE,
                              reply->url().toString().toStdString()));
    else
        end(-1, {});
}

void SizeProbeDownload::end(qint64 size, const AbstractError& error) {
    m_reply = nullptr;
    if (m_info.files.isEmpty())
        m_info.files.append(AbstractDownloadFileInfo());
    m_info.files.first().size = size;
    if (error.isSet()) {
        m_lastError = error;
        m_lastErrorTime = QDateTime::currentDateTime();
    }
    Q_EMIT changed(true);
    Q_EMIT running(false);
}
