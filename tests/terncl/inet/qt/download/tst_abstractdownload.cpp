#include "support/fakedownload.h"
#include "support/fakedownloadsfactory.h"

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
} // namespace

class TestAbstractDownload : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void optionsOutsideTheSupportedMaskAreDropped() {
        FakeDownload download;
        auto info = download.info();
        info.supportedOptions = 0x4 | highOption;
        download.setInfo(info);

        download.setOption(0x1, 5);
        download.setOption(0x4 | 0x1, 5); // one bit supported, the other not
        QVERIFY(!download.info().customData.contains(optionsKey));

        download.setOption(0x4, QStringLiteral("on"));
        const auto list = download.info().customData.value(optionsKey).toList();
        QCOMPARE(list.size(), 1);
        const auto entry = list.first().toHash();
        QCOMPARE(entry.value(QStringLiteral("o")).toULongLong(), quint64(0x4));
        QCOMPARE(entry.value(QStringLiteral("v")).toString(), QStringLiteral("on"));

        download.setOption(highOption, 7);
        download.setOption(0x4, QStringLiteral("off"));
        QCOMPARE(download.allOptions().size(), 2);
        QCOMPARE(download.option(0x4).toString(), QStringLiteral("off"));
        QCOMPARE(download.option(highOption).toInt(), 7);
        QVERIFY(!download.option(0x8).isValid());

