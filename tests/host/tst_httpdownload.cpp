#include "httpdownload.h"
#include "support/faultyhttpserver.h"
#include "support/testfiles.h"

#include <QFile>
#include <QFileInfo>
#include "curlmulti.h"
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <functional>

namespace {
QByteArray pattern(int size, int seed = 0) {
    QByteArray data(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 31 + seed * 7 + i / 251) & 0xff);
    return data;
}

} // namespace

class TestHttpDownload : public QObject {
    Q_OBJECT

private:
    CurlMulti m_network;
    QThread m_writers;
    FaultyHttpServer* m_server = nullptr;
    QTemporaryDir* m_dir = nullptr;

    QString target() const { return m_dir->filePath(QStringLiteral("out.bin")); }

    AbstractDownloadPersistentInfo record(const QString& path) const {
        AbstractDownloadPersistentInfo info;
        info.resourceUrl = m_server->url(path).toString();
        info.destinationPath = m_dir->path();
        AbstractDownloadFileInfo file;
        file.name = QStringLiteral("out.bin");
        info.files.append(file);
        return info;
    }

    // Runs the download to its end and returns it for inspection.
    QSharedPointer<HttpDownload> run(const AbstractDownloadPersistentInfo& info,
                                     const std::function<void(HttpDownload*)>& prepare = {}) {
        QSharedPointer<HttpDownload> download(new HttpDownload(1, &m_network));
        download->setInfo(info);
        if (prepare)
            prepare(download.data());
        download->setWritersThread(&m_writers);
        HttpDownload::Options options;
        options.retryBaseDelayMs = 10;
        download->setOptions(options);
        download->doCommand(AbstractDownloadCommand::Start);
        if (!QTest::qWaitFor([&] { return !download->isRunning(); }, 20000))
            qWarning("the download did not end in time");
        return download;
    }

private Q_SLOTS:
    void initTestCase() { m_writers.start(); }
    void cleanupTestCase() {
        m_writers.quit();
        m_writers.wait();
    }
    void init() {
        m_server = new FaultyHttpServer(this);
        QVERIFY(m_server->listen());
        m_dir = new QTemporaryDir;
    }
    void cleanup() {
        delete m_server;
        delete m_dir;
    }

    void wholeResource() {
        const QByteArray body = pattern(300000);
        m_server->setResource(QStringLiteral("/a"), body);
        const auto download = run(record(QStringLiteral("/a")));
        QCOMPARE(download->lastError().code, 0);
        QVERIFY(download->info().isFinished());
        QCOMPARE(readFile(target()), body);
        const auto& file = download->info().files.constFirst();
        QCOMPARE(file.size, body.size());
        QCOMPARE(file.downloadedBytes(), body.size());
        QCOMPARE(file.resumeSupport, int(AbstractDownloadFileInfo::ResumeSupported));
        QVERIFY(download->connectionsMap().isEmpty());
    }

    void resumesWithRangeAndRestartsOnPlain200() {
        const QByteArray body = pattern(200000, 1);
        m_server->setResource(QStringLiteral("/r"), body);
        AbstractDownloadPersistentInfo info = record(QStringLiteral("/r"));
        info.files[0].size = body.size();
        info.files[0].sections = {{0, body.size(), 70000}};
        info.files[0].resumeSupport = AbstractDownloadFileInfo::ResumeSupported;
        QVERIFY(writeFile(target(), body.left(70000)));
        auto download = run(info);
        QCOMPARE(readFile(target()), body);
        QCOMPARE(m_server->accessLog().constLast().range, QByteArray("bytes=70000-"));
        QCOMPARE(m_server->accessLog().constLast().status, 206);

        // A server that answers the range with the whole body: the file starts over, so the
        // stale first bytes are replaced rather than followed by a second copy.
        QVERIFY(writeFile(target(), QByteArray(70000, 'x') + QByteArray(500000, 'y')));
        m_server->setFault(QStringLiteral("/r"), {FaultyHttpServer::FaultKind::IgnoreRange, 0, -1});
        // The host saves critical changes; starting over must be one, announced while the file
        // still holds its old bytes, or a record saved earlier would claim bytes that are gone.
        qint64 fileSizeWhenRestartAnnounced = -1;
        const auto watchRestart = [&](HttpDownload* starting) {
            connect(starting, &AbstractDownload::changed, starting, [&, starting](bool critical) {
                if (critical && fileSizeWhenRestartAnnounced < 0 &&
                    starting->info().downloadedBytes() == 0)
                    fileSizeWhenRestartAnnounced = QFileInfo(target()).size();
            });
        };
        download = run(info, watchRestart);
        QCOMPARE(download->lastError().code, 0);
        QCOMPARE(fileSizeWhenRestartAnnounced, 570000);
        QCOMPARE(readFile(target()), body);
        QCOMPARE(m_server->accessLog().constLast().status, 200);

        // Without resume support the whole body is asked for again, which cuts the file too.
        info.files[0].resumeSupport = AbstractDownloadFileInfo::ResumeNotSupported;
        QVERIFY(writeFile(target(), QByteArray(570000, 'z')));
        fileSizeWhenRestartAnnounced = -1;
        download = run(info, watchRestart);
        QCOMPARE(fileSizeWhenRestartAnnounced, 570000);
        QCOMPARE(readFile(target()), body);
        QVERIFY(m_server->accessLog().constLast().range.isEmpty());
    }

