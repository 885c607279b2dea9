#include "dashmanifestreader.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {
using Reader = DashManifestReader;
const QUrl base(u"http://host/dash/manifest.mpd"_s);

Reader::Manifest parse(const QByteArray& text, AbstractError* error) {
    return Reader::parse(text, base, error);
}

QStringList urls(const Reader::Representation& rep) {
    QStringList result;
    for (const auto& segment : rep.segments)
        result << segment.url.toString();
    return result;
}

QByteArray mpd(const QByteArray& body, const char* attributes = "type=\"static\"") {
    return QByteArray("<?xml version=\"1.0\"?>\n<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" "
                      "mediaPresentationDuration=\"PT5S\" ") +
           attributes + ">\n" + body + "\n</MPD>\n";
}
} // namespace

class TestDashManifestReader : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void templatesListsAndSingleFiles() {
        AbstractError error;
        const auto manifest = parse(
            mpd("<BaseURL>https://cdn/base/</BaseURL><Period><BaseURL>p/</BaseURL>"
                "<AdaptationSet contentType=\"video\" mimeType=\"video/mp4\">"
                "<SegmentTemplate media=\"$RepresentationID$/$Bandwidth$-$Number%03d$.m4s?$$\" "
                "initialization=\"$RepresentationID$/init.mp4\" startNumber=\"7\" "
                "duration=\"5\" timescale=\"2\"/>"
                "<Representation id=\"v1\" bandwidth=\"900\" width=\"640\" height=\"360\" "
                "frameRate=\"30000/1001\"/>"
                "<Representation id=\"v2\" bandwidth=\"1800\"><SegmentTemplate "
                "media=\"t/$Time$.m4s\" timescale=\"1\"><SegmentTimeline><S t=\"0\" d=\"2\" "
                "r=\"1\"/>"
                "<S d=\"1\" r=\"-1\"/></SegmentTimeline></SegmentTemplate></Representation>"
                "</AdaptationSet><AdaptationSet mimeType=\"audio/mp4\" lang=\"de\" "
                "audioSamplingRate=\"48000\">"
                "<Representation id=\"a1\" bandwidth=\"64\"><SegmentList><Initialization "
                "sourceURL=\"a.mp4\" range=\"0-99\"/><SegmentURL mediaRange=\"100-199\"/>"
                "<SegmentURL media=\"b.mp4\" mediaRange=\"0-49\"/></SegmentList>"
                "<BaseURL>a.mp4</BaseURL></Representation>"
                "<Representation id=\"a2\" bandwidth=\"64\"><BaseURL>http://other/a2.m4a</BaseURL>"
                "<SegmentBase indexRange=\"0-10\"/></Representation>"
                "</AdaptationSet><AdaptationSet contentType=\"image\"><Representation id=\"i\" "
                "bandwidth=\"1\"/></AdaptationSet></Period>"),
            &error);
        QCOMPARE(error.code, 0);
        QCOMPARE(manifest.representations.size(), 4); // thumbnails are left out
        const auto& v1 = manifest.representations.at(0);
        QVERIFY(v1.kind == Reader::Kind::Video && v1.width == 640 && v1.height == 360);
        QCOMPARE(v1.frameRate, 30000.0 / 1001);
        QCOMPARE(urls(v1), QStringList({u"https://cdn/base/p/v1/init.mp4"_s,
                                        u"https://cdn/base/p/v1/900-007.m4s?$"_s,
                                        u"https://cdn/base/p/v1/900-008.m4s?$"_s}));
        // The initialization comes from the adaptation set's template. Without a time in the
        // next entry, r="-1" repeats up to the end of the period (PT5S).
        QCOMPARE(urls(manifest.representations.at(1)),
                 QStringList({u"https://cdn/base/p/v2/init.mp4"_s, u"https://cdn/base/p/t/0.m4s"_s,
                              u"https://cdn/base/p/t/2.m4s"_s, u"https://cdn/base/p/t/4.m4s"_s}));
        const auto& a1 = manifest.representations.at(2);
        QCOMPARE(a1.language, u"de"_s);
        QVERIFY(a1.kind == Reader::Kind::Audio);
        QCOMPARE(a1.audioSamplingRate, 48000); // from the adaptation set
        QCOMPARE(urls(a1),
                 QStringList({u"https://cdn/base/p/a.mp4"_s, u"https://cdn/base/p/a.mp4"_s,
                              u"https://cdn/base/p/b.mp4"_s}));
        QCOMPARE(a1.segments.at(1).rangeOffset, 100);
        QCOMPARE(a1.segments.at(1).rangeSize, 100);
        QCOMPARE(a1.exactSize, 250);
        const auto& a2 = manifest.representations.at(3);
        QVERIFY(a2.singleFile && !a2.hasInitSegment);
        QCOMPARE(urls(a2), QStringList({u"http://other/a2.m4a"_s}));
    }

    void refusedManifestsSayWhy_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("expected");
        const auto period = [](const char* inside) {
            return QByteArray("<Period><AdaptationSet mimeType=\"video/mp4\">") + inside +
                   "</AdaptationSet></Period>";
        };
        const int malformed = MediaParse::Malformed, unsupported = MediaParse::Unsupported,
                  forbidden = MediaParse::ForbiddenUri;
        QTest::newRow("not well-formed")
            << QByteArray("<MPD>\n<Period>\n</MPD>") << malformed
            << u"Manifest line 3, column 6: Opening and ending tag mismatch"_s;
        QTest::newRow("not a manifest") << QByteArray("<html/>") << malformed
                                        << u"Manifest line 1, column 7: not a DASH manifest"_s;
        QTest::newRow("live") << mpd("<Period/>", "type=\"dynamic\"") << unsupported
                              << u"live manifests (type=\"dynamic\")"_s;
        QTest::newRow("encrypted")
            << mpd(period("<ContentProtection schemeIdUri=\"urn:mpeg:dash:mp4protection:2011\" "
                          "value=\"cenc\"/><Representation id=\"1\" bandwidth=\"1\"/>"))
            << unsupported << u"encrypted stream: cenc"_s;
        QTest::newRow("local base")
            << mpd("<BaseURL>file:///etc/</BaseURL><Period/>") << forbidden
            << u"URI refused (only http and https are allowed): file:///etc/"_s;
        QTest::newRow("script segment")
            << mpd(period("<Representation id=\"1\" bandwidth=\"1\"><SegmentList>"
                          "<SegmentURL media=\"javascript:x()\"/></SegmentList></Representation>"))
            << forbidden << u"URI refused"_s;
        QTest::newRow("empty timeline")
            << mpd(period("<Representation id=\"r\" bandwidth=\"1\"><SegmentTemplate "
                          "media=\"$Time$\"><SegmentTimeline/></SegmentTemplate></Representation>"))
            << malformed << u"representation r lists no segments"_s;
        QTest::newRow("two periods")
            << mpd("<Period/><Period/>") << unsupported << u"manifests of 2 periods"_s;
        QTest::newRow("endless")
            << mpd(period(
                   "<SegmentTemplate media=\"$Number$\" duration=\"1\" timescale=\"1000000\"/>"
                   "<Representation id=\"1\" bandwidth=\"1\"/>"))
            << unsupported << u"more than 300000 segments"_s;
        QTest::newRow("init segment past the cap")
            << mpd(period("<Representation id=\"1\" bandwidth=\"1\"><SegmentTemplate "
                          "media=\"$Number$\" initialization=\"init\"><SegmentTimeline>"
                          "<S d=\"1\" r=\"299999\"/></SegmentTimeline></SegmentTemplate>"
                          "</Representation>"))
            << unsupported << u"more than 300000 segments"_s;
    }
    void refusedManifestsSayWhy() {
        QFETCH(QByteArray, text);
        QFETCH(int, code);
        QFETCH(QString, expected);
        AbstractError error;
        const auto manifest = parse(text, &error);
        QCOMPARE(error.code, code);
        const QString description = QString::fromStdString(error.description);
        QVERIFY2(description.startsWith(u"Manifest line "_s) && description.contains(expected),
                 qPrintable(description));
        QVERIFY(manifest.representations.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestDashManifestReader)
#include "tst_dashmanifestreader.moc"
