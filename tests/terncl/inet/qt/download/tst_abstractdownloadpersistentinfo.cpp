#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

#include <QTest>
#include <limits>

using namespace Qt::StringLiterals;

namespace {
AbstractDownloadFileInfo sampleFile() {
    AbstractDownloadFileInfo file;
    file.name = u"video/part 1.ts"_s;
    file.contentType = u"video/mp2t"_s;
    file.lastModified = QDateTime(QDate(2024, 5, 1), QTime(10, 20, 30, 456), Qt::UTC);
    file.fileType = AbstractFileType::Video;
    file.size = 5000;
    file.sections = {{0, 3000, 3000}, {3000, 2000, 120}};
    file.priority = AbstractDownloadFileInfo::HighPriority;
    file.writeOffset = 1024;
    file.tmpPath = u"/tmp/part 1.ts.part"_s;
    file.flags = AbstractDownloadFileInfo::Created | (quint64(1) << 63);
    file.resumeSupport = AbstractDownloadFileInfo::ResumeSupported;
    file.extra.insert(u"checksum"_s, u"abc"_s);
    return file;
}

AbstractDownloadPersistentInfo sampleRecord() {
    AbstractDownloadPersistentInfo info;
    info.originators = {u"AbstractDownloadsPack #5"_s, u"IndependentSegmentsDownloader #12"_s};
    info.downloadType = AbstractDownloadType::Resource;
    info.downloadSubtype = 4;
    info.resourceUrl = u"https://example.org/a%20b.m3u8?x=1"_s;
    info.customData = {
        {u"options"_s, QVariantList{QVariantHash{{u"o"_s, quint64(1) << 63}, {u"v"_s, u"on"_s}}}},
        {u"downloadedSegmentsTotalBytes"_s, qint64(1) << 40},
        {u"currentSegmentFile"_s, sampleFile().toVariantHash()},
        {u"currentSegmentDownloadHasResumeSupport"_s, true},
        {u"ratio"_s, 0.25},
        {u"nothing"_s, QVariant()},
    };
    info.supportedOptions = ~quint64(0);
    info.uuid = QUuid::fromString(u"{0b5e5cbf-7d0c-4c44-8e1a-4c1f7f3b8a11}"_s);
    info.moduleName = u"downloadsm3ustm"_s;
    info.state = AbstractDownloadPersistentInfo::Finished;
    info.flags = AbstractDownloadPersistentInfo::Private |
                 AbstractDownloadPersistentInfo::SizeQueryOnly |
                 AbstractDownloadPersistentInfo::PartOfParentDownload;
    info.destinationPath = u"/home/u/Downloads/ü"_s;
    info.name = u"a b.ts"_s;
    info.title = u"A page: \"quoted\""_s;
    info.referrer = u"https://example.org/"_s;
    info.requestData = QByteArray("\x00\xff\x01 binary", 10);
    info.files = {sampleFile(), AbstractDownloadFileInfo()};
    info.savedFilePath = u"/home/u/Downloads/a b.ts"_s;
    info.receivedBody = u"<html>\n</html>"_s;
    info.creationTime = QDateTime(QDate(2024, 5, 1), QTime(10, 20, 30), Qt::UTC);
    info.extra.insert(u"futureField"_s, QVariantHash{{u"k"_s, 1}});
    return info;
}
} // namespace

class TestAbstractDownloadPersistentInfo : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void roundTripsKeepEveryFieldAndUnknownKeys() {
        const auto info = sampleRecord();
        auto hash = info.toVariantHash();
        QCOMPARE(hash.value(u"formatVersion"_s).toInt(), 1);
        QCOMPARE(hash.value(u"futureField"_s).toHash().value(u"k"_s), 1);
        QCOMPARE(AbstractDownloadPersistentInfo::fromVariantHash(hash), info);

        bool ok = false;
        const auto json = info.toJson();
        const auto fromJson = AbstractDownloadPersistentInfo::fromJson(json, &ok);
        QVERIFY(ok);
        QCOMPARE(fromJson, info);
        QCOMPARE(fromJson.toJson(), json);

