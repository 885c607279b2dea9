#include "support/fakedownload.h"

#include <QSignalSpy>
#include <QTest>

namespace {
// A download of another class, to see class names in originator chains.
class ParentPack : public FakeDownload {
    Q_OBJECT

public:
    using FakeDownload::FakeDownload;
};

const QString optionsKey = QStringLiteral("options");
const QString backupKey = QStringLiteral("optionsBackup");
constexpr quint64 highOption = quint64(1) << 63;

QVariant storedOptions(std::initializer_list<std::pair<quint64, QVariant>> options) {
    QVariantList list;
    for (const auto& [id, value] : options)
        list.append(QVariantHash{{QStringLiteral("o"), id}, {QStringLiteral("v"), value}});
    return list;
}

AbstractDownloadPersistentInfo record(const QString& url, int type, int subtype = 0) {
    AbstractDownloadPersistentInfo info;
    info.resourceUrl = url;
    info.downloadType = AbstractDownloadType(type);
    info.downloadSubtype = subtype;
    return info;
}
} // namespace

class TestAbstractDownload : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void optionsStoreKeepsSupportedBitsAndOneBackup() {
        FakeDownload download;
        auto info = download.info();
        info.supportedOptions = 0x1 | 0x4 | highOption;
        download.setInfo(info);

        download.setOption(0x2, 5);
        download.setOption(0x4 | 0x2, 5); // one bit supported, the other not
        QVERIFY(!download.info().customData.contains(optionsKey));
        download.setOption(0x4, QStringLiteral("on"));
        QCOMPARE(download.info().customData.value(optionsKey),
                 storedOptions({{0x4, QStringLiteral("on")}}));
        download.restoreOptions(true); // no backup: nothing changes
        QCOMPARE(download.option(0x4).toString(), QStringLiteral("on"));
        QVERIFY(!download.info().customData.contains(backupKey));

        download.backupOptions();
        download.setOption(highOption, 7);
        download.setOption(0x4, QStringLiteral("off"));
        QCOMPARE(download.allOptions(),
                 (QHash<quint64, QVariant>{{0x4, QStringLiteral("off")}, {highOption, 7}}));
        QVERIFY(!download.option(0x1).isValid());
        // Stored records keep options readable, the top bit included.
        FakeDownload restored;
        restored.setInfo(AbstractDownloadPersistentInfo::fromJson(download.info().toJson()));
        QCOMPARE(restored.allOptions(), download.allOptions());

        download.restoreOptions(false);
        QCOMPARE(download.allOptions(), (QHash<quint64, QVariant>{{0x4, QStringLiteral("on")}}));
        QVERIFY(download.info().customData.contains(backupKey));
        download.setOption(0x1, 4);
        download.restoreOptions(true);
        QCOMPARE(download.info().customData.value(optionsKey),
                 storedOptions({{0x4, QStringLiteral("on")}}));
        QVERIFY(!download.info().customData.contains(backupKey));

        // A backup taken without options brings back "no options".
        download.clearAllOptions();
        QVERIFY(!download.info().customData.contains(optionsKey));
        download.backupOptions();
        download.setOption(0x1, 8);
        download.restoreOptions(true);
        QVERIFY(download.allOptions().isEmpty());

