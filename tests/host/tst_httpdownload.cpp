#include "curlmulti.h"
#include "curltransfer.h"
#include "httpdownload.h"
#include "support/faultyhttpserver.h"
#include "support/nginxserver.h"
#include "support/testfiles.h"

#include <terncl/inet/qt/download/qtabstractknownsslhostskeeper.h>
#include <terncl/inet/qt/download/qtabstractnetworkauthrequestor.h>
#include <terncl/inet/qt/download/qtabstractnetworkpasswordskeeper.h>

#include <QFile>
#include <QFileInfo>
#include <QNetworkProxyFactory>
#include <QNetworkReply>
#include <QProcess>
#include <QSemaphore>
#include <QSslKey>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <functional>

using namespace Qt::StringLiterals;

namespace {
QByteArray pattern(int size, int seed = 0) {
    QByteArray data(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 31 + seed * 7 + i / 251) & 0xff);
    return data;
}

// Whether the download failed with code and an error naming every part; prints the error if not.
bool failed(const QSharedPointer<HttpDownload>& download, int code, const QStringList& what) {
    const AbstractError& error = download->lastError();
    const QString text = QString::fromStdString(error.description);
    bool as = error.code == code;
    for (const QString& part : what)
        as = as && text.contains(part);
    if (!as)
        qWarning("error %d: %s", error.code, error.description.c_str());
    return as;
}

// A listener whose accept queue is full: the kernel drops further connection attempts, so
// connecting hangs until the client gives up.
struct FullListener {
    QTcpServer server;
    QTcpSocket clients[3];

    FullListener() {
        server.setListenBacklogSize(0);
        server.listen(QHostAddress::LocalHost, 0);
        server.pauseAccepting();
        for (QTcpSocket& client : clients)
            client.connectToHost(QHostAddress::LocalHost, server.serverPort());
        QThread::msleep(100);
    }
};

// Every address goes through one proxy on loopback.
class FixedProxy : public QNetworkProxyFactory {
public:
    explicit FixedProxy(int port)
        : m_proxy(QNetworkProxy::HttpProxy, u"127.0.0.1"_s, quint16(port)) {}
    QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery&) override { return {m_proxy}; }

private:
    QNetworkProxy m_proxy;
};

// Runs a proxy program in the foreground, on a free port, for as long as the object lives.
class ProxyProgram {
public:
    const int port = freePort();

    ~ProxyProgram() {
        m_process.terminate();
        if (!m_process.waitForFinished(5000))
            m_process.kill();
        m_process.waitForFinished(5000);
    }

    bool start(const QString& program, const QStringList& arguments) {
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start(program, arguments);
        return waitUntilListening(m_process, port);
    }
    // tinyproxy for loopback clients, its configuration (plus extra lines) written in folder.
    bool startTinyproxy(const QTemporaryDir& folder, const QByteArray& extra = {}) {
        const QString conf = folder.filePath(u"tinyproxy-%1.conf"_s.arg(port));
        return writeFile(conf, "Port " + QByteArray::number(port) +
                                   "\nListen 127.0.0.1\nAllow 127.0.0.1\n" + extra) &&
               start(u"tinyproxy"_s, {u"-d"_s, u"-c"_s, conf});
    }
    QString output() { return QString::fromLocal8Bit(m_process.readAll()); }

private:
    QProcess m_process;
};

class KeptPasswords : public QtAbstractNetworkPasswordsKeeper {
public:
    void save(const QtNetworkAuthScope& scope, const QtNetworkAuthRecord& record, bool) override {
        records[scope] = record;
    }
    QtNetworkAuthRecord find(const QtNetworkAuthScope& scope) const override {
        return records.value(scope);
    }
    void remove(const QtNetworkAuthScope& scope) override { records.remove(scope); }
    QMap<QtNetworkAuthScope, QtNetworkAuthRecord> records;
};

class KnownHosts : public QtAbstractKnownSslHostsKeeper {
public:
    bool isKnown(const QtSslHost& host) const override { return hosts.contains(host); }
    void addHost(const QtSslHost& host) override { hosts.append(host); }
    void removeHost(const QtSslHost& host) override { hosts.removeAll(host); }
    QList<QtSslHost> hosts;
};