    void errorStatusNeverReachesTheFile() {
        m_server->setResource(QStringLiteral("/f"), pattern(1000));
        m_server->setFault(QStringLiteral("/f"), {FaultyHttpServer::FaultKind::Status, 403, -1});
        const auto download = run(record(QStringLiteral("/f")));
        QCOMPARE(download->lastError().code, 403);
        QCOMPARE(download->lastError().category, std::string("HttpError"));
        QVERIFY(!download->info().isFinished());
        QVERIFY(!QFile::exists(target()));
        QCOMPARE(m_server->requestCount(QStringLiteral("/f")), 1); // a 403 is not retried
    }

    void transientFailuresAreRetried() {
        const QByteArray body = pattern(400000, 2);
        m_server->setResource(QStringLiteral("/d"), body);
        m_server->setFault(QStringLiteral("/d"),
                           {FaultyHttpServer::FaultKind::DropAfterBytes, 150000, 1});
        auto download = run(record(QStringLiteral("/d")));
        QCOMPARE(download->lastError().code, 0);
        QCOMPARE(readFile(target()), body);
        QCOMPARE(m_server->requestCount(QStringLiteral("/d")), 2);
        QVERIFY(m_server->accessLog().constLast().range.startsWith("bytes="));

        m_server->setFault(QStringLiteral("/e"), {FaultyHttpServer::FaultKind::Status, 503, 2});
        m_server->setResource(QStringLiteral("/e"), body);
        QFile::remove(target());
        download = run(record(QStringLiteral("/e")));
        QCOMPARE(download->lastError().code, 0);
        QCOMPARE(readFile(target()), body);
        QCOMPARE(m_server->requestCount(QStringLiteral("/e")), 3);

        m_server->setFault(QStringLiteral("/g"), {FaultyHttpServer::FaultKind::Status, 500, -1});
        m_server->setResource(QStringLiteral("/g"), body);
        download = run(record(QStringLiteral("/g")));
        QCOMPARE(download->lastError().code, 500);
        QCOMPARE(m_server->requestCount(QStringLiteral("/g")), 6); // first try and five retries
    }

    void byteRangeSourceAtWriteOffset() {
        const QByteArray body = pattern(5000, 3);
        m_server->setResource(QStringLiteral("/all"), body);
        QVERIFY(writeFile(target(), QByteArray(100, 'k')));
        AbstractDownloadPersistentInfo info = record(QStringLiteral("/all"));
        AbstractDownloadSourceInfo source;
        source.url = m_server->url(QStringLiteral("/all"));
        source.rangeOffset = 1000;
        source.rangeSize = 700;
        info.customData.insert(HttpDownload::SourceKey, source.toVariantHash());
        info.files[0].writeOffset = 100;
        info.setFlag(AbstractDownloadPersistentInfo::PartOfParentDownload);
        auto download = run(info);
        QCOMPARE(download->lastError().code, 0);
        QCOMPARE(readFile(target()), QByteArray(100, 'k') + body.mid(1000, 700));
        QCOMPARE(m_server->accessLog().constLast().range, QByteArray("bytes=1000-1699"));

        // The same range from a server that ignores ranges: the wanted bytes are cut out.
        m_server->setFault(QStringLiteral("/all"),
                           {FaultyHttpServer::FaultKind::IgnoreRange, 0, -1});
        QVERIFY(writeFile(target(), QByteArray(100, 'k')));
        download = run(info);
        QCOMPARE(download->lastError().code, 0);
        QCOMPARE(readFile(target()), QByteArray(100, 'k') + body.mid(1000, 700));
    }

    void speedLimitStillDeliversEveryByte() {
        const QByteArray body = pattern(120000, 4);
        m_server->setResource(QStringLiteral("/s"), body);
        QSharedPointer<HttpDownload> download(new HttpDownload(2, &m_network));
        download->setInfo(record(QStringLiteral("/s")));
        download->setWritersThread(&m_writers);
        NetworkUsageSettings limit;
        limit.downloadSpeedLimit = 400000;
        download->setNetworkUsageSettings(limit);
        download->doCommand(AbstractDownloadCommand::Start);
        QTRY_VERIFY_WITH_TIMEOUT(!download->isRunning(), 20000);
        QCOMPARE(download->lastError().code, 0);
        QCOMPARE(readFile(target()), body);
    }
};

QTEST_GUILESS_MAIN(TestHttpDownload)
#include "tst_httpdownload.moc"
