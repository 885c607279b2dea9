#include <terncl/qt/media/ffmpeg/ffmpegpaths_p.h>
#include <terncl/qt/media/ffmpeg/qtffmpegavmerger.h>

#include "support/ffmpegtestmedia.h"
#include "support/recordinglogger.h"
#include "support/testchild.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {
// A merger's ends, with what its manager saw of the same launches, in one ordered list.
class Merges : public QObject {
public:
    Merges(QtFfmpegAvMerger* merger, QtFfmpegManager* manager) {
        connect(manager, &QtProcessLaunchManager::launching, this,
                [this](int id) { list << QStringLiteral("launching %1").arg(id); });
        connect(manager, &QtProcessLaunchManager::dataFromProcess, this,
                [this](int id, const QByteArray& bytes) { output[id] += bytes; });
        connect(manager, &QtProcessLaunchManager::finished, this,
                [this](int id, const AbstractError&, int code) { exitCodes[id] = code; });
        connect(merger, &QtFfmpegAvMerger::progress, this, [this](int id, int current, int total) {
            progressBeyondTotal = progressBeyondTotal || current > total;
            progressed << id;
        });
        connect(merger, &QtFfmpegAvMerger::finished, this,
                [this](int id, const AbstractError& error, qint64 size) {
                    list << QStringLiteral("finished %1").arg(id);
                    errors[id] = error;
                    sizes[id] = size;
                });
    }
    bool has(const QString& event) const { return list.contains(event); }

    QStringList list;
    QHash<int, QByteArray> output;
    QHash<int, int> exitCodes;
    QHash<int, AbstractError> errors;
    QHash<int, qint64> sizes;
    QList<int> progressed;
    bool progressBeyondTotal = false;
};

QString description(const AbstractError& error) {
    return QString::fromStdString(error.description);
}
} // namespace

class TestQtFfmpegAvMerger : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_video, m_audio;

    QSharedPointer<QtFfmpegManager> realManager() const {
        return QSharedPointer<QtFfmpegManager>::create(QFileInfo(FfmpegTestMedia::ffmpeg()).path(),
                                                       QStringLiteral("ffmpeg"), nullptr);
    }
    QString path(const QString& name) const { return m_dir.filePath(name); }