        // A newer build's record: its version and keys unknown here, in the record and a file.
        hash.insert(u"formatVersion"_s, 7);
        hash.insert(u"mirrors"_s, QVariantList{u"https://m1/"_s});
        auto files = hash.value(u"files"_s).toList();
        auto first = files.first().toHash();
        first.insert(u"hashes"_s, QVariantHash{{u"md5"_s, 1}});
        files[0] = first;
        hash.insert(u"files"_s, files);
        const auto newer = AbstractDownloadPersistentInfo::fromVariantHash(hash);
        QCOMPARE(newer.toVariantHash(), hash);
        QCOMPARE(AbstractDownloadPersistentInfo::fromJson(newer.toJson()).toVariantHash(), hash);
    }

    void jsonTextIsWhatTheGeneralConversionGives() {
        // The record writes its JSON text itself; every kind of value an application may keep in
        // custom data must come out as Qt's own JSON conversion would have it.
        auto info = sampleRecord();
        info.customData = {
            {u"quotes \" and \\ back"_s, u"line\nbreak\ttab\u0001\u001f"_s},
            {u"unicode"_s, QString::fromUtf8("\xc3\xa9t\xc3\xa9 \xf0\x9f\x8e\xac \xe2\x80\xa8")},
            {u"numbers"_s,
             QVariantList{0.1, 1.0 / 3, 1e300, -2.5e-300, 3.0, std::numeric_limits<qint64>::max(),
                          std::numeric_limits<qint64>::min(), -1, 7u, short(-3), 2.5f}},
            {u"other types"_s,
             QVariantList{true, false, QVariant(), QUrl(u"http://h/p?q=1"_s), QByteArray("bytes"),
                          QDateTime(QDate(2026, 1, 2), QTime(3, 4, 5))}},
        };
        QJsonParseError error;
        const auto written = QJsonDocument::fromJson(info.toJson(), &error);
        QCOMPARE(error.error, QJsonParseError::NoError);
        QCOMPARE(written, QJsonDocument(QJsonObject::fromVariantHash(info.toVariantHash())));
        // Unsigned numbers keep their bits rather than rounding through a double.
        info.customData = {{u"u"_s, std::numeric_limits<quint64>::max()}};
        QCOMPARE(QJsonDocument::fromJson(info.toJson())[u"customData"_s][u"u"_s].toInteger(), -1);
    }

    void fileRecordUsesTheSharedKeys() {
        // Records written by earlier builds and by other code use these keys and values; the
        // round trip then holds the writer to them.
        const auto info = AbstractDownloadPersistentInfo::fromJson(
            R"({"files": [{"priority": 3, "sections": [{"offset": 0, "size": -1, "done": 77}],
                "writeOffset": 9, "tmpPath": "t", "flags": 2}]})");
        AbstractDownloadFileInfo expected;
        expected.priority = AbstractDownloadFileInfo::HighPriority;
        expected.sections = {{0, -1, 77}};
        expected.writeOffset = 9;
        expected.tmpPath = u"t"_s;
        expected.flags = AbstractDownloadFileInfo::Preallocated;
        QCOMPARE(info.files, QList<AbstractDownloadFileInfo>{expected});
    }

    // Each row: the text, whether it parses, and what loads as "name|file count|bytes done|first
    // file's size"; whatever was salvaged converts back and reads the same again.
    void malformedRecordsLoadWhatTheyCan() {
        const struct {
            const char *json, *loaded;
            bool parsed;
        } rows[] = {
            {"{\"name\": ", "|0|0|", false},
            {"[1, 2]", "|0|0|", false},
            {R"({"name": "n", "files": "abc", "state": {"x": 1}})", "n|0|0|", true},
            {R"({"name": 5, "files": [1, "x", null, {"size": "12"}]})", "5|1|0|12", true},
            {R"({"files": [{"sections": [3, {"done": "abc"}, {"done": 1e300}, {"done": -4},
                {"done": 10.5}, {"done": 40}], "size": []}]})",
             "|1|40|-1", true},
        };
        for (const auto& row : rows) {
            bool ok = !row.parsed;
            const auto info = AbstractDownloadPersistentInfo::fromJson(row.json, &ok);
            const QString firstSize =
                info.files.isEmpty() ? QString() : QString::number(info.files[0].size);
            QCOMPARE(u"%1 %2|%3|%4|%5"_s.arg(int(ok))
                         .arg(info.name)
                         .arg(info.files.size())
                         .arg(info.downloadedBytes())
                         .arg(firstSize),
                     u"%1 %2"_s.arg(int(row.parsed)).arg(QString::fromUtf8(row.loaded)));
            QCOMPARE(AbstractDownloadPersistentInfo::fromJson(info.toJson()), info);
        }

        // Fields of the wrong type fall back to their defaults.
        const auto info = AbstractDownloadPersistentInfo::fromJson(
            R"({"flags": [1], "supportedOptions": "x", "uuid": "nope", "state": "1",
                "requestData": "!!", "originators": ["a", 1], "customData": "text",
                "downloadType": 1e20, "destinationPath": {"p": 1}, "title": "kept"})");
        AbstractDownloadPersistentInfo expected;
        expected.state = 1; // a number in a text is still read
        expected.originators = {u"a"_s};
        expected.title = u"kept"_s;
        QCOMPARE(info, expected);
    }

    void totalsCountEveryFile() {
        auto info = sampleRecord();
        info.files[1].priority = AbstractDownloadFileInfo::NotSelected;
        info.files[1].sections = {{0, -1, 500}};
        // The unselected file of unknown size is left out of the total, a selected one not.
        const qint64 total = info.totalSize();
        info.files[1].priority = AbstractDownloadFileInfo::LowPriority;
        QCOMPARE((QList<qint64>{info.downloadedBytes(), total, info.totalSize()}),
                 (QList<qint64>{3000 + 120 + 500, 5000, -1}));
        info.files.clear();
        QCOMPARE((QList<qint64>{info.totalSize(), info.downloadedBytes()}), (QList<qint64>{-1, 0}));
    }

    // Replace is the mode downloads update their records with.
    void updateFieldsMovesOnlyTheNamedGroups() {
        auto info = sampleRecord();
        AbstractDownloadPersistentInfo source;
        source.flags = 0x1 | AbstractDownloadPersistentInfo::Private;
        source.name = u"renamed"_s;
        const auto update = [&](qint64 fields) {
            return info.updateFields(source, fields, BitFlagsUpdateMode::Replace);
        };
        QVERIFY(update(AbstractDownloadPersistentInfo::FieldFlags));
        QCOMPARE(info.flags, source.flags);
        QVERIFY(!update(AbstractDownloadPersistentInfo::FieldFlags)); // nothing changed
        QVERIFY(update(AbstractDownloadPersistentInfo::FieldNames));
        QCOMPARE(info.name, u"renamed"_s);
        QVERIFY(info.title.isEmpty());
        QCOMPARE(info.destinationPath, sampleRecord().destinationPath);
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownloadPersistentInfo)
#include "tst_abstractdownloadpersistentinfo.moc"
