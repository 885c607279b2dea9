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
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

QByteArray concatenation(const QStringList& files) {
    QByteArray all;
    for (const auto& file : files)
        all += readFile(file);
    return all;
}

struct Run {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
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
    for (auto& byte : data)
        byte = char(QRandomGenerator::global()->bounded(256));
    return data;
}
// The sections of the one request log in folder, as "TITLE: its first line" in file order.
QStringList onlyLog(const QString& folder) {
    const QStringList names = QDir(folder).entryList({QStringLiteral("R_*.log")}, QDir::Files);
    if (names.size() != 1)
        return {QStringLiteral("logs: ") + names.join(u' ')};
    QStringList result;
    const QStringList lines =
        QString::fromUtf8(readFile(QDir(folder).filePath(names[0]))).split(QStringLiteral("\r\n"));
    for (qsizetype i = 0; i + 1 < lines.size(); ++i) {
        if (lines.at(i).startsWith(QStringLiteral("======= ")))
            result << lines.at(i).mid(8).chopped(8) + QStringLiteral(": ") + lines.at(i + 1);
    }
    return result;
}
} // namespace

class TestTernGetCli : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_stream;     // an MPEG-TS stream
    QString m_fmp4Stream; // a fragmented MP4 stream with an init segment

    QString state() const { return m_dir.filePath(QStringLiteral("state")); }

    QStringList args(const QUrl& url, const QString& output) const {
        return {url.toString(), QStringLiteral("-o"), output, QStringLiteral("--state-dir"),
                state()};
    }

    Run run(const QStringList& arguments, const QString& program = QStringLiteral(TERN_GET_PATH)) {
        QProcess process;
        process.start(program, arguments);
        Run result;
        // The event loop keeps turning: the fault-injecting server lives in this process.
        if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 120000)) {
            process.kill();
            process.waitForFinished();
        }
        result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        result.out = process.readAllStandardOutput();
        result.err = process.readAllStandardError();
        return result;
    }

    // The number of finished segments the saved state records, -1 without state.
    int savedSegmentsDone() const {
        QDirIterator it(state(), {QStringLiteral("*.json")}, QDir::Files);
        if (!it.hasNext())
            return -1;
        const auto doc = QJsonDocument::fromJson(readFile(it.next()));
        return doc.object()
            .value(QStringLiteral("host"))
            .toObject()
            .value(QStringLiteral("segmentsDone"))
            .toInt();
    }

    // Serves the test stream under /s/ and returns its segment files in order.
    QStringList serveStream(FaultyHttpServer& server) const {
        const QString playlist = m_stream + QStringLiteral("/index.m3u8");
        const QStringList segments = FfmpegTestMedia::segmentFiles(playlist);
        server.setResource(QStringLiteral("/s/index.m3u8"), readFile(playlist));
        for (const auto& segment : segments)
            server.setResource(QStringLiteral("/s/") + QFileInfo(segment).fileName(),
                               readFile(segment));
        return segments;
    }

