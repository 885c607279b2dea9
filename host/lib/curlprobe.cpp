#include "curlprobe.h"

#include "curlmulti.h"

#include <terncl/core/sourceplace.h>

CurlProbe::CurlProbe(CurlMulti* multi, CurlTransfer::Request request, QObject* parent)
    : QObject(parent)
    , m_multi(multi)
    , m_request(std::move(request)) {
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &CurlProbe::send);
}

CurlProbe::~CurlProbe() {
    if (m_transfer)
        m_transfer->abort();
}

void CurlProbe::setRetries(int maxRetries, int baseDelayMs) {
    m_maxRetries = maxRetries;
    m_retryBaseDelayMs = baseDelayMs;
}

void CurlProbe::start() {
    m_attempt = 0;
    m_ended = false;
    send();
}

void CurlProbe::send() {
    m_decided = false;
    m_bodyWanted = false;
    m_body.clear();
    m_head = {};
    m_url = m_request.url;
    m_transfer = new CurlTransfer(m_multi, m_request, this);
    m_transfer->onData = [this](const char* data, qsizetype size) {
        return onData(data, size);
    };
    m_transfer->onFinished = [this](const AbstractError& error) {
        onTransferFinished(error);
    };
    m_transfer->start();
}

CurlTransfer::DataAnswer CurlProbe::onData(const char* data, qsizetype size) {
    if (!m_decided && !decide())
        return CurlTransfer::DataAnswer::Abort;
    m_body.append(data, size);
    if (m_body.size() <= m_maxBodySize)
        return CurlTransfer::DataAnswer::Taken;
    end(AbstractError(1, AbstractError::GenericError, TERNCL_SOURCE_PLACE,
                      QStringLiteral("%1 is larger than %2 bytes")
                          .arg(m_url.toString())
                          .arg(m_maxBodySize)
                          .toStdString()));
    return CurlTransfer::DataAnswer::Abort;
}

void CurlProbe::onTransferFinished(const AbstractError& error) {
    if (error.isSet())
        end(error);
    else if (m_decided || decide())
        end({});
}

// Settles the attempt on its final head: an error status or another kind of answer ends it, and
// wantBody says whether the body is read.
bool CurlProbe::decide() {
    m_decided = true;
    m_head = m_transfer->headers();
    m_url = m_transfer->effectiveUrl();
    const int status = m_head.status();
    if (status < 200 || status >= 300) {
        end(AbstractError(status, AbstractError::HttpError, TERNCL_SOURCE_PLACE,
                          status >= 400 ? m_head.reason().toStdString()
                                        : std::string("unexpected status without a body")));
        return false;
    }
    m_bodyWanted = !wantBody || wantBody(m_head, m_url);
    if (!m_bodyWanted)
        end({});
    return m_bodyWanted;
}

void CurlProbe::end(const AbstractError& error) {
    if (m_ended)
        return;
    if (m_transfer) {
        m_transfer->abort();
        m_transfer->deleteLater();
    }
    if (error.isSet() && CurlTransfer::isTransient(error) && m_attempt < m_maxRetries) {
        const int delay = qMin(m_retryBaseDelayMs << m_attempt, 10000);
        ++m_attempt;
        m_retryTimer.start(delay);
        return;
    }
    m_ended = true;
    m_error = error;
    // Listeners may start downloads on the same engine: not from inside its callbacks.
    QMetaObject::invokeMethod(this, &CurlProbe::finished, Qt::QueuedConnection);
}
