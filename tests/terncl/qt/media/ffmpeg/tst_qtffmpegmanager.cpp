#include <terncl/qt/media/ffmpeg/qtffmpegmanager.h>

#include "support/ffmpegtestmedia.h"
#include "support/recordinglogger.h"
#include "support/signalrecorder.h"
#include "support/testchild.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {
QString s(const char* text) {
    return QString::fromUtf8(text);
}
QStringList texts(const char* separatedBySemicolons) {
    return s(separatedBySemicolons).split(QLatin1Char(';'));
}
// Records the manager's duration and progress, in order.
void recordReports(SignalRecorder* reports, const QtFfmpegManager* manager) {
    reports->record(manager, &QtFfmpegManager::duration, s("duration"));
    reports->record<QtProcessLaunchManager>(manager, &QtProcessLaunchManager::progress,
                                            s("progress"));
}
} // namespace

class TestQtFfmpegManager : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_video;

    static QString ffmpegFolder() { return QFileInfo(FfmpegTestMedia::ffmpeg()).path(); }

private Q_SLOTS:
    void initTestCase() {
        if (FfmpegTestMedia::ffmpeg().isEmpty())
            QSKIP("ffmpeg is not installed");
        m_video = m_dir.filePath(s("clip/video.mp4"));
        QVERIFY(QDir().mkpath(m_dir.filePath(s("clip"))));
        QString error;
        QVERIFY2(FfmpegTestMedia::makeVideoOnly(m_video, 5, &error), qPrintable(error));
    }

    void cleanup() {
        if (TestChild::runningChildCount() >= 0)
            QTRY_COMPARE(TestChild::runningChildCount(), 0);
    }

    void pathsAndTimeHelpers() {
        const struct {
            const char *folder, *expected;
        } paths[] = {{"/usr/bin", "/usr/bin/ffmpeg"},
                     {"/usr/bin/", "/usr/bin/ffmpeg"},
                     {"", "ffmpeg"},
                     {"C:\\tools\\", "C:\\tools\\/ffmpeg"}};
        for (const auto& p : paths)
            QCOMPARE(QtFfmpegManager(s(p.folder), s("ffmpeg"), nullptr).ffmpegPath(),
                     s(p.expected));

        QCOMPARE(QtFfmpegManager::secondsFromFfmpegTimeString(s("01:02:05.00")), 3725);
        QCOMPARE(QtFfmpegManager::secondsFromFfmpegTimeString(s("00:01:05.99")), 65);
        QCOMPARE(QtFfmpegManager::secondsFromFfmpegTimeString(s("00:01:05")), -1);
        QCOMPARE(QtFfmpegManager::secondsFromFfmpegTimeString(s("N/A")), -1);
        QCOMPARE(QtFfmpegManager::secondsToFfmpegString(3725), s("01:02:05.00"));
        QCOMPARE(QtFfmpegManager::secondsToFfmpegString(59), s("00:00:59.00"));
        QCOMPARE(QtFfmpegManager::idealFfmpegCount(1), 1);
        QCOMPARE(QtFfmpegManager::idealFfmpegCount(16), 8);
    }

    void versionCheck() {
        QtFfmpegManager real(ffmpegFolder(), s("ffmpeg"), nullptr);
        QVERIFY(real.isFfmpegInstalled(false));
        QVERIFY2(QRegularExpression(s("^\\d+(\\.\\d+)*$")).match(real.ffmpegVersion()).hasMatch(),
                 qPrintable(real.ffmpegVersion()));
        QVERIFY(real.isMp3LamePresent(false)); // Debian's ffmpeg is built with it

        QtFfmpegManager missing(s("/nonexistent/folder"), s("ffmpeg"), nullptr);
        QVERIFY(!missing.isFfmpegInstalled(false));
        QVERIFY(!missing.isMp3LamePresent(true));
        QVERIFY(missing.ffmpegVersion().isEmpty());

        // A program that never answers counts as not installed once the limit has passed.
        const QString hang = TestChild::makeFakeTool(m_dir.path(), s("hang"));
        QtFfmpegManager hanging(m_dir.path(), hang, nullptr);
        hanging.setVersionCheckTimeout(300);
        QVERIFY(!hanging.isFfmpegInstalled(false));
        QVERIFY(TestChild::runningChildCount() <= 0); // killed, not left behind

        // The answer is cached until a check is forced.
        const QString link = m_dir.filePath(s("linked-ffmpeg"));
        QVERIFY(QFile::link(s("/nonexistent/ffmpeg"), link));
        QtFfmpegManager linked(m_dir.path(), s("linked-ffmpeg"), nullptr);
        QVERIFY(!linked.isFfmpegInstalled(false));
        QVERIFY(QFile::remove(link));
        QVERIFY(QFile::link(FfmpegTestMedia::ffmpeg(), link));
        QVERIFY(!linked.isFfmpegInstalled(false));
        QVERIFY(linked.isFfmpegInstalled(true));
        QVERIFY(linked.isFfmpegInstalled(false));
    }

    void durationThenTimeFromChunkedOutput() {
        QtFfmpegManager manager(QString(), s("ffmpeg"), nullptr);
        SignalRecorder reports;
        recordReports(&reports, &manager);
        // The parser listens to the manager's own signals; feeding them drives it chunk by chunk.
        const auto feed = [&](int id, const char* chunk) {
            Q_EMIT manager.dataFromProcess(id, QByteArray(chunk));
        };
        Q_EMIT manager.launching(1);
        feed(1, "  Durat");
        feed(1, "ion: 00:01:05.50, start: 0.000000, bitrate: 318 kb/s\n");
        feed(1, "frame=  1 time=00:00:10.500 bitr");
        QCOMPARE(reports.events(), texts("duration(1, 65)"));
        feed(1, "ate=1kbit/s\r");
        feed(1, "frame=  2 time=00:01:10.00 bitrate=1kbit/s\rframe=  3 time=00:01:05.500");
        Q_EMIT manager.finished(1, AbstractError(), 0);
        // Two-digit fractions never round up, three-digit ones from 500.
        QCOMPARE(reports.events(),
                 texts("duration(1, 65);progress(1, 11, 65);duration(1, 70);progress(1, 70, 70);"
                       "progress(1, 66, 70)"));

        // The longest input wins, and nothing else is read in the call that finds the duration.
        reports.clear();
        Q_EMIT manager.launching(2);
        feed(2, "Duration: 00:00:05.00, x\nDuration : 00:00:07.999\ntime=00:00:01.00\n");
        feed(3, "Duration: 00:00:09.00\n"); // never launched: ignored
        feed(2, "time=00:00:02.00 time=00:00:03.00\n");
        Q_EMIT manager.finished(2, AbstractError(), 0);
        QCOMPARE(reports.events(), texts("duration(2, 8);progress(2, 2, 8)"));
    }

    void probeOfARealFile() {
        RecordingLogger log;
        QtFfmpegManager manager(ffmpegFolder(), s("ffmpeg"), nullptr);
        SignalRecorder reports;
        recordReports(&reports, &manager);
        QSignalSpy finished(&manager, &QtProcessLaunchManager::finished);
        const int id = manager.nextId();
        manager.launchFfmpeg(id, m_video, true);
        QVERIFY(finished.wait());
        QCOMPARE(reports.events(), QStringList{s("duration(%1, 5)").arg(id)});
        QCOMPARE(finished.at(0).at(2).toInt(), 1); // no output file given
        QVERIFY(log.contains(QStringLiteral("[QtProcessLaunchManager #%1]: launching process: %2, "
                                            "with args: -i %3")
                                 .arg(id)
                                 .arg(manager.ffmpegPath(), m_video)));

        // The probe runs in the file's folder.
        QtFfmpegManager fake(m_dir.path(), TestChild::makeFakeTool(m_dir.path(), s("cwd")),
                             nullptr);
        QByteArray output;
        connect(&fake, &QtProcessLaunchManager::dataFromProcess, &fake,
                [&](int, const QByteArray& bytes) { output += bytes; });
        QSignalSpy fakeFinished(&fake, &QtProcessLaunchManager::finished);
        fake.launchFfmpeg(1, m_video, false);
        QVERIFY(fakeFinished.wait());
        QCOMPARE(output,
                 s("cwd: %1\narg: -i\narg: %2\n").arg(QFileInfo(m_video).path(), m_video).toUtf8());
    }
};

QTEST_GUILESS_MAIN(TestQtFfmpegManager)
#include "tst_qtffmpegmanager.moc"