private Q_SLOTS:
    void initTestCase() {
        if (FfmpegTestMedia::ffmpeg().isEmpty() || NginxServer::executable().isEmpty())
            QSKIP("ffmpeg and nginx are needed (scripts/install-deps installs them)");
        QString error;
        m_stream = m_dir.filePath(QStringLiteral("www/ts"));
        QVERIFY2(FfmpegTestMedia::makeHls(m_stream, 12, 0.5, false, &error), qPrintable(error));
        m_fmp4Stream = m_dir.filePath(QStringLiteral("www/fmp4"));
        QVERIFY2(FfmpegTestMedia::makeHls(m_fmp4Stream, 4, 1, true, &error), qPrintable(error));
    }

    void cleanup() { QDir(state()).removeRecursively(); }

    // The .part of an interrupted stream is cut short before the rerun: the record then claims
    // more than the file holds, and the rerun must go back to a whole segment.
    void interruptedRunSavesAndResumes() {
        NginxServer nginx(m_dir.filePath(QStringLiteral("www")));
        QString error;
        QVERIFY2(nginx.start(&error), qPrintable(error));
        const QString output = m_dir.filePath(QStringLiteral("out/interrupted.ts"));
        QProcess first;
        first.start(QStringLiteral(TERN_GET_PATH),
                    args(nginx.url(QStringLiteral("/ts/index.m3u8")), output) +
                        QStringList{QStringLiteral("--limit-rate"), QStringLiteral("150k")});
        QTRY_VERIFY_WITH_TIMEOUT(savedSegmentsDone() >= 2, 60000);
        ::kill(pid_t(first.processId()), SIGINT);
        QVERIFY(first.waitForFinished(30000));
        QCOMPARE(first.exitCode(), 130);
        QVERIFY(savedSegmentsDone() >= 2);
        const QString part = output + QStringLiteral(".part");
        QVERIFY(QFile::resize(part, QFileInfo(part).size() / 2));
        const Run second = run(args(nginx.url(QStringLiteral("/ts/index.m3u8")), output));
        QVERIFY2(second.exitCode == 0, second.err.constData());
        QVERIFY2(second.err.contains("fewer than"), second.err.constData());
        QVERIFY(second.out.contains("Saved to"));
        const QStringList segments =
            FfmpegTestMedia::segmentFiles(m_stream + QStringLiteral("/index.m3u8"));
        QVERIFY(segments.size() >= 20);
        QCOMPARE(readFile(output), concatenation(segments));
        QVERIFY(!QFile::exists(part));
        QCOMPARE(savedSegmentsDone(), -1); // a finished download leaves no state behind
    }

    void refusedBeforeFetching_data() {
        QTest::addColumn<QString>("atOutput"); // what the test puts at the output path first
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QByteArray>("message");
        const QStringList none;
        QTest::newRow("device") << "device" << none << QByteArray("is a device");
        QTest::newRow("folder") << "folder" << none << QByteArray("is a folder");
        QTest::newRow("socket") << "socket" << none << QByteArray("is a socket");
        QTest::newRow("link") << "link" << none << QByteArray("is a symbolic link");
        QTest::newRow("folder at .part")
            << "part folder" << none << QByteArray(".part is a folder");
        const QByteArray retries("--retries takes a whole number from 0 to");
        for (const char* value : {"abc", "-1", "1000000", "2.5"})
            QTest::newRow(value) << ""
                                 << QStringList{QStringLiteral("--retries"),
                                                QString::fromLatin1(value)}
                                 << retries;
    }

    void refusedBeforeFetching() {
        QFETCH(QString, atOutput);
        QFETCH(QStringList, options);
        QFETCH(QByteArray, message);
        FaultyHttpServer server;
        QVERIFY(server.listen());
        server.setResource(QStringLiteral("/f.bin"), "data");
        const QString folder = m_dir.filePath(QStringLiteral("refused"));
        QDir(folder).removeRecursively();
        QVERIFY(QDir().mkpath(folder));
        const QString output = folder + QStringLiteral("/out.bin");
        QLocalServer socket;
        if (atOutput == QLatin1String("device") && !makeFullDevice(output))
            QSKIP("making a device node takes root");
        if (atOutput == QLatin1String("folder"))
            QVERIFY(QDir().mkpath(output));
        if (atOutput == QLatin1String("socket"))
            QVERIFY(socket.listen(output));
        if (atOutput == QLatin1String("link"))
            QVERIFY(QFile::link(m_stream + QStringLiteral("/index.m3u8"), output));
        if (atOutput == QLatin1String("part folder"))
            QVERIFY(QDir().mkpath(output + QStringLiteral(".part")));
        const mode_t before = typeAt(output);
        const mode_t partBefore = typeAt(output + QStringLiteral(".part"));

        const Run result = run(args(server.url(QStringLiteral("/f.bin")), output) + options);
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.err.contains(message), result.err.constData());
        QVERIFY(server.accessLog().isEmpty());
        QCOMPARE(typeAt(output), before);
        QCOMPARE(typeAt(output + QStringLiteral(".part")), partBefore);
    }

    void outputIsReplacedOnlyWhenComplete() {
        FaultyHttpServer server;
        QVERIFY(server.listen());
        const QByteArray data = randomBytes(300000);
        const QString path = QStringLiteral("/f.bin");
        server.setResource(path, data);
        const QString output = m_dir.filePath(QStringLiteral("replace/out.bin"));
        const QString part = output + QStringLiteral(".part");
        QVERIFY(writeFile(output, "old"));
        // A second run on the output is turned away while the first downloads.
        server.setFault(path, {FaultyHttpServer::FaultKind::SlowBody, 100000, -1});
        QProcess first;
        first.start(QStringLiteral(TERN_GET_PATH), args(server.url(path), output));
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(part).size() > 0, 20000);
        const Run result = run(args(server.url(path), output));
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("another tern-get"), result.err.constData());
        QCOMPARE(readFile(output), QByteArray("old"));
        QTRY_VERIFY_WITH_TIMEOUT(first.state() == QProcess::NotRunning, 60000);
        QCOMPARE(first.exitCode(), 0);
        QCOMPARE(readFile(output), data);

        // Something other than a regular file put at the output meanwhile is never replaced.
        QProcess second;
        second.start(QStringLiteral(TERN_GET_PATH), args(server.url(path), output));
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
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<qint64>("done");
        QTest::addColumn<bool>("setAside");
        QTest::addColumn<QByteArray>("warning");
        QTest::addColumn<bool>("finished"); // killed after the data was complete
        QTest::newRow("part missing") << -1 << 0 << qint64(0) << qint64(100000) << false
                                      << QByteArray(".part is missing") << false;
        QTest::newRow("part cut short")
            << 50000 << 0 << qint64(0) << qint64(100000) << false
            << QByteArray("holds 50000 bytes, fewer than the 100000") << false;
        QTest::newRow("part past the end")
            << 100000 << 150000 << qint64(0) << qint64(100000) << false << QByteArray() << false;
        QTest::newRow("done past the size")
            << 100000 << 0 << qint64(0) << qint64(300000) << true
            << QByteArray("cannot be resumed (a section past") << false;
        QTest::newRow("section past the size")
            << 100000 << 0 << qint64(250000) << qint64(10) << true
            << QByteArray("cannot be resumed (a section past") << false;
        // The whole .part is there, only the rename was missed.
        QTest::newRow("finished") << 200000 << 0 << qint64(0) << qint64(200000) << false
                                  << QByteArray() << true;
    }

    void resumeChecksTheDataFile() {
        QFETCH(int, partBytes);
        QFETCH(int, garbageBytes);
        QFETCH(qint64, offset);
        QFETCH(qint64, done);
        QFETCH(bool, setAside);
        QFETCH(QByteArray, warning);
        QFETCH(bool, finished);
        FaultyHttpServer server;
        QVERIFY(server.listen());
        const QByteArray data = randomBytes(200000);
        const QUrl url = server.url(QStringLiteral("/r.bin"));
        server.setResource(url.path(), data);
        const QString output = m_dir.filePath(QStringLiteral("resume/r.bin"));
        QFile::remove(output);
        const QString part = output + QStringLiteral(".part");
        QFile::remove(part);
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
        entry.host = {{QStringLiteral("kind"), QStringLiteral("file")},
                      {QStringLiteral("output"), output}};
        QString error;
        QVERIFY2(RecordStore(state()).save(url.toString(QUrl::FullyEncoded) + u'\n' + output, entry,
                                           &error),
                 qPrintable(error));

        const Run result = run(args(url, output));
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QVERIFY2(result.err.contains(warning), result.err.constData());
        QCOMPARE(readFile(output), data);
        const QStringList rejected =
            QDir(state()).entryList({QStringLiteral("*.rejected-*")}, QDir::Files);
        QCOMPARE(rejected.size(), setAside ? 1 : 0);
        if (finished)
            QVERIFY(server.accessLog().isEmpty());
    }

    void playlistsCannotReachLocalFiles() {
        FaultyHttpServer server;
        QVERIFY(server.listen());
        const QString local = m_dir.filePath(QStringLiteral("local/secret.m3u8"));
        QVERIFY(writeFile(local, "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\nhidden-line.ts\n"
                                 "#EXT-X-ENDLIST\n"));
        const QString output = m_dir.filePath(QStringLiteral("local/out.ts"));
        // The error for a file that exists, with its name taken out, is the error for one that
        // does not: nothing tells them apart. Each run has its own playlist, so that none
        // resumes the state another left.
        QByteArray withoutUri;
        int runs = 0;
        for (const QString& uri :
             {QUrl::fromLocalFile(local).toString(), QStringLiteral("file:///etc/passwd"),
              QUrl::fromLocalFile(m_dir.filePath(QStringLiteral("local/none.m3u8"))).toString()}) {
            const QString path = QStringLiteral("/m%1.m3u8").arg(++runs);
            server.setResource(path,
                               "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1000\n" + uri.toUtf8() + '\n');
            const Run result = run(args(server.url(path), output));
            QCOMPARE(result.exitCode, 1);
            QVERIFY2(result.err.contains(uri.toUtf8()), result.err.constData());
            QVERIFY(!result.err.contains("hidden-line") && !result.err.contains("root:"));
            const QByteArray rest = QByteArray(result.err).replace(uri.toUtf8(), "URI");
            if (withoutUri.isEmpty())
                withoutUri = rest;
            QCOMPARE(rest, withoutUri);
        }
        QVERIFY(!QFile::exists(output));
    }

    // The output's file system fills up: the run stops with the system's reason, and once there
    // is room the next run resumes from what the first saved and ends byte for byte.
    void fullDiskStopsAndResumes() {
        if (QProcess::execute(QStringLiteral("unshare"),
                              {QStringLiteral("-rm"), QStringLiteral("true")}) != 0)
            QSKIP("private user and mount namespaces are not available (unshare -rm)");
        FaultyHttpServer server;
        QVERIFY(server.listen());
        const QByteArray data = randomBytes(1 << 20);
        server.setResource(QStringLiteral("/big.bin"), data);
        const QString disk = m_dir.filePath(QStringLiteral("disk"));
        const QString logs = m_dir.filePath(QStringLiteral("disk-logs"));
        QVERIFY(QDir().mkpath(disk) && QDir().mkpath(logs));
        // Paced, so that the disk fills in the middle of a write as well as at its start.
        const QString script = QStringLiteral(
            "mount -t tmpfs -o size=256k tmpfs \"$1\" || exit 90\n"
            "\"$2\" \"$3\" -o \"$1/big.bin\" --state-dir \"$4\" --limit-rate 400k "
            "2>\"$5/first.err\"\n"
            "echo $? >\"$5/first.rc\"\n"
            "mount -o remount,size=4m \"$1\" || exit 91\n"
            "\"$2\" \"$3\" -o \"$1/big.bin\" --state-dir \"$4\" 2>\"$5/second.err\"\n"
            "echo $? >\"$5/second.rc\"\n"
            "cp \"$1/big.bin\" \"$5/result.bin\"\n");
        const Run result = run({QStringLiteral("-rm"), QStringLiteral("sh"), QStringLiteral("-c"),
                                script, QStringLiteral("sh"), disk, QStringLiteral(TERN_GET_PATH),
                                server.url(QStringLiteral("/big.bin")).toString(), state(), logs},
                               QStringLiteral("unshare"));
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QCOMPARE(readFile(logs + QStringLiteral("/first.rc")).trimmed(), QByteArray("1"));
        const QByteArray firstErr = readFile(logs + QStringLiteral("/first.err"));
        QVERIFY2(firstErr.contains("No space left on device"), firstErr.constData());
        QCOMPARE(readFile(logs + QStringLiteral("/second.rc")).trimmed(), QByteArray("0"));
        QVERIFY(readFile(logs + QStringLiteral("/result.bin")) == data);
    }

    void fragmentedMp4IsRemuxed() {
        NginxServer nginx(m_dir.filePath(QStringLiteral("www")));
        QString error;
        QVERIFY2(nginx.start(&error), qPrintable(error));
        const QString output = m_dir.filePath(QStringLiteral("out/movie.mp4"));
        const Run result = run(args(nginx.url(QStringLiteral("/fmp4/index.m3u8")), output));
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QStringList streams;
        double duration = 0;
        QVERIFY(FfmpegTestMedia::probe(output, &streams, &duration));
        QVERIFY(streams.contains(QStringLiteral("video")) &&
                streams.contains(QStringLiteral("audio")));
        QVERIFY2(duration > 3.5 && duration < 4.5, qPrintable(QString::number(duration)));
    }

    // Servers that would hang or fool a download: each run ends with exit 1 and says why.
    void hostileServersEndClearly() {
        FaultyHttpServer server;
        QVERIFY(server.listen());
        const QStringList segments = serveStream(server);
        const QString second = QStringLiteral("/s/") + QFileInfo(segments.at(1)).fileName();
        server.setFault(second, {FaultyHttpServer::FaultKind::HtmlPage, 0, -1});
        const QStringList quick{QStringLiteral("--retries"), QStringLiteral("1"),
                                QStringLiteral("--stall-timeout"), QStringLiteral("0.5")};
        Run result = run(args(server.url(QStringLiteral("/s/index.m3u8")),
                              m_dir.filePath(QStringLiteral("out/html.ts"))) +
                         quick);
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(!result.out.contains("Saved") && result.err.contains("text/html") &&
                     result.err.contains(server.url(second).toEncoded()),
                 result.err.constData());
        QCOMPARE(server.requestCount(second), 2);

        // The first request of a run is retried too, and silence ends as a time-out.
        server.setResource(QStringLiteral("/quiet"), "x");
        server.setFault(QStringLiteral("/quiet"),
                        {FaultyHttpServer::FaultKind::NeverAnswer, 0, -1});
        result = run(args(server.url(QStringLiteral("/quiet")),
                          m_dir.filePath(QStringLiteral("out/quiet.bin"))) +
                     quick);
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("no answer within 0.5 s") && !result.err.contains("canceled"),
                 result.err.constData());
        QCOMPARE(server.requestCount(QStringLiteral("/quiet")), 2);
    }

    // The request logs of a run that succeeds and of one that fails; a log folder that cannot
    // be made costs one warning, not the download.
    void requestLogs() {
        const QByteArray body = randomBytes(300000);
        QVERIFY(writeFile(m_dir.filePath(QStringLiteral("www/file.bin")), body));
        NginxServer nginx(m_dir.filePath(QStringLiteral("www")));
        QString error;
        QVERIFY2(nginx.start(&error), qPrintable(error));
        const QString logs = m_dir.filePath(QStringLiteral("logs"));
        const QString output = m_dir.filePath(QStringLiteral("out/logged.bin"));
        const QUrl url = nginx.url(QStringLiteral("/file.bin"));
        Run result = run(args(url, output) + QStringList{QStringLiteral("--log-requests"), logs});
        QVERIFY2(result.exitCode == 0, result.err.constData());
        const auto head = [](const QUrl& url) {
            return QStringList{QStringLiteral("RESOURCE URL: ") + url.toString(),
                               QStringLiteral("REQUEST HEADERS: GET ") + url.toString(),
                               QStringLiteral("RESPONSE HEADERS: HTTP/1.1 200 OK")};
        };
        QCOMPARE(onlyLog(logs), head(url) << QStringLiteral("BODY: Saved in the file: ") + output);

        // The probe reads no body, so only the download itself loses its connection.
        FaultyHttpServer faulty;
        QVERIFY(faulty.listen());
        faulty.setResource(QStringLiteral("/file.bin"), body);
        faulty.setFault(QStringLiteral("/file.bin"),
                        {FaultyHttpServer::FaultKind::DropAfterBytes, 1000, -1});
        const QUrl failing = faulty.url(QStringLiteral("/file.bin"));
        result = run(args(failing, m_dir.filePath(QStringLiteral("out/dropped.bin"))) +
                     QStringList{QStringLiteral("--log-requests"), logs + QStringLiteral("2"),
                                 QStringLiteral("--retries"), QStringLiteral("0")});
        QCOMPARE(result.exitCode, 1);
        QStringList failed = onlyLog(logs + QStringLiteral("2"));
        QVERIFY2(failed.size() == 4 &&
                     failed.takeLast().startsWith(QLatin1String("ERROR: {ERROR: |CODE|: ")),
                 qPrintable(failed.join(u'|')));
        QCOMPARE(failed, head(failing));

        const QString unlogged = m_dir.filePath(QStringLiteral("out/unlogged.bin"));
        result = run(args(url, unlogged) + QStringList{QStringLiteral("--log-requests"),
                                                       output + QStringLiteral("/logs"),
                                                       QStringLiteral("--quiet")});
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QCOMPARE(readFile(unlogged), body);
        QCOMPARE(result.err.count("no request log is written"), 1);
        QVERIFY2(result.err.count('\n') == 1, result.err.constData()); // --quiet: nothing else
        QVERIFY(result.out.isEmpty());
    }

    void jsonProgressOnStdout() {
        FaultyHttpServer server;
        QVERIFY(server.listen());
        const QByteArray body = randomBytes(300000);
        server.setResource(QStringLiteral("/file.bin"), body);
        const QString output = m_dir.filePath(QStringLiteral("out/json.bin"));
        const QStringList json{QStringLiteral("--progress=json")};
        Run result = run(args(server.url(QStringLiteral("/file.bin")), output) + json +
                         QStringList{QStringLiteral("--limit-rate"), QStringLiteral("100k")});
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QCOMPARE(readFile(output), body); // the limit holds bytes back, never drops them
        const QList<QByteArray> lines = result.out.trimmed().split('\n');
        QVERIFY2(lines.size() >= 3, result.out.constData()); // at least 2 s at 100 KiB/s
        qint64 done = 0;
        for (qsizetype i = 0; i < lines.size() - 1; ++i) {
            const QJsonObject progress = QJsonDocument::fromJson(lines[i]).object();
            QCOMPARE(progress.value(QLatin1String("type")).toString(), QStringLiteral("progress"));
            const bool last = i == lines.size() - 2;
            QCOMPARE(progress.value(QLatin1String("state")).toString(),
                     last ? QStringLiteral("finished") : QStringLiteral("downloading"));
            QVERIFY(progress.value(QLatin1String("bytesDone")).toInteger() >= done);
            done = progress.value(QLatin1String("bytesDone")).toInteger();
            QCOMPARE(progress.value(QLatin1String("bytesTotal")).toInteger(), body.size());
        }
        QCOMPARE(done, body.size());
        const QJsonObject end = QJsonDocument::fromJson(lines.constLast()).object();
        QCOMPARE(end.value(QLatin1String("outcome")).toString(), QStringLiteral("done"));
        QCOMPARE(end.value(QLatin1String("output")).toString(), output);

        server.setFault(QStringLiteral("/file.bin"), {FaultyHttpServer::FaultKind::Status, 404});
        result = run(args(server.url(QStringLiteral("/file.bin")),
                          m_dir.filePath(QStringLiteral("out/json404.bin"))) +
                     json + QStringList{QStringLiteral("--quiet")});
        QCOMPARE(result.exitCode, 1);
        const QJsonObject failed = QJsonDocument::fromJson(result.out).object();
        QCOMPARE(failed.value(QLatin1String("outcome")).toString(), QStringLiteral("failed"));
        QVERIFY(failed.value(QLatin1String("error")).toString().contains(QStringLiteral("404")));
        QVERIFY(result.err.startsWith("tern-get: HTTP error 404"));
    }
};

QTEST_GUILESS_MAIN(TestTernGetCli)
#include "tst_terngetcli.moc"
