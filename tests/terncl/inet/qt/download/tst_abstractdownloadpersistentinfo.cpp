#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

#include <QTest>
#include <limits>

namespace {
AbstractDownloadFileInfo sampleFile() {
    AbstractDownloadFileInfo file;
    file.name = QStringLiteral("video/part 1.ts");
    file.contentType = QStringLiteral("video/mp2t");
    file.lastModified = QDateTime(QDate(2024, 5, 1), QTime(10, 20, 30, 456), Qt::UTC);
    file.fileType = AbstractFileType::Video;
    file.size = 5000;
    file.sections = {{0, 3000, 3000}, {3000, 2000, 120}};
    file.priority = AbstractDownloadFileInfo::HighPriority;
    file.writeOffset = 1024;
    file.tmpPath = QStringLiteral("/tmp/part 1.ts.part");
    file.flags = AbstractDownloadFileInfo::Created | (quint64(1) << 63);
    file.resumeSupport = AbstractDownloadFileInfo::ResumeSupported;
    file.extra.insert(QStringLiteral("checksum"), QStringLiteral("abc"));
    return file;
}

AbstractDownloadPersistentInfo sampleRecord() {
    AbstractDownloadPersistentInfo info;
    info.originators = {QStringLiteral("AbstractDownloadsPack #5"),
                        QStringLiteral("IndependentSegmentsDownloader #12")};
    info.downloadType = AbstractDownloadType::Resource;
    info.downloadSubtype = 4;
    info.resourceUrl = QStringLiteral("https://example.org/a%20b.m3u8?x=1");
    info.customData = {
        {QStringLiteral("options"),
         QVariantList{QVariantHash{{QStringLiteral("o"), quint64(1) << 63},
                                   {QStringLiteral("v"), QStringLiteral("on")}}}},
        {QStringLiteral("downloadedSegmentsTotalBytes"), qint64(1) << 40},
        {QStringLiteral("currentSegmentFile"), sampleFile().toVariantHash()},
        {QStringLiteral("currentSegmentDownloadHasResumeSupport"), true},
        {QStringLiteral("ratio"), 0.25},
        {QStringLiteral("nothing"), QVariant()},
    };
    info.supportedOptions = ~quint64(0);
    info.uuid = QUuid::fromString(QStringLiteral("{0b5e5cbf-7d0c-4c44-8e1a-4c1f7f3b8a11}"));
    info.moduleName = QStringLiteral("downloadsm3ustm");
    info.state = AbstractDownloadPersistentInfo::Finished;
    info.flags = AbstractDownloadPersistentInfo::Private |
                 AbstractDownloadPersistentInfo::SizeQueryOnly |
                 AbstractDownloadPersistentInfo::PartOfParentDownload;
    info.destinationPath = QStringLiteral("/home/u/Downloads/ü");
    info.name = QStringLiteral("a b.ts");
    info.title = QStringLiteral("A page: \"quoted\"");
    info.referrer = QStringLiteral("https://example.org/");
    info.requestData = QByteArray("\x00\xff\x01 binary", 10);
    info.files = {sampleFile(), AbstractDownloadFileInfo()};
    info.savedFilePath = QStringLiteral("/home/u/Downloads/a b.ts");
    info.receivedBody = QStringLiteral("<html>\n</html>");
    info.creationTime = QDateTime(QDate(2024, 5, 1), QTime(10, 20, 30), Qt::UTC);
    info.extra.insert(QStringLiteral("futureField"), QVariantHash{{QStringLiteral("k"), 1}});
    return info;
}
} // namespace

class TestAbstractDownloadPersistentInfo : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void roundTripsKeepEveryFieldAndUnknownKeys() {
        const auto info = sampleRecord();
        auto hash = info.toVariantHash();
        QCOMPARE(hash.value(QStringLiteral("formatVersion")).toInt(), 1);
        QCOMPARE(hash.value(QStringLiteral("futureField")).toHash().value(QStringLiteral("k")), 1);
        QCOMPARE(AbstractDownloadPersistentInfo::fromVariantHash(hash), info);
        QCOMPARE(AbstractDownloadPersistentInfo::fromVariantHash({}),
                 AbstractDownloadPersistentInfo());

        bool ok = false;
        const auto json = info.toJson();
        const auto fromJson = AbstractDownloadPersistentInfo::fromJson(json, &ok);
        QVERIFY(ok);
        QCOMPARE(fromJson, info);
        QCOMPARE(fromJson.toJson(), json);

