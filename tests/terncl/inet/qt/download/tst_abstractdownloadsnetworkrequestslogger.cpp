#include <terncl/core/qtqobjectstracker.h>
#include <terncl/inet/qt/download/abstractdownloadsnetworkrequestslogger.h>

#include "support/fakedownload.h"
#include "support/recordinglogger.h"
#include "support/testfiles.h"

#include <QDir>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

using namespace Qt::StringLiterals;

namespace {
// The file name the logger gives a run registered at one of the two times (the clock may tick
// between them).
QStringList possibleNames(const QDateTime& before, const QDateTime& after, int counter,
                          const QString& name) {
    QStringList names;
    for (const auto& time : {before, after})
        names.append(
            u"R_%1_%2_%3.log"_s.arg(time.toString(u"yyyy-MM-ddThhmmss"_s)).arg(counter).arg(name));
    return names;
}

void setInfo(FakeDownload& download, const QString& name, const QString& savedFilePath = {}) {
    auto info = download.info();
    info.resourceUrl = u"http://example.com/a b?q=1"_s;
    info.name = name;
    info.savedFilePath = savedFilePath;
    download.setInfo(info);
}

// One download run that only starts and ends, to count warnings and files.
void runOnce(FakeDownload& download) {
    download.startRunning();
    Q_EMIT download.sendingRequestHeaders(1, {u"GET / HTTP/1.1"_s});
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
        const QString folder = sandbox.filePath(u"logs/"_s);
        AbstractDownloadsNetworkRequestsLogger logger(folder, false, &worker);
        FakeDownload download;
        setInfo(download, u"my:file?\u00ef.bin"_s);
        const QDateTime before = QDateTime::currentDateTime();
        logger.registerDownload(&download);
        const QDateTime after = QDateTime::currentDateTime();
        logger.registerDownload(&download);

        // A redirect that fails: only the first request and its response are logged, not the
        // redirect's.
        download.startRunning();
        QCOMPARE(m_tracker->monitoredObjectsCount(), 1);
        Q_EMIT download.sendingRequestHeaders(
            1, {u"GET /a%20b?q=1 HTTP/1.1"_s, u"Host: example.com"_s});
        Q_EMIT download.gotResponseHeaders(1, {u"HTTP/1.1 302 Found"_s, u"Location: /b"_s});
        Q_EMIT download.sendingRequestHeaders(2, {u"GET /b HTTP/1.1"_s});
        Q_EMIT download.gotResponseHeaders(2, {u"HTTP/1.1 404 Not Found"_s});
        download.fail(AbstractError(404, AbstractError::HttpError, "src/x,1", "Not Found"));

        // A response without a request (a cached answer) that finishes into a file; the
        // request that follows it stays out. Header lines go as Latin-1.
        setInfo(download, u"my:file?\u00ef.bin"_s, u"/d/f \u00ef.bin"_s);
        download.startRunning();
        Q_EMIT download.gotResponseHeaders(7, {u"HTTP/1.1 200 OK"_s, u"X-Name: caf\u00e9"_s});
        Q_EMIT download.sendingRequestHeaders(7, {u"GET / HTTP/1.1"_s});
        download.finish();

        QTRY_COMPARE(m_tracker->monitoredObjectsCount(), 0);
        // Names start with the time, so their order is the order of the runs.
        const QStringList files = QDir(folder).entryList({u"R_*.log"_s}, QDir::Files);
        QCOMPARE(files.size(), 2);
        const QString name = u"myfile\u00ef.bin"_s;
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
        const QStringList names{u"R_old.log"_s, u"R_old.txt"_s, u"old.log"_s, u"xR_a.log"_s};
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
        const QString vanishing = sandbox.filePath(u"gone"_s);
        AbstractDownloadsNetworkRequestsLogger orphaned(vanishing, false);
        QVERIFY(QDir(vanishing).removeRecursively() && writeFile(vanishing, "x"));
        FakeDownload second(2);
        setInfo(second, u"second"_s);
        orphaned.registerDownload(&second);
        runOnce(second);
        runOnce(second);
        QTRY_COMPARE(m_tracker->monitoredObjectsCount(), 0);

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
        QVERIFY(logger.lines()[0].contains(u"cannot write \"%1/R_"_s.arg(vanishing)));
    }

private:
    QSharedPointer<QtQObjectsTracker> m_tracker;
};

QTEST_GUILESS_MAIN(TestNetworkRequestsLogger)
#include "tst_abstractdownloadsnetworkrequestslogger.moc"
