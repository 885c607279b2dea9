#pragma once

#include <QList>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>
#include <QUrl>

// A loopback port that nothing listened on when asked.
int freePort();
// Whether something accepts connections on the loopback port within 10 s, while process runs.
bool waitUntilListening(const QProcess& process, int port);

// Runs Debian's nginx without privileges on loopback and an ephemeral port, serving one folder,
// for as long as the object lives. Its access log tells which resources were fetched.
class NginxServer {
public:
    struct Access {
        QString path;
    };

    explicit NginxServer(QString rootDir)
        : m_root(std::move(rootDir)) {}
    ~NginxServer() { stop(); }

    static QString executable(); // empty when nginx is not installed
    // Serves HTTPS, with HTTP/2 offered, from these PEM files; call before start().
    void setTls(const QString& certificateFile, const QString& keyFile) {
        m_certificate = certificateFile;
        m_key = keyFile;
    }
    // limitRate: bytes per second per connection, 0 for none.
    bool start(QString* error, qint64 limitRate = 0);
    void stop();

    QUrl url(const QString& path) const;
    QList<Access> accessLog() const;

private:
    QString writeConfig(qint64 limitRate) const;

    QString m_root;
    QTemporaryDir m_dir;
    QProcess m_process;
    int m_port = 0;
    QString m_certificate;
    QString m_key;
};
