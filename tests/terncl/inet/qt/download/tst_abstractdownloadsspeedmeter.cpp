#include "support/fakedownload.h"

#include <terncl/inet/qt/download/abstractdownloadsspeedmeter.h>

#include <QTest>

#include <memory>

namespace {
// A clock the test moves by hand.
struct ManualClock {
    std::time_t now = 1'700'000'000;
    AbstractDownloadsSpeedMeter::Clock function() {
        return [this] {
            return now;
        };
    }
};

// A download whose downloaded total the test sets directly.
void setDownloaded(FakeDownload& download, qint64 bytes) {
    auto info = download.info();
    if (info.files.isEmpty())
        info.files.append(AbstractDownloadFileInfo());
    info.files.first().sections = {{0, -1, bytes}};
    download.setInfo(info);
    Q_EMIT download.changed(false);
}
} // namespace

class TestAbstractDownloadsSpeedMeter : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void growthWithinASecondIsReportedOnceItCloses() {
        ManualClock clock;
        AbstractDownloadsSpeedMeter meter;
        meter.setClock(clock.function());
        FakeDownload download;
        setDownloaded(download, 1000); // bytes before registration never count
        meter.registerDownload(&download);
        meter.registerDownload(&download);

        setDownloaded(download, 5000);
        QCOMPARE(meter.tracker()->currentBucketBytes, 4000);
        QCOMPARE(meter.tracker()->totalBytes, 4000);
        QCOMPARE(meter.speed(), 4000); // a new transfer shows speed within its first second

        ++clock.now;
        QCOMPARE(meter.speed(), 4000);
        QCOMPARE(meter.tracker()->lastBucketBytes, 4000);
        QCOMPARE(meter.tracker()->currentBucketBytes, 0);
        QCOMPARE(meter.tracker()->bucketStart, clock.now);
    }

    void idleGapReportsTheLastBucketOnce() {
        ManualClock clock;
        AbstractDownloadsSpeedMeter meter;
        meter.setClock(clock.function());
        FakeDownload download;
        meter.registerDownload(&download);
        setDownloaded(download, 300);
        ++clock.now;
        setDownloaded(download, 800); // closes the bucket of 300
        QCOMPARE(meter.speed(), 300);

        clock.now += 3;
        QCOMPARE(meter.speed(), 500);
        ++clock.now;
        QCOMPARE(meter.speed(), 0);
    }

    void shrinkingTotalsOnlyMoveTheBaseline() {
        ManualClock clock;
        AbstractDownloadsSpeedMeter meter;
        meter.setClock(clock.function());
        FakeDownload download;
        meter.registerDownload(&download);
        setDownloaded(download, 5000);
        setDownloaded(download, 0);
        QCOMPARE(meter.tracker()->totalBytes, 5000);
        setDownloaded(download, 700);
        QCOMPARE(meter.tracker()->totalBytes, 5700);

        // Bytes that arrive with the stop are counted too.
        auto info = download.info();
        info.files.first().sections.first().done = 900;
        download.setInfo(info);
        download.startRunning();
        download.stopUnfinished();
        QCOMPARE(meter.tracker()->totalBytes, 5900);
    }

    void destroyedDownloadsAreForgotten() {
        ManualClock clock;
        AbstractDownloadsSpeedMeter meter;
        meter.setClock(clock.function());
        auto download = std::make_unique<FakeDownload>();
        meter.registerDownload(download.get());
        setDownloaded(*download, 100);
        download.reset();

        // A new object at any address starts from its own baseline.
        auto next = std::make_unique<FakeDownload>();
        setDownloaded(*next, 50);
        meter.registerDownload(next.get());
        setDownloaded(*next, 80);
        QCOMPARE(meter.tracker()->totalBytes, 130);
    }

    void metersShareOneTracker() {
        ManualClock clock;
        auto tracker = QSharedPointer<OperationSpeedTracker>::create();
        AbstractDownloadsSpeedMeter first(tracker);
        AbstractDownloadsSpeedMeter second(tracker);
        first.setClock(clock.function());
        second.setClock(clock.function());
        FakeDownload a(1), b(2);
        first.registerDownload(&a);
        second.registerDownload(&b);
        setDownloaded(a, 100);
        setDownloaded(b, 250);
        QCOMPARE(tracker->currentBucketBytes, 350);
        ++clock.now;
        QCOMPARE(second.speed(), 350);
        QCOMPARE(first.speed(), 350);
        QCOMPARE(tracker->totalBytes, 350);

        AbstractDownloadsSpeedMeter own(nullptr);
        QVERIFY(own.tracker());
        QVERIFY(own.tracker() != tracker);
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownloadsSpeedMeter)
#include "tst_abstractdownloadsspeedmeter.moc"
