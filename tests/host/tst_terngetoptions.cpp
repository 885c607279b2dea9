#include "support/faultyhttpserver.h"
#include "support/nginxserver.h"
#include "support/requestlogs.h"
#include "support/testfiles.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {
struct Run {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

QStringList sectionTitles(const QString& logFile) {
    QStringList titles;
    for (const auto& section : parseRequestLog(readFile(logFile)))
        titles.append(section.title);
    return titles;
}

QString sectionText(const QString& logFile, const QString& title) {
    for (const auto& section : parseRequestLog(readFile(logFile)))
        if (section.title == title)
            return section.lines.join(u'\n');
    return QStringLiteral("<no section>");
}
} // namespace

// tern-get's request logs and output options, run as a program against loopback servers.
class TestTernGetOptions : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QByteArray m_body;
    int m_runs = 0;

    // A fresh output file and state folder for each run.
    Run run(const QUrl& url, const QStringList& extra, QString* output = nullptr) {
        const QString name = QStringLiteral("run%1").arg(++m_runs);
        // Distinct names: log files of runs in the same second differ only by them.
        const QString out = m_dir.filePath(name + QLatin1Char('/') + name);
        if (output)
            *output = out;
        QProcess process;
        process.start(QStringLiteral(TERN_GET_PATH),
                      QStringList{url.toString(), QStringLiteral("-o"), out,
                                  QStringLiteral("--state-dir"),
                                  m_dir.filePath(name + QStringLiteral("/state"))} +
                          extra);
        // The event loop keeps turning: the fault-injecting server lives in this process.
        if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 60000)) {
            process.kill();
            process.waitForFinished();
        }
        return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
                process.readAllStandardOutput(), process.readAllStandardError()};
    }

private Q_SLOTS:
    void initTestCase() {
        QVERIFY(m_dir.isValid());
        for (int i = 0; i < 300000; ++i)
            m_body.append(char('a' + i % 26));
        QVERIFY(writeFile(m_dir.filePath(QStringLiteral("www/file.bin")), m_body));
    }

    void requestLogsOfASuccessfulAndAFailedRun() {
        if (NginxServer::executable().isEmpty())
            QSKIP("nginx is needed (scripts/install-deps installs it)");
        NginxServer nginx(m_dir.filePath(QStringLiteral("www")));
        QString error;
        QVERIFY2(nginx.start(&error), qPrintable(error));
        const QString logs = m_dir.filePath(QStringLiteral("logs"));
        QString output;
        const QUrl url = nginx.url(QStringLiteral("/file.bin"));
        Run result = run(url, {QStringLiteral("--log-requests"), logs}, &output);
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QStringList files = requestLogFiles(logs);
        QCOMPARE(files.size(), 1);
        QCOMPARE(sectionTitles(files[0]),
                 (QStringList{QStringLiteral("RESOURCE URL"), QStringLiteral("REQUEST HEADERS"),
                              QStringLiteral("RESPONSE HEADERS"), QStringLiteral("BODY")}));
        QCOMPARE(sectionText(files[0], QStringLiteral("RESOURCE URL")), url.toString());
        QVERIFY(sectionText(files[0], QStringLiteral("REQUEST HEADERS"))
                    .startsWith(QLatin1String("GET ")));
        QVERIFY(sectionText(files[0], QStringLiteral("RESPONSE HEADERS"))
                    .startsWith(QLatin1String("HTTP/1.1 200 ")));
        QCOMPARE(sectionText(files[0], QStringLiteral("BODY")),
                 QStringLiteral("Saved in the file: ") + output);

        // The probe reads no body, so only the download itself loses its connection.
        FaultyHttpServer faulty;
        QVERIFY(faulty.listen());
        faulty.setResource(QStringLiteral("/file.bin"), m_body);
        faulty.setFault(QStringLiteral("/file.bin"),
                        {FaultyHttpServer::FaultKind::DropAfterBytes, 1000, -1});
        result = run(faulty.url(QStringLiteral("/file.bin")),
                     {QStringLiteral("--log-requests"), logs, QStringLiteral("--retries"),
                      QStringLiteral("0")});
        QCOMPARE(result.exitCode, 1);
        files = requestLogFiles(logs);
        QCOMPARE(files.size(), 2);
        QCOMPARE(sectionTitles(files[1]),
                 (QStringList{QStringLiteral("RESOURCE URL"), QStringLiteral("REQUEST HEADERS"),
                              QStringLiteral("RESPONSE HEADERS"), QStringLiteral("ERROR")}));
        QVERIFY(sectionText(files[1], QStringLiteral("ERROR"))
                    .startsWith(QLatin1String("{ERROR: |CODE|: ")));
    }

    void anUnusableLogFolderCostsOnlyAWarning() {
        FaultyHttpServer server;
        QVERIFY(server.listen());
        server.setResource(QStringLiteral("/file.bin"), m_body);
        const QString file = m_dir.filePath(QStringLiteral("a-file"));
        QVERIFY(writeFile(file, "x"));
        QString output;
        const Run result = run(server.url(QStringLiteral("/file.bin")),
                               {QStringLiteral("--log-requests"), file + QStringLiteral("/logs"),
                                QStringLiteral("--quiet")},
                               &output);
        QVERIFY2(result.exitCode == 0, result.err.constData());
        QCOMPARE(readFile(output), m_body);
        QCOMPARE(result.err.count("no request log is written"), 1);
        QVERIFY2(result.err.count('\n') == 1, result.err.constData()); // --quiet: nothing else
        QVERIFY(result.out.isEmpty());
    }

    void jsonProgressOnStdout() {
        FaultyHttpServer server;
        QVERIFY(server.listen());
        server.setResource(QStringLiteral("/file.bin"), m_body);
        QString output;
        Run result = run(server.url(QStringLiteral("/file.bin")),
                         {QStringLiteral("--progress=json"), QStringLiteral("--limit-rate"),
                          QStringLiteral("100k")},
                         &output);
        QVERIFY2(result.exitCode == 0, result.err.constData());
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
            QCOMPARE(progress.value(QLatin1String("bytesTotal")).toInteger(), m_body.size());
        }
        QCOMPARE(done, m_body.size());
        const QJsonObject end = QJsonDocument::fromJson(lines.constLast()).object();
        QCOMPARE(end.value(QLatin1String("outcome")).toString(), QStringLiteral("done"));
        QCOMPARE(end.value(QLatin1String("output")).toString(), output);

        server.setFault(QStringLiteral("/file.bin"), {FaultyHttpServer::FaultKind::Status, 404});
        result = run(server.url(QStringLiteral("/file.bin")),
                     {QStringLiteral("--progress=json"), QStringLiteral("--quiet")});
        QCOMPARE(result.exitCode, 1);
        const QJsonObject failed = QJsonDocument::fromJson(result.out).object();
        QCOMPARE(failed.value(QLatin1String("outcome")).toString(), QStringLiteral("failed"));
        QVERIFY(failed.value(QLatin1String("error")).toString().contains(QStringLiteral("404")));
        QVERIFY(result.err.startsWith("tern-get: HTTP error 404"));
    }
};

QTEST_GUILESS_MAIN(TestTernGetOptions)
#include "tst_terngetoptions.moc"