// Answers every request with the same credentials, later, as a dialog would.
class AnsweringRequestor : public QtAbstractNetworkAuthRequestor {
public:
    explicit AnsweringRequestor(QtNetworkAuthRecord reply)
        : answer(std::move(reply)) {}
    void requestAuth(const QtNetworkAuthScope& scope) override {
        asked.append(scope);
        QMetaObject::invokeMethod(
            this, [this, scope] { Q_EMIT authRequestFinished(scope, answer, true); },
            Qt::QueuedConnection);
    }
    void cancelRequest(const QtNetworkAuthScope&) override {}
    bool isRequesting(const QtNetworkAuthScope&) const override { return false; }

    const QtNetworkAuthRecord answer;
    QList<QtNetworkAuthScope> asked;
};
} // namespace

class TestHttpDownload : public QObject {
    Q_OBJECT

private:
    CurlMulti m_network;
    QThread m_writers;
    std::unique_ptr<FaultyHttpServer> m_server; // each test's own, as is the folder
    std::unique_ptr<QTemporaryDir> m_dir;

    QString target() const { return m_dir->filePath(u"out.bin"_s); }

    AbstractDownloadPersistentInfo record(const QString& path) const {
        AbstractDownloadPersistentInfo info;
        info.resourceUrl = m_server->url(path).toString();
        info.destinationPath = m_dir->path();
        info.files.resize(1);
        info.files[0].name = u"out.bin"_s;
        return info;
    }

    // Runs the download to its end and returns it for inspection.
    QSharedPointer<HttpDownload> run(const AbstractDownloadPersistentInfo& info,
                                     const std::function<void(HttpDownload*)>& prepare = {},
                                     HttpDownload::Options options = {}) {
        QSharedPointer<HttpDownload> download(new HttpDownload(1, &m_network));
        download->setInfo(info);
        options.retryBaseDelayMs = 10;
        download->setOptions(options);
        if (prepare)
            prepare(download.data());
        download->setWritersThread(&m_writers);
        download->doCommand(AbstractDownloadCommand::Start);
        if (!QTest::qWaitFor([&] { return !download->isRunning(); }, 20000))
            qWarning("the download did not end in time");
        return download;
    }

    static std::function<void(HttpDownload*)> via(QNetworkProxyFactory* proxy) {
        return [proxy](HttpDownload* starting) {
            starting->setProxyFactory(proxy);
        };
    }

private Q_SLOTS:
    void initTestCase() { m_writers.start(); }
    void cleanupTestCase() {
        m_writers.quit();
        m_writers.wait();
    }
    void init() {
        m_server = std::make_unique<FaultyHttpServer>();
        QVERIFY(m_server->listen());
        m_dir = std::make_unique<QTemporaryDir>();
    }

    // Once every byte has arrived the download says it only flushes, with its size known, so that
    // a segments downloader can start the next segment while the writer catches up.
    void finalizingWhileTheLastBytesAreFlushed() {
        const QByteArray body = pattern(300000, 5);
        m_server->setResource(u"/w"_s, body);
        QSemaphore writersHeld;
        auto* holder = new QObject;
        holder->moveToThread(&m_writers);
        QMetaObject::invokeMethod(holder, [&writersHeld] { writersHeld.acquire(); });
        QSharedPointer<HttpDownload> download(new HttpDownload(1, &m_network));
        download->setInfo(record(u"/w"_s));
        download->setWritersThread(&m_writers);
        download->doCommand(AbstractDownloadCommand::Start);
        QTRY_VERIFY(download->isFinalizing());
        QCOMPARE(download->info().files[0].size, body.size());
        QCOMPARE(download->info().downloadedBytes(), 0);
        writersHeld.release();
        QTRY_VERIFY(!download->isRunning());
        QVERIFY(download->info().isFinished());
        QCOMPARE(readFile(target()), body);
        holder->deleteLater();
    }

