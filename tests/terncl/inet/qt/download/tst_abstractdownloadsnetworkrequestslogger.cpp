#include <terncl/core/qtqobjectstracker.h>
#include <terncl/fs/qt/utils/filenamerules.h>
#include <terncl/inet/qt/download/abstractdownloadsnetworkrequestslogger.h>

#include "support/fakedownload.h"
#include "support/recordinglogger.h"
#include "support/testfiles.h"

#include <QDir>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

namespace {
// The file name the logger gives a run registered at one of the two times (the clock may tick
// between them).
QStringList possibleNames(const QDateTime& before, const QDateTime& after, int counter,
                          const QString& name) {
    QStringList names;
    for (const auto& time : {before, after})
        names.append(QStringLiteral("R_%1_%2_%3.log")
                         .arg(time.toString(QStringLiteral("yyyy-MM-ddThhmmss")))
                         .arg(counter)
                         .arg(name));
    return names;
}

void setInfo(FakeDownload& download, const QString& name, const QString& savedFilePath = {}) {
    auto info = download.info();
    info.resourceUrl = QStringLiteral("http://example.com/a b?q=1");
    info.name = name;
    info.savedFilePath = savedFilePath;
    download.setInfo(info);
}

// One download run that only starts and ends, to count warnings and files.
void runOnce(FakeDownload& download) {
    download.startRunning();
    Q_EMIT download.sendingRequestHeaders(1, {QStringLiteral("GET / HTTP/1.1")});
    download.stopUnfinished();
}
} // namespace

