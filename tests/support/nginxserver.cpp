#include "nginxserver.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

namespace {
int freePort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

bool accepts(int port) {
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(port));
    return socket.waitForConnected(200);
}
} // namespace

NginxServer::NginxServer(QString rootDir)
    : m_root(std::move(rootDir)) {}

NginxServer::~NginxServer() {
    stop();
}

QString NginxServer::executable() {
    for (const QString& candidate :
         {QStringLiteral("/usr/sbin/nginx"), QStringLiteral("/sbin/nginx")}) {
        if (QFile::exists(candidate))
            return candidate;
    }
    return QStandardPaths::findExecutable(QStringLiteral("nginx"));
}

void NginxServer::setTls(const QString& certificateFile, const QString& keyFile) {
    m_certificate = certificateFile;
    m_key = keyFile;
}

QString NginxServer::writeConfig(qint64 limitRate) const {
    const QString dir = m_dir.path();
    QString temps;
    for (const char* name : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
        QDir(dir).mkpath(QString::fromLatin1(name));
        temps += QStringLiteral("    %1_temp_path %2/%1;\n").arg(QString::fromLatin1(name), dir);
    }
    QString limit = limitRate > 0 ? QStringLiteral("limit_rate %1;").arg(limitRate) : QString();
    if (!m_certificate.isEmpty())
        limit += QStringLiteral(" ssl_certificate %1; ssl_certificate_key %2;")
                     .arg(m_certificate, m_key);
    const QString tlsListen = m_certificate.isEmpty() ? QString() : QStringLiteral(" ssl http2");
    return QStringLiteral(
               "daemon off;\nmaster_process off;\nworker_processes 1;\npid %1/nginx.pid;\n"
               "error_log %1/error.log warn;\nevents { worker_connections 256; }\n"
               "http {\n    log_format tern '$uri $status \"$http_range\"';\n"
               "    access_log %1/access.log tern;\n%2"
               "    types { application/vnd.apple.mpegurl m3u8; video/mp2t ts; video/mp4 mp4 m4s; "
               "}\n"
               "    default_type application/octet-stream;\n    sendfile on;\n"
               "    server {\n        listen 127.0.0.1:%3%6;\n        root %4;\n        %5\n"
               "        location / { }\n    }\n}\n")
        .arg(dir, temps)
        .arg(m_port)
        .arg(m_root, limit, tlsListen);
}

bool NginxServer::start(QString* error, qint64 limitRate) {
    const QString program = executable();
    if (program.isEmpty()) {
        *error = QStringLiteral("nginx is not installed");
        return false;
    }
    m_port = freePort();
    const QString conf = m_dir.filePath(QStringLiteral("nginx.conf"));
    QFile file(conf);
    if (!file.open(QIODevice::WriteOnly) || file.write(writeConfig(limitRate).toUtf8()) < 0) {
        *error = QStringLiteral("cannot write %1").arg(conf);
        return false;
    }
    file.close();
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(program,
                    {QStringLiteral("-p"), m_dir.path(), QStringLiteral("-e"),
                     m_dir.filePath(QStringLiteral("error.log")), QStringLiteral("-c"), conf});
    const QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired()) {
        if (m_process.state() == QProcess::NotRunning)
            break;
        if (accepts(m_port))
            return true;
        QThread::msleep(20);
    }
    QFile log(m_dir.filePath(QStringLiteral("error.log")));
    log.open(QIODevice::ReadOnly);
    *error = QStringLiteral("nginx did not start: ") + QString::fromUtf8(log.readAll());
    stop();
    return false;
}

void NginxServer::stop() {
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

QUrl NginxServer::url(const QString& path) const {
    const QString scheme =
        m_certificate.isEmpty() ? QStringLiteral("http") : QStringLiteral("https");
    return QUrl(QStringLiteral("%1://127.0.0.1:%2%3").arg(scheme).arg(m_port).arg(path));
}

QList<NginxServer::Access> NginxServer::accessLog() const {
    QList<Access> entries;
    QFile file(m_dir.filePath(QStringLiteral("access.log")));
    if (!file.open(QIODevice::ReadOnly))
        return entries;
    while (!file.atEnd()) {
        const QStringList parts =
            QString::fromUtf8(file.readLine()).trimmed().remove(u'"').split(u' ');
        if (parts.size() == 3)
            entries.append({parts.at(0), parts.at(1).toInt(), parts.at(2)});
    }
    return entries;
}
