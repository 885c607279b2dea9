#include "support/faultyhttpserver.h"
#include "support/ffmpegtestmedia.h"
#include "support/nginxserver.h"
#include "support/testfiles.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

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

    Run run(const QStringList& arguments) {
        QProcess process;
        process.start(QStringLiteral(TERN_GET_PATH), arguments);
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

    void downloadsAStreamByteForByte() {
        NginxServer nginx(m_dir.filePath(QStringLiteral("www")));
        QString error;
        QVERIFY2(nginx.start(&error), qPrintable(error));
        const QString output = m_dir.filePath(QStringLiteral("out/stream.ts"));
        const Run result = run(args(nginx.url(QStringLiteral("/ts/index.m3u8")), output));
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QVERIFY(result.out.contains("Saved to"));
        const QStringList segments =
            FfmpegTestMedia::segmentFiles(m_stream + QStringLiteral("/index.m3u8"));
        QVERIFY(segments.size() >= 20);
        QCOMPARE(readFile(output), concatenation(segments));
        QVERIFY(!QFile::exists(output + QStringLiteral(".part")));
        QCOMPARE(savedSegmentsDone(), -1); // a finished download leaves no state behind
    }

    void killedRunResumesWithoutRefetching() {
        NginxServer nginx(m_dir.filePath(QStringLiteral("www")));
        QString error;
        QVERIFY2(nginx.start(&error), qPrintable(error));
        const QString output = m_dir.filePath(QStringLiteral("out/killed.ts"));
        QProcess first;
        first.start(QStringLiteral(TERN_GET_PATH),
                    args(nginx.url(QStringLiteral("/ts/index.m3u8")), output) +
                        QStringList{QStringLiteral("--limit-rate"), QStringLiteral("150k")});
        QTRY_VERIFY_WITH_TIMEOUT(savedSegmentsDone() >= 4, 60000);
        ::kill(pid_t(first.processId()), SIGKILL);
        QVERIFY(first.waitForFinished());
        const int doneAtKill = savedSegmentsDone();
        QVERIFY(doneAtKill >= 4);

        const Run second = run(args(nginx.url(QStringLiteral("/ts/index.m3u8")), output));
        QVERIFY2(second.exitCode == 0, second.err.constData());
        const QStringList segments =
            FfmpegTestMedia::segmentFiles(m_stream + QStringLiteral("/index.m3u8"));
        QCOMPARE(readFile(output), concatenation(segments));
        for (int i = 0; i < doneAtKill; ++i) {
            const QString path = QStringLiteral("/ts/") + QFileInfo(segments.at(i)).fileName();
            int fetched = 0;
            for (const auto& access : nginx.accessLog())
                fetched += access.path == path ? 1 : 0;
            QVERIFY2(fetched == 1, qPrintable(path));
        }
    }

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
        const Run second = run(args(nginx.url(QStringLiteral("/ts/index.m3u8")), output));
        QVERIFY2(second.exitCode == 0, second.err.constData());
        QCOMPARE(readFile(output), concatenation(FfmpegTestMedia::segmentFiles(
                                       m_stream + QStringLiteral("/index.m3u8"))));
    }

    void failuresOfTheServer() {
        FaultyHttpServer server;
        QVERIFY(server.listen());
        const QStringList segments =
            FfmpegTestMedia::segmentFiles(m_stream + QStringLiteral("/index.m3u8"));
        server.setResource(QStringLiteral("/s/index.m3u8"),
                           readFile(m_stream + QStringLiteral("/index.m3u8")));
        for (const auto& segment : segments)
            server.setResource(QStringLiteral("/s/") + QFileInfo(segment).fileName(),
                               readFile(segment));
        const QString third = QStringLiteral("/s/") + QFileInfo(segments.at(2)).fileName();

        // A dropped connection is retried and the result is still exact.
        server.setFault(third, {FaultyHttpServer::FaultKind::DropAfterBytes, 1000, 1});
        const QString output = m_dir.filePath(QStringLiteral("out/faulty.ts"));
        Run result = run(args(server.url(QStringLiteral("/s/index.m3u8")), output));
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QCOMPARE(readFile(output), concatenation(segments));
        QCOMPARE(server.requestCount(third), 2);

        // A forbidden segment stops the download with the server's status.
        server.setFault(third, {FaultyHttpServer::FaultKind::Status, 403, -1});
        result = run(args(server.url(QStringLiteral("/s/index.m3u8")),
                          m_dir.filePath(QStringLiteral("out/forbidden.ts"))));
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("HttpError") && result.err.contains("403"),
                 result.err.constData());

        server.setFault(QStringLiteral("/s/index.m3u8"),
                        {FaultyHttpServer::FaultKind::Status, 404, -1});
        result = run(args(server.url(QStringLiteral("/s/index.m3u8")),
                          m_dir.filePath(QStringLiteral("out/missing.ts"))));
        QCOMPARE(result.exitCode, 1);
        QVERIFY(result.err.contains("404"));
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
        const QStringList segments =
            FfmpegTestMedia::segmentFiles(m_stream + QStringLiteral("/index.m3u8"));
        server.setResource(QStringLiteral("/s/index.m3u8"),
                           readFile(m_stream + QStringLiteral("/index.m3u8")));
        for (const auto& segment : segments)
            server.setResource(QStringLiteral("/s/") + QFileInfo(segment).fileName(),
                               readFile(segment));
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

        server.setFault(QStringLiteral("/quiet"),
                        {FaultyHttpServer::FaultKind::HugeHeaders, 10000, -1});
        result = run(args(server.url(QStringLiteral("/quiet")),
                          m_dir.filePath(QStringLiteral("out/heads.bin"))));
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("larger than 64 KiB"), result.err.constData());
    }
};

QTEST_GUILESS_MAIN(TestTernGetCli)
#include "tst_terngetcli.moc"
