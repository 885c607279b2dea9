#include "hlsplaylistreader.h"

#include <QTest>

namespace {
const QUrl base(QStringLiteral("http://host/video/index.m3u8"));

HlsPlaylistReader::Playlist parse(const char* text, AbstractError* error) {
    return HlsPlaylistReader::parse(QByteArray(text), base, error);
}
} // namespace

class TestHlsPlaylistReader : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void mediaPlaylist() {
        AbstractError error;
        const auto playlist = parse("#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:2.0,\nseg0.ts\r\n"
                                    "#EXTINF:1.5,title\n/abs/seg1.ts\n# comment\n"
                                    "#EXTINF:2,\nhttps://cdn/seg2.ts?x=1\n#EXT-X-ENDLIST\n",
                                    &error);
        QCOMPARE(error.code, 0);
        QVERIFY(playlist.complete);
        QVERIFY(!playlist.isMaster && !playlist.hasInitSegment);
        QCOMPARE(playlist.segments.size(), 3);
        QCOMPARE(playlist.segments.at(0).url, QUrl(QStringLiteral("http://host/video/seg0.ts")));
        QCOMPARE(playlist.segments.at(1).url, QUrl(QStringLiteral("http://host/abs/seg1.ts")));
        QCOMPARE(playlist.segments.at(2).url, QUrl(QStringLiteral("https://cdn/seg2.ts?x=1")));
        QCOMPARE(playlist.totalDurationSeconds, 5.5);

        const auto live = parse("#EXTM3U\n#EXTINF:2,\na.ts\n", &error);
        QVERIFY(!live.complete);
        QCOMPARE(live.segments.size(), 1);
    }

    void initSegmentAndByteRanges() {
        AbstractError error;
        const auto playlist = parse("#EXTM3U\n#EXT-X-MAP:URI=\"init.mp4\",BYTERANGE=\"700@0\"\n"
                                    "#EXTINF:2,\n#EXT-X-BYTERANGE:1000@700\nall.m4s\n"
                                    "#EXTINF:2,\n#EXT-X-BYTERANGE:500\nall.m4s\n#EXT-X-ENDLIST\n",
                                    &error);
        QCOMPARE(error.code, 0);
        QVERIFY(playlist.hasInitSegment);
        QCOMPARE(playlist.segments.size(), 3);
        QCOMPARE(playlist.segments.at(0).url, QUrl(QStringLiteral("http://host/video/init.mp4")));
        QCOMPARE(playlist.segments.at(0).rangeSize, 700);
        QCOMPARE(playlist.segments.at(1).rangeOffset, 700);
        QCOMPARE(playlist.segments.at(2).rangeOffset, 1700);
        QCOMPARE(playlist.segments.at(2).rangeSize, 500);
    }

    void masterPicksHighestBandwidth() {
        AbstractError error;
        const auto playlist =
            parse("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000,RESOLUTION=640x360\n"
                  "low/index.m3u8\n#EXT-X-STREAM-INF:BANDWIDTH=2500000,CODECS=\"a,b\"\n"
                  "high/index.m3u8\n#EXT-X-STREAM-INF:BANDWIDTH=1200000\nmid.m3u8\n",
                  &error);
        QCOMPARE(error.code, 0);
        QVERIFY(playlist.isMaster);
        QCOMPARE(playlist.variants.size(), 3);
        QCOMPARE(HlsPlaylistReader::bestVariant(playlist),
                 QUrl(QStringLiteral("http://host/video/high/index.m3u8")));
        QCOMPARE(HlsPlaylistReader::bestVariant({}), QUrl());
    }

    void unsupportedPlaylistsNameTheLine_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("expected");
        QTest::newRow("no header")
            << QByteArray("seg.ts\n") << QStringLiteral("Playlist line 1: not an HLS");
        QTest::newRow("empty") << QByteArray() << QStringLiteral("Playlist line 1:");
        QTest::newRow("encrypted")
            << QByteArray("#EXTM3U\n#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n#EXTINF:2,\na.ts\n")
            << QStringLiteral("Playlist line 2: encrypted segments (METHOD=AES-128)");
        QTest::newRow("uri without extinf")
            << QByteArray("#EXTM3U\na.ts\n") << QStringLiteral("Playlist line 2: a URI without");
        QTest::newRow("bad duration")
            << QByteArray("#EXTM3U\n#EXTINF:abc,\na.ts\n")
            << QStringLiteral("Playlist line 2: invalid segment duration");
        QTest::newRow("bad range")
            << QByteArray("#EXTM3U\n#EXTINF:1,\n#EXT-X-BYTERANGE:x@1\na.ts\n")
            << QStringLiteral("Playlist line 3: invalid byte range");
        QTest::newRow("dangling tag") << QByteArray("#EXTM3U\n#EXTINF:1,\n")
                                      << QStringLiteral("Playlist line 3: a tag expects a URI");
        QTest::newRow("binary") << QByteArray("#EXTM3U\n#EXTINF:1,\n\x01\xff\xfe:\n")
                                << QStringLiteral("Playlist line");
    }

    void unsupportedPlaylistsNameTheLine() {
        QFETCH(QByteArray, text);
        QFETCH(QString, expected);
        AbstractError error;
        const auto playlist = HlsPlaylistReader::parse(text, base, &error);
        QCOMPARE(error.code, int(HlsPlaylistReader::PlaylistError));
        QCOMPARE(error.category, std::string("GenericError"));
        QVERIFY2(QString::fromStdString(error.description).startsWith(expected),
                 error.description.c_str());
        QVERIFY(playlist.segments.isEmpty());
    }

    void clearKeysAreAccepted() {
        AbstractError error;
        const auto playlist = parse("#EXTM3U\n#EXT-X-KEY:METHOD=NONE\n#EXTINF:1,\na.ts\n", &error);
        QCOMPARE(error.code, 0);
        QCOMPARE(playlist.segments.size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestHlsPlaylistReader)
#include "tst_hlsplaylistreader.moc"
