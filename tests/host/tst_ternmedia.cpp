#include "support/ffmpegtestmedia.h"
#include "support/nginxserver.h"
#include "support/testfiles.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

// tern-get's media side against nginx serving streams ffmpeg made: an HLS master of three video
// variants whose audio comes apart in two languages, a DASH manifest, and a page linking both.
class TestTernMedia : public QObject {
    Q_OBJECT

private:
    struct Run {
        int exitCode = -1;
        QString out, err;
    };

    QTemporaryDir m_dir;
    std::unique_ptr<NginxServer> m_nginx;

    static QStringList args(const QString& words) { return words.split(u' ', Qt::SkipEmptyParts); }
    QString www(const QString& path = {}) const { return m_dir.filePath(u"www/"_s + path); }
    QString out(const QString& name) const { return m_dir.filePath(u"out/"_s + name); }

    // ffmpeg's or ffprobe's output, empty when it fails.
    static QByteArray run(const QString& program, const QStringList& arguments) {
        QByteArray output;
        FfmpegTestMedia::run(program, arguments, &output, nullptr);
        return output;
    }

    // One HLS media playlist "<name>.m3u8" of four seconds in one-second segments.
    static bool makeRendition(const QString& base, const QString& input, const QStringList& codec,
                              QString* error) {
        return FfmpegTestMedia::run(
            FfmpegTestMedia::ffmpeg(),
            args(u"-hide_banner -loglevel error -y -f lavfi -i"_s)
                << input << u"-t"_s << u"4"_s << codec
                << args(u"-f hls -hls_time 1 -hls_playlist_type vod -hls_segment_filename"_s)
                << base + u"_%03d.ts"_s << base + u".m3u8"_s,
            nullptr, error);
    }

    bool makeHlsMaster(QString* error) {
        const QString dir = www(u"hls/"_s);
        QDir().mkpath(dir);
        QByteArray master = "#EXTM3U\n#EXT-X-VERSION:3\n";
        // The English segments name their language, in the three letters MPEG-TS and MP4 hold;
        // the German ones leave it to the playlist.
        for (const auto& [lang, code, frequency] :
             {std::tuple{u"en"_s, u"eng"_s, 440}, std::tuple{u"de"_s, QString(), 880}}) {
            if (!makeRendition(dir + u"a_"_s + lang, u"sine=frequency=%1"_s.arg(frequency),
                               {u"-c:a"_s, u"aac"_s, u"-metadata:s:a:0"_s, u"language="_s + code},
                               error))
                return false;
            master += u"#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",LANGUAGE=\"%1\",NAME=\"%1\","
                      "URI=\"a_%1.m3u8\"\n"_s.arg(lang)
                          .toUtf8();
        }
        for (const int height : {90, 180, 360}) {
            const QString size = u"%1x%2"_s.arg(height * 16 / 9).arg(height);
            if (!makeRendition(dir + u"v%1"_s.arg(height), u"testsrc2=size=%1:rate=25"_s.arg(size),
                               args(u"-c:v libx264 -preset ultrafast -g 25"_s), error))
                return false;
            master +=
                u"#EXT-X-STREAM-INF:BANDWIDTH=%1,RESOLUTION=%2,"
                "CODECS=\"avc1.42c01e,mp4a.40.2\",AUDIO=\"aud\"\nv%3.m3u8\n"_s.arg(height * 4000)
                    .arg(size)
                    .arg(height)
                    .toUtf8();
        }
        return writeFile(dir + u"master.m3u8"_s, master);
    }

