#pragma once

#include <QHash>
#include <QObject>
#include <QUrl>

class QTcpServer;
class QTcpSocket;

// A loopback HTTP/1.1 server for the failures a real server does not produce on demand (see
// FaultKind). Otherwise it serves in-memory resources with correct Range handling, and keeps an
// access log. Runs in the thread of its owner (the test's event loop).
class FaultyHttpServer : public QObject {
    Q_OBJECT

public:
    enum class FaultKind {
        Status,
        DropAfterBytes,
        IgnoreRange,
        SlowBody,
        Trickle,     // one byte of the body every value ms
        HugeHeaders, // value header lines before a short body
        NeverAnswer, // reads the request and stays silent
        HtmlPage,    // 200 with a text/html error page instead of the resource
        Redirect,    // 302 to the resource's body, taken as the Location
    };

    struct Fault {
        FaultKind kind = FaultKind::Status;
        int value = 0;  // status code, bytes before the drop, bytes per second, ms, lines
        int times = -1; // how many requests get the fault; -1 every one
    };

    struct LogEntry {
        QString path;
        QByteArray range; // the Range header as received, empty without one
    };

    explicit FaultyHttpServer(QObject* parent = nullptr);

    bool listen(); // on 127.0.0.1 and an ephemeral port
    QUrl url(const QString& path) const;

    void setResource(const QString& path, const QByteArray& body,
                     const QByteArray& contentType = {}) {
        m_resources.insert(path, {body, contentType});
    }
    void setFault(const QString& path, const Fault& fault) { m_faults.insert(path, fault); }
    // Answers 401 (Basic, realm "tern") unless the request carries these "user:password".
    void setCredentials(const QString& path, const QByteArray& userAndPassword) {
        m_credentials.insert(path, userAndPassword);
    }

    QList<LogEntry> accessLog() const { return m_log; }
    int requestCount(const QString& path) const;

private:
    void onReadyRead(QTcpSocket* socket);
    void answer(QTcpSocket* socket, const QString& path, const QByteArray& rangeHeader,
                const QByteArray& authorization);
    bool answerFault(QTcpSocket* socket, const QString& path, const Fault& fault);
    const Fault* takeFault(const QString& path);

    QTcpServer* m_server;
    QHash<QString, std::pair<QByteArray, QByteArray>> m_resources; // body, content type
    QHash<QString, QByteArray> m_credentials;
    QHash<QString, Fault> m_faults;
    QHash<QTcpSocket*, QByteArray> m_buffers;
    QList<LogEntry> m_log;
};
