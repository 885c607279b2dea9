#include "hlsplaylistreader.h"
#include "mediaparse.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {
const QUrl base(u"http://host/video/index.m3u8"_s);

HlsPlaylistReader::Playlist parse(const char* text, AbstractError* error) {
    return HlsPlaylistReader::parse(QByteArray(text), base, error);
}
} // namespace

class TestHlsPlaylistReader : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void mediaPlaylists() {
        AbstractError error;
        // A clear key is no encryption.
        const auto playlist = parse("#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-KEY:METHOD=NONE\n"
                                    "#EXTINF:2.0,\nseg0.ts\r\n"
                                    "#EXTINF:1.5,title\n/abs/seg1.ts\n# comment\n"
                                    "#EXTINF:2,\nhttps://cdn/seg2.ts?x=1\n#EXT-X-ENDLIST\n",
                                    &error);
        QCOMPARE(error.code, 0);
        QVERIFY(playlist.complete && !playlist.isMaster && !playlist.hasInitSegment);
        QCOMPARE(playlist.segments.size(), 3);
        QCOMPARE(playlist.segments.at(0).url, QUrl(u"http://host/video/seg0.ts"_s));
        QCOMPARE(playlist.segments.at(1).url, QUrl(u"http://host/abs/seg1.ts"_s));
        QCOMPARE(playlist.segments.at(2).url, QUrl(u"https://cdn/seg2.ts?x=1"_s));
        QCOMPARE(playlist.totalDurationSeconds, 5.5);
        QCOMPARE(playlist.format, u"ts"_s);

        QVERIFY(!parse("#EXTM3U\n#EXTINF:2,\na.ts\n", &error).complete); // live

