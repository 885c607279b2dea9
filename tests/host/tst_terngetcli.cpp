#include "support/faultyhttpserver.h"
#include "support/ffmpegtestmedia.h"
#include "support/nginxserver.h"
#include "support/testfiles.h"

#include "hostdownloadsfactory.h"
#include "recordstore.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QProcess>
#include <QRandomGenerator>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <sys/stat.h>
#include <sys/sysmacros.h>

using namespace Qt::StringLiterals;

namespace {
const QByteArray PastSize = "cannot be resumed (a section past";

struct Run {
    int exitCode = -1;
    QByteArray out, err;
};

// The type bits of what is at path (a symbolic link itself, not its target); 0 when nothing.
mode_t typeAt(const QString& path) {
    struct stat status = {};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

// A character device like /dev/full at path, that a test may lose without harm to the system.
bool makeFullDevice(const QString& path) {
    return ::mknod(QFile::encodeName(path).constData(), S_IFCHR | 0666, ::makedev(1, 7)) == 0;
}

QByteArray randomBytes(int size) {
    QByteArray data(size, Qt::Uninitialized);
    QRandomGenerator::global()->generate(data.begin(), data.end());
    return data;
}
} // namespace

class TestTernGetCli : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_stream;                           // an MPEG-TS stream
    QString m_fmp4Stream;                       // a fragmented MP4 stream with an init segment
    std::unique_ptr<NginxServer> m_nginx;       // serving both streams
    std::unique_ptr<FaultyHttpServer> m_server; // each test's own

    QString state() const { return m_dir.filePath(u"state"_s); }
    QString out(const QString& name) const { return m_dir.filePath(u"out/"_s + name); }

    QStringList args(const QUrl& url, const QString& output, const QString& more = {}) const {
        return QStringList{url.toString(), u"-o"_s, output, u"--state-dir"_s, state()} +
               more.split(u' ', Qt::SkipEmptyParts);
    }

    Run run(const QStringList& arguments, const QString& program = QStringLiteral(TERN_GET_PATH)) {
        QProcess process;
        process.start(program, arguments);
        // The event loop keeps turning: the fault-injecting server lives in this process.
        if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 120000)) {
            process.kill();
            process.waitForFinished();
        }
        return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
                process.readAllStandardOutput(), process.readAllStandardError()};
    }

    // The number of finished segments the saved state records, -1 without state.
    int savedSegmentsDone() const {
        QDirIterator it(state(), {u"*.json"_s}, QDir::Files);
        if (!it.hasNext())
            return -1;
        return QJsonDocument::fromJson(readFile(it.next()))[u"host"_s][u"segmentsDone"_s].toInt();
    }

