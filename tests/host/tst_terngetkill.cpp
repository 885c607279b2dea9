#include "support/ffmpegtestmedia.h"
#include "support/nginxserver.h"
#include "support/testfiles.h"

#include <terncl/inet/qt/download/abstractdownloadpersistentinfo.h>
#include <terncl/inet/qt/download/independentsegmentsdownloader.h>

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

using namespace Qt::StringLiterals;

// tern-get fetching four segments at once, killed outright at random moments and run again each
// time, must end with the stream byte for byte, every record it saved on the way must claim
// only bytes that are in the file, and no segment such a record counts as done is fetched again.
class TestTernGetKill : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QByteArray m_all;           // the segments back to back
    QList<qint64> m_prefixSize; // [i]: bytes of the first i segments
    QStringList m_names;        // the segments' file names in order

    QString state() const { return m_dir.filePath(u"state"_s); }

    // The saved record agrees with the host's count of finished segments, put in done, and
    // with the file.
    void checkSavedState(int* done) {
        const QStringList saved = QDir(state()).entryList({u"*.json"_s}, QDir::Files);
        if (saved.isEmpty())
            return; // killed before the first save
        const auto root = QJsonDocument::fromJson(readFile(QDir(state()).filePath(saved[0])));
        const auto record = AbstractDownloadPersistentInfo::fromJson(
            QJsonDocument(root[u"record"_s].toObject()).toJson());
        *done = root[u"host"_s][u"segmentsDone"_s].toInt();
        const qint64 total =
            record.customData.value(IndependentSegmentsDownloader::DownloadedSegmentsTotalKey)
                .toLongLong();
        QCOMPARE(total, m_prefixSize.value(*done, -1));
        QVERIFY(record.hasFiles());
        const qint64 claimed = record.files[0].downloadedBytes();
        QCOMPARE(readFile(record.files[0].tmpPath).left(claimed), m_all.left(claimed));
    }

private Q_SLOTS:
    void killedAtRandomMomentsEndsByteExact() {
        if (FfmpegTestMedia::ffmpeg().isEmpty() || NginxServer::executable().isEmpty())
            QSKIP("ffmpeg and nginx are needed (scripts/install-deps installs them)");
        const QString stream = m_dir.filePath(u"www/s"_s);
        QString error;
        QVERIFY2(FfmpegTestMedia::makeHls(stream, 60, 0.5, false, &error), qPrintable(error));
        const QStringList segments = FfmpegTestMedia::segmentFiles(stream + u"/index.m3u8"_s);
        m_prefixSize = {0};
        for (const auto& segment : segments) {
            m_all += readFile(segment);
            m_names.append(QFileInfo(segment).fileName());
            m_prefixSize.append(m_all.size());
        }
        NginxServer nginx(m_dir.filePath(u"www"_s));
        QVERIFY2(nginx.start(&error), qPrintable(error));
        const QString output = m_dir.filePath(u"out/s.ts"_s);
        const QStringList args = QStringList{nginx.url(u"/s/index.m3u8"_s).toString(), u"-o"_s,
                                             output, u"--state-dir"_s, state()}
                                 << u"-N"_s << u"4"_s;
        const quint32 seed = QRandomGenerator::global()->generate();
        QRandomGenerator random(seed);
        constexpr int kills = 20;
        int done = 0;
        QList<std::pair<qsizetype, int>> doneAt; // the access log's length at a kill, and done
        for (int i = 0; i < kills; ++i) {
            QProcess run;
            // Slow enough for every run to end with segments in flight.
            run.start(QStringLiteral(TERN_GET_PATH),
                      args + QStringList{u"--limit-rate"_s, u"100k"_s});
            QVERIFY(run.waitForStarted());
            QTest::qWait(int(random.bounded(1500))); // the random moment is the point
            QVERIFY2(run.state() == QProcess::Running, qPrintable(QString::number(seed)));
            ::kill(pid_t(run.processId()), SIGKILL);
            QVERIFY(run.waitForFinished());
            checkSavedState(&done);
            doneAt.append({nginx.accessLog().size(), done});
            if (QTest::currentTestFailed())
                QFAIL(qPrintable(u"seed %1, kill %2"_s.arg(seed).arg(i)));
        }

        QProcess last;
        last.start(QStringLiteral(TERN_GET_PATH), args);
        QVERIFY(last.waitForFinished(120000));
        QVERIFY2(last.exitCode() == 0, last.readAllStandardError().constData());
        QCOMPARE(readFile(output), m_all);
        QCOMPARE(QDir(m_dir.filePath(u"out"_s)).entryList(QDir::Files),
                 QStringList{u"s.ts"_s}); // no spill file left behind
        // A kill costs the segments in flight, and at most one finished in the moment before
        // its record was saved; a segment saved as done is never fetched again.
        int fetches = 0;
        const auto log = nginx.accessLog();
        done = 0;
        for (qsizetype i = 0, kill = 0; i < log.size(); ++i) {
            while (kill < doneAt.size() && doneAt.at(kill).first <= i)
                done = doneAt.at(kill++).second;
            const QString name = log.at(i).path.section(u'/', -1);
            fetches += name.endsWith(u".ts"_s) ? 1 : 0;
            QVERIFY2(m_names.indexOf(name) < 0 || m_names.indexOf(name) >= done, qPrintable(name));
        }
        QVERIFY2(fetches <= segments.size() + kills * (4 + 1),
                 qPrintable(QString::number(fetches)));
    }
};

QTEST_GUILESS_MAIN(TestTernGetKill)
#include "tst_terngetkill.moc"