    Run tern(const QStringList& arguments, const QString& state = u"state"_s,
             const QString& workingDir = {}) {
        QProcess process;
        process.setWorkingDirectory(workingDir);
        start(process, arguments, state);
        if (!process.waitForFinished(120000)) {
            process.kill();
            process.waitForFinished();
        }
        return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
                QString::fromUtf8(process.readAllStandardOutput()),
                QString::fromUtf8(process.readAllStandardError())};
    }

    QString url(const QString& path) const { return m_nginx->url(path).toString(); }

    // The md5 of every decoded frame of the file's video or audio ("v", "a"), in order: equal
    // lists mean the same pictures and sound, whatever the container.
    static QStringList frames(const QString& file, const QString& kind) {
        QStringList hashes;
        const QByteArray md5 =
            run(FfmpegTestMedia::ffmpeg(),
                args(u"-v error -i"_s) << file << args(u"-map 0:%1 -f framemd5 -"_s.arg(kind)));
        for (const QByteArray& line : md5.split('\n')) {
            if (!line.isEmpty() && !line.startsWith('#'))
                hashes.append(QString::fromLatin1(line.split(',').constLast().trimmed()));
        }
        return hashes;
    }

    // ffprobe's entries of the file's first stream of a kind ("v", "a").
    static QString probe(const QString& file, const QString& kind, const QString& entries) {
        const QString line = u"-v error -select_streams %1:0 -show_entries %2 -of csv=p=0"_s;
        return QString::fromLatin1(
            run(FfmpegTestMedia::ffprobe(), args(line.arg(kind, entries)) << file).trimmed());
    }

    // Whether process has an ffmpeg child writing a merge's result.
    static bool isMerging(qint64 process) {
        const auto children = readFile(u"/proc/%1/task/%1/children"_s.arg(process)).split(' ');
        return std::any_of(children.cbegin(), children.cend(), [](const QByteArray& child) {
            return readFile(u"/proc/%1/cmdline"_s.arg(QString::fromLatin1(child)))
                .contains(".merging");
        });
    }

    // The master's URL on server, then words.
    static QStringList onMaster(const NginxServer& server, const QString& words) {
        return QStringList{server.url(u"/hls/master.m3u8"_s).toString()} + args(words);
    }

    void start(QProcess& process, const QStringList& arguments, const QString& state) {
        process.start(QStringLiteral(TERN_GET_PATH),
                      arguments + QStringList{u"--state-dir"_s, m_dir.filePath(state)});
    }

    static int requests(const NginxServer& server, const QString& suffix) {
        const auto log = server.accessLog();
        return int(std::count_if(log.cbegin(), log.cend(),
                                 [&](const auto& access) { return access.path.endsWith(suffix); }));
    }