private Q_SLOTS:
    void initTestCase() {
        if (FfmpegTestMedia::ffmpeg().isEmpty() || FfmpegTestMedia::ffprobe().isEmpty())
            QSKIP("ffmpeg and ffprobe are not installed");
        QVERIFY(QDir().mkpath(path(QStringLiteral("video"))));
        QVERIFY(QDir().mkpath(path(QStringLiteral("audio"))));
        m_video = path(QStringLiteral("video/v.mp4"));
        m_audio = path(QStringLiteral("audio/a.m4a"));
        QString error;
        QVERIFY2(FfmpegTestMedia::makeVideoOnly(m_video, 3, &error), qPrintable(error));
        QVERIFY2(FfmpegTestMedia::makeAudioOnly(m_audio, 3, &error), qPrintable(error));
    }

    void cleanup() {
        if (TestChild::runningChildCount() >= 0)
            QTRY_COMPARE(TestChild::runningChildCount(), 0);
    }

    void directoryPart_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("expected");
        QTest::newRow("nested") << QStringLiteral("/a/b/c.mp4") << QStringLiteral("/a/b");
        QTest::newRow("root") << QStringLiteral("/c.mp4") << QStringLiteral("/");
        QTest::newRow("drive") << QStringLiteral("C:\\c.mp4") << QStringLiteral("C:\\");
        QTest::newRow("drive folder") << QStringLiteral("C:\\a\\c.mp4") << QStringLiteral("C:\\a");
        QTest::newRow("mixed") << QStringLiteral("a\\b/c.mp4") << QStringLiteral("a\\b");
        QTest::newRow("bare name") << QStringLiteral("c.mp4") << QString();
    }
    void directoryPart() {
        QFETCH(QString, path);
        QFETCH(QString, expected);
        QCOMPARE(terncl::ffmpegDirectoryPart(path), expected);
    }

    void argumentsAndWorkingDirectory() {
        RecordingLogger log;
        const QString fake = TestChild::makeFakeTool(m_dir.path(), QStringLiteral("cwd"));
        auto manager = QSharedPointer<QtFfmpegManager>::create(m_dir.path(), fake, nullptr);
        QtFfmpegAvMerger merger(manager);
        Merges merges(&merger, manager.data());
        const QString result = path(QStringLiteral("out.mp4"));

        merger.merge(1, m_video, QString(), result, QString());
        merger.merge(2, QString(), m_audio, result, QStringLiteral("mp4"));
        QTRY_VERIFY(merges.has(QStringLiteral("finished 2")));

        const QString launch = QStringLiteral("[QtProcessLaunchManager #%1]: launching process: ") +
                               manager->ffmpegPath() + QStringLiteral(", with args: ");
        QVERIFY(log.contains(
            launch.arg(1) +
            QStringLiteral("-y -i %1 -vcodec copy -acodec copy %2").arg(m_video, result)));
        QVERIFY(log.contains(
            launch.arg(2) +
            QStringLiteral("-y -i %1 -vcodec copy -acodec copy -f mp4 %2").arg(m_audio, result)));
        QVERIFY(
            merges.output[1].startsWith("cwd: " + path(QStringLiteral("video")).toUtf8() + "\n"));
        QVERIFY(
            merges.output[2].startsWith("cwd: " + path(QStringLiteral("audio")).toUtf8() + "\n"));
        QVERIFY(!merges.errors[1].isSet());
        QCOMPARE(merges.sizes[1], 0); // nothing was written
    }

    void realMergeIntoALongPath() {
        // Deep enough for the whole path to pass the 260 characters that some systems reject.
        QString folder = m_dir.path();
        while (folder.size() < 280)
            folder += QStringLiteral("/a-rather-long-folder-name");
        QVERIFY(QDir().mkpath(folder));
        const QString video = folder + QStringLiteral("/v.mp4");
        QVERIFY(QFile::copy(m_video, video));
        const QString result = folder + QStringLiteral("/merged.mp4");
        QVERIFY(result.size() >= 260);

        auto manager = realManager();
        QtFfmpegAvMerger merger(manager);
        QVERIFY(merger.isSupported(false));
        Merges merges(&merger, manager.data());
        const int first = merger.nextId();
        const int second = merger.nextId();
        merger.merge(first, video, m_audio, result, QString());
        merger.merge(second, m_video, m_audio, path(QStringLiteral("second.mkv")), QString());
        QTRY_VERIFY_WITH_TIMEOUT(merges.has(QStringLiteral("finished %1").arg(second)), 60000);

        // Merges wait for each other.
        QCOMPARE(merges.list, QStringList({QStringLiteral("launching %1").arg(first),
                                           QStringLiteral("finished %1").arg(first),
                                           QStringLiteral("launching %1").arg(second),
                                           QStringLiteral("finished %1").arg(second)}));
        QVERIFY2(!merges.errors[first].isSet(), qPrintable(merges.errors[first].toText()));
        QCOMPARE(merges.sizes[first], QFileInfo(result).size());
        QVERIFY(merges.sizes[first] > 0);
        QVERIFY(!merges.progressBeyondTotal);

        for (const QString& file : {result, path(QStringLiteral("second.mkv"))}) {
            QStringList streams;
            double seconds = 0;
            QVERIFY(FfmpegTestMedia::probe(file, &streams, &seconds));
            streams.sort();
            QCOMPARE(streams, QStringList({QStringLiteral("audio"), QStringLiteral("video")}));
            QVERIFY2(qAbs(seconds - 3.0) < 0.2, qPrintable(QString::number(seconds)));
        }
    }

    void failuresAreReportedClearly() {
        auto manager = realManager();
        QtFfmpegAvMerger merger(manager);
        Merges merges(&merger, manager.data());
        merger.merge(1, path(QStringLiteral("missing.mp4")), m_audio, path(QStringLiteral("x.mp4")),
                     QString());
        QTRY_VERIFY_WITH_TIMEOUT(merges.has(QStringLiteral("finished 1")), 30000);
        const AbstractError error = merges.errors[1];
        QCOMPARE(error.code, 1);
        QCOMPARE(error.category, std::string("GenericError"));
        QCOMPARE(
            description(error),
            QStringLiteral("FFmpeg returned non-zero (%1) exit status").arg(merges.exitCodes[1]));
        QVERIFY(merges.exitCodes[1] != 0);
        QCOMPARE(merges.sizes[1], 0);

        auto absent = QSharedPointer<QtFfmpegManager>::create(QStringLiteral("/nonexistent/dir"),
                                                              QStringLiteral("ffmpeg"), nullptr);
        QtFfmpegAvMerger absentMerger(absent);
        Merges absentMerges(&absentMerger, absent.data());
        QVERIFY(!absentMerger.isSupported(false));
        absentMerger.merge(2, m_video, m_audio, path(QStringLiteral("y.mp4")), QString());
        QTRY_VERIFY(absentMerges.has(QStringLiteral("finished 2")));
        QCOMPARE(absentMerges.errors[2].code, QtProcessLaunchManager::ProcessFailedErrorCode);
        QVERIFY2(
            description(absentMerges.errors[2]).contains(QStringLiteral("/nonexistent/dir/ffmpeg")),
            qPrintable(description(absentMerges.errors[2])));

        // One that never answers is not supported, and a merge through it can be aborted.
        const QString hang = TestChild::makeFakeTool(m_dir.path(), QStringLiteral("hang"));
        auto hanging = QSharedPointer<QtFfmpegManager>::create(m_dir.path(), hang, nullptr);
        hanging->setVersionCheckTimeout(200);
        QtFfmpegAvMerger hangingMerger(hanging);
        Merges hangingMerges(&hangingMerger, hanging.data());
        QVERIFY(!hangingMerger.isSupported(true));
        hangingMerger.merge(3, m_video, m_audio, path(QStringLiteral("z.mp4")), QString());
        QTRY_VERIFY(hangingMerges.output[3].startsWith("pid"));
        hangingMerger.abort(3);
        QTRY_VERIFY(hangingMerges.has(QStringLiteral("finished 3")));
        QCOMPARE(hangingMerges.errors[3].code, QtProcessLaunchManager::AbortedErrorCode);
        QCOMPARE(hangingMerges.sizes[3], 0);
    }
};

QTEST_GUILESS_MAIN(TestQtFfmpegAvMerger)
#include "tst_qtffmpegavmerger.moc"