        // Stored records keep options readable, the top bit included.
        FakeDownload restored;
        restored.setInfo(AbstractDownloadPersistentInfo::fromJson(download.info().toJson()));
        QCOMPARE(restored.option(highOption).toInt(), 7);
        QCOMPARE(restored.option(0x4).toString(), QStringLiteral("off"));
    }

    void optionsBackupAndRestore() {
        FakeDownload download;
        auto info = download.info();
        info.supportedOptions = ~quint64(0);
        download.setInfo(info);

        download.setOption(0x1, 1);
        download.restoreOptions(true); // no backup: nothing changes
        QCOMPARE(download.option(0x1).toInt(), 1);
        QVERIFY(!download.info().customData.contains(backupKey));

        download.backupOptions();
        download.setOption(0x1, 2);
        download.setOption(0x2, 3);
        download.restoreOptions(false);
        QCOMPARE(download.allOptions(), (QHash<quint64, QVariant>{{0x1, 1}}));
        QVERIFY(download.info().customData.contains(backupKey));

        download.setOption(0x1, 4);
        download.restoreOptions(true);
        QCOMPARE(download.info().customData.value(optionsKey),
                 QVariant(QVariantList{
                     QVariantHash{{QStringLiteral("o"), quint64(1)}, {QStringLiteral("v"), 1}}}));
        QVERIFY(!download.info().customData.contains(backupKey));

        // A backup taken without options brings back "no options".
        download.clearAllOptions();
        QVERIFY(!download.info().customData.contains(optionsKey));
        download.backupOptions();
        download.setOption(0x8, 8);
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

        // The slot is reachable by name through a queued call.
        QVERIFY(QMetaObject::invokeMethod(&download, "signalPerformingFilesOperations",
                                          Qt::QueuedConnection, Q_ARG(bool, true)));
        QVERIFY(spy.wait());
        QCOMPARE(spy.count(), 3);
    }

    void compareDownloads_data() {
        QTest::addColumn<QString>("mineUrl");
        QTest::addColumn<int>("mineType");
        QTest::addColumn<QString>("otherUrl");
        QTest::addColumn<int>("otherType");
        QTest::addColumn<int>("otherSubtype");
        QTest::addColumn<int>("expected");

        const auto url = QStringLiteral("https://example.org/a.iso");
        const auto other = QStringLiteral("https://example.org/b.iso");
        QTest::newRow("empty mine") << QString() << 1 << url << 1 << 0 << 0;
        QTest::newRow("empty other") << url << 1 << QString() << 1 << 0 << 0;
        QTest::newRow("both empty") << QString() << 1 << QString() << 1 << 0 << 0;
        QTest::newRow("other resource") << url << 1 << other << 1 << 0 << 0;
        QTest::newRow("other type") << url << 1 << url << 2 << 0 << 0;
        QTest::newRow("other subtype") << url << 1 << url << 1 << 3 << 0;
        QTest::newRow("same resource") << url << 1 << url << 1 << 0 << 2;
        QTest::newRow("same collection") << url << 2 << url << 2 << 0 << 3;
        QTest::newRow("same media") << url << 3 << url << 3 << 0 << 0;
    }

    void compareDownloads() {
        QFETCH(QString, mineUrl);
        QFETCH(int, mineType);
        QFETCH(QString, otherUrl);
        QFETCH(int, otherType);
        QFETCH(int, otherSubtype);
        QFETCH(int, expected);

        FakeDownload download;
        AbstractDownloadPersistentInfo mine;
        mine.resourceUrl = mineUrl;
        mine.downloadType = AbstractDownloadType(mineType);
        download.setInfo(mine);
        AbstractDownloadPersistentInfo theirs;
        theirs.resourceUrl = otherUrl;
        theirs.downloadType = AbstractDownloadType(otherType);
        theirs.downloadSubtype = otherSubtype;
        QCOMPARE(int(download.compareDownloads(theirs)), expected);
    }

    void logHeaderNamesTheChainOfCreators() {
        ParentPack pack(5);
        QCOMPARE(pack.selfOriginatorName(), QStringLiteral("ParentPack #5"));
        QCOMPARE(pack.logHeader(), QStringLiteral("[ParentPack #5]: "));

        FakeDownload child(12);
        auto childInfo = child.info();
        pack.setupChildOriginatorName(childInfo);
        child.setInfo(childInfo);
        QVERIFY(child.logHeader().startsWith(QStringLiteral("[ParentPack #5]")));
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
        source.title = QStringLiteral("Page");
        source.referrer = QStringLiteral("https://example.org/page");
        source.requestData = QByteArrayLiteral("a=1");
        source.setFlag(AbstractDownloadPersistentInfo::Private);
        AbstractDownload::setAllOptions(
            source, {QVariantHash{{QStringLiteral("o"), 1}, {QStringLiteral("v"), 2}}});
        source.name = QStringLiteral("source name");

        AbstractDownloadPersistentInfo target;
        target.destinationPath = QStringLiteral("/elsewhere");
        target.name = QStringLiteral("own name");
        AbstractDownload::setupGenericFieldsBySourceDownload(source, target);
        QCOMPARE(target.destinationPath, QStringLiteral("/elsewhere"));
        QCOMPARE(target.name, QStringLiteral("own name"));
        QCOMPARE(target.title, source.title);
        QCOMPARE(target.referrer, source.referrer);
        QCOMPARE(target.requestData, source.requestData);
        QVERIFY(target.testFlag(AbstractDownloadPersistentInfo::Private));
        QCOMPARE(target.customData.value(optionsKey), source.customData.value(optionsKey));
    }

    void commandsAndAnswersTravelQueued() {
        FakeDownload download;
        QVERIFY(QMetaType::fromName("AbstractDownloadCommand").isValid());
        QVERIFY(QMetaType::fromName("AbstractDownloadFileExistsAction").isValid());
        QSignalSpy running(&download, &AbstractDownload::running);
        QVERIFY(QMetaObject::invokeMethod(
            &download, "doCommand", Qt::QueuedConnection,
            Q_ARG(AbstractDownloadCommand, AbstractDownloadCommand::Start)));
        QVERIFY(running.wait());
        QCOMPARE(download.commands(),
                 QList<AbstractDownloadCommand>{AbstractDownloadCommand::Start});

        // fileExistsActionApplied reaches a receiver in a queued connection intact.
        QList<QVariantList> applied;
        connect(
            &download, &AbstractDownload::fileExistsActionApplied, this,
            [&](int index, AbstractDownloadFileExistsAction action, const AbstractError& error) {
                applied.append({index, int(action), error.code});
            },
            Qt::QueuedConnection);
        Q_EMIT download.fileExistsActionApplied(2, AbstractDownloadFileExistsAction::Rename,
                                                AbstractError(5, AbstractError::QtFileError, "x"));
        QTRY_COMPARE(applied.size(), 1);
        QCOMPARE(applied.first(), (QVariantList{2, 2, 5}));
    }

    void fakeDownloadPlaysItsScript() {
        FakeDownloadsFactory factory;
        factory.setConfigurator([](FakeDownload& download, const FakeDownloadsFactory::Request&) {
            download.setScript({100, 200}, FakeDownload::Outcome::Finish);
        });
        AbstractError error;
        AbstractDownloadPersistentInfo info;
        info.name = QStringLiteral("segment");
        const auto download = factory.createModuleDownload(QStringLiteral("downloadswww"), info,
                                                           QVariantHash{}, error);
        QVERIFY(download);
        QVERIFY(!error.isSet());
        QCOMPARE(download->id(), 1);
        QCOMPARE(factory.requests().first().moduleName, QStringLiteral("downloadswww"));

        QSignalSpy running(download.data(), &AbstractDownload::running);
        download->doCommand(AbstractDownloadCommand::Start);
        QTRY_COMPARE(running.count(), 2);
        QVERIFY(download->info().isFinished());
        QCOMPARE(download->info().downloadedBytes(), 300);
        QCOMPARE(download->info().files.first().size, 300);
        QCOMPARE(download->info().files.first().name, QStringLiteral("segment"));

        // A stop in the middle leaves the record unfinished and cancels the rest of the script.
        QCOMPARE(static_cast<AbstractDownload*>(factory.lastDownload().data()), download.data());
        FakeDownload stopped(9);
        stopped.setScript({10, 20, 30}, FakeDownload::Outcome::Finish);
        QSignalSpy stoppedRunning(&stopped, &AbstractDownload::running);
        connect(&stopped, &AbstractDownload::changed, &stopped,
                [&stopped] { stopped.doCommand(AbstractDownloadCommand::Stop); });
        stopped.doCommand(AbstractDownloadCommand::Start);
        QTRY_COMPARE(stoppedRunning.count(), 2);
        QCoreApplication::processEvents();
        QCoreApplication::processEvents();
        QCOMPARE(stopped.info().downloadedBytes(), 10);
        QVERIFY(!stopped.info().isFinished());

        factory.setFailure(AbstractError(7, AbstractError::GenericError, "here"));
        QVERIFY(!factory.createDownload(info, error));
        QCOMPARE(error.code, 7);
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownload)
#include "tst_abstractdownload.moc"
