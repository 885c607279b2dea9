#include "support/ffmpegtestmedia.h"
#include "support/nginxserver.h"
#include "support/testfiles.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

// tern-get's media side against nginx serving streams ffmpeg made: an HLS master of three video
// variants whose audio comes apart in two languages, a DASH manifest, and a page linking both.
class TestTernMedia : public QObject {
    Q_OBJECT

private:
    struct Run {
        int exitCode = -1;
        QString out;
        QString err;
    };

    QTemporaryDir m_dir;
    std::unique_ptr<NginxServer> m_nginx;

    QString www(const QString& path = {}) const {
        return m_dir.filePath(QStringLiteral("www/") + path);
    }

    static bool ffmpeg(const QStringList& arguments, QString* error) {
        QProcess process;
        process.start(FfmpegTestMedia::ffmpeg(),
                      QStringList{QStringLiteral("-hide_banner"), QStringLiteral("-loglevel"),
                                  QStringLiteral("error"), QStringLiteral("-y")} +
                          arguments);
        if (process.waitForFinished(60000) && process.exitCode() == 0)
            return true;
        *error = QString::fromUtf8(process.readAllStandardError());
        return false;
    }

    // One HLS media playlist "<name>.m3u8" of four seconds in one-second segments.
    static bool makeRendition(const QString& dir, const QString& name, const QStringList& input,
                              const QStringList& codec, QString* error) {
        return ffmpeg(
            QStringList{QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i")} +
                input + QStringList{QStringLiteral("-t"), QStringLiteral("4")} + codec +
                QStringList{QStringLiteral("-f"), QStringLiteral("hls"),
                            QStringLiteral("-hls_time"), QStringLiteral("1"),
                            QStringLiteral("-hls_playlist_type"), QStringLiteral("vod"),
                            QStringLiteral("-hls_segment_filename"),
                            dir + u'/' + name + QStringLiteral("_%03d.ts"),
                            dir + u'/' + name + QStringLiteral(".m3u8")},
            error);
    }

    bool makeHlsMaster(QString* error) {
        const QString dir = www(QStringLiteral("hls"));
        QDir().mkpath(dir);
        QByteArray master = "#EXTM3U\n#EXT-X-VERSION:3\n";
        for (const auto& [language, frequency] : {std::pair{"en", "440"}, std::pair{"de", "880"}}) {
            const QString lang = QString::fromLatin1(language);
            if (!makeRendition(dir, QStringLiteral("a_") + lang,
                               {QStringLiteral("sine=frequency=") + QLatin1String(frequency)},
                               {QStringLiteral("-c:a"), QStringLiteral("aac"),
                                QStringLiteral("-metadata:s:a:0"),
                                QStringLiteral("language=") + lang},
                               error))
                return false;
            master += QStringLiteral("#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",LANGUAGE=\"%1\","
                                     "NAME=\"%1\",URI=\"a_%1.m3u8\"\n")
                          .arg(lang)
                          .toUtf8();
        }
        for (const int height : {90, 180, 360}) {
            const QString size = QStringLiteral("%1x%2").arg(height * 16 / 9).arg(height);
            if (!makeRendition(dir, QStringLiteral("v%1").arg(height),
                               {QStringLiteral("testsrc2=size=%1:rate=25").arg(size)},
                               {QStringLiteral("-c:v"), QStringLiteral("libx264"),
                                QStringLiteral("-preset"), QStringLiteral("ultrafast"),
                                QStringLiteral("-g"), QStringLiteral("25")},
                               error))
                return false;
            master += QStringLiteral("#EXT-X-STREAM-INF:BANDWIDTH=%1,RESOLUTION=%2,"
                                     "CODECS=\"avc1.42c01e,mp4a.40.2\",AUDIO=\"aud\"\nv%3.m3u8\n")
                          .arg(height * 4000)
                          .arg(size)
                          .arg(height)
                          .toUtf8();
        }
        return writeFile(dir + QStringLiteral("/master.m3u8"), master);
    }

    Run tern(const QStringList& arguments) {
        QProcess process;
        process.start(QStringLiteral(TERN_GET_PATH),
                      arguments + QStringList{QStringLiteral("--state-dir"),
                                              m_dir.filePath(QStringLiteral("state"))});
        Run result;
        if (!process.waitForFinished(120000)) {
            process.kill();
            process.waitForFinished();
        }
        result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        result.out = QString::fromUtf8(process.readAllStandardOutput());
        result.err = QString::fromUtf8(process.readAllStandardError());
        return result;
    }

    QString url(const QString& path) const { return m_nginx->url(path).toString(); }

    int requests(const QString& suffix) const {
        int count = 0;
        for (const auto& access : m_nginx->accessLog())
            count += access.path.endsWith(suffix) ? 1 : 0;
        return count;
    }

private Q_SLOTS:
    void initTestCase() {
        if (FfmpegTestMedia::ffmpeg().isEmpty() || NginxServer::executable().isEmpty())
            QSKIP("ffmpeg and nginx are needed (scripts/install-deps installs them)");
        QString error;
        QVERIFY2(makeHlsMaster(&error), qPrintable(error));
        QVERIFY2(FfmpegTestMedia::makeDash(www(QStringLiteral("dash")), 4, 1, false, &error),
                 qPrintable(error));
        QVERIFY(writeFile(www(QStringLiteral("page.html")),
                          "<html><head><title>Two streams</title></head><body>"
                          "<video src=\"hls/master.m3u8\"></video>"
                          "<a href=\"dash/manifest.mpd\">DASH</a></body></html>"));
        QVERIFY(writeFile(www(QStringLiteral("empty.html")), "<html><body>nothing</body></html>"));
        QVERIFY(writeFile(www(QStringLiteral("empty.mpd")),
                          "<?xml version=\"1.0\"?><MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" "
                          "type=\"static\" mediaPresentationDuration=\"PT4S\"><Period/></MPD>"));
        m_nginx.reset(new NginxServer(www()));
        QVERIFY2(m_nginx->start(&error), qPrintable(error));
    }

    // Every version of the page's master and manifest is listed with what the playlists say,
    // and no media segment is fetched for it.
    void listsFormatsWithoutFetchingSegments() {
        const Run run = tern({QStringLiteral("-F"), url(QStringLiteral("/page.html"))});
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        const QStringList lines = run.out.split(u'\n', Qt::SkipEmptyParts);
        QVERIFY2(lines.value(0).startsWith(QStringLiteral("ID ")), qPrintable(run.out));
        const auto line = [&](const QString& id) {
            for (const QString& l : lines) {
                if (l.startsWith(id + u' '))
                    return l.simplified();
            }
            return QString();
        };
        QCOMPARE(line(QStringLiteral("hls-360p-1440k+audio-de")).section(u' ', 1, 7),
                 QStringLiteral("video+audio ts avc1.42c01e,mp4a.40.2 640x360 - 1440k de"));
        QVERIFY2(line(QStringLiteral("hls-360p-1440k+audio-de")).section(u' ', -2).startsWith(u'~'),
                 qPrintable(run.out));
        QVERIFY2(line(QStringLiteral("hls-audio-en")).contains(QStringLiteral("audio only")),
                 qPrintable(run.out));
        QVERIFY2(lines.filter(QStringLiteral("dash-")).size() >= 2, qPrintable(run.out));
        QCOMPARE(lines.size(), 1 + 3 * 2 + 2 + 2);
        QCOMPARE(requests(QStringLiteral(".ts")) + requests(QStringLiteral(".m4s")), 0);
    }

    void refusesWhatOffersNothing_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message");
        QTest::newRow("no match") << QStringList{QStringLiteral("-f"), QStringLiteral("lang=fr"),
                                                 QStringLiteral("/hls/master.m3u8")}
                                  << 2 << "matches none of: hls-360p-1440k+audio-en,";
        QTest::newRow("bad spec") << QStringList{QStringLiteral("-f"), QStringLiteral("best+worst"),
                                                 QStringLiteral("/hls/master.m3u8")}
                                  << 2 << "neither terms that fit together nor an id";
        QTest::newRow("page without media")
            << QStringList{QStringLiteral("-F"), QStringLiteral("/empty.html")} << 1
            << "no media found on the page";
        QTest::newRow("manifest without versions")
            << QStringList{QStringLiteral("-F"), QStringLiteral("/empty.mpd")} << 1
            << "no resource versions found";
    }
    void refusesWhatOffersNothing() {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, message);
        arguments.last() = url(arguments.last());
        const Run run = tern(arguments);
        QVERIFY2(run.err.contains(message), qPrintable(run.err));
        QCOMPARE(run.exitCode, exitCode);
    }
};

QTEST_GUILESS_MAIN(TestTernMedia)
#include "tst_ternmedia.moc"
