#include "support/fakedownload.h"

#include <terncl/inet/qt/download/abstractdownloadsspeedmeter.h>

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
const QString optionsKey = u"options"_s;
constexpr quint64 highOption = quint64(1) << 63;

QVariant storedOptions(std::initializer_list<std::pair<quint64, QVariant>> options) {
    QVariantList list;
    for (const auto& [id, value] : options)
        list.append(QVariantHash{{u"o"_s, id}, {u"v"_s, value}});
    return list;
}

AbstractDownloadPersistentInfo record(const QString& url, int type, int subtype = 0) {
    AbstractDownloadPersistentInfo info;
    info.resourceUrl = url;
    info.downloadType = AbstractDownloadType(type);
    info.downloadSubtype = subtype;
    return info;
}
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

class TestAbstractDownload : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void optionsStoreKeepsSupportedBits() {
        FakeDownload download;
        auto info = download.info();
        info.supportedOptions = 0x1 | 0x4 | highOption;
        download.setInfo(info);

        download.setOption(0x2, 5);
        download.setOption(0x4, u"on"_s);
        QCOMPARE(download.info().customData.value(optionsKey), storedOptions({{0x4, u"on"_s}}));
        download.setOption(highOption, 7);
        download.setOption(0x4, u"off"_s);
        QCOMPARE(download.allOptions(),
                 (QHash<quint64, QVariant>{{0x4, u"off"_s}, {highOption, 7}}));
        QVERIFY(!download.option(0x1).isValid());

        // Options written by other code as maps, or by setAllOptions, read the same way.
        AbstractDownload::setAllOptions(
            info, {QVariantMap{{u"o"_s, 16}, {u"v"_s, true}}, u"not an option"_s});
        download.setInfo(info);
        QCOMPARE(download.allOptions(), (QHash<quint64, QVariant>{{16, true}}));
    }

    // 0 differs, 2 same resource, 3 same collection; media are never the same.
    void compareDownloads() {
        const auto url = u"https://example.org/a.iso"_s;
        const struct {
            AbstractDownloadPersistentInfo mine, other;
            int expected;
        } rows[] = {{record({}, 1), record(url, 1), 0},
                    {record(url, 1), record(u"https://example.org/b.iso"_s, 1), 0},
                    {record(url, 1), record(url, 2), 0},
                    {record(url, 1), record(url, 1), 2},
                    {record(url, 2), record(url, 2), 3},
                    {record(url, 3), record(url, 3), 0}};
        for (const auto& row : rows) {
            FakeDownload download;
            download.setInfo(row.mine);
            QCOMPARE(int(download.compareDownloads(row.other)), row.expected);
        }
    }

    void genericFieldsFromASourceDownload() {
        AbstractDownloadPersistentInfo source;
        source.destinationPath = u"/downloads"_s;
        source.name = u"source name"_s;
        source.title = u"Page"_s;
        source.referrer = u"https://example.org/page"_s;
        source.requestData = QByteArrayLiteral("a=1");
        source.setFlag(AbstractDownloadPersistentInfo::Private);
        AbstractDownload::setAllOptions(source, storedOptions({{1, 2}}).toList());

        // What the target has of its own stays; the rest of the generic fields follow.
        AbstractDownloadPersistentInfo target;
        target.destinationPath = u"/elsewhere"_s;
        target.name = u"own name"_s;
        AbstractDownload::setupGenericFieldsBySourceDownload(source, target);
        auto expected = source;
        expected.destinationPath = target.destinationPath;
        expected.name = target.name;
        QCOMPARE(target, expected);
    }

    void commandsTravelQueued() {
        FakeDownload download;
        QSignalSpy running(&download, &AbstractDownload::running);
        QVERIFY(QMetaObject::invokeMethod(
            &download, "doCommand", Qt::QueuedConnection,
            Q_ARG(AbstractDownloadCommand, AbstractDownloadCommand::Start)));
        QVERIFY(running.wait());
        QCOMPARE(download.commands(),
                 QList<AbstractDownloadCommand>{AbstractDownloadCommand::Start});
    }

    // The speed meter counts the bytes downloads report.
    void speedMeters() {
        std::time_t now = 1'700'000'000; // the meters' clock, moved by hand
        AbstractDownloadsSpeedMeter meter;
        meter.setClock([&now] { return now; });
        const auto tracker = meter.tracker();
        FakeDownload download;
        setDownloaded(download, 1000); // bytes before registration never count
        meter.registerDownload(&download);
        meter.registerDownload(&download);

        setDownloaded(download, 5000);
        QCOMPARE(meter.speed(), 4000); // a new transfer shows speed within its first second

        // New bytes in the next second close the bucket.
        ++now;
        setDownloaded(download, 5500);
        QCOMPARE(meter.speed(), 4000);
        // After an idle gap the last bucket before it is reported once.
        now += 3;
        QCOMPARE(meter.speed(), 500);
        ++now;
        QCOMPARE(meter.speed(), 0);

        // A shrinking total only moves the baseline.
        setDownloaded(download, 0);
        setDownloaded(download, 700);
        QCOMPARE(tracker->totalBytes, 5200);
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownload)
#include "tst_abstractdownload.moc"