private Q_SLOTS:
    void initTestCase() {
        if (FfmpegTestMedia::ffmpeg().isEmpty() || NginxServer::executable().isEmpty())
            QSKIP("ffmpeg and nginx are needed (scripts/install-deps installs them)");
        QString error;
        QVERIFY2(makeHlsMaster(&error), qPrintable(error));
        QVERIFY2(FfmpegTestMedia::makeDash(www(u"dash"_s), 4, 1, &error), qPrintable(error));
        const QByteArray master = readFile(www(u"hls/master.m3u8"_s));
        const QByteArray encrypted =
            readFile(www(u"hls/v360.m3u8"_s))
                .replace("#EXT-X-VERSION:3\n",
                         "#EXT-X-VERSION:3\n#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n");
        for (const auto& [path, data] : std::initializer_list<std::pair<QString, QByteArray>>{
                 {u"page.html"_s, "<html><head><title>Two streams</title></head><body>"
                                  "<video src=\"hls/master.m3u8\"></video>"
                                  "<a href=\"dash/manifest.mpd\">DASH</a>"
                                  "<video><source src=\"clip.mp4\" type=\"video/mp4\"></video>"
                                  "</body></html>"},
                 {u"clip.mp4"_s, QByteArray(1000, 'x')},
                 {u"hls/broken.m3u8"_s, QByteArray(master).replace("v360.m3u8", "gone.m3u8")},
                 {u"hls/encrypted-master.m3u8"_s,
                  QByteArray(master).replace("v360.m3u8", "encrypted.m3u8")},
                 {u"hls/encrypted.m3u8"_s, encrypted}})
            QVERIFY(writeFile(www(path), data));
        m_nginx.reset(new NginxServer(www()));
        QVERIFY2(m_nginx->start(&error), qPrintable(error));
    }

    // Every version of the page's master and manifest is listed with what the playlists say,
    // and no media segment is fetched for it.
    void listsFormatsWithoutFetchingSegments() {
        const Run run = tern({u"-F"_s, url(u"/page.html"_s)});
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        const QStringList lines = run.out.split(u'\n', Qt::SkipEmptyParts);
        const auto line = [&](const QString& id) {
            return lines.filter(QRegularExpression(u"^"_s + QRegularExpression::escape(id) + u' '))
                .value(0)
                .simplified();
        };
        const QString german = line(u"hls-360p-1440k+audio-de"_s);
        QCOMPARE(german.section(u' ', 1, 7),
                 u"video+audio ts avc1.42c01e,mp4a.40.2 640x360 - 1440k de"_s);
        QVERIFY2(german.section(u' ', -2).startsWith(u'~'), qPrintable(run.out));
        QVERIFY2(line(u"hls-audio-en"_s).contains(u"audio only"_s), qPrintable(run.out));
        QVERIFY2(lines.filter(u"dash-"_s).size() >= 2, qPrintable(run.out));
        // A plain file's size is measured, not estimated.
        QCOMPARE(line(u"file-1"_s).section(u' ', -2), u"1000 B"_s);
        QCOMPARE(lines.size(), 1 + 3 * 2 + 2 + 2 + 1);
        QCOMPARE(requests(*m_nginx, u".ts"_s) + requests(*m_nginx, u".m4s"_s), 0);
    }

    void refusesWhatOffersNothing_data() {
        QTest::addColumn<QString>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message");
        QTest::newRow("no match") << u"-f lang=fr /hls/master.m3u8"_s << 2
                                  << u"matches none of: hls-360p-1440k+audio-en,"_s;
        QTest::newRow("variant answering 404")
            << u"-f best -o %1 /hls/broken.m3u8"_s.arg(out(u"broken.mp4"_s)) << 1 << u"gone.m3u8"_s;
        QTest::newRow("encrypted variant")
            << u"-f best -o %1 /hls/encrypted-master.m3u8"_s.arg(out(u"encrypted.mp4"_s)) << 1
            << u"Playlist line 3: encrypted stream: AES-128 is not supported"_s;
    }
    void refusesWhatOffersNothing() {
        QFETCH(QString, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, message);
        QStringList list = args(arguments);
        list.last() = url(list.last());
        const Run run = tern(list);
        QVERIFY2(run.err.contains(message), qPrintable(run.err));
        QCOMPARE(run.exitCode, exitCode);
        if (const int output = list.indexOf(u"-o"_s); output >= 0)
            QVERIFY(!QFileInfo::exists(list.at(output + 1)));
    }

    // The chosen video and audio end up merged with every frame as the sources have it.
    void downloadsTheChosenVersion_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("wanted");
        QTest::addColumn<QString>("size");
        QTest::addColumn<QString>("videoSource");
        QTest::addColumn<QString>("audioSource");
        QTest::addColumn<QString>("language");
        const QString dash = u"dash/manifest.mpd"_s;
        QTest::newRow("height and language")
            << u"/hls/master.m3u8"_s << u"bestvideo+bestaudio+height<=180+lang=de"_s << u"320,180"_s
            << u"hls/v180.m3u8"_s << u"hls/a_de.m3u8"_s << u"deu"_s;
        QTest::newRow("by id from the page")
            << u"/page.html"_s << u"hls-90p-360k+audio-en"_s << u"160,90"_s << u"hls/v90.m3u8"_s
            << u"hls/a_en.m3u8"_s << u"eng"_s;
        QTest::newRow("default of a manifest")
            << u"/"_s + dash << QString() << u"160,120"_s << dash << dash << u"und"_s;
    }
    void downloadsTheChosenVersion() {
        QFETCH(QString, path);
        QFETCH(QString, wanted);
        QFETCH(QString, size);
        QFETCH(QString, videoSource);
        QFETCH(QString, audioSource);
        QFETCH(QString, language);
        const QString output = out(QString::fromUtf8(QTest::currentDataTag()) + u".mp4"_s);
        const Run run = tern(QStringList{url(path), u"-o"_s, output} +
                             (wanted.isEmpty() ? QStringList() : QStringList{u"-f"_s, wanted}));
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        QCOMPARE(probe(output, u"v"_s, u"stream=width,height"_s), size);
        QCOMPARE(probe(output, u"a"_s, u"stream_tags=language"_s), language);
        const QStringList video = frames(output, u"v"_s);
        QVERIFY(video.size() >= 100);
        QCOMPARE(video, frames(www(videoSource), u"v"_s));
        // A stream copy into a plain MP4 drops an AAC packet that lies wholly in the encoder's
        // padding after the end, which fragmented MP4 keeps; every other frame is the same.
        const QStringList audio = frames(output, u"a"_s);
        const QStringList audioSent = frames(www(audioSource), u"a"_s);
        QVERIFY(!audio.isEmpty() && audioSent.size() - audio.size() <= 1);
        QCOMPARE(audio, audioSent.mid(0, audio.size()));
    }

    // An audio child failing half-way leaves nothing at the output; once its segment is back,
    // the same command fetches only what was missing. Interrupted then while ffmpeg merges (held
    // opening its output, a pipe that nobody reads), it merges the finished children again
    // without fetching them again.
    void resumesAFailedChildAndAnInterruptedMerge() {
        const QString segment = www(u"hls/a_de_002.ts"_s);
        const QString away = segment + u".away"_s;
        QVERIFY(QFile::rename(segment, away));
        auto restore = qScopeGuard([&] { QFile::rename(away, segment); });
        const QString output = out(u"merge.mp4"_s);
        // The staged result's name while ffmpeg writes it.
        const QString merging = out(u".tern-get-merge.mp4.merging"_s);
        QVERIFY(QDir().mkpath(out({})));
        QCOMPARE(::mkfifo(QFile::encodeName(merging).constData(), 0644), 0);
        // One segment at a time: the two before the missing one are surely done when it fails.
        const QStringList arguments = onMaster(
            *m_nginx, u"-f bestvideo+bestaudio+height<=90+lang=de -N 1 --retries 0 -o "_s + output);
        const Run failed = tern(arguments, u"merge-state"_s);
        QCOMPARE(failed.exitCode, 1);
        QVERIFY2(failed.err.contains(u"HTTP error 404"_s), qPrintable(failed.err));
        QVERIFY(!QFileInfo::exists(output));
        restore.dismiss();
        QVERIFY(QFile::rename(away, segment));
        // Earlier tests fetched the German audio too: only what later runs add counts.
        const auto done = [&] {
            return requests(*m_nginx, u"a_de_000.ts"_s) + requests(*m_nginx, u"a_de_001.ts"_s);
        };
        const int fetchedDone = done();
        QProcess interrupted;
        start(interrupted, arguments, u"merge-state"_s);
        QVERIFY(QTest::qWaitFor([&] { return isMerging(interrupted.processId()); }, 30000));
        ::kill(pid_t(interrupted.processId()), SIGINT);
        QVERIFY(interrupted.waitForFinished(30000));
        QCOMPARE(interrupted.exitCode(), 130);
        QCOMPARE(done(), fetchedDone);
        const int fetched = requests(*m_nginx, u".ts"_s);
        QVERIFY(QFile::remove(merging));
        const Run last = tern(arguments, u"merge-state"_s);
        QVERIFY2(last.exitCode == 0, qPrintable(last.err));
        QCOMPARE(requests(*m_nginx, u".ts"_s), fetched);
        QCOMPARE(frames(output, u"a"_s), frames(www(u"hls/a_de.m3u8"_s), u"a"_s));
    }

    // While one run downloads to an output, another is refused and what was there stays. A name
    // that only the parse gives is checked as -o is.
    void guardsTheOutput() {
        NginxServer slow(www());
        QString error;
        QVERIFY2(slow.start(&error, 20 * 1024), qPrintable(error));
        const QString output = out(u"guarded.mp4"_s);
        QVERIFY(writeFile(output, "old"));
        const QStringList arguments =
            onMaster(slow, u"-f bestvideo+bestaudio+height<=90 -o "_s + output);
        QProcess first;
        start(first, arguments, u"guard-state"_s);
        QVERIFY(QTest::qWaitFor([&] { return requests(slow, u".ts"_s) > 0; }, 30000));
        const Run second = tern(arguments, u"guard-state"_s);
        QCOMPARE(second.exitCode, 1);
        QVERIFY2(second.err.contains(u"another tern-get"_s), qPrintable(second.err));
        QCOMPARE(readFile(output), QByteArray("old"));
        QVERIFY(first.waitForFinished(60000));
        QVERIFY2(first.exitCode() == 0, first.readAllStandardError().constData());
        QCOMPARE(probe(output, u"v"_s, u"stream=width,height"_s), u"160,90"_s);
        // Without -o the name comes from the parse, and is refused before a segment is fetched.
        const QString folder = m_dir.filePath(u"auto"_s);
        QVERIFY(QDir().mkpath(folder + u"/master.mp4"_s));
        const int segments = requests(slow, u".ts"_s);
        const Run named =
            tern({arguments.constFirst(), u"-f"_s, u"best"_s}, u"auto-state"_s, folder);
        QCOMPARE(named.exitCode, 1);
        QVERIFY2(named.err.contains(u"is a folder"_s), qPrintable(named.err));
        QCOMPARE(requests(slow, u".ts"_s), segments);
    }
};

QTEST_GUILESS_MAIN(TestTernMedia)
#include "tst_ternmedia.moc"
