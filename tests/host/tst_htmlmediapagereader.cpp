#include "htmlmediapagereader.h"

#include <QTest>

namespace {
using Reader = HtmlMediaPageReader;
const QUrl pageUrl(QStringLiteral("https://site/watch/page.html?id=1"));
} // namespace

class TestHtmlMediaPageReader : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void findsMediaInBrokenMarkup() {
        // Unclosed elements, a stray end tag and an unquoted attribute, as pages have them.
        const QByteArray html =
            "<!DOCTYPE html><html><head><title> Caf\xc3\xa9  clip </title>"
            "<base href=\"/media/\"><base href=\"https://ignored/\">"
            "<meta property=\"og:video\" content=\"https://cdn/og.mp4\">"
            "<meta property=\"og:video:secure_url\" content=\"https://cdn/og.mp4\">"
            "</head><body><div><p>text</span>"
            "<video src=clip.webm></video>"
            "<video><source src=\" master.m3u8 \" type=\"application/x-mpegURL\">"
            "<source src=\"stream\" type=\"video/mp4; codecs=avc1\"></video>"
            "<a href=\"Show.MPD\">dash</a><a href=\"page2.html\">next</a>"
            "<a href=\"https://other/Song.M4A#t=1\">song</a><a "
            "href=\"file:///etc/secret.mp4\">x</a>"
            "<video src=\"blob:https://site/1234\"></video><a href=\"javascript:play()\">play</a>";
        AbstractError error;
        const auto page = Reader::parse(html, pageUrl, &error);
        QCOMPARE(error.code, 0);
        QCOMPARE(page.title, QStringLiteral("Caf\u00e9 clip"));
        QCOMPARE(page.refusedLinks, 2); // the local file and the blob
        QCOMPARE(page.links.size(), 6);
        const auto check = [&](int i, const char* url, Reader::LinkKind kind, const char* format) {
            QCOMPARE(page.links.at(i).url, QUrl(QString::fromUtf8(url)));
            QCOMPARE(page.links.at(i).kind, kind);
            QCOMPARE(page.links.at(i).format, QString::fromUtf8(format));
        };
        check(0, "https://cdn/og.mp4", Reader::LinkKind::MediaFile, "mp4");
        check(1, "https://site/media/clip.webm", Reader::LinkKind::MediaFile, "webm");
        check(2, "https://site/media/master.m3u8", Reader::LinkKind::HlsPlaylist, "");
        check(3, "https://site/media/stream", Reader::LinkKind::MediaFile, "mp4");
        check(4, "https://site/media/Show.MPD", Reader::LinkKind::DashManifest, "");
        check(5, "https://other/Song.M4A#t=1", Reader::LinkKind::MediaFile, "m4a");
    }

    void pagesWithoutMediaAreAnError_data() {
        QTest::addColumn<QByteArray>("html");
        QTest::addColumn<QUrl>("url");
        QTest::addColumn<int>("refused");
        QTest::newRow("empty") << QByteArray() << pageUrl << 0;
        QTest::newRow("embedded player")
            << QByteArray("<meta property=og:video content=https://site/embed/1>"
                          "<meta property=og:video:type content=text/html><a href=a.html>a</a>")
            << pageUrl << 0;
        QTest::newRow("local page") << QByteArray("<video src=clip.mp4>")
                                    << QUrl(QStringLiteral("file:///srv/p.html")) << 1;
        QTest::newRow("local base")
            << QByteArray("<base href=\"file:///\"><a href=x.mp4>") << pageUrl << 1;
    }
    void pagesWithoutMediaAreAnError() {
        QFETCH(QByteArray, html);
        QFETCH(QUrl, url);
        QFETCH(int, refused);
        AbstractError error;
        const auto page = Reader::parse(html, url, &error);
        QCOMPARE(error.code, int(MediaParse::NoMedia));
        QCOMPARE(error.description, std::string("no media found on the page"));
        QVERIFY(page.links.isEmpty());
        QCOMPARE(page.refusedLinks, refused);
    }
};

QTEST_GUILESS_MAIN(TestHtmlMediaPageReader)
#include "tst_htmlmediapagereader.moc"
