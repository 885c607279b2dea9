#include "curltransfer.h"

#include "curlmulti.h"

#include <terncl/core/sourceplace.h>

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QHash>
#include <QNetworkReply>

namespace {
constexpr long receiveBufferSize = 128 * 1024;

QString seconds(int ms) {
    return QString::number(double(ms) / 1000.0, 'g', 3);
}

QByteArray proxyAddress(const QNetworkProxy& proxy, const char* scheme) {
    return QByteArray(scheme) + "://" + QUrl::toAce(proxy.hostName()) + ':' +
           QByteArray::number(proxy.port());
}
} // namespace

CurlTransfer::CurlTransfer(CurlMulti* multi, Request request, QObject* parent)
    : QObject(parent)
    , m_multi(multi)
    , m_request(std::move(request))
    , m_easy(curl_easy_init()) {
    m_idleTimer.setSingleShot(true);
    connect(&m_idleTimer, &QTimer::timeout, this, &CurlTransfer::onIdle);
    configure();
}

CurlTransfer::~CurlTransfer() {
    if (m_active && m_multi)
        m_multi->remove(this);
    curl_easy_cleanup(m_easy);
    curl_slist_free_all(m_headerList);
}

void CurlTransfer::configure() {
    curl_easy_setopt(m_easy, CURLOPT_PRIVATE, this);
    curl_easy_setopt(m_easy, CURLOPT_URL, m_request.url.toEncoded().constData());
    curl_easy_setopt(m_easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(m_easy, CURLOPT_ERRORBUFFER, m_errorText);
    curl_easy_setopt(m_easy, CURLOPT_HEADERFUNCTION, &CurlTransfer::headerCallback);
    curl_easy_setopt(m_easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(m_easy, CURLOPT_WRITEFUNCTION, &CurlTransfer::writeCallback);
    curl_easy_setopt(m_easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(m_easy, CURLOPT_BUFFERSIZE, receiveBufferSize);
    curl_easy_setopt(m_easy, CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_2TLS));
    // Nothing served over the network may make this read a local file or speak another protocol.
    curl_easy_setopt(m_easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(m_easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(m_easy, CURLOPT_FOLLOWLOCATION, m_request.maxRedirects > 0 ? 1L : 0L);
    curl_easy_setopt(m_easy, CURLOPT_MAXREDIRS, long(m_request.maxRedirects));
    curl_easy_setopt(m_easy, CURLOPT_CONNECTTIMEOUT_MS, long(m_request.connectTimeoutMs));
    if (m_request.lowSpeedLimit > 0) {
        curl_easy_setopt(m_easy, CURLOPT_LOW_SPEED_LIMIT, long(m_request.lowSpeedLimit));
        curl_easy_setopt(m_easy, CURLOPT_LOW_SPEED_TIME,
                         qMax(1L, long((m_request.lowSpeedTimeMs + 999) / 1000)));
    }
    configureTls();
    // Some servers turn away requests that do not say who asks.
    QString agent = m_request.userAgent;
    if (agent.isEmpty())
        agent = QCoreApplication::applicationName();
    if (!agent.isEmpty())
        curl_easy_setopt(m_easy, CURLOPT_USERAGENT, agent.toUtf8().constData());
    if (!m_request.networkInterface.isEmpty())
        curl_easy_setopt(m_easy, CURLOPT_INTERFACE,
                         m_request.networkInterface.toUtf8().constData());
    if (!m_request.user.isEmpty()) {
        curl_easy_setopt(m_easy, CURLOPT_USERNAME, m_request.user.toUtf8().constData());
        curl_easy_setopt(m_easy, CURLOPT_PASSWORD, m_request.password.toUtf8().constData());
        curl_easy_setopt(m_easy, CURLOPT_HTTPAUTH, long(CURLAUTH_BASIC | CURLAUTH_DIGEST));
    }
    for (const auto& [name, value] : m_request.headers)
        m_headerList = curl_slist_append(m_headerList, (name + ": " + value).constData());
    curl_easy_setopt(m_easy, CURLOPT_HTTPHEADER, m_headerList);
    configureProxy();
}

void CurlTransfer::configureTls() {
    const long verify = m_request.verifyTls ? 1L : 0L;
    curl_easy_setopt(m_easy, CURLOPT_SSL_VERIFYPEER, verify);
    curl_easy_setopt(m_easy, CURLOPT_SSL_VERIFYHOST, verify * 2);
    if (!m_request.pinnedPublicKey.isEmpty()) {
        const QByteArray pin = "sha256//" + QCryptographicHash::hash(m_request.pinnedPublicKey,
                                                                     QCryptographicHash::Sha256)
                                                .toBase64();
        curl_easy_setopt(m_easy, CURLOPT_PINNEDPUBLICKEY, pin.constData());
    }
    if (m_request.connectOnly) {
        curl_easy_setopt(m_easy, CURLOPT_CONNECT_ONLY, 1L);
        curl_easy_setopt(m_easy, CURLOPT_CERTINFO, 1L);
        // Nothing is said over the connection, so the protocol it would speak does not matter.
        curl_easy_setopt(m_easy, CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
    }
}

QNetworkProxy CurlTransfer::resolvedProxy() const {
    if (m_request.proxy.type() != QNetworkProxy::DefaultProxy)
        return m_request.proxy;
    return m_multi ? m_multi->applicationProxy() : QNetworkProxy::applicationProxy();
}

long CurlTransfer::proxyTunnelStatus() const {
    long status = 0;
    curl_easy_getinfo(m_easy, CURLINFO_HTTP_CONNECTCODE, &status);
    return status;
}

void CurlTransfer::configureProxy() {
    const QNetworkProxy proxy = resolvedProxy();
    switch (proxy.type()) {
    case QNetworkProxy::NoProxy:
        // Set on purpose, unlike the default: no proxy from the environment either.
        if (m_request.proxy.type() == QNetworkProxy::NoProxy)
            curl_easy_setopt(m_easy, CURLOPT_PROXY, "");
        return;
    case QNetworkProxy::HttpProxy:
    case QNetworkProxy::HttpCachingProxy:
        // https:// resources go through it with CONNECT, so the proxy sees no content.
        curl_easy_setopt(m_easy, CURLOPT_PROXY, proxyAddress(proxy, "http").constData());
        break;
    case QNetworkProxy::Socks5Proxy:
        // socks5h: the proxy resolves the host name, as a proxy user expects.
        curl_easy_setopt(m_easy, CURLOPT_PROXY, proxyAddress(proxy, "socks5h").constData());
        break;
    default:
        return;
    }
    const bool own = !m_request.proxyUser.isEmpty();
    const QString user = own ? m_request.proxyUser : proxy.user();
    if (!user.isEmpty()) {
        const QString password = own ? m_request.proxyPassword : proxy.password();
        curl_easy_setopt(m_easy, CURLOPT_PROXYUSERNAME, user.toUtf8().constData());
        curl_easy_setopt(m_easy, CURLOPT_PROXYPASSWORD, password.toUtf8().constData());
        curl_easy_setopt(m_easy, CURLOPT_PROXYAUTH, long(CURLAUTH_BASIC | CURLAUTH_DIGEST));
    }
}

void CurlTransfer::start() {
    if (m_active || !m_multi)
        return;
    m_active = true;
    m_clock.start();
    m_idleTimer.start(m_request.firstByteTimeoutMs);
    m_multi->add(this);
}

void CurlTransfer::abort() {
    m_aborted = true;
    m_idleTimer.stop();
    if (m_active && m_multi)
        m_multi->remove(this);
    m_active = false;
}

void CurlTransfer::setPaused(bool paused) {
    if (paused == m_paused || !m_active)
        return;
    m_paused = paused;
    if (paused) {
        m_idleTimer.stop();
        curl_easy_pause(m_easy, CURLPAUSE_RECV);
        return;
    }
    // A pause is this side's doing: the stall clock starts again.
    m_lastTraffic = m_clock.elapsed();
    m_idleTimer.start(m_answered ? m_request.stallTimeoutMs : m_request.firstByteTimeoutMs);
    if (m_multi)
        m_multi->unpause(this);
}

void CurlTransfer::detach() {
    m_multi = nullptr;
    m_active = false;
}

QUrl CurlTransfer::effectiveUrl() const {
    const char* url = nullptr;
    curl_easy_getinfo(m_easy, CURLINFO_EFFECTIVE_URL, &url);
    return url ? QUrl::fromEncoded(QByteArray(url)) : m_request.url;
}

long CurlTransfer::httpVersion() const {
    long version = 0;
    curl_easy_getinfo(m_easy, CURLINFO_HTTP_VERSION, &version);
    return version;
}

// OpenSSL's verification results (X509_V_ERR_*) as Qt names them. A chain that verified but
// failed libcurl's own check of the name leaves the result at 0.
QList<QSslError> CurlTransfer::tlsErrors() const {
    static const QHash<long, QSslError::SslError> known{
        {0, QSslError::HostNameMismatch},
        {2, QSslError::UnableToGetIssuerCertificate},
        {9, QSslError::CertificateNotYetValid},
        {10, QSslError::CertificateExpired},
        {18, QSslError::SelfSignedCertificate},
        {19, QSslError::SelfSignedCertificateInChain},
        {20, QSslError::UnableToGetLocalIssuerCertificate},
        {21, QSslError::UnableToVerifyFirstCertificate},
        {23, QSslError::CertificateRevoked},
        {62, QSslError::HostNameMismatch}};
    long result = 0;
    curl_easy_getinfo(m_easy, CURLINFO_SSL_VERIFYRESULT, &result);
    return {QSslError(known.value(result, QSslError::UnspecifiedError))};
}

bool CurlTransfer::failedVerification() const {
    return m_result == CURLE_PEER_FAILED_VERIFICATION ||
           m_result == CURLE_SSL_PINNEDPUBKEYNOTMATCH || m_result == CURLE_SSL_INVALIDCERTSTATUS;
}

QList<QSslCertificate> CurlTransfer::certificates() const {
    curl_certinfo* info = nullptr;
    QList<QSslCertificate> chain;
    if (curl_easy_getinfo(m_easy, CURLINFO_CERTINFO, &info) != CURLE_OK || !info)
        return chain;
    for (int i = 0; i < info->num_of_certs; ++i) {
        for (curl_slist* field = info->certinfo[i]; field; field = field->next) {
            const QByteArray text(field->data);
            if (text.startsWith("Cert:"))
                chain += QSslCertificate::fromData(text.mid(5), QSsl::Pem);
        }
    }
    return chain;
}

size_t CurlTransfer::headerCallback(char* data, size_t size, size_t count, void* self) {
    auto* transfer = static_cast<CurlTransfer*>(self);
    const size_t bytes = size * count;
    if (transfer->m_aborted)
        return 0;
    transfer->noteTraffic();
    const HttpHeaders::Feed feed = transfer->m_headers.addLine(QByteArray(data, qsizetype(bytes)));
    if (feed == HttpHeaders::Feed::TooLarge) {
        transfer->m_ownError = AbstractError(
            int(QNetworkReply::ProtocolFailure), AbstractError::QtNetworkError, TERNCL_SOURCE_PLACE,
            QStringLiteral("the response headers from %1 are larger than %2 KiB")
                .arg(transfer->m_request.url.host())
                .arg(HttpHeaders::MaxSize / 1024)
                .toStdString());
        return 0;
    }
    if (feed == HttpHeaders::Feed::Complete && transfer->onHeaders)
        transfer->onHeaders(transfer->m_headers);
    return transfer->m_aborted ? 0 : bytes;
}

size_t CurlTransfer::writeCallback(char* data, size_t size, size_t count, void* self) {
    auto* transfer = static_cast<CurlTransfer*>(self);
    const size_t bytes = size * count;
    if (transfer->m_aborted)
        return 0;
    transfer->noteTraffic();
    if (!transfer->onData)
        return bytes;
    const DataAnswer answer = transfer->onData(data, qsizetype(bytes));
    if (transfer->m_aborted || answer == DataAnswer::Abort)
        return 0;
    if (answer == DataAnswer::Pause) {
        transfer->m_paused = true;
        transfer->m_idleTimer.stop();
        return CURL_WRITEFUNC_PAUSE;
    }
    return bytes;
}

void CurlTransfer::noteTraffic() {
    if (!m_answered) {
        m_answered = true;
        m_idleTimer.start(m_request.stallTimeoutMs);
    }
    m_lastTraffic = m_clock.elapsed();
}

// One timer serves both waits: for the first byte of the answer (counted from the moment the
// connection stood, as connecting has its own time-out) and, after that, for the next byte.
void CurlTransfer::onIdle() {
    if (!m_active || m_paused)
        return;
    const qint64 now = m_clock.elapsed();
    if (!m_answered) {
        curl_off_t connectedUs = 0;
        curl_easy_getinfo(m_easy, CURLINFO_CONNECT_TIME_T, &connectedUs);
        const qint64 waited = connectedUs > 0 ? now - connectedUs / 1000 : 0;
        if (waited < m_request.firstByteTimeoutMs) {
            m_idleTimer.start(int(m_request.firstByteTimeoutMs - waited));
            return;
        }
        fail(networkError(int(QNetworkReply::TimeoutError),
                          QStringLiteral("%1 accepted the connection but sent no answer within "
                                         "%2 s")
                              .arg(m_request.url.host(), seconds(m_request.firstByteTimeoutMs))));
        return;
    }
    const qint64 idle = now - m_lastTraffic;
    if (idle < m_request.stallTimeoutMs) {
        m_idleTimer.start(int(m_request.stallTimeoutMs - idle));
        return;
    }
    fail(networkError(int(QNetworkReply::TimeoutError),
                      QStringLiteral("no data from %1 for %2 s")
                          .arg(m_request.url.host(), seconds(m_request.stallTimeoutMs))));
}

void CurlTransfer::fail(const AbstractError& error) {
    if (m_multi)
        m_multi->remove(this);
    m_active = false;
    m_ownError = error;
    if (onFinished)
        onFinished(error);
}

void CurlTransfer::onDone(CURLcode code) {
    m_result = code;
    m_active = false;
    m_idleTimer.stop();
    if (m_aborted || !onFinished)
        return;
    onFinished(m_ownError.isSet() ? m_ownError
               : code == CURLE_OK ? AbstractError()
                                  : errorFor(code));
}

AbstractError CurlTransfer::networkError(int code, const QString& text) {
    return AbstractError(code, AbstractError::QtNetworkError, TERNCL_SOURCE_PLACE,
                         text.toStdString());
}

AbstractError CurlTransfer::errorFor(CURLcode code) const {
    const QString detail = QString::fromUtf8(m_errorText).trimmed();
    const QString said = detail.isEmpty() ? QString::fromUtf8(curl_easy_strerror(code)) : detail;
    const QString host = m_request.url.host();
    const bool viaProxy = m_request.proxy.type() != QNetworkProxy::NoProxy &&
                          m_request.proxy.type() != QNetworkProxy::DefaultProxy;
    curl_off_t connectedUs = 0;
    curl_easy_getinfo(m_easy, CURLINFO_CONNECT_TIME_T, &connectedUs);
    switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
        if (connectedUs == 0)
            return networkError(int(QNetworkReply::TimeoutError),
                                QStringLiteral("could not connect to %1 within %2 s")
                                    .arg(host, seconds(m_request.connectTimeoutMs)));
        return networkError(int(QNetworkReply::TimeoutError),
                            QStringLiteral("the transfer from %1 was slower than %2 bytes/s for "
                                           "%3 s")
                                .arg(host)
                                .arg(m_request.lowSpeedLimit)
                                .arg(seconds(m_request.lowSpeedTimeMs)));
    case CURLE_COULDNT_CONNECT:
        return networkError(int(viaProxy ? QNetworkReply::ProxyConnectionRefusedError
                                         : QNetworkReply::ConnectionRefusedError),
                            QStringLiteral("could not connect: ") + said);
    case CURLE_COULDNT_RESOLVE_HOST:
        return networkError(int(QNetworkReply::HostNotFoundError), said);
    case CURLE_COULDNT_RESOLVE_PROXY:
        return networkError(int(QNetworkReply::ProxyNotFoundError), said);
    case CURLE_PROXY:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
        if (code == CURLE_PROXY || (viaProxy && connectedUs == 0))
            return networkError(int(QNetworkReply::ProxyConnectionClosedError),
                                QStringLiteral("the proxy failed: ") + said);
        return networkError(int(QNetworkReply::RemoteHostClosedError), said);
    case CURLE_PEER_FAILED_VERIFICATION:
        return networkError(
            int(QNetworkReply::SslHandshakeFailedError),
            QStringLiteral("the TLS certificate of %1 does not verify: %2").arg(host, said));
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        return networkError(
            int(QNetworkReply::SslHandshakeFailedError),
            QStringLiteral("the TLS key of %1 is not the one that was accepted").arg(host));
    case CURLE_SSL_CONNECT_ERROR:
        return networkError(int(QNetworkReply::SslHandshakeFailedError), said);
    case CURLE_UNSUPPORTED_PROTOCOL:
        return redirectError();
    case CURLE_TOO_MANY_REDIRECTS:
        return networkError(
            int(QNetworkReply::TooManyRedirectsError),
            QStringLiteral("Too many redirects (more than %1)").arg(m_request.maxRedirects));
    case CURLE_LOGIN_DENIED:
        return networkError(int(QNetworkReply::AuthenticationRequiredError), said);
    default:
        return networkError(int(QNetworkReply::UnknownNetworkError), said);
    }
}

AbstractError CurlTransfer::redirectError() const {
    const QByteArray location = m_headers.value("Location");
    if (location.isEmpty())
        return networkError(int(QNetworkReply::ProtocolUnknownError),
                            QString::fromUtf8(m_errorText));
    const QUrl target = effectiveUrl().resolved(QUrl::fromEncoded(location));
    return networkError(int(QNetworkReply::ProtocolUnknownError),
                        QStringLiteral("refused to follow a redirect to %1: only http and https "
                                       "addresses are followed")
                            .arg(target.toString()));
}

bool CurlTransfer::isTransient(const AbstractError& error) {
    if (error.category == AbstractError::HttpError)
        return error.code >= 500 || error.code == 408 || error.code == 429;
    if (error.category != AbstractError::QtNetworkError)
        return false;
    switch (QNetworkReply::NetworkError(error.code)) {
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::TimeoutError:
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::ProxyTimeoutError:
    case QNetworkReply::ProxyConnectionClosedError:
    case QNetworkReply::UnknownNetworkError:
    case QNetworkReply::ConnectionRefusedError:
        return true;
    default:
        return false;
    }
}