        // A newer build's record: its version and keys unknown here, in the record and a file.
        hash.insert(QStringLiteral("formatVersion"), 7);
        hash.insert(QStringLiteral("mirrors"), QVariantList{QStringLiteral("https://m1/")});
        auto files = hash.value(QStringLiteral("files")).toList();
        auto first = files.first().toHash();
        first.insert(QStringLiteral("hashes"), QVariantHash{{QStringLiteral("md5"), 1}});
        files[0] = first;
        hash.insert(QStringLiteral("files"), files);
        const auto newer = AbstractDownloadPersistentInfo::fromVariantHash(hash);
        QCOMPARE(newer.toVariantHash(), hash);
        QCOMPARE(AbstractDownloadPersistentInfo::fromJson(newer.toJson()).toVariantHash(), hash);
    }

    void jsonTextIsWhatTheGeneralConversionGives() {
        // The record writes its JSON text itself; every kind of value an application may keep in
        // custom data must come out as Qt's own JSON conversion would have it.
        auto info = sampleRecord();
        info.customData = {
            {QStringLiteral("quotes \" and \\ back"),
             QStringLiteral("line\nbreak\ttab\u0001\u001f")},
            {QStringLiteral("unicode"),
             QString::fromUtf8("\xc3\xa9t\xc3\xa9 \xf0\x9f\x8e\xac \xe2\x80\xa8")},
            {QStringLiteral("numbers"),
             QVariantList{0.1, 1.0 / 3, 1e300, -2.5e-300, 3.0, std::numeric_limits<qint64>::max(),
                          std::numeric_limits<qint64>::min(), -1, 7u, short(-3), 2.5f}},
            {QStringLiteral("nested"),
             QVariantMap{{QStringLiteral("b"), QVariantList{QVariantHash{}, QVariantList{}}},
                         {QStringLiteral("a"), QStringList{QStringLiteral("x")}}}},
            {QStringLiteral("other types"),
             QVariantList{true, false, QVariant(), QUrl(QStringLiteral("http://h/p?q=1")),
                          QByteArray("bytes"), QDateTime(QDate(2026, 1, 2), QTime(3, 4, 5))}},
        };
        QJsonParseError error;
        const auto written = QJsonDocument::fromJson(info.toJson(), &error);
        QCOMPARE(error.error, QJsonParseError::NoError);
        QCOMPARE(written, QJsonDocument(QJsonObject::fromVariantHash(info.toVariantHash())));
        // Unsigned numbers keep their bits rather than rounding through a double.
        info.customData = {{QStringLiteral("u"), std::numeric_limits<quint64>::max()}};
        QCOMPARE(QJsonDocument::fromJson(
                     info.toJson())[QStringLiteral("customData")][QStringLiteral("u")]
                     .toInteger(),
                 -1);
    }

    void fileRecordUsesTheSharedKeys() {
        // A record written with only the shared keys reads back what it says, and writes them
        // back under the same keys.
        const QVariantHash shared{
            {QStringLiteral("priority"), 3},
            {QStringLiteral("sections"), QVariantList{QVariantHash{{QStringLiteral("offset"), 0},
                                                                   {QStringLiteral("size"), -1},
                                                                   {QStringLiteral("done"), 77}}}},
            {QStringLiteral("writeOffset"), 9},
            {QStringLiteral("tmpPath"), QStringLiteral("t")},
            {QStringLiteral("flags"), 2},
        };
        const auto file = AbstractDownloadFileInfo::fromVariantHash(shared);
        AbstractDownloadFileInfo expected;
        expected.priority = AbstractDownloadFileInfo::HighPriority;
        expected.sections = {{0, -1, 77}};
        expected.writeOffset = 9;
        expected.tmpPath = QStringLiteral("t");
        expected.flags = AbstractDownloadFileInfo::Preallocated;
        QCOMPARE(file, expected);
        const auto written = file.toVariantHash();
        for (auto it = shared.cbegin(); it != shared.cend(); ++it)
            QCOMPARE(written.value(it.key()), it.value());
    }

    void malformedRecordsLoadWhatTheyCan_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("parsed");
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("files");
        QTest::addColumn<qint64>("downloaded");

        QTest::newRow("not json") << QByteArray("{\"name\": ") << false << QString() << 0 << 0LL;
        QTest::newRow("array") << QByteArray("[1, 2]") << false << QString() << 0 << 0LL;
        QTest::newRow("empty") << QByteArray() << false << QString() << 0 << 0LL;
        QTest::newRow("files not a list")
            << QByteArray(R"({"name": "n", "files": "abc", "state": {"x": 1}})") << true
            << QStringLiteral("n") << 0 << 0LL;
        QTest::newRow("file not a map")
            << QByteArray(R"({"name": 5, "files": [1, "x", null, {"size": "12"}]})") << true
            << QStringLiteral("5") << 1 << 0LL;
        QTest::newRow("sections of the wrong type")
            << QByteArray(R"({"files": [{"sections": [3, {"done": "abc"}, {"done": 1e300},
                              {"done": -4}, {"done": 10.5}, {"done": 40}], "size": []}]})")
            << true << QString() << 1 << 40LL;
        QTest::newRow("sections not a list")
            << QByteArray(R"({"files": [{"sections": {"done": 5}}], "name": ["n"]})") << true
            << QString() << 1 << 0LL;
    }

    void malformedRecordsLoadWhatTheyCan() {
        QFETCH(QByteArray, json);
        QFETCH(bool, parsed);
        QFETCH(QString, name);
        QFETCH(int, files);
        QFETCH(qint64, downloaded);

        bool ok = !parsed;
        const auto info = AbstractDownloadPersistentInfo::fromJson(json, &ok);
        QCOMPARE(ok, parsed);
        QCOMPARE(info.name, name);
        QCOMPARE(info.files.size(), files);
        QCOMPARE(info.downloadedBytes(), downloaded);
        if (files > 0)
            QCOMPARE(info.files.first().size,
                     QTest::currentDataTag() == QByteArray("file not a map") ? 12 : -1);
        // Whatever was salvaged converts back and reads the same again.
        QCOMPARE(AbstractDownloadPersistentInfo::fromJson(info.toJson()), info);
    }

    void wrongTypesFallBackToDefaults() {
        const auto info = AbstractDownloadPersistentInfo::fromJson(
            R"({"flags": [1], "supportedOptions": "x", "uuid": "nope", "state": "1",
                "requestData": "!!", "originators": ["a", 1], "customData": "text",
                "downloadType": 1e20, "destinationPath": {"p": 1}, "title": "kept"})");
        AbstractDownloadPersistentInfo expected;
        expected.state = 1; // a number in a text is still read
        expected.originators = {QStringLiteral("a")};
        expected.title = QStringLiteral("kept");
        QCOMPARE(info, expected);
    }

    void totalsCountEveryFile() {
        auto info = sampleRecord();
        info.files[1].priority = AbstractDownloadFileInfo::NotSelected;
        info.files[1].sections = {{0, -1, 500}};
        QCOMPARE(info.downloadedBytes(), 3000 + 120 + 500);
        QCOMPARE(info.totalSize(), 5000); // the unselected file of unknown size is left out
        info.files[1].priority = AbstractDownloadFileInfo::LowPriority;
        QCOMPARE(info.totalSize(), -1);
        QVERIFY(!info.files.first().isComplete());
        info.files.clear();
        QCOMPARE(info.totalSize(), -1);
        QCOMPARE(info.downloadedBytes(), 0);
    }

    void updateFieldsFollowsTheMode() {
        auto info = sampleRecord();
        AbstractDownloadPersistentInfo source;
        source.flags = 0x1 | AbstractDownloadPersistentInfo::Private;
        source.name = QStringLiteral("renamed");
        const auto update = [&](qint64 fields, BitFlagsUpdateMode mode) {
            return info.updateFields(source, fields, mode);
        };
        constexpr auto flags = AbstractDownloadPersistentInfo::FieldFlags;

        QVERIFY(update(flags, BitFlagsUpdateMode::Set));
        QCOMPARE(info.flags, sampleRecord().flags | 0x1);
        QVERIFY(update(flags, BitFlagsUpdateMode::Clear));
        QCOMPARE(info.flags, AbstractDownloadPersistentInfo::SizeQueryOnly |
                                 AbstractDownloadPersistentInfo::PartOfParentDownload);
        QVERIFY(update(flags, BitFlagsUpdateMode::Replace));
        QCOMPARE(info.flags, source.flags);
        QVERIFY(!update(flags, BitFlagsUpdateMode::Replace));

        // Only the named groups move.
        QVERIFY(update(AbstractDownloadPersistentInfo::FieldNames, BitFlagsUpdateMode::Replace));
        QCOMPARE(info.name, QStringLiteral("renamed"));
        QVERIFY(info.title.isEmpty());
        QCOMPARE(info.destinationPath, sampleRecord().destinationPath);
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownloadPersistentInfo)
#include "tst_abstractdownloadpersistentinfo.moc"
