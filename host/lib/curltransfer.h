#pragma once

#include "httpheaders.h"

#include <terncl/core/abstracterror.h>

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QNetworkProxy>
#include <QObject>
#include <QPointer>
#include <QSslCertificate>
#include <QSslError>
#include <QTimer>
#include <QUrl>

#include <curl/curl.h>

#include <functional>
#include <utility>

class CurlMulti;

// One HTTP(S) GET on a CurlMulti: request options in, response heads and body bytes out through
// callbacks, and one finished callback with the outcome as an AbstractError. Besides libcurl's
// own connect time-out and low-speed floor it watches for an answer that never starts (first
// byte) or stops coming (stall), and caps the size of a response head. Lives on its multi's
// thread. The callbacks run inside libcurl; they may abort this or any transfer and start new
// ones, but must not delete a transfer (deleteLater() is fine).
class CurlTransfer final : public QObject {
    Q_OBJECT

public:
    struct Request {
        QUrl url;
        QList<std::pair<QByteArray, QByteArray>> headers;
        QString userAgent;
        QString networkInterface; // empty: any
        int maxRedirects = 10;    // 0: redirects are answers like any other
        bool verifyTls = true;
        // With verifyTls off, the server must still present exactly this public key (DER
        // SubjectPublicKeyInfo): a host the user accepted despite its certificate.
        QByteArray pinnedPublicKey;
        // Only connect (and shake hands), then finish: no request is sent. Collects the
        // server's certificates.
        bool connectOnly = false;
        // DefaultProxy: the application proxy, or libcurl's own choice (the environment's
        // *_proxy variables) when there is none. NoProxy: none at all.
        QNetworkProxy proxy = QNetworkProxy(QNetworkProxy::DefaultProxy);
        QString user; // credentials for the server; those in the URL work as well
        QString password;
        // Credentials for the proxy; when empty, those of the proxy itself (QNetworkProxy's).
        QString proxyUser;
        QString proxyPassword;
        int connectTimeoutMs = 30000;
        int firstByteTimeoutMs = 30000;
        int stallTimeoutMs = 30000;
        int lowSpeedLimit = 0; // bytes per second; 0 switches the floor off
        int lowSpeedTimeMs = 60000;
    };

    enum class DataAnswer { Taken, Pause, Abort };

    // Every complete response head, including those of redirects that are followed.
    std::function<void(const HttpHeaders&)> onHeaders;
    // Body bytes of the last answer, whatever its status. Pause keeps them: they come again after
    // setPaused(false).
    std::function<DataAnswer(const char* data, qsizetype size)> onData;
    // Once, unless aborted: no error for any complete HTTP answer, whatever its status.
    std::function<void(const AbstractError&)> onFinished;

    CurlTransfer(CurlMulti* multi, Request request, QObject* parent = nullptr);
    ~CurlTransfer() override;

    void start();
    // Ends the transfer without a finished callback.
    void abort();
    void setPaused(bool paused);
    bool isPaused() const { return m_paused; }

    const HttpHeaders& headers() const { return m_headers; }
    QUrl effectiveUrl() const;
    long httpVersion() const; // CURL_HTTP_VERSION_1_1, CURL_HTTP_VERSION_2_0...
    // Why the server's certificate did not verify, after a failed TLS handshake.
    QList<QSslError> tlsErrors() const;
    // The server did not prove who it is: its certificate or its key did not verify.
    bool failedVerification() const;
    // The server's chain, leaf first, after a connectOnly transfer.
    QList<QSslCertificate> certificates() const;
    const Request& request() const { return m_request; }
    // The proxy the transfer goes through (NoProxy for none or one from the environment).
    QNetworkProxy resolvedProxy() const;
    // The proxy's answer to a tunnel (CONNECT) request, 0 without one.
    long proxyTunnelStatus() const;

    // Failures that may pass if the same request is made again later.
    static bool isTransient(const AbstractError& error);
    // The timeouts' and transport's errors use QNetworkReply's codes, as the rest of the
    // library knows them.
    static AbstractError networkError(int code, const QString& text);

    // For CurlMulti.
    CURL* handle() const { return m_easy; }
    void onDone(CURLcode code);
    void detach();

private:
    static size_t headerCallback(char* data, size_t size, size_t count, void* self);
    static size_t writeCallback(char* data, size_t size, size_t count, void* self);
    void configure();
    void configureProxy();
    void configureTls();
    void fail(const AbstractError& error);
    void onIdle();
    void noteTraffic();
    AbstractError errorFor(CURLcode code) const;
    AbstractError redirectError() const;

    QPointer<CurlMulti> m_multi;
    Request m_request;
    CURL* m_easy;
    curl_slist* m_headerList = nullptr;
    char m_errorText[CURL_ERROR_SIZE] = {};
    HttpHeaders m_headers;
    CURLcode m_result = CURLE_OK;
    AbstractError m_ownError; // why the transfer was cut short from this side
    QTimer m_idleTimer;
    QElapsedTimer m_clock;
    qint64 m_lastTraffic = 0;
    bool m_active = false;
    bool m_paused = false;
    bool m_answered = false;
    bool m_aborted = false;
};
