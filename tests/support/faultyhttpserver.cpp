#include "faultyhttpserver.h"

#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

namespace {
// Clients go by the code alone; the reason phrase is only there to be well-formed.
QByteArray statusLine(int status) {
    return "HTTP/1.1 " + QByteArray::number(status) + (status < 400 ? " OK\r\n" : " Failed\r\n");
}

// Writes a whole answer: the status line and headers in head, then body with its length.
void reply(QTcpSocket* socket, const QByteArray& head, const QByteArray& body = {}) {
    socket->write(head + "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body);
}

// Parses "bytes=a-b" / "bytes=a-" against a resource of the given size.
bool parseRange(const QByteArray& header, qint64 size, qint64* first, qint64* last) {
    static const QRegularExpression re(QStringLiteral(R"(^bytes=(\d+)-(\d*)$)"));
    const auto match = re.match(QString::fromLatin1(header.trimmed()));
    if (!match.hasMatch())
        return false;
    *first = match.captured(1).toLongLong();
    *last = match.captured(2).isEmpty() ? size - 1 : qMin(match.captured(2).toLongLong(), size - 1);
    return *first < size && *first <= *last;
}

// Sends chunk bytes of body every intervalMs.
void pace(QTcpSocket* socket, const QByteArray& body, int chunk, int intervalMs) {
    auto* timer = new QTimer(socket);
    auto offset = std::make_shared<qint64>(0);
    QObject::connect(timer, &QTimer::timeout, socket, [socket, timer, body, chunk, offset] {
        socket->write(body.mid(*offset, chunk));
        *offset += chunk;
        if (*offset >= body.size())
            timer->stop();
    });
    timer->start(intervalMs);
}

void sendBody(QTcpSocket* socket, const QByteArray& body, const FaultyHttpServer::Fault* fault) {
    using Kind = FaultyHttpServer::FaultKind;
    const Kind kind = fault ? fault->kind : Kind::Status; // a status fault never sends a body
    if (kind == Kind::DropAfterBytes) {
        socket->write(body.left(fault->value));
        socket->flush();
        socket->abort();
    } else if (kind == Kind::Trickle) {
        pace(socket, body, 1, fault->value);
    } else if (kind == Kind::SlowBody && fault->value > 0) {
        // Paced in tenths of a second so that the client sees a steady trickle.
        pace(socket, body, qMax(1, fault->value / 10), 100);
    } else {
        socket->write(body);
    }
}
} // namespace

FaultyHttpServer::FaultyHttpServer(QObject* parent)
    : QObject(parent)
    , m_server(new QTcpServer(this)) {
    connect(m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = m_server->nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
                m_buffers.remove(socket);
                socket->deleteLater();
            });
        }
    });
}

bool FaultyHttpServer::listen() {
    return m_server->listen(QHostAddress::LocalHost, 0);
}

QUrl FaultyHttpServer::url(const QString& path) const {
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_server->serverPort()).arg(path));
}

int FaultyHttpServer::requestCount(const QString& path) const {
    return int(std::count_if(m_log.cbegin(), m_log.cend(),
                             [&](const LogEntry& entry) { return entry.path == path; }));
}

void FaultyHttpServer::onReadyRead(QTcpSocket* socket) {
    QByteArray& buffer = m_buffers[socket];
    buffer += socket->readAll();
    int end;
    while ((end = buffer.indexOf("\r\n\r\n")) >= 0) {
        const QList<QByteArray> lines = buffer.left(end).split('\n');
        buffer.remove(0, end + 4);
        const QList<QByteArray> request = lines.value(0).trimmed().split(' ');
        QHash<QByteArray, QByteArray> headers; // by lower-case name
        for (const auto& line : lines.mid(1))
            headers.insert(line.left(line.indexOf(':')).toLower(),
                           line.mid(line.indexOf(':') + 1).trimmed());
        answer(socket, QString::fromLatin1(request.value(1)), headers.value("range"),
               headers.value("authorization"));
    }
}

const FaultyHttpServer::Fault* FaultyHttpServer::takeFault(const QString& path) {
    auto it = m_faults.find(path);
    if (it == m_faults.end() || it->times == 0)
        return nullptr;
    if (it->times > 0)
        --it->times;
    return &it.value();
}

// The faults that answer without the resource; false for those that shape its delivery.
bool FaultyHttpServer::answerFault(QTcpSocket* socket, const QString& path, const Fault& fault) {
    QByteArray head = statusLine(200);
    switch (fault.kind) {
    case FaultKind::NeverAnswer:
        return true;
    case FaultKind::HugeHeaders:
        for (int i = 0; i < fault.value; ++i)
            head += "X-Filler-" + QByteArray::number(i) + ": " + QByteArray(64, 'f') + "\r\n";
        reply(socket, head, "abc");
        return true;
    case FaultKind::HtmlPage:
        reply(socket, head + "Content-Type: text/html; charset=utf-8\r\n",
              "<html><body>Sorry, this stream is gone</body></html>");
        return true;
    case FaultKind::Redirect:
        reply(socket, statusLine(302) + "Location: " + m_resources.value(path).first + "\r\n");
        return true;
    default:
        return false;
    }
}

void FaultyHttpServer::answer(QTcpSocket* socket, const QString& path, const QByteArray& range,
                              const QByteArray& authorization) {
    const Fault* fault = takeFault(path);
    m_log.append({path, range});
    const QByteArray credentials = m_credentials.value(path);
    if (!credentials.isEmpty() && authorization != "Basic " + credentials.toBase64()) {
        reply(socket, "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"tern\"\r\n");
        return;
    }
    if (fault && answerFault(socket, path, *fault))
        return;
    const auto [resource, contentType] = m_resources.value(path);
    qint64 first = 0, last = resource.size() - 1;
    const bool honourRange = !range.isEmpty() && !(fault && fault->kind == FaultKind::IgnoreRange);
    if (!m_resources.contains(path) || (fault && fault->kind == FaultKind::Status)) {
        const int status = m_resources.contains(path) ? fault->value : 404;
        reply(socket, statusLine(status), "error page " + QByteArray::number(status));
    } else if (honourRange && !parseRange(range, resource.size(), &first, &last)) {
        reply(socket, statusLine(416) + "Content-Range: bytes */" +
                          QByteArray::number(resource.size()) + "\r\n");
    } else {
        const int status = honourRange ? 206 : 200;
        const QByteArray body = resource.mid(first, last - first + 1);
        QByteArray head = statusLine(status) + "Accept-Ranges: bytes\r\nContent-Length: " +
                          QByteArray::number(body.size()) + "\r\n";
        if (!contentType.isEmpty())
            head += "Content-Type: " + contentType + "\r\n";
        if (honourRange)
            head += "Content-Range: bytes " + QByteArray::number(first) + '-' +
                    QByteArray::number(last) + '/' + QByteArray::number(resource.size()) + "\r\n";
        socket->write(head + "\r\n");
        sendBody(socket, body, fault);
    }
}
