#include "support/ffmpegtestmedia.h"
#include "support/nginxserver.h"
#include "support/testfiles.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <sys/stat.h>
#include <tuple>

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
        // The English segments name their language, in the three letters MPEG-TS and MP4 hold;
        // the German ones leave it to the playlist.
        for (const auto& [language, code, frequency] :
             {std::tuple{"en", "eng", "440"}, std::tuple{"de", "", "880"}}) {
            const QString lang = QString::fromLatin1(language);
            if (!makeRendition(dir, QStringLiteral("a_") + lang,
                               {QStringLiteral("sine=frequency=") + QLatin1String(frequency)},
                               {QStringLiteral("-c:a"), QStringLiteral("aac"),
                                QStringLiteral("-metadata:s:a:0"),
                                QStringLiteral("language=") + QLatin1String(code)},
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

    Run tern(const QStringList& arguments, const QString& state = QStringLiteral("state"),
             const QString& workingDir = {}) {
        QProcess process;
        process.setWorkingDirectory(workingDir);
        process.start(QStringLiteral(TERN_GET_PATH),
                      arguments +
                          QStringList{QStringLiteral("--state-dir"), m_dir.filePath(state)});
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

    // The md5 of every decoded frame of the file's video or audio ("v", "a"), in order: equal
    // lists mean the same pictures and sound, whatever the container.
    static QStringList frames(const QString& file, const QString& kind) {
        QProcess process;
        process.start(FfmpegTestMedia::ffmpeg(),
                      {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), file,
                       QStringLiteral("-map"), QStringLiteral("0:") + kind, QStringLiteral("-f"),
                       QStringLiteral("framemd5"), QStringLiteral("-")});
        process.waitForFinished(60000);
        QStringList hashes;
        for (const QByteArray& line : process.readAllStandardOutput().split('\n')) {
            if (!line.isEmpty() && !line.startsWith('#'))
                hashes.append(QString::fromLatin1(line.split(',').constLast().trimmed()));
        }
        return hashes;
    }

    // ffprobe's entries of the file's first stream of a kind ("v", "a").
    static QString probe(const QString& file, const QString& kind, const QString& entries) {
        QProcess process;
        process.start(FfmpegTestMedia::ffprobe(),
                      {QStringLiteral("-v"), QStringLiteral("error"),
                       QStringLiteral("-select_streams"), kind + QStringLiteral(":0"),
                       QStringLiteral("-show_entries"), entries, QStringLiteral("-of"),
                       QStringLiteral("csv=p=0"), file});
        process.waitForFinished(60000);
        return QString::fromLatin1(process.readAllStandardOutput().trimmed());
    }

    static QString videoSize(const QString& file) {
        return probe(file, QStringLiteral("v"), QStringLiteral("stream=width,height"));
    }

    // Whether a child whose file name holds part ("audio", "video") has a finished record.
    bool childFinished(const QString& stateDir, const QString& part) const {
        QDir state(m_dir.filePath(stateDir));
        for (const QString& folder : state.entryList({QStringLiteral("media-*")}, QDir::Dirs)) {
            QDir records(state.filePath(folder));
            for (const QString& name : records.entryList({QStringLiteral("*.json")})) {
                const QJsonObject record = QJsonDocument::fromJson(readFile(records.filePath(name)))
                                               .object()
                                               .value(QStringLiteral("record"))
                                               .toObject();
                const QString file = record.value(QStringLiteral("files"))
                                         .toArray()
                                         .at(0)
                                         .toObject()
                                         .value(QStringLiteral("name"))
                                         .toString();
                if (file.contains(u'.' + part + u'.') &&
                    record.value(QStringLiteral("state")).toInt() == 1)
                    return true;
            }
        }
        return false;
    }

    int requests(const QString& suffix) const { return requests(*m_nginx, suffix); }

    // Whether process has an ffmpeg child writing a merge's result.
    static bool isMerging(qint64 process) {
        const auto children =
            readFile(QStringLiteral("/proc/%1/task/%1/children").arg(process)).split(' ');
        return std::any_of(children.cbegin(), children.cend(), [](const QByteArray& child) {
            return readFile(QStringLiteral("/proc/%1/cmdline").arg(QString::fromLatin1(child)))
                .contains(".merging");
        });
    }

    static int requests(const NginxServer& server, const QString& suffix) {
        int count = 0;
        for (const auto& access : server.accessLog())
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
        QVERIFY2(FfmpegTestMedia::makeDash(www(QStringLiteral("dash-time")), 4, 1, true, &error),
                 qPrintable(error));
        QVERIFY(readFile(www(QStringLiteral("dash-time/manifest.mpd"))).contains("$Time$"));
        QVERIFY(writeFile(www(QStringLiteral("page.html")),
                          "<html><head><title>Two streams</title></head><body>"
                          "<video src=\"hls/master.m3u8\"></video>"
                          "<a href=\"dash/manifest.mpd\">DASH</a>"
                          "<video><source src=\"clip.mp4\" type=\"video/mp4\"></video>"
                          "</body></html>"));
        QVERIFY(writeFile(www(QStringLiteral("clip.mp4")), QByteArray(1000, 'x')));
        const QByteArray master = readFile(www(QStringLiteral("hls/master.m3u8")));
        QVERIFY(writeFile(www(QStringLiteral("hls/broken.m3u8")),
                          QByteArray(master).replace("v360.m3u8", "gone.m3u8")));
        QVERIFY(writeFile(www(QStringLiteral("hls/encrypted-master.m3u8")),
                          QByteArray(master).replace("v360.m3u8", "encrypted.m3u8")));
        QVERIFY(writeFile(www(QStringLiteral("hls/encrypted.m3u8")),
                          readFile(www(QStringLiteral("hls/v360.m3u8")))
                              .replace("#EXT-X-VERSION:3\n",
                                       "#EXT-X-VERSION:3\n#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n")));
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
        // A plain file's size is measured, not estimated.
        QCOMPARE(line(QStringLiteral("file-1")).section(u' ', -2), QStringLiteral("1000 B"));
        QCOMPARE(lines.size(), 1 + 3 * 2 + 2 + 2 + 1);
        // For a front end: the same columns as JSON lines (keys in order), then the result.
        const Run json = tern({QStringLiteral("-F"), QStringLiteral("--progress=json"),
                               url(QStringLiteral("/hls/master.m3u8"))});
        const QStringList objects = json.out.split(u'\n', Qt::SkipEmptyParts);
        QCOMPARE(objects.size(), 3 * 2 + 2 + 1);
        QVERIFY2(objects.constLast().startsWith(QStringLiteral("{\"exitCode\":0,\"outcome\"")),
                 qPrintable(json.out));
        QVERIFY2(json.out.contains(QStringLiteral(
                     "\"fps\":null,\"id\":\"hls-360p-1440k+audio-de\",\"kind\":\"video+audio\","
                     "\"lang\":\"de\",\"resolution\":\"640x360\",\"size\"")),
                 qPrintable(json.out));
        QCOMPARE(requests(QStringLiteral(".ts")) + requests(QStringLiteral(".m4s")), 0);
    }

    void refusesWhatOffersNothing_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message");
        QTest::newRow("no match") << QStringList{QStringLiteral("-f"), QStringLiteral("lang=fr"),
                                                 QStringLiteral("/hls/master.m3u8")}
                                  << 2 << "matches none of: hls-360p-1440k+audio-en,";
        QTest::newRow("bad format")
            << QStringList{QStringLiteral("-f"), QStringLiteral("best+worst"),
                           QStringLiteral("/hls/master.m3u8")}
            << 2 << "neither terms that fit together nor an id";
        QTest::newRow("page without media")
            << QStringList{QStringLiteral("-F"), QStringLiteral("/empty.html")} << 1
            << "no media found on the page";
        QTest::newRow("variant answering 404")
            << QStringList{QStringLiteral("-f"), QStringLiteral("best"), QStringLiteral("-o"),
                           m_dir.filePath(QStringLiteral("out/broken.mp4")),
                           QStringLiteral("/hls/broken.m3u8")}
            << 1 << "gone.m3u8";
        QTest::newRow("encrypted variant")
            << QStringList{QStringLiteral("-f"), QStringLiteral("best"), QStringLiteral("-o"),
                           m_dir.filePath(QStringLiteral("out/encrypted.mp4")),
                           QStringLiteral("/hls/encrypted-master.m3u8")}
            << 1 << "Playlist line 3: encrypted stream: AES-128 is not supported";
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
        if (const int output = arguments.indexOf(QStringLiteral("-o")); output >= 0)
            QVERIFY(!QFileInfo::exists(arguments.at(output + 1)));
    }

    // The chosen video and audio end up merged with every frame as the sources have it.
    void downloadsTheChosenVersion_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("wanted");
        QTest::addColumn<QString>("size");
        QTest::addColumn<QString>("videoSource");
        QTest::addColumn<QString>("audioSource");
        QTest::addColumn<QString>("language");
        QTest::newRow("height and language") << "/hls/master.m3u8"
                                             << "bestvideo+bestaudio+height<=180+lang=de"
                                             << "320,180"
                                             << "hls/v180.m3u8"
                                             << "hls/a_de.m3u8"
                                             << "deu";
        QTest::newRow("by id from the page") << "/page.html"
                                             << "hls-90p-360k+audio-en"
                                             << "160,90"
                                             << "hls/v90.m3u8"
                                             << "hls/a_en.m3u8"
                                             << "eng";
        QTest::newRow("default of a manifest") << "/dash/manifest.mpd"
                                               << ""
                                               << "160,120"
                                               << "dash/manifest.mpd"
                                               << "dash/manifest.mpd"
                                               << "und";
        // ffmpeg's own reader drops the first segment of a $Time$ timeline; the stream is the
        // same encoding as the one addressed by $Number$.
        QTest::newRow("timeline manifest") << "/dash-time/manifest.mpd"
                                           << ""
                                           << "160,120"
                                           << "dash/manifest.mpd"
                                           << "dash/manifest.mpd"
                                           << "und";
    }
    void downloadsTheChosenVersion() {
        QFETCH(QString, path);
        QFETCH(QString, wanted);
        QFETCH(QString, size);
        QFETCH(QString, videoSource);
        QFETCH(QString, audioSource);
        QFETCH(QString, language);
        const QString output = m_dir.filePath(
            QStringLiteral("out/%1.mp4").arg(QString::fromUtf8(QTest::currentDataTag())));
        QStringList arguments{url(path), QStringLiteral("-o"), output};
        if (!wanted.isEmpty())
            arguments << QStringLiteral("-f") << wanted;
        const Run run = tern(arguments);
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        QCOMPARE(videoSize(output), size);
        QCOMPARE(probe(output, QStringLiteral("a"), QStringLiteral("stream_tags=language")),
                 language);
        const QStringList video = frames(output, QStringLiteral("v"));
        QVERIFY(video.size() >= 100);
        QCOMPARE(video, frames(www(videoSource), QStringLiteral("v")));
        // A stream copy into a plain MP4 drops an AAC packet that lies wholly in the encoder's
        // padding after the end, which fragmented MP4 keeps; every other frame is the same.
        const QStringList audio = frames(output, QStringLiteral("a"));
        const QStringList audioSent = frames(www(audioSource), QStringLiteral("a"));
        QVERIFY(!audio.isEmpty() && audioSent.size() - audio.size() <= 1);
        QCOMPARE(audio, audioSent.mid(0, audio.size()));
        QCOMPARE(QDir(m_dir.filePath(QStringLiteral("out")))
                     .entryList(QDir::Files | QDir::Hidden)
                     .filter(QStringLiteral(".video.")),
                 QStringList());
    }

    // Interrupted once its audio child is done, the same command resumes: the audio is not
    // fetched again, and the result is whole.
    void resumesWithoutFetchingFinishedChildrenAgain() {
        // Each connection at 50 KiB/s: the small audio segments end long before the video's.
        NginxServer slow(www());
        QString error;
        QVERIFY2(slow.start(&error, 50 * 1024), qPrintable(error));
        const QString output = m_dir.filePath(QStringLiteral("out/resumed.mp4"));
        const QStringList arguments{
            slow.url(QStringLiteral("/hls/master.m3u8")).toString(), QStringLiteral("-f"),
            QStringLiteral("bestvideo+bestaudio+lang=en"), QStringLiteral("-o"), output};
        QProcess first;
        first.start(QStringLiteral(TERN_GET_PATH),
                    arguments + QStringList{QStringLiteral("--state-dir"),
                                            m_dir.filePath(QStringLiteral("resume-state"))});
        QVERIFY(QTest::qWaitFor(
            [&] { return childFinished(QStringLiteral("resume-state"), QStringLiteral("audio")); },
            30000));
        QVERIFY(!childFinished(QStringLiteral("resume-state"), QStringLiteral("video")));
        ::kill(pid_t(first.processId()), SIGINT);
        QVERIFY(first.waitForFinished(30000));
        QVERIFY2(first.exitStatus() == QProcess::NormalExit,
                 first.readAllStandardError().constData());
        QCOMPARE(first.exitCode(), 130);
        const int audioRequests = requests(slow, QStringLiteral("a_en_003.ts"));
        QCOMPARE(audioRequests, 1);
        const Run second = tern(arguments, QStringLiteral("resume-state"));
        QVERIFY2(second.exitCode == 0, qPrintable(second.err));
        QVERIFY2(second.err.contains(QStringLiteral("resuming")), qPrintable(second.err));
        QCOMPARE(requests(slow, QStringLiteral("a_en_003.ts")), audioRequests);
        QCOMPARE(frames(output, QStringLiteral("v")),
                 frames(www(QStringLiteral("hls/v360.m3u8")), QStringLiteral("v")));
        QCOMPARE(frames(output, QStringLiteral("a")),
                 frames(www(QStringLiteral("hls/a_en.m3u8")), QStringLiteral("a")));
    }

    // An audio child failing half-way leaves nothing at the output; once its segment is back,
    // the same command fetches only what was missing.
    void resumesAnAudioChildThatFailed() {
        NginxServer server(www());
        QString error;
        QVERIFY2(server.start(&error), qPrintable(error));
        const QString segment = www(QStringLiteral("hls/a_de_002.ts"));
        const QString away = segment + QStringLiteral(".away");
        QVERIFY(QFile::rename(segment, away));
        auto restore = qScopeGuard([&] { QFile::rename(away, segment); });
        const QString output = m_dir.filePath(QStringLiteral("out/audio-failed.mp4"));
        // One segment at a time: the two before the missing one are surely done when it fails.
        const QStringList arguments{server.url(QStringLiteral("/hls/master.m3u8")).toString(),
                                    QStringLiteral("-f"),
                                    QStringLiteral("bestvideo+bestaudio+height<=90+lang=de"),
                                    QStringLiteral("-N"),
                                    QStringLiteral("1"),
                                    QStringLiteral("--retries"),
                                    QStringLiteral("0"),
                                    QStringLiteral("-o"),
                                    output};
        const Run first = tern(arguments, QStringLiteral("failed-state"));
        QCOMPARE(first.exitCode, 1);
        QVERIFY2(first.err.contains(QStringLiteral("HTTP error 404")), qPrintable(first.err));
        QVERIFY(!QFileInfo::exists(output));
        restore.dismiss();
        QVERIFY(QFile::rename(away, segment));
        const Run second = tern(arguments, QStringLiteral("failed-state"));
        QVERIFY2(second.exitCode == 0, qPrintable(second.err));
        QCOMPARE(requests(server, QStringLiteral("a_de_000.ts")), 1);
        QCOMPARE(requests(server, QStringLiteral("a_de_001.ts")), 1);
        QCOMPARE(frames(output, QStringLiteral("a")),
                 frames(www(QStringLiteral("hls/a_de.m3u8")), QStringLiteral("a")));
    }

    // Interrupted while ffmpeg merges (held opening its output, a pipe that nobody reads), the
    // same command merges the finished children again without fetching them again.
    void resumesAnInterruptedMerge() {
        NginxServer server(www());
        QString error;
        QVERIFY2(server.start(&error), qPrintable(error));
        const QString output = m_dir.filePath(QStringLiteral("out/merge.mp4"));
        // The staged result's name while ffmpeg writes it.
        const QString merging = m_dir.filePath(QStringLiteral("out/.tern-get-merge.mp4.merging"));
        QVERIFY(QDir().mkpath(m_dir.filePath(QStringLiteral("out"))));
        QCOMPARE(::mkfifo(QFile::encodeName(merging).constData(), 0644), 0);
        const QStringList arguments{
            server.url(QStringLiteral("/hls/master.m3u8")).toString(), QStringLiteral("-f"),
            QStringLiteral("bestvideo+bestaudio+height<=90+lang=en"), QStringLiteral("-o"), output};
        QProcess first;
        first.start(QStringLiteral(TERN_GET_PATH),
                    arguments + QStringList{QStringLiteral("--state-dir"),
                                            m_dir.filePath(QStringLiteral("merge-state"))});
        QVERIFY(QTest::qWaitFor([&] { return isMerging(first.processId()); }, 30000));
        ::kill(pid_t(first.processId()), SIGINT);
        QVERIFY(first.waitForFinished(30000));
        QCOMPARE(first.exitCode(), 130);
        const int fetched = requests(server, QStringLiteral(".ts"));
        QVERIFY(QFile::remove(merging));
        const Run second = tern(arguments, QStringLiteral("merge-state"));
        QVERIFY2(second.exitCode == 0, qPrintable(second.err));
        QCOMPARE(requests(server, QStringLiteral(".ts")), fetched);
        QCOMPARE(frames(output, QStringLiteral("a")),
                 frames(www(QStringLiteral("hls/a_en.m3u8")), QStringLiteral("a")));
    }

    // While one run downloads to an output, another is refused and what was there stays; with
    // --progress=json stdout holds JSON lines only, the last one the result. A name that only
    // the parse gives is checked as -o is.
    void guardsTheOutputAndReportsInJson() {
        NginxServer slow(www());
        QString error;
        QVERIFY2(slow.start(&error, 20 * 1024), qPrintable(error));
        const QString output = m_dir.filePath(QStringLiteral("out/guarded.mp4"));
        QVERIFY(writeFile(output, "old"));
        const QStringList arguments{
            slow.url(QStringLiteral("/hls/master.m3u8")).toString(), QStringLiteral("-f"),
            QStringLiteral("bestvideo+bestaudio+height<=90"), QStringLiteral("-o"), output};
        QProcess first;
        first.start(QStringLiteral(TERN_GET_PATH),
                    arguments + QStringList{QStringLiteral("--progress=json"),
                                            QStringLiteral("--state-dir"),
                                            m_dir.filePath(QStringLiteral("guard-state"))});
        QVERIFY(QTest::qWaitFor([&] { return first.bytesAvailable() > 0; }, 30000));
        const Run second = tern(arguments, QStringLiteral("guard-state"));
        QCOMPARE(second.exitCode, 1);
        QVERIFY2(second.err.contains(QStringLiteral("another tern-get")), qPrintable(second.err));
        QCOMPARE(readFile(output), QByteArray("old"));
        QVERIFY(first.waitForFinished(60000));
        QVERIFY2(first.exitCode() == 0, first.readAllStandardError().constData());
        QJsonObject last;
        for (const QByteArray& line : first.readAllStandardOutput().trimmed().split('\n')) {
            const QJsonDocument document = QJsonDocument::fromJson(line);
            QVERIFY2(document.isObject(), line.constData());
            last = document.object();
        }
        QCOMPARE(last.value(QStringLiteral("type")).toString(), QStringLiteral("result"));
        QCOMPARE(last.value(QStringLiteral("output")).toString(), output);
        QCOMPARE(videoSize(output), QStringLiteral("160,90"));
        // Without -o the name comes from the parse, and is refused before a segment is fetched.
        const QString folder = m_dir.filePath(QStringLiteral("auto"));
        QVERIFY(QDir().mkpath(folder + QStringLiteral("/master.mp4")));
        const int segments = requests(slow, QStringLiteral(".ts"));
        const Run named =
            tern({arguments.constFirst(), QStringLiteral("-f"), QStringLiteral("best")},
                 QStringLiteral("auto-state"), folder);
        QCOMPARE(named.exitCode, 1);
        QVERIFY2(named.err.contains(QStringLiteral("is a folder")), qPrintable(named.err));
        QCOMPARE(requests(slow, QStringLiteral(".ts")), segments);
    }
};

QTEST_GUILESS_MAIN(TestTernMedia)
#include "tst_ternmedia.moc"