    void wholeThenResumedThenRestartedOnPlain200() {
        const QByteArray body = pattern(200000, 1);
        m_server->setResource(u"/r"_s, body);
        AbstractDownloadPersistentInfo info = record(u"/r"_s);
        auto download = run(info);
        QVERIFY(download->info().isFinished());
        QCOMPARE(readFile(target()), body);

        info.files[0].size = body.size();
        info.files[0].sections = {{0, body.size(), 70000}};
        info.files[0].resumeSupport = AbstractDownloadFileInfo::ResumeSupported;
        QVERIFY(writeFile(target(), body.left(70000)));
        download = run(info);
        QCOMPARE(readFile(target()), body);
        QCOMPARE(m_server->accessLog().constLast().range, QByteArray("bytes=70000-"));

        // A server that answers the range with the whole body, then a record without resume
        // support: the file starts over rather than gaining a second copy. Starting over is a
        // critical change, announced while the file still holds its old bytes, or a record saved
        // earlier would claim bytes that are gone.
        m_server->setFault(u"/r"_s, {FaultyHttpServer::FaultKind::IgnoreRange, 0, -1});
        for (const auto resume : {AbstractDownloadFileInfo::ResumeSupported,
                                  AbstractDownloadFileInfo::ResumeNotSupported}) {
            info.files[0].resumeSupport = resume;
            QVERIFY(writeFile(target(), QByteArray(70000, 'x') + QByteArray(500000, 'y')));
            qint64 sizeWhenRestartAnnounced = -1;
            download = run(info, [&](HttpDownload* starting) {
                connect(starting, &AbstractDownload::changed, starting,
                        [&, starting](bool critical) {
                            if (critical && sizeWhenRestartAnnounced < 0 &&
                                starting->info().downloadedBytes() == 0)
                                sizeWhenRestartAnnounced = QFileInfo(target()).size();
                        });
            });
            QCOMPARE(download->lastError().code, 0);
            QCOMPARE(sizeWhenRestartAnnounced, 570000);
            QCOMPARE(readFile(target()), body);
        }
        QVERIFY(m_server->accessLog().constLast().range.isEmpty()); // the whole body asked for
    }

    // Dropped mid-body, the download resumes; a 503 is asked again; a 500 is given up after the
    // first try and five retries; a 403 is not retried. An error page never reaches the file.
    void errorStatusesAndRetries() {
        using Kind = FaultyHttpServer::FaultKind;
        const QByteArray body = pattern(400000, 2);
        const struct {
            const char* path;
            FaultyHttpServer::Fault fault;
            int code, requests;
        } cases[] = {{"/d", {Kind::DropAfterBytes, 150000, 1}, 0, 2},
                     {"/e", {Kind::Status, 503, 2}, 0, 3},
                     {"/g", {Kind::Status, 500, -1}, 500, 6},
                     {"/f", {Kind::Status, 403, -1}, 403, 1}};
        for (const auto& check : cases) {
            const QString path = QLatin1String(check.path);
            m_server->setResource(path, body);
            m_server->setFault(path, check.fault);
            QFile::remove(target());
            const auto download = run(record(path));
            QCOMPARE(download->lastError().code, check.code);
            QCOMPARE(download->info().isFinished(), check.code == 0);
            QCOMPARE(readFile(target()), check.code == 0 ? body : "<missing>"_ba);
            QCOMPARE(m_server->requestCount(path), check.requests);
        }
        QVERIFY(m_server->accessLog().at(1).range.startsWith("bytes="));
    }

    void byteRangeSourceAtWriteOffset() {
        const QByteArray body = pattern(5000, 3);
        m_server->setResource(u"/all"_s, body);
        AbstractDownloadPersistentInfo info = record(u"/all"_s);
        AbstractDownloadSourceInfo source;
        source.url = m_server->url(u"/all"_s);
        source.rangeOffset = 1000;
        source.rangeSize = 700;
        info.customData.insert(HttpDownload::SourceKey, source.toVariantHash());
        info.files[0].writeOffset = 100;
        info.setFlag(AbstractDownloadPersistentInfo::PartOfParentDownload);
        // The second time from a server that ignores ranges: the wanted bytes are cut out.
        for (const bool ignoresRanges : {false, true}) {
            if (ignoresRanges)
                m_server->setFault(u"/all"_s, {FaultyHttpServer::FaultKind::IgnoreRange, 0, -1});
            QVERIFY(writeFile(target(), QByteArray(100, 'k')));
            QCOMPARE(run(info)->lastError().code, 0);
            QCOMPARE(readFile(target()), QByteArray(100, 'k') + body.mid(1000, 700));
            QCOMPARE(m_server->accessLog().constLast().range, QByteArray("bytes=1000-1699"));
        }
    }