        // Options written by other code as maps, or by setAllOptions, read the same way.
        AbstractDownload::setAllOptions(
            info, {QVariantMap{{QStringLiteral("o"), 16}, {QStringLiteral("v"), true}},
                   QStringLiteral("not an option")});
        download.setInfo(info);
        QCOMPARE(download.allOptions(), (QHash<quint64, QVariant>{{16, true}}));
    }

    void filesOperationsSignalOnlyTheOuterEdges() {
        FakeDownload download;
        QSignalSpy spy(&download, &AbstractDownload::performingFilesOperations);
        download.signalPerformingFilesOperations(false); // at depth 0: nothing
        download.signalPerformingFilesOperations(true);
        download.signalPerformingFilesOperations(true);
        download.signalPerformingFilesOperations(false);
        QCOMPARE(spy.count(), 1);
        download.signalPerformingFilesOperations(false);
        download.signalPerformingFilesOperations(false);
        QCOMPARE(spy.count(), 2);
        QCOMPARE(spy.at(0).at(0).toBool(), true);
        QCOMPARE(spy.at(1).at(0).toBool(), false);
    }

    void compareDownloads_data() {
        QTest::addColumn<AbstractDownloadPersistentInfo>("mine");
        QTest::addColumn<AbstractDownloadPersistentInfo>("other");
        QTest::addColumn<int>("expected");
        const auto url = QStringLiteral("https://example.org/a.iso");
        QTest::newRow("empty mine") << record({}, 1) << record(url, 1) << 0;
        QTest::newRow("empty other") << record(url, 1) << record({}, 1) << 0;
        QTest::newRow("other resource")
            << record(url, 1) << record(QStringLiteral("https://example.org/b.iso"), 1) << 0;
        QTest::newRow("other type") << record(url, 1) << record(url, 2) << 0;
        QTest::newRow("other subtype") << record(url, 1) << record(url, 1, 3) << 0;
        QTest::newRow("same resource") << record(url, 1) << record(url, 1) << 2;
        QTest::newRow("same collection") << record(url, 2) << record(url, 2) << 3;
        QTest::newRow("same media") << record(url, 3) << record(url, 3) << 0;
    }

    void compareDownloads() {
        QFETCH(AbstractDownloadPersistentInfo, mine);
        QFETCH(AbstractDownloadPersistentInfo, other);
        QFETCH(int, expected);
        FakeDownload download;
        download.setInfo(mine);
        QCOMPARE(int(download.compareDownloads(other)), expected);
    }

    void logHeaderNamesTheChainOfCreators() {
        ParentPack pack(5);
        QCOMPARE(pack.logHeader(), QStringLiteral("[ParentPack #5]: "));

        FakeDownload child(12);
        auto childInfo = child.info();
        pack.setupChildOriginatorName(childInfo);
        child.setInfo(childInfo);
        QCOMPARE(child.logHeader(), QStringLiteral("[ParentPack #5][FakeDownload #12]: "));

        FakeDownload grandchild(3);
        auto grandchildInfo = grandchild.info();
        grandchildInfo.originators = {QStringLiteral("stale")}; // replaced, not extended
        child.setupChildOriginatorName(grandchildInfo);
        grandchild.setInfo(grandchildInfo);
        QCOMPARE(grandchild.logHeader(),
                 QStringLiteral("[ParentPack #5][FakeDownload #12][FakeDownload #3]: "));

        child.setId(13); // no signal, but the name follows
        QCOMPARE(child.selfOriginatorName(), QStringLiteral("FakeDownload #13"));
    }

    void genericFieldsFromASourceDownload() {
        AbstractDownloadPersistentInfo source;
        source.destinationPath = QStringLiteral("/downloads");
        source.name = QStringLiteral("source name");
        source.title = QStringLiteral("Page");
        source.referrer = QStringLiteral("https://example.org/page");
        source.requestData = QByteArrayLiteral("a=1");
        source.setFlag(AbstractDownloadPersistentInfo::Private);
        AbstractDownload::setAllOptions(source, storedOptions({{1, 2}}).toList());

        // What the target has of its own stays; the rest of the generic fields follow.
        AbstractDownloadPersistentInfo target;
        target.destinationPath = QStringLiteral("/elsewhere");
        target.name = QStringLiteral("own name");
        AbstractDownload::setupGenericFieldsBySourceDownload(source, target);
        auto expected = source;
        expected.destinationPath = target.destinationPath;
        expected.name = target.name;
        QCOMPARE(target, expected);
    }

    void commandsTravelQueued() {
        FakeDownload download;
        for (const char* name :
             {"AbstractDownloadCommand", "AbstractDownloadFileExistsAction", "AbstractError"})
            QVERIFY2(QMetaType::fromName(name).isValid(), name);
        QSignalSpy running(&download, &AbstractDownload::running);
        QVERIFY(QMetaObject::invokeMethod(
            &download, "doCommand", Qt::QueuedConnection,
            Q_ARG(AbstractDownloadCommand, AbstractDownloadCommand::Start)));
        QVERIFY(running.wait());
        QCOMPARE(download.commands(),
                 QList<AbstractDownloadCommand>{AbstractDownloadCommand::Start});
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownload)
#include "tst_abstractdownload.moc"
