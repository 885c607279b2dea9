#include "sizeprobedownload.h"

#include <terncl/core/sourceplace.h>
#include <terncl/inet/qt/download/abstractdownloadtask.h>

#include <QRegularExpression>

SizeProbeDownload::SizeProbeDownload(qint64 id, CurlMulti* network, QObject* parent)
    : AbstractDownload(id, parent)
    , m_network(network) {}

SizeProbeDownload::~SizeProbeDownload() {
    delete m_probe;
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
    return m_probe ? quint64(AbstractDownloadTask::QueryingInfo) : 0;
}

void SizeProbeDownload::clearLastError() {
    m_lastError = {};
    m_lastErrorTime = {};
}

void SizeProbeDownload::doCommand(AbstractDownloadCommand command) {
    if (command == AbstractDownloadCommand::Stop && m_probe) {
        m_probe->disconnect(this);
        m_probe->deleteLater();
        end(-1, AbstractError(4, AbstractError::GenericError, TERNCL_SOURCE_PLACE, "stopped"));
        return;
    }
    if (command != AbstractDownloadCommand::Start || isRunning() || !m_network)
        return;
    clearLastError();
    request();
    Q_EMIT running(true);
}

// One GET of the first byte: a 206 carries the total in its Content-Range, a server without
// ranges answers 200 with the whole length, and the body is never read.
void SizeProbeDownload::request() {
    CurlTransfer::Request request;
    request.url = QUrl(m_info.resourceUrl);
    request.headers.append({QByteArrayLiteral("Range"), QByteArrayLiteral("bytes=0-0")});
    if (!m_info.referrer.isEmpty())
        request.headers.append({QByteArrayLiteral("Referer"), m_info.referrer.toUtf8()});
    m_probe = new CurlProbe(m_network, request, this);
    m_probe->setRetries(0, 0);
    m_probe->wantBody = [](const HttpHeaders&, const QUrl&) {
        return false;
    };
    CurlProbe* probe = m_probe;
    connect(probe, &CurlProbe::finished, this, [this, probe] { onFinished(probe); });
    probe->start();
}

void SizeProbeDownload::onFinished(CurlProbe* probe) {
    probe->deleteLater();
    const HttpHeaders& head = probe->headers();
    bool hasLength = false;
    const qint64 length = head.value("Content-Length").toLongLong(&hasLength);
    static const QRegularExpression total(QStringLiteral("/(\\d+)\\s*$"));
    const auto match = total.match(QString::fromLatin1(head.value("Content-Range")));
    if (probe->error().isSet())
        end(-1,
            probe->error().category == AbstractError::HttpError ? probe->error() : AbstractError());
    else if (head.status() == 206 && match.hasMatch())
        end(match.captured(1).toLongLong(), {});
    else if (head.status() == 200 && hasLength)
        end(length, {});
    else
        end(-1, {});
}

void SizeProbeDownload::end(qint64 size, const AbstractError& error) {
    m_probe = nullptr;
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