    // Every way a server can hold a download forever ends as a time-out, retried first.
    void stuckServersTimeOut() {
        const int timeout = QNetworkReply::TimeoutError;
        HttpDownload::Options options;
        options.maxRetries = 1;
        options.firstByteTimeoutMs = 300;
        m_server->setResource(u"/n"_s, pattern(1000));
        m_server->setFault(u"/n"_s, {FaultyHttpServer::FaultKind::NeverAnswer, 0, -1});
        QVERIFY(failed(run(record(u"/n"_s), {}, options), timeout, {u"no answer"_s}));
        QCOMPARE(m_server->requestCount(u"/n"_s), 2);

        m_server->setResource(u"/t"_s, pattern(100));
        m_server->setFault(u"/t"_s, {FaultyHttpServer::FaultKind::Trickle, 800, -1});
        options.stallTimeoutMs = 300;
        QVERIFY(failed(run(record(u"/t"_s), {}, options), timeout, {u"no data"_s}));

        // Bytes keep coming, but far too slowly.
        m_server->setFault(u"/t"_s, {FaultyHttpServer::FaultKind::Trickle, 50, -1});
        options.stallTimeoutMs = 5000;
        options.lowSpeedLimit = 1000;
        options.lowSpeedTimeMs = 1000;
        QVERIFY(
            failed(run(record(u"/t"_s), {}, options), timeout, {u"slower than 1000 bytes/s"_s}));
        QCOMPARE(m_server->requestCount(u"/t"_s), 4);

        QFile::remove(target());
        const FullListener full;
        options.connectTimeoutMs = 300;
        AbstractDownloadPersistentInfo info = record(u"/c"_s);
        info.resourceUrl = u"http://127.0.0.1:%1/c"_s.arg(full.server.serverPort());
        QVERIFY(failed(run(info, {}, options), timeout, {u"could not connect"_s}));
        QVERIFY(!QFile::exists(target()));
    }

    void hostileAnswersAreRefused() {
        // 10 000 header lines: refused at the head's size cap, not read to the end.
        m_server->setResource(u"/h"_s, pattern(1000));
        m_server->setFault(u"/h"_s, {FaultyHttpServer::FaultKind::HugeHeaders, 10000, -1});
        QVERIFY(failed(run(record(u"/h"_s)), QNetworkReply::ProtocolFailure,
                       {u"larger than 64 KiB"_s}));
        QVERIFY(!QFile::exists(target()));

        for (const char* elsewhere : {"file:///etc/passwd", "ftp://127.0.0.1/x"}) {
            m_server->setResource(u"/r"_s, elsewhere);
            m_server->setFault(u"/r"_s, {FaultyHttpServer::FaultKind::Redirect, 0, -1});
            QVERIFY(failed(run(record(u"/r"_s)), QNetworkReply::ProtocolUnknownError,
                           {QLatin1String(elsewhere)}));
            QVERIFY(!QFile::exists(target()));
        }
    }