        const auto ranges = parse("#EXTM3U\n#EXT-X-MAP:URI=\"init.mp4\",BYTERANGE=\"700@0\"\n"
                                  "#EXTINF:2,\n#EXT-X-BYTERANGE:1000@700\nall.m4s\n"
                                  "#EXTINF:2,\n#EXT-X-BYTERANGE:500\nall.m4s\n#EXT-X-ENDLIST\n",
                                  &error);
        QCOMPARE(error.code, 0);
        QVERIFY(ranges.hasInitSegment);
        QCOMPARE(ranges.segments.size(), 3);
        QCOMPARE(ranges.segments.at(0).url, QUrl(u"http://host/video/init.mp4"_s));
        QCOMPARE(ranges.segments.at(0).rangeSize, 700);
        QCOMPARE(ranges.segments.at(1).rangeOffset, 700);
        QCOMPARE(ranges.segments.at(2).rangeOffset, 1700);
        QCOMPARE(ranges.segments.at(2).rangeSize, 500);
        QCOMPARE(ranges.format, u"mp4"_s);
        QCOMPARE(ranges.exactSize, 2200);
    }

    void masterWithVariantsAndRenditions() {
        AbstractError error;
        const auto playlist = parse(
            "#EXTM3U\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",NAME=\"Deutsch\",LANGUAGE=\"de\","
            "DEFAULT=YES,URI=\"audio/de.m3u8\"\n"
            "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",NAME=\"English\",LANGUAGE=\"en\","
            "URI=\"https://cdn/en.m3u8\"\n"
            "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",NAME=\"en\",URI=\"s.m3u8\"\n"
            "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"cc\",NAME=\"cc\",INSTREAM-ID=\"CC1\"\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=2500000,AVERAGE-BANDWIDTH=2000000,RESOLUTION=1920x1080,"
            "FRAME-RATE=29.970,CODECS=\"avc1.640028,mp4a.40.2\",AUDIO=\"aud\",SUBTITLES=\"subs\"\n"
            "1080.m3u8\n#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=1,URI=\"file:///ignored\"\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=9000000,RESOLUTION=640x360,AUDIO=\"aud\"\n360.m3u8\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=900000,RESOLUTION=640x360,AUDIO=\"aud\"\nlow.m3u8\n",
            &error);
        QCOMPARE(error.code, 0);
        QVERIFY(playlist.isMaster);
        QCOMPARE(playlist.variants.size(), 3);
        // The highest bandwidth, neither the first nor the last variant.
        QCOMPARE(HlsPlaylistReader::bestVariant(playlist), QUrl(u"http://host/video/360.m3u8"_s));
        const auto& top = playlist.variants.at(0);
        QCOMPARE(top.url, QUrl(u"http://host/video/1080.m3u8"_s));
        QCOMPARE(top.width, 1920);
        QCOMPARE(top.height, 1080);
        QCOMPARE(top.codecs, QStringList({u"avc1.640028"_s, u"mp4a.40.2"_s}));
        QCOMPARE(top.audioGroup, u"aud"_s);
        QCOMPARE(playlist.renditions.size(), 4);
        const auto& german = playlist.renditions.at(0);
        QVERIFY(german.isDefault && german.type == HlsPlaylistReader::RenditionType::Audio);
        QCOMPARE(german.language, u"de"_s);
        QCOMPARE(german.url, QUrl(u"http://host/video/audio/de.m3u8"_s));
        QCOMPARE(playlist.renditions.at(2).type, HlsPlaylistReader::RenditionType::Subtitles);
    }

    void unsupportedPlaylistsNameTheLine_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<int>("code");
        const int malformed = MediaParse::Malformed, forbidden = MediaParse::ForbiddenUri,
                  unsupported = MediaParse::Unsupported;
        const struct {
            const char *tag, *text, *expected;
            int code;
        } rows[] = {
            {"no header", "seg.ts\n", "Playlist line 1: not an HLS", malformed},
            {"encrypted", "#EXTM3U\n#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n#EXTINF:2,\na.ts\n",
             "Playlist line 2: encrypted stream: AES-128 is not supported", unsupported},
            {"bad duration", "#EXTM3U\n#EXTINF:abc,\na.ts\n",
             "Playlist line 2: invalid segment duration", malformed},
            {"bad range", "#EXTM3U\n#EXTINF:1,\n#EXT-X-BYTERANGE:x@1\na.ts\n",
             "Playlist line 3: invalid byte range", malformed},
            {"undefined group", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1,AUDIO=\"a\"\nv.m3u8\n",
             "Playlist line 3: the variant names a rendition group (a)", malformed},
            {"session key", "#EXTM3U\n#EXT-X-SESSION-KEY:METHOD=SAMPLE-AES,URI=\"k\"\n",
             "Playlist line 2: encrypted stream: SAMPLE-AES", unsupported},
            {"local variant", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nfile:///etc/passwd\n",
             "Playlist line 3: URI refused (only http and https are allowed): file:///etc/passwd",
             forbidden},
            {"data rendition",
             "#EXTM3U\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"x\",URI=\"data:,x\"\n",
             "Playlist line 2: URI refused (only http and https are allowed): data:,x", forbidden},
            {"ftp init segment", "#EXTM3U\n#EXT-X-MAP:URI=\"ftp://h/init.mp4\"\n",
             "Playlist line 2: URI refused", forbidden},
            {"script segment", "#EXTM3U\n#EXTINF:1,\njavascript:alert(1)\n",
             "Playlist line 3: URI refused", forbidden},
            {"relative to a file", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nlocal.m3u8\n",
             "Playlist line 3: relative URI against a base that is not http", forbidden}};
        for (const auto& row : rows)
            QTest::newRow(row.tag)
                << QByteArray(row.text) << QString::fromUtf8(row.expected) << row.code;
    }

    void unsupportedPlaylistsNameTheLine() {
        QFETCH(QByteArray, text);
        QFETCH(QString, expected);
        QFETCH(int, code);
        AbstractError error;
        const QUrl localBase(u"file:///srv/index.m3u8"_s);
        const auto playlist = HlsPlaylistReader::parse(
            text, QTest::currentDataTag() == QByteArray("relative to a file") ? localBase : base,
            &error);
        QCOMPARE(error.code, code);
        QVERIFY2(QString::fromStdString(error.description).startsWith(expected),
                 error.description.c_str());
        QVERIFY(playlist.segments.isEmpty() && playlist.variants.isEmpty());
        // What a refused URI points to is never read, so it cannot be quoted either.
        QVERIFY(!QString::fromStdString(error.description).contains(u"root:"_s));
    }
};

QTEST_GUILESS_MAIN(TestHlsPlaylistReader)
#include "tst_hlsplaylistreader.moc"
