#include "formatspec.h"
#include "mediaversions.h"

#include <QTest>

namespace {
// Three video variants whose audio comes apart in two languages, and a muxed low variant.
const QByteArray master = "#EXTM3U\n"
                          "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"English\",LANGUAGE=\"en\","
                          "URI=\"en.m3u8\"\n"
                          "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"Deutsch\",LANGUAGE=\"de-"
                          "AT\",URI=\"de.m3u8\"\n"
                          "#EXT-X-STREAM-INF:BANDWIDTH=800000,RESOLUTION=640x360,AUDIO=\"a\"\n"
                          "v360.m3u8\n"
                          "#EXT-X-STREAM-INF:BANDWIDTH=2800000,RESOLUTION=1920x1080,AUDIO=\"a\"\n"
                          "v1080.m3u8\n"
                          "#EXT-X-STREAM-INF:BANDWIDTH=1400000,RESOLUTION=1280x720,AUDIO=\"a\"\n"
                          "v720.m3u8\n"
                          "#EXT-X-STREAM-INF:BANDWIDTH=300000,RESOLUTION=320x180,"
                          "CODECS=\"avc1.42e00d,mp4a.40.2\"\n"
                          "v180.m3u8\n";

FormatSpec::Versions versions() {
    AbstractError error;
    const auto playlist =
        HlsPlaylistReader::parse(master, QUrl(QStringLiteral("http://h/m.m3u8")), &error);
    return MediaVersions::fromHlsMaster(playlist, QUrl(QStringLiteral("http://h/m.m3u8"))).versions;
}
} // namespace

class TestFormatSpec : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void choosesByTheGrammar_data() {
        QTest::addColumn<QString>("wanted");
        QTest::addColumn<QString>("chosen"); // empty: nothing matches
        const char* const rows[][3] = {
            {"best", "best", "hls-1080p-2800k+audio-en"},
            {"worst", "worst", "hls-180p-300k"},
            {"apart", "bestvideo+bestaudio", "hls-1080p-2800k+audio-en"},
            {"height", "height<=720", "hls-720p-1400k+audio-en"},
            {"height strict", "height<720", "hls-360p-800k+audio-en"},
            {"height and language", "bestvideo+bestaudio+height<=720+lang=de",
             "hls-720p-1400k+audio-de-at"},
            {"language with region", "lang=de-at", "hls-1080p-2800k+audio-de-at"},
            {"audio only", "bestaudio+lang=de", "hls-audio-de-at"},
            {"id", "HLS-360P-800K+AUDIO-DE-AT", "hls-360p-800k+audio-de-at"},
            {"fallback", "bestvideo,height>=700+worst", "hls-720p-1400k+audio-en"},
            {"first fallback wins", "lang=fr, lang=de ,best", "hls-1080p-2800k+audio-de-at"},
            {"unknown language", "lang=fr", ""},
            {"unknown id", "hls-999p", ""}};
        for (const auto& row : rows)
            QTest::newRow(row[0]) << QString::fromLatin1(row[1]) << QString::fromLatin1(row[2]);
    }
    void choosesByTheGrammar() {
        QFETCH(QString, wanted);
        QFETCH(QString, chosen);
        const auto list = versions();
        QString error;
        QVERIFY2(FormatSpec::isValid(wanted, &error), qPrintable(error));
        const int index = FormatSpec::choose(list, wanted);
        QCOMPARE(index < 0 ? QString() : MediaVersions::id(list.at(index)), chosen);
    }

    void refusesWhatIsNeitherTermsNorAnId() {
        for (const char* wanted : {"best,", "best+worst", "bestvideo+best", "height<=x", "a b"}) {
            QString error;
            QVERIFY2(!FormatSpec::isValid(QString::fromLatin1(wanted), &error), wanted);
            QVERIFY(!error.isEmpty());
        }
    }
};

QTEST_GUILESS_MAIN(TestFormatSpec)
#include "tst_formatspec.moc"