    // What a segment of a stream must hold is checked before a byte of it is written.
    void segmentContentIsChecked() {
        using Expected = HttpDownload::ExpectedContent;
        QByteArray ts = pattern(188 * 40, 5);
        for (int i = 0; i < ts.size(); i += 188)
            ts[i] = 0x47; // MPEG-TS packets: the sync byte every 188 bytes
        const QByteArray mp4 = QByteArray("\0\0\0\x18moof", 8) + pattern(3000, 6);
        m_server->setResource(u"/ts"_s, ts, "text/vnd.trolltech.linguist");
        m_server->setResource(u"/mp4"_s, mp4);
        m_server->setResource(u"/junk"_s, pattern(3000, 7));
        m_server->setResource(u"/html"_s, ts);
        m_server->setFault(u"/html"_s, {FaultyHttpServer::FaultKind::HtmlPage, 0, -1});
        const struct {
            const char* path;
            Expected expected;
            const char* refusal; // what the error says, nullptr when accepted
        } cases[] = {{"/ts", Expected::MpegTs, nullptr},
                     {"/mp4", Expected::FragmentedMp4, nullptr},
                     {"/junk", Expected::Any, nullptr},
                     {"/html", Expected::MpegTs, "sent text/html; charset=utf-8 where media"},
                     {"/junk", Expected::MpegTs, "not MPEG-TS (no sync byte at 0)"},
                     {"/ts", Expected::FragmentedMp4, "does not start with an MP4 box"}};
        HttpDownload::Options options;
        options.maxRetries = 1;
        for (const auto& check : cases) {
            QFile::remove(target());
            options.expectedContent = check.expected;
            const QString path = QString::fromLatin1(check.path);
            const int before = m_server->requestCount(path);
            const auto download = run(record(path), {}, options);
            QCOMPARE(download->info().isFinished(), !check.refusal);
            if (!check.refusal)
                continue;
            QVERIFY(failed(download, HttpDownload::WrongContentError,
                           {QLatin1String(check.refusal), m_server->url(path).toString()}));
            QCOMPARE(QFileInfo(target()).size(), 0);
            QCOMPARE(m_server->requestCount(path) - before, 2); // retried once
        }
    }

    void tlsIsVerifiedOrPinnedAlsoThroughATunnel() {
        if (NginxServer::executable().isEmpty())
            QSKIP("nginx is not installed");
        const QByteArray body = pattern(700000, 8);
        QVERIFY(writeFile(m_dir->filePath(u"www/v.bin"_s), body));
        const QString cert = m_dir->filePath(u"cert.pem"_s);
        const QString key = m_dir->filePath(u"key.pem"_s);
        const QString openssl = QStringLiteral("req -x509 -newkey ec -pkeyopt "
                                               "ec_paramgen_curve:prime256v1 -nodes -days 1 "
                                               "-subj /CN=127.0.0.1 -keyout %1 -out %2");
        QCOMPARE(QProcess::execute(u"openssl"_s, openssl.arg(key, cert).split(u' ')), 0);
        NginxServer nginx(m_dir->filePath(u"www"_s));
        nginx.setTls(cert, key);
        QString error;
        QVERIFY2(nginx.start(&error), qPrintable(error));
        AbstractDownloadPersistentInfo info = record(u"/v.bin"_s);
        info.resourceUrl = nginx.url(u"/v.bin"_s).toString();
        AbstractNetworkConsumerSettings settings;
        settings.ignoreSslErrors = true;
        KnownHosts keeper;
        QList<QtSslHost> asked;
        const auto watch = [&](HttpDownload* download) {
            download->setNetworkSettings(settings);
            download->setKnownSslHosts(&keeper);
            connect(
                download, &AbstractNetworkConsumer::sslAcceptUnknownHostRequired, download,
                [&](const QtSslHost& host, bool*) { asked << host; }, Qt::DirectConnection);
        };
        auto download = run(info, watch);
        QCOMPARE(readFile(target()), body);
        // The certificate is the test's own: refused unless told to ignore it.
        settings.ignoreSslErrors = false;
        QFile::remove(target());
        download = run(info, watch);
        QVERIFY(failed(download, QNetworkReply::SslHandshakeFailedError, {u"does not verify"_s}));
        QCOMPARE(download->lastSslErrors().value(0).error(), QSslError::SelfSignedCertificate);
        QVERIFY(!QFile::exists(target()));
        // Reported by its key, which a keeper may know: then it is fetched with that key pinned.
        const QtSslHost unknown = download->lastUnknownSslHost();
        QCOMPARE(asked, QList<QtSslHost>{unknown});
        const QByteArray spki = QSslCertificate::fromPath(cert).value(0).publicKey().toDer();
        QCOMPARE(unknown, QtSslHost({u"127.0.0.1"_s, nginx.url(u"/"_s).port()},
                                    {spki, HttpDownload::SpkiDerKey}));
        keeper.hosts = {QtSslHost(unknown.hostAndPort, {unknown.publicKey.key + 'x', 0})};
        QCOMPARE(run(info, watch)->lastError().code, int(QNetworkReply::SslHandshakeFailedError));
        keeper.hosts = {unknown};
        download = run(info, watch);
        QCOMPARE(download->lastError().code, 0);
        QCOMPARE(readFile(target()), body);
        // Through an HTTP proxy the TLS session is tunnelled: the same key, the same bytes.
        ProxyProgram tunnel;
        QVERIFY2(tunnel.startTinyproxy(*m_dir), qPrintable(tunnel.output()));
        FixedProxy viaTunnel(tunnel.port);
        QFile::remove(target());
        download = run(info, [&](HttpDownload* starting) {
            watch(starting);
            starting->setProxyFactory(&viaTunnel);
        });
        QCOMPARE(download->lastError().code, 0);
        QCOMPARE(readFile(target()), body);
        QString tunnelLog;
        QTRY_VERIFY2((tunnelLog += tunnel.output()).contains(u"CONNECT 127.0.0.1"_s),
                     qPrintable(tunnelLog));
        // The pin holds on its own: another key is refused even without verification.
        CurlTransfer::Request pinned;
        pinned.url = QUrl(info.resourceUrl);
        pinned.verifyTls = false;
        pinned.pinnedPublicKey = unknown.publicKey.key + 'x';
        CurlTransfer transfer(&m_network, pinned);
        AbstractError pinError;
        transfer.onFinished = [&](const AbstractError& error) {
            pinError = error;
        };
        transfer.start();
        QTRY_VERIFY(pinError.isSet());
        QVERIFY(QString::fromStdString(pinError.description).contains(u"accepted"_s));
    }

