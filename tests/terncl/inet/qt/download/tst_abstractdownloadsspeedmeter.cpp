#include "support/fakedownload.h"

#include <terncl/inet/qt/download/abstractdownloadsspeedmeter.h>

#include <QTest>

#include <memory>

namespace {
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
    void bucketsFollowOneDownload() {
        std::time_t now = 1'700'000'000; // the meters' clock, moved by hand
        AbstractDownloadsSpeedMeter meter;
        meter.setClock([&now] { return now; });
        const auto tracker = meter.tracker();
        FakeDownload download;
        setDownloaded(download, 1000); // bytes before registration never count
        meter.registerDownload(&download);
        meter.registerDownload(&download);

        setDownloaded(download, 5000);
        QCOMPARE(tracker->currentBucketBytes, 4000);
        QCOMPARE(meter.speed(), 4000); // a new transfer shows speed within its first second

        // New bytes in the next second close the bucket.
        ++now;
        setDownloaded(download, 5500);
        QCOMPARE(tracker->lastBucketBytes, 4000);
        QCOMPARE(tracker->currentBucketBytes, 500);
        QCOMPARE(tracker->bucketStart, now);
        QCOMPARE(meter.speed(), 4000);

        // After an idle gap the last bucket before it is reported once.
        now += 3;
        QCOMPARE(meter.speed(), 500);
        ++now;
        QCOMPARE(meter.speed(), 0);

        // A shrinking total only moves the baseline.
        setDownloaded(download, 0);
        QCOMPARE(tracker->totalBytes, 4500);
        setDownloaded(download, 700);
        QCOMPARE(tracker->totalBytes, 5200);

        // Bytes that arrive with the stop are counted too.
        auto info = download.info();
        info.files.first().sections.first().done = 900;
        download.setInfo(info);
        download.startRunning();
        download.stopUnfinished();
        QCOMPARE(tracker->totalBytes, 5400);
    }

    void metersShareOneTrackerAndForgetDestroyedDownloads() {
        std::time_t now = 1'700'000'000; // the meters' clock, moved by hand
        auto tracker = QSharedPointer<OperationSpeedTracker>::create();
        AbstractDownloadsSpeedMeter first(tracker);
        AbstractDownloadsSpeedMeter second(tracker);
        first.setClock([&now] { return now; });
        second.setClock([&now] { return now; });
        FakeDownload a(1), b(2);
        first.registerDownload(&a);
        second.registerDownload(&b);
        setDownloaded(a, 100);
        setDownloaded(b, 250);
        QCOMPARE(tracker->currentBucketBytes, 350);
        ++now;
        QCOMPARE(second.speed(), 350);
        QCOMPARE(first.speed(), 350);

        auto download = std::make_unique<FakeDownload>();
        first.registerDownload(download.get());
        setDownloaded(*download, 100);
        download.reset();
        // A new object at any address starts from its own baseline.
        auto next = std::make_unique<FakeDownload>();
        setDownloaded(*next, 50);
        first.registerDownload(next.get());
        setDownloaded(*next, 80);
        QCOMPARE(tracker->totalBytes, 350 + 100 + 30);
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownloadsSpeedMeter)
#include "tst_abstractdownloadsspeedmeter.moc"
