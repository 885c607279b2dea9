#include "nginxserver.h"
#include "testfiles.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

using namespace Qt::StringLiterals;

int freePort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

bool waitUntilListening(const QProcess& process, int port) {
    const QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired() && process.state() != QProcess::NotRunning) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, quint16(port));
        if (probe.waitForConnected(200))
            return true;
        QThread::msleep(20);
    }
    return false;
}

QString NginxServer::executable() {
    const QString system = QStandardPaths::findExecutable(u"nginx"_s, {u"/usr/sbin"_s, u"/sbin"_s});
    return system.isEmpty() ? QStandardPaths::findExecutable(u"nginx"_s) : system;
}

QString NginxServer::writeConfig(qint64 limitRate) const {
    const QString dir = m_dir.path();
    QString temps;
    for (const char* name : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
        QDir(dir).mkpath(QString::fromLatin1(name));
        temps += u"    %1_temp_path %2/%1;\n"_s.arg(QString::fromLatin1(name), dir);
    }
    QString limit = limitRate > 0 ? u"limit_rate %1;"_s.arg(limitRate) : QString();
    if (!m_certificate.isEmpty())
        limit += u" ssl_certificate %1; ssl_certificate_key %2;"_s.arg(m_certificate, m_key);
    const QString tlsListen = m_certificate.isEmpty() ? QString() : u" ssl http2"_s;
    return u"daemon off;\nmaster_process off;\nworker_processes 1;\npid %1/nginx.pid;\n"
           "error_log %1/error.log warn;\nevents { worker_connections 256; }\n"
           "http {\n    log_format tern '$uri';\n"
           "    access_log %1/access.log tern;\n%2"
           "    types { application/vnd.apple.mpegurl m3u8; video/mp2t ts; video/mp4 mp4 m4s; "
           "}\n"
           "    default_type application/octet-stream;\n    sendfile on;\n"
           "    server {\n        listen 127.0.0.1:%3%6;\n        root %4;\n        %5\n"
           "        location / { }\n    }\n}\n"_s.arg(dir, temps)
               .arg(m_port)
               .arg(m_root, limit, tlsListen);
}

bool NginxServer::start(QString* error, qint64 limitRate) {
    const QString program = executable();
    if (program.isEmpty()) {
        *error = u"nginx is not installed"_s;
        return false;
    }
    m_port = freePort();
    const QString conf = m_dir.filePath(u"nginx.conf"_s);
    if (!writeFile(conf, writeConfig(limitRate).toUtf8())) {
        *error = u"cannot write %1"_s.arg(conf);
        return false;
    }
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(
        program, {u"-p"_s, m_dir.path(), u"-e"_s, m_dir.filePath(u"error.log"_s), u"-c"_s, conf});
    if (waitUntilListening(m_process, m_port))
        return true;
    *error =
        u"nginx did not start: "_s + QString::fromUtf8(readFile(m_dir.filePath(u"error.log"_s)));
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
    const QString scheme = m_certificate.isEmpty() ? u"http"_s : u"https"_s;
    return QUrl(u"%1://127.0.0.1:%2%3"_s.arg(scheme).arg(m_port).arg(path));
}

QList<NginxServer::Access> NginxServer::accessLog() const {
    QList<Access> entries;
    QFile file(m_dir.filePath(u"access.log"_s));
    if (!file.open(QIODevice::ReadOnly))
        return entries;
    while (!file.atEnd())
        entries.append({QString::fromUtf8(file.readLine()).trimmed()});
    return entries;
}
