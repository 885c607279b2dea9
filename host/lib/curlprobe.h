#pragma once

#include "curltransfer.h"

#include <QObject>
#include <QPointer>
#include <QTimer>

#include <functional>

class CurlMulti;

// Fetches the start of a URL to find out what it is: the final response head always, and the
// body only when wantBody says so (a playlist is read, a big file is left to its download).
// Transient failures are retried with back-off like a download's, and an error status ends the
// probe with an HttpError. Main thread.
class CurlProbe final : public QObject {
    Q_OBJECT

public:
    CurlProbe(CurlMulti* multi, CurlTransfer::Request request, QObject* parent = nullptr);
    ~CurlProbe() override;

    void setRetries(int maxRetries, int baseDelayMs);
    void setMaxBodySize(qint64 bytes) { m_maxBodySize = bytes; }
    // Asked once per attempt with the final head of a 2xx answer and the URL it came from.
    std::function<bool(const HttpHeaders& head, const QUrl& url)> wantBody;

    void start();

    AbstractError error() const { return m_error; }
    const HttpHeaders& headers() const { return m_head; }
    QUrl url() const { return m_url; }
    QByteArray body() const { return m_body; }
    bool bodyWanted() const { return m_bodyWanted; }

Q_SIGNALS:
    void finished();

private:
    void send();
    CurlTransfer::DataAnswer onData(const char* data, qsizetype size);
    void onTransferFinished(const AbstractError& error);
    bool decide();
    void end(const AbstractError& error);

    QPointer<CurlMulti> m_multi;
    CurlTransfer::Request m_request;
    QPointer<CurlTransfer> m_transfer;
    QTimer m_retryTimer;
    int m_maxRetries = 5;
    int m_retryBaseDelayMs = 500;
    int m_attempt = 0;
    qint64 m_maxBodySize = 4 * 1024 * 1024;
    bool m_decided = false;
    bool m_bodyWanted = false;
    bool m_ended = false;
    HttpHeaders m_head;
    QUrl m_url;
    QByteArray m_body;
    AbstractError m_error;
};
