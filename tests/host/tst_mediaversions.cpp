#include "mediaversions.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {
using Selector = AbstractDownloadResourceVersionSelector;
const QUrl masterUrl(u"https://host/show/master.m3u8"_s);

const MediaVersions::Request request{{{"Cookie", "a=1"}}, QUrl(u"https://site/"_s)};

// The ids of the versions, separated by blanks.
QString ids(const MediaVersions::Listing& listing) {
    QStringList result;
    for (const auto& version : listing.versions)
        result << MediaVersions::id(version);
    return result.join(u' ');
}

HlsPlaylistReader::Playlist hls(const QByteArray& text, const QUrl& url = masterUrl) {
    AbstractError error;
    auto playlist = HlsPlaylistReader::parse(text, url, &error);
    if (error.isSet())
        qFatal("%s", error.description.c_str());
    return playlist;
}
} // namespace

class TestMediaVersions : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void hlsMasterCombinesVariantsAndLanguages() {
        const auto master = hls(
            "#EXTM3U\n"
            "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"Deutsch\",LANGUAGE=\"de\",URI=\"de."
            "m3u8\"\n"
            "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"English\",LANGUAGE=\"en\",URI=\"en."
            "m3u8\"\n"
            "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"s\",NAME=\"English\",LANGUAGE=\"en\","
            "URI=\"subs.m3u8\"\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=2500000,AVERAGE-BANDWIDTH=2000000,RESOLUTION=1920x1080,"
            "CODECS=\"avc1.640028,mp4a.40.2\",AUDIO=\"a\"\n1080.m3u8\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=1200000,RESOLUTION=1280x720,AUDIO=\"a\"\n720.m3u8\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=600000,RESOLUTION=640x360,CODECS=\"hvc1.1.6.L93.90\"\n"
            "360.m3u8\n#EXT-X-STREAM-INF:BANDWIDTH=600000,RESOLUTION=640x360\nmuxed.m3u8\n");
        const auto listing = MediaVersions::fromHlsMaster(master, masterUrl, request);
        QCOMPARE(
            ids(listing),
            u"hls-1080p-2500k+audio-de hls-1080p-2500k+audio-en hls-720p-1200k+audio-de "
            "hls-720p-1200k+audio-en hls-360p-600k hls-360p-600k-2 hls-audio-de hls-audio-en"_s);
        const auto& top = listing.versions.at(0);
        QCOMPARE(top.parts.size(), 2);
        QCOMPARE(top.media.type, int(Selector::VideoWithAudio));
        QCOMPARE(top.media.height, 1080);
        QCOMPARE(top.media.language, u"de"_s);
        const auto& video = top.parts.at(0);
        const auto& audio = top.parts.at(1);
        QCOMPARE(video.media.type, int(Selector::VideoOnly));
        QCOMPARE(audio.media.type, int(Selector::AudioOnly));
        QVERIFY(video.protocol == MediaVersions::HlsModule && audio.protocol == video.protocol);
        const auto sources = MediaVersions::sources(audio);
        QCOMPARE(sources.size(), 1);
        QCOMPARE(sources.at(0).url, QUrl(u"https://host/show/de.m3u8"_s));
        QCOMPARE(sources.at(0).requestHeaders, request.headers);
        QCOMPARE(audio.referrer, request.referrer);
        // An HEVC variant without audio codecs is video only, in fragmented MP4; without CODECS
        // the variant is taken to carry its audio.
        QCOMPARE(listing.versions.at(4).media.type, int(Selector::VideoOnly));
        QCOMPARE(listing.versions.at(4).media.format, u"mp4"_s);
        QCOMPARE(listing.versions.at(5).media.type, int(Selector::VideoWithAudio));
    }

    // A media playlist read later fills in its variant's segments, container and length; byte
    // ranges give an exact size.
    void hlsSizesComeWithMediaPlaylists() {
        auto listing = MediaVersions::fromHlsMaster(
            hls("#EXTM3U\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"x\",URI=\"a.m3u8\"\n"
                "#EXT-X-STREAM-INF:BANDWIDTH=900000,AVERAGE-BANDWIDTH=800000,AUDIO=\"a\"\nv."
                "m3u8\n"),
            masterUrl);
        auto& version = listing.versions[0];
        const auto fmp4 = hls("#EXTM3U\n#EXT-X-MAP:URI=\"init.mp4\"\n#EXTINF:4,\n1.m4s\n"
                              "#EXTINF:6,\n2.m4s\n#EXT-X-ENDLIST\n");
        MediaVersions::applyMediaPlaylist(&version, 0, fmp4);
        QCOMPARE(version.parts.at(0).fragmentCount, 2);
        QCOMPARE(version.media.format, u"mp4"_s);
        QCOMPARE(version.media.duration, 10);
        QVERIFY(MediaVersions::needsRemux(version.parts.at(0)));

        auto single = MediaVersions::fromHlsMedia(
            hls("#EXTM3U\n#EXTINF:2,\n#EXT-X-BYTERANGE:1000@0\nall.ts\n#EXTINF:2,\n"
                "#EXT-X-BYTERANGE:500\nall.ts\n"),
            masterUrl);
        const auto exact = MediaVersions::sizeOf(single.versions.at(0));
        QVERIFY(!exact.estimated);
        QCOMPARE(exact.bytes, 1500);
    }

    void dashCompositesAndPages() {
        DashManifestReader::Manifest manifest;
        manifest.durationSeconds = 8;
        DashManifestReader::Representation video;
        video.mimeType = u"video/mp4"_s;
        video.height = 720;
        video.bandwidth = 1200000;
        video.hasInitSegment = true;
        video.segments.resize(5);
        DashManifestReader::Representation audio;
        audio.kind = DashManifestReader::Kind::Audio;
        audio.mimeType = u"audio/mp4"_s;
        audio.bandwidth = 128000;
        audio.singleFile = true;
        audio.url = QUrl(u"https://cdn/a.m4a"_s);
        audio.segments.resize(1);
        audio.exactSize = 1000;
        DashManifestReader::Representation subtitles = audio;
        subtitles.kind = DashManifestReader::Kind::Text;
        subtitles.language = u"en"_s;
        manifest.representations = {video, audio, audio, subtitles, subtitles};
        manifest.representations[2].language = u"en"_s;
        const auto listing = MediaVersions::fromDash(manifest, masterUrl, request);
        QCOMPARE(ids(listing), u"dash-720p-1200k+audio-128k dash-720p-1200k+audio-en-128k "
                               "dash-audio-128k dash-audio-en-128k"_s);
        const auto& composite = listing.versions.at(0);
        QCOMPARE(composite.parts.at(0).protocol, MediaVersions::FragmentsModule);
        QCOMPARE(composite.parts.at(0).fragmentCount, 4);
        QCOMPARE(MediaVersions::sources(composite.parts.at(0)).size(), 5);
        QVERIFY(MediaVersions::needsRemux(composite.parts.at(0)));
        QCOMPARE(composite.parts.at(1).protocol, MediaVersions::PlainFileModule);
        QCOMPARE(composite.media.bitrate, 1328000);
        QCOMPARE(MediaVersions::sizeOf(composite).bytes, 1200000 * 8 / 8 + 1000);
        QVERIFY(MediaVersions::sizeOf(composite).estimated);

        AbstractError error;
        const auto page =
            HtmlMediaPageReader::parse("<a href=x.mp4>v</a><a href=x.m3u8>s</a><a href=a.m4a>a</a>",
                                       QUrl(u"https://site/p"_s), &error);
        const auto files = MediaVersions::fromPage(page, QUrl(u"https://site/p"_s));
        QCOMPARE(ids(files), u"file-1 file-2"_s);
        QCOMPARE(files.versions.at(0).referrer, QUrl(u"https://site/p"_s));
    }
};

QTEST_GUILESS_MAIN(TestMediaVersions)
#include "tst_mediaversions.moc"