private Q_SLOTS:
    void initTestCase() {
        if (FfmpegTestMedia::ffmpeg().isEmpty() || NginxServer::executable().isEmpty())
            QSKIP("ffmpeg and nginx are needed (scripts/install-deps installs them)");
        QString error;
        m_stream = m_dir.filePath(u"www/ts"_s);
        QVERIFY2(FfmpegTestMedia::makeHls(m_stream, 12, 0.5, false, &error), qPrintable(error));
        m_fmp4Stream = m_dir.filePath(u"www/fmp4"_s);
        QVERIFY2(FfmpegTestMedia::makeHls(m_fmp4Stream, 4, 1, true, &error), qPrintable(error));
        m_nginx = std::make_unique<NginxServer>(m_dir.filePath(u"www"_s));
        QVERIFY2(m_nginx->start(&error), qPrintable(error));
    }

    void init() {
        m_server = std::make_unique<FaultyHttpServer>();
        QVERIFY(m_server->listen());
    }
    void cleanup() { QDir(state()).removeRecursively(); }

    // The .part of an interrupted stream is cut short before the rerun: the record then claims
    // more than the file holds, and the rerun must go back to a whole segment.
    void interruptedRunSavesAndResumes() {
        const QString output = out(u"interrupted.ts"_s);
        const QUrl url = m_nginx->url(u"/ts/index.m3u8"_s);
        QProcess first;
        first.start(QStringLiteral(TERN_GET_PATH), args(url, output, u"--limit-rate 150k"_s));
        QTRY_VERIFY_WITH_TIMEOUT(savedSegmentsDone() >= 2, 60000);
        ::kill(pid_t(first.processId()), SIGINT);
        QVERIFY(first.waitForFinished(30000));
        QCOMPARE(first.exitCode(), 130);
        const QString part = output + u".part"_s;
        QVERIFY(QFile::resize(part, QFileInfo(part).size() / 2));
        const Run second = run(args(url, output));
        QVERIFY2(second.exitCode == 0 && second.err.contains("fewer than"), second.err.constData());
        const QStringList segments = FfmpegTestMedia::segmentFiles(m_stream + u"/index.m3u8"_s);
        QByteArray all;
        for (const auto& segment : segments)
            all += readFile(segment);
        QCOMPARE(readFile(output), all);
        QVERIFY(!QFile::exists(part));
        QCOMPARE(savedSegmentsDone(), -1); // a finished download leaves no state behind
    }

    void refusedBeforeFetching_data() {
        QTest::addColumn<QString>("atOutput"); // what the test puts at the output path first
        QTest::addColumn<QString>("options");
        QTest::addColumn<QByteArray>("message");
        for (const char* kind : {"device", "folder", "socket"})
            QTest::newRow(kind) << QString::fromLatin1(kind) << QString() << "is a "_ba + kind;
        QTest::newRow("link") << u"link"_s << QString() << "is a symbolic link"_ba;
        QTest::newRow("folder at .part") << u"part folder"_s << QString() << ".part is a folder"_ba;
        for (const char* value : {"abc", "-1", "1000000", "2.5"})
            QTest::newRow(value) << QString() << u"--retries "_s + QLatin1String(value)
                                 << "--retries takes a whole number from 0 to"_ba;
    }

    void refusedBeforeFetching() {
        QFETCH(QString, atOutput);
        QFETCH(QString, options);
        QFETCH(QByteArray, message);
        m_server->setResource(u"/f.bin"_s, "data");
        const QString folder =
            m_dir.filePath(u"refused/"_s + QLatin1String(QTest::currentDataTag()));
        QVERIFY(QDir().mkpath(folder));
        const QString output = folder + u"/out.bin"_s;
        const QString part = output + u".part"_s;
        QLocalServer socket;
        if (atOutput == u"device"_s && !makeFullDevice(output))
            QSKIP("making a device node takes root");
        QVERIFY(atOutput != u"folder"_s || QDir().mkpath(output));
        QVERIFY(atOutput != u"socket"_s || socket.listen(output));
        QVERIFY(atOutput != u"link"_s || QFile::link(m_stream + u"/index.m3u8"_s, output));
        QVERIFY(atOutput != u"part folder"_s || QDir().mkpath(part));
        const mode_t before = typeAt(output);
        const mode_t partBefore = typeAt(part);
        const Run result = run(args(m_server->url(u"/f.bin"_s), output, options));
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.err.contains(message), result.err.constData());
        QVERIFY(m_server->accessLog().isEmpty());
        QCOMPARE(typeAt(output), before);
        QCOMPARE(typeAt(part), partBefore);
    }

    void outputIsReplacedOnlyWhenComplete() {
        const QByteArray data = randomBytes(300000);
        const QString path = u"/f.bin"_s;
        m_server->setResource(path, data);
        const QString output = m_dir.filePath(u"replace/out.bin"_s);
        const QString part = output + u".part"_s;
        QVERIFY(writeFile(output, "old"));
        // A second run on the output is turned away while the first downloads.
        m_server->setFault(path, {FaultyHttpServer::FaultKind::SlowBody, 100000, -1});
        QProcess first;
        first.start(QStringLiteral(TERN_GET_PATH), args(m_server->url(path), output));
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(part).size() > 0, 20000);
        const Run result = run(args(m_server->url(path), output));
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("another tern-get"), result.err.constData());
        QCOMPARE(readFile(output), "old"_ba);
        QTRY_VERIFY_WITH_TIMEOUT(first.state() == QProcess::NotRunning, 60000);
        QCOMPARE(first.exitCode(), 0);
        QCOMPARE(readFile(output), data);

        // Something other than a regular file put at the output meanwhile is never replaced.
        QProcess second;
        second.start(QStringLiteral(TERN_GET_PATH), args(m_server->url(path), output));
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(part).size() > 0, 20000);
        QVERIFY(QFile::remove(output));
        if (!makeFullDevice(output))
            QSKIP("making a device node takes root");
        QTRY_VERIFY_WITH_TIMEOUT(second.state() == QProcess::NotRunning, 60000);
        QCOMPARE(second.exitCode(), 1);
        QCOMPARE(typeAt(output), mode_t(S_IFCHR));
        QCOMPARE(readFile(part), data);
    }

    // A record is a claim about its .part: one that no longer holds is lowered to what the file
    // has, and an impossible one is set aside; either way the result is exact.
    void resumeChecksTheDataFile_data() {
        QTest::addColumn<int>("partBytes");    // -1: no .part
        QTest::addColumn<int>("garbageBytes"); // appended to the .part
        QTest::addColumn<qint64>("offset");    // of the record's one section
        QTest::addColumn<qint64>("done");
        QTest::addColumn<QByteArray>("warning");
        QTest::newRow("part missing") << -1 << 0 << 0LL << 100000LL << ".part is missing"_ba;
        QTest::newRow("part cut short")
            << 50000 << 0 << 0LL << 100000LL << "holds 50000 bytes, fewer than the 100000"_ba;
        QTest::newRow("part past the end") << 100000 << 150000 << 0LL << 100000LL << QByteArray();
        QTest::newRow("done past the size") << 100000 << 0 << 0LL << 300000LL << PastSize;
        QTest::newRow("finished") << 200000 << 0 << 0LL << 200000LL << QByteArray();
    }

    void resumeChecksTheDataFile() {
        QFETCH(int, partBytes);
        QFETCH(int, garbageBytes);
        QFETCH(qint64, offset);
        QFETCH(qint64, done);
        QFETCH(QByteArray, warning);
        const QByteArray data = randomBytes(200000);
        // Killed after the data was complete, only the rename was missed.
        const bool finished = partBytes == data.size();
        m_server->setResource(u"/r.bin"_s, data);
        const QUrl url = m_server->url(u"/r.bin"_s);
        const QString output =
            m_dir.filePath(u"resume/"_s + QLatin1String(QTest::currentDataTag()) + u".bin"_s);
        const QString part = output + u".part"_s;
        if (partBytes >= 0)
            QVERIFY(writeFile(part, data.left(partBytes) + randomBytes(garbageBytes)));
        RecordStore::Entry entry;
        entry.record.moduleName = HostDownloadsFactory::HttpModule;
        entry.record.resourceUrl = url.toString(QUrl::FullyEncoded);
        entry.record.destinationPath = QFileInfo(output).path();
        AbstractDownloadFileInfo file;
        file.name = QFileInfo(output).fileName();
        file.tmpPath = part;
        file.size = data.size();
        file.sections = {{offset, -1, done}};
        entry.record.files = {file};
        if (finished)
            entry.record.state = AbstractDownloadPersistentInfo::Finished;
        entry.host = {{u"kind"_s, u"file"_s}, {u"output"_s, output}};
        QString error;
        QVERIFY2(
            RecordStore(state()).save(entry.record.resourceUrl + u'\n' + output, entry, &error),
            qPrintable(error));
        const Run result = run(args(url, output));
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QVERIFY2(result.err.contains(warning), result.err.constData());
        QCOMPARE(readFile(output), data);
        // A record that cannot hold is set aside.
        QCOMPARE(QDir(state()).entryList({u"*.rejected-*"_s}, QDir::Files).size(),
                 warning == PastSize ? 1 : 0);
        QVERIFY(!finished || m_server->accessLog().isEmpty()); // nothing fetched again
    }

    void playlistsCannotReachLocalFiles() {
        const QString local = m_dir.filePath(u"local/secret.m3u8"_s);
        QVERIFY(writeFile(local, "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\nhidden-line.ts\n"
                                 "#EXT-X-ENDLIST\n"));
        const QString output = m_dir.filePath(u"local/out.ts"_s);
        // The error for a file that exists, with its name taken out, is the error for one that
        // does not: nothing tells them apart. Each run has its own playlist, so that none
        // resumes the state another left.
        QSet<QByteArray> withoutUri;
        int runs = 0;
        for (const QString& uri :
             {QUrl::fromLocalFile(local).toString(), u"file:///etc/passwd"_s,
              QUrl::fromLocalFile(m_dir.filePath(u"local/none.m3u8"_s)).toString()}) {
            const QString path = u"/m%1.m3u8"_s.arg(++runs);
            m_server->setResource(path, "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1000\n" +
                                            uri.toUtf8() + '\n');
            const Run result = run(args(m_server->url(path), output));
            QCOMPARE(result.exitCode, 1);
            QVERIFY2(result.err.contains(uri.toUtf8()), result.err.constData());
            QVERIFY(!result.err.contains("hidden-line") && !result.err.contains("root:"));
            withoutUri << QByteArray(result.err).replace(uri.toUtf8(), "URI");
        }
        QCOMPARE(withoutUri.size(), 1);
        QVERIFY(!QFile::exists(output));
    }

    // The output's file system fills up: the run stops with the system's reason, and once there
    // is room the next run resumes from what the first saved and ends byte for byte.
    void fullDiskStopsAndResumes() {
        if (QProcess::execute(u"unshare"_s, {u"-rm"_s, u"true"_s}) != 0)
            QSKIP("private user and mount namespaces are not available (unshare -rm)");
        const QByteArray data = randomBytes(1 << 20);
        m_server->setResource(u"/big.bin"_s, data);
        const QString disk = m_dir.filePath(u"disk"_s);
        const QString logs = m_dir.filePath(u"disk-logs"_s);
        QVERIFY(QDir().mkpath(disk) && QDir().mkpath(logs));
        // Paced, so that the disk fills in the middle of a write as well as at its start.
        const QString script = uR"(mount -t tmpfs -o size=256k tmpfs "$1" || exit 90
"$2" "$3" -o "$1/big.bin" --state-dir "$4" --limit-rate 400k 2>"$5/first.err"
echo $? >"$5/first.rc"
mount -o remount,size=4m "$1" || exit 91
"$2" "$3" -o "$1/big.bin" --state-dir "$4" 2>"$5/second.err"
echo $? >"$5/second.rc"
cp "$1/big.bin" "$5/result.bin"
)"_s;
        const Run result =
            run({u"-rm"_s, u"sh"_s, u"-c"_s, script, u"sh"_s, disk, QStringLiteral(TERN_GET_PATH),
                 m_server->url(u"/big.bin"_s).toString(), state(), logs},
                u"unshare"_s);
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QCOMPARE(readFile(logs + u"/first.rc"_s).trimmed(), "1"_ba);
        const QByteArray firstErr = readFile(logs + u"/first.err"_s);
        QVERIFY2(firstErr.contains("No space left on device"), firstErr.constData());
        QCOMPARE(readFile(logs + u"/second.rc"_s).trimmed(), "0"_ba);
        QVERIFY(readFile(logs + u"/result.bin"_s) == data);
    }

    void fragmentedMp4IsRemuxed() {
        const QString output = out(u"movie.mp4"_s);
        const Run result = run(args(m_nginx->url(u"/fmp4/index.m3u8"_s), output));
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QStringList streams;
        double duration = 0;
        QVERIFY(FfmpegTestMedia::probe(output, &streams, &duration));
        QVERIFY(streams.contains(u"video"_s) && streams.contains(u"audio"_s));
        QVERIFY2(duration > 3.5 && duration < 4.5, qPrintable(QString::number(duration)));
    }

    // Servers that would hang or fool a download: each run ends with exit 1 and says why.
    void hostileServersEndClearly() {
        const QStringList segments = FfmpegTestMedia::segmentFiles(m_stream + u"/index.m3u8"_s);
        m_server->setResource(u"/s/index.m3u8"_s, readFile(m_stream + u"/index.m3u8"_s));
        for (const auto& segment : segments)
            m_server->setResource(u"/s/"_s + QFileInfo(segment).fileName(), readFile(segment));
        const QString second = u"/s/"_s + QFileInfo(segments.at(1)).fileName();
        m_server->setFault(second, {FaultyHttpServer::FaultKind::HtmlPage, 0, -1});
        const QString quick = u"--retries 1 --stall-timeout 0.5"_s;
        Run result = run(args(m_server->url(u"/s/index.m3u8"_s), out(u"html.ts"_s), quick));
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(!result.out.contains("Saved") && result.err.contains("text/html") &&
                     result.err.contains(m_server->url(second).toEncoded()),
                 result.err.constData());
        QCOMPARE(m_server->requestCount(second), 2);

        // The first request of a run is retried too, and silence ends as a time-out.
        m_server->setResource(u"/quiet"_s, "x");
        m_server->setFault(u"/quiet"_s, {FaultyHttpServer::FaultKind::NeverAnswer, 0, -1});
        result = run(args(m_server->url(u"/quiet"_s), out(u"quiet.bin"_s), quick));
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("no answer within 0.5 s") && !result.err.contains("canceled"),
                 result.err.constData());
        QCOMPARE(m_server->requestCount(u"/quiet"_s), 2);
    }

    // A run reports its progress as JSON lines on stdout, the last one its outcome, and logs its
    // requests; a failed run says why in its outcome too.
    void jsonProgressAndRequestLogs() {
        const QByteArray body = randomBytes(300000);
        m_server->setResource(u"/file.bin"_s, body);
        const QString logs = m_dir.filePath(u"logs"_s);
        const QString output = out(u"json.bin"_s);
        const QUrl url = m_server->url(u"/file.bin"_s);
        Run result =
            run(args(url, output, u"--progress=json --limit-rate 100k --log-requests "_s + logs));
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QCOMPARE(readFile(output), body); // the limit holds bytes back, never drops them
        const QList<QByteArray> lines = result.out.trimmed().split('\n');
        QVERIFY2(lines.size() >= 3, result.out.constData()); // at least 2 s at 100 KiB/s
        qint64 done = 0;
        for (qsizetype i = 0; i < lines.size() - 1; ++i) { // progress never goes backwards
            const qint64 now = QJsonDocument::fromJson(lines[i])[u"bytesDone"_s].toInteger();
            QVERIFY2(now >= done, lines[i].constData());
            done = now;
        }
        const QJsonDocument last = QJsonDocument::fromJson(lines.at(lines.size() - 2));
        QCOMPARE(last[u"state"_s].toString(), u"finished"_s);
        QCOMPARE(last[u"bytesDone"_s].toInteger(), body.size());
        const QJsonDocument end = QJsonDocument::fromJson(lines.constLast());
        QCOMPARE(end[u"outcome"_s].toString(), u"done"_s);
        QCOMPARE(end[u"output"_s].toString(), output);
        QCOMPARE(QDir(logs).entryList({u"R_*.log"_s}, QDir::Files).size(), 1);

        // A log folder that cannot be made (its parent is a file) costs the log, not the download,
        // and never sends the logs somewhere else.
        result =
            run(args(url, out(u"unlogged.bin"_s), u"--log-requests %1/logs --quiet"_s.arg(output)));
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QVERIFY(QDir::root().entryList({u"R_*.log"_s}, QDir::Files).isEmpty());
        QCOMPARE(result.err.count("no request log is written"), 1);

        m_server->setFault(u"/file.bin"_s, {FaultyHttpServer::FaultKind::Status, 404});
        result = run(args(url, out(u"json404.bin"_s), u"--progress=json --quiet"_s));
        QCOMPARE(result.exitCode, 1);
        const QJsonDocument refused = QJsonDocument::fromJson(result.out);
        QCOMPARE(refused[u"outcome"_s].toString(), u"failed"_s);
        QVERIFY(refused[u"error"_s].toString().contains(u"404"_s));
        QVERIFY(result.err.startsWith("tern-get: HTTP error 404"));
    }
};

QTEST_GUILESS_MAIN(TestTernGetCli)
#include "tst_terngetcli.moc"