class TestNetworkRequestsLogger : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() {
        m_tracker = QSharedPointer<QtQObjectsTracker>::create();
        QtQObjectsTracker::setInstance(m_tracker);
    }

    void eachRunWritesItsOwnFileOnTheWorkerThread() {
        QTemporaryDir sandbox;
        QThread worker;
        worker.start();
        const auto stopWorker = qScopeGuard([&worker] {
            worker.quit();
            worker.wait();
        });
        const QString folder = sandbox.filePath(QStringLiteral("logs/"));
        AbstractDownloadsNetworkRequestsLogger logger(folder, false, &worker);
        QCOMPARE(logger.folder(), QDir(folder).canonicalPath());
        FakeDownload download;
        setInfo(download, QStringLiteral("my:file?\u00ef.bin"));
        const QDateTime before = QDateTime::currentDateTime();
        logger.registerDownload(&download);
        const QDateTime after = QDateTime::currentDateTime();
        logger.registerDownload(&download);

        // A redirect that fails: only the first request and its response are logged, not a
        // parallel request nor the redirect's.
        download.startRunning();
        QCOMPARE(m_tracker->monitoredObjectsCount(), 1);
        Q_EMIT download.sendingRequestHeaders(
            1, {QStringLiteral("GET /a%20b?q=1 HTTP/1.1"), QStringLiteral("Host: example.com")});
        Q_EMIT download.sendingRequestHeaders(3, {QStringLiteral("GET /c HTTP/1.1")});
        Q_EMIT download.gotResponseHeaders(3, {QStringLiteral("HTTP/1.1 200 OK")});
        Q_EMIT download.gotResponseHeaders(
            1, {QStringLiteral("HTTP/1.1 302 Found"), QStringLiteral("Location: /b")});
        Q_EMIT download.sendingRequestHeaders(2, {QStringLiteral("GET /b HTTP/1.1")});
        Q_EMIT download.gotResponseHeaders(2, {QStringLiteral("HTTP/1.1 404 Not Found")});
        download.fail(AbstractError(404, AbstractError::HttpError, "src/x,1", "Not Found"));

        // A response without a request (a cached answer) that finishes into a file; the
        // request that follows it stays out. Header lines go as Latin-1.
        setInfo(download, QStringLiteral("my:file?\u00ef.bin"), QStringLiteral("/d/f \u00ef.bin"));
        download.startRunning();
        Q_EMIT download.gotResponseHeaders(
            7, {QStringLiteral("HTTP/1.1 200 OK"), QStringLiteral("X-Name: caf\u00e9")});
        Q_EMIT download.sendingRequestHeaders(7, {QStringLiteral("GET / HTTP/1.1")});
        download.finish();

        QTRY_COMPARE(m_tracker->monitoredObjectsCount(), 0);
        // Names start with the time, so their order is the order of the runs.
        const QStringList files = QDir(folder).entryList({QStringLiteral("R_*.log")}, QDir::Files);
        QCOMPARE(files.size(), 2);
        const QString name = QStringLiteral("myfile\u00ef.bin");
        QVERIFY(possibleNames(before, after, 1, name).contains(files[0]));
        QVERIFY(possibleNames(before, after, 2, name).contains(files[1]));
        QCOMPARE(readFile(QDir(folder).filePath(files[0])),
                 QByteArray("======= RESOURCE URL =======\r\n"
                            "http://example.com/a%20b?q=1\r\n"
                            "======= REQUEST HEADERS =======\r\n"
                            "GET /a%20b?q=1 HTTP/1.1\r\nHost: example.com\r\n"
                            "======= RESPONSE HEADERS =======\r\n"
                            "HTTP/1.1 302 Found\r\nLocation: /b\r\n"
                            "\r\n======= ERROR =======\r\n"
                            "{ERROR: |CODE|: 404, |CATEGORY|: HttpError, |SOURCE|: src/x,1, "
                            "|DESCRIPTION|: Not Found}\r\n"));
        QCOMPARE(readFile(QDir(folder).filePath(files[1])),
                 QByteArray("======= RESOURCE URL =======\r\n"
                            "http://example.com/a%20b?q=1\r\n"
                            "======= RESPONSE HEADERS =======\r\n"
                            "HTTP/1.1 200 OK\r\nX-Name: caf\xe9\r\n"
                            "\r\n======= BODY =======\r\n"
                            "Saved in the file: /d/f \xc3\xaf.bin\r\n"));
    }

    void onlyRequestLogsAreRemoved() {
        QTemporaryDir sandbox;
        const QStringList names{QStringLiteral("R_old.log"), QStringLiteral("R_old.txt"),
                                QStringLiteral("old.log"), QStringLiteral("xR_a.log")};
        for (const auto& name : names)
            QVERIFY(writeFile(sandbox.filePath(name), "x"));
        AbstractDownloadsNetworkRequestsLogger keeping(sandbox.path(), false);
        QCOMPARE(QDir(sandbox.path()).entryList(QDir::Files).size(), 4);
        AbstractDownloadsNetworkRequestsLogger removing(sandbox.path(), true);
        QCOMPARE(QDir(sandbox.path()).entryList(QDir::Files, QDir::Name), names.mid(1));
    }

    // A folder that goes away after construction makes the writers fail; one warning follows.
    void vanishedFolderWarnsOnceAndLogsNothing() {
        RecordingLogger logger;
        QTemporaryDir sandbox;
        const QString vanishing = sandbox.filePath(QStringLiteral("gone"));
        AbstractDownloadsNetworkRequestsLogger orphaned(vanishing, false);
        QVERIFY(QDir(vanishing).removeRecursively() && writeFile(vanishing, "x"));
        FakeDownload second(2);
        setInfo(second, QStringLiteral("second"));
        orphaned.registerDownload(&second);
        runOnce(second);
        runOnce(second);
        QTRY_COMPARE(m_tracker->monitoredObjectsCount(), 0);
        QCOMPARE(logger.lines().size(), 1);
        QVERIFY(logger.lines()[0].contains(QStringLiteral("cannot write \"%1/R_").arg(vanishing)));

        // A run that ends without having started, and one whose download goes away, leave
        // nothing behind.
        auto* doomed = new FakeDownload(4);
        orphaned.registerDownload(doomed);
        Q_EMIT doomed->running(false);
        doomed->startRunning();
        QCOMPARE(m_tracker->monitoredObjectsCount(), 1);
        delete doomed;
        QTRY_COMPARE(m_tracker->monitoredObjectsCount(), 0);
        QCOMPARE(logger.lines().size(), 1);
    }

private:
    QSharedPointer<QtQObjectsTracker> m_tracker;
};

QTEST_GUILESS_MAIN(TestNetworkRequestsLogger)
#include "tst_abstractdownloadsnetworkrequestslogger.moc"