    // A proxy is really used: one that asks for credentials gets them from the requestor, as a
    // server would, and one that is not there is a clear error with the server never asked.
    void proxiesAreUsedAndAskForCredentials() {
        const QByteArray body = pattern(300000, 9);
        m_server->setResource(u"/p"_s, body);
        ProxyProgram authProxy;
        QVERIFY2(authProxy.startTinyproxy(*m_dir, "BasicAuth ann s3cret\n"),
                 qPrintable(authProxy.output()));
        FixedProxy asking(authProxy.port);
        AnsweringRequestor requestor({u"ann"_s, u"s3cret"_s});
        QCOMPARE(run(record(u"/p"_s), via(&asking))->lastError().code, 407);
        const auto authed = run(record(u"/p"_s), [&](HttpDownload* starting) {
            starting->setProxyFactory(&asking);
            starting->setAuth(nullptr, &requestor);
        });
        QCOMPARE(authed->lastError().code, 0);
        QCOMPARE(readFile(target()), body);
        QCOMPARE(requestor.asked.size(), 1);
        QCOMPARE(requestor.asked.constFirst().kind, int(QtNetworkAuthScope::Proxy));
        QCOMPARE(requestor.asked.constFirst().url.port(), authProxy.port);
        FixedProxy gone(freePort());
        HttpDownload::Options options;
        options.maxRetries = 0;
        const int before = m_server->requestCount(u"/p"_s);
        QCOMPARE(run(record(u"/p"_s), via(&gone), options)->lastError().code,
                 int(QNetworkReply::ProxyConnectionRefusedError));
        QCOMPARE(m_server->requestCount(u"/p"_s), before);
    }

    void credentialsFromKeeperOrRequestor() {
        const QByteArray body = pattern(5000, 10);
        m_server->setResource(u"/k"_s, body);
        m_server->setCredentials(u"/k"_s, "ann:s3cret");
        QCOMPARE(run(record(u"/k"_s))->lastError().code, 401);
        QVERIFY(!QFile::exists(target()));
        // Asked for once, then kept: the second download finds them without asking.
        KeptPasswords kept;
        AnsweringRequestor requestor({u"ann"_s, u"s3cret"_s});
        const auto withAuth = [&](HttpDownload* starting) {
            starting->setAuth(&kept, &requestor);
        };
        for (int i = 0; i < 2; ++i) {
            QFile::remove(target());
            QCOMPARE(run(record(u"/k"_s), withAuth)->lastError().code, 0);
            QCOMPARE(readFile(target()), body);
        }
        QCOMPARE(requestor.asked.size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestHttpDownload)
#include "tst_httpdownload.moc"
