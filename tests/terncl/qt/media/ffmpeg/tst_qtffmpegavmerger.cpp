#include <terncl/qt/media/ffmpeg/ffmpegpaths_p.h>
#include <terncl/qt/media/ffmpeg/qtffmpegavmerger.h>

#include "support/ffmpegtestmedia.h"
#include "support/recordinglogger.h"
#include "support/testchild.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

namespace {
QString s(const char* text) {
    return QString::fromUtf8(text);
}

// A merger over its own manager running program from folder, with the merger's ends and what
// the manager saw of the same launches in one ordered list.
class Merging : public QObject {
public:
    Merging(const QString& folder, const QString& program)
        : manager(QSharedPointer<QtFfmpegManager>::create(folder, program, nullptr))
        , merger(manager) {
        connect(manager.data(), &QtProcessLaunchManager::launching, this,
                [this](int id) { list << QStringLiteral("launching %1").arg(id); });
        connect(manager.data(), &QtProcessLaunchManager::dataFromProcess, this,
                [this](int id, const QByteArray& bytes) { output[id] += bytes; });
        connect(manager.data(), &QtProcessLaunchManager::finished, this,
                [this](int id, const AbstractError&, int code) { exitCodes[id] = code; });
        connect(&merger, &QtFfmpegAvMerger::progress, this, [this](int, int current, int total) {
            progressBeyondTotal = progressBeyondTotal || current > total;
        });
        connect(&merger, &QtFfmpegAvMerger::finished, this,
                [this](int id, const AbstractError& error, qint64 size) {
                    list << QStringLiteral("finished %1").arg(id);
                    errors[id] = error;
                    sizes[id] = size;
                });
    }
    bool has(const QString& event) const { return list.contains(event); }
    QString description(int id) const { return QString::fromStdString(errors[id].description); }

    QSharedPointer<QtFfmpegManager> manager;
    QtFfmpegAvMerger merger;
    QStringList list;
    QHash<int, QByteArray> output;
    QHash<int, int> exitCodes;
    QHash<int, AbstractError> errors;
    QHash<int, qint64> sizes;
    bool progressBeyondTotal = false;
};
} // namespace

class TestQtFfmpegAvMerger : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_video, m_audio;

    QString path(const char* name) const { return m_dir.filePath(s(name)); }
    static QString ffmpegFolder() { return QFileInfo(FfmpegTestMedia::ffmpeg()).path(); }

private Q_SLOTS:
    void initTestCase() {
        if (FfmpegTestMedia::ffmpeg().isEmpty() || FfmpegTestMedia::ffprobe().isEmpty())
            QSKIP("ffmpeg and ffprobe are not installed");
        QVERIFY(QDir().mkpath(path("video")) && QDir().mkpath(path("audio")));
        m_video = path("video/v.mp4");
        m_audio = path("audio/a.m4a");
        QString error;
        QVERIFY2(FfmpegTestMedia::makeVideoOnly(m_video, 3, &error), qPrintable(error));
        QVERIFY2(FfmpegTestMedia::makeAudioOnly(m_audio, 3, &error), qPrintable(error));
    }

    void cleanup() {
        if (TestChild::runningChildCount() >= 0)
            QTRY_COMPARE(TestChild::runningChildCount(), 0);
    }

    void argumentsAndWorkingDirectory() {
        // ffmpeg runs in the video's folder, or the audio's when there is no video.
        const struct {
            const char *path, *expected;
        } cases[] = {{"/a/b/c.mp4", "/a/b"},    {"/c.mp4", "/"},        {"C:\\c.mp4", "C:\\"},
                     {"C:\\a\\c.mp4", "C:\\a"}, {"a\\b/c.mp4", "a\\b"}, {"c.mp4", ""}};
        for (const auto& c : cases)
            QCOMPARE(terncl::ffmpegDirectoryPart(s(c.path)), s(c.expected));

        RecordingLogger log;
        Merging merging(m_dir.path(), TestChild::makeFakeTool(m_dir.path(), s("cwd")));
        const QString result = path("out.mp4");
        merging.merger.merge(1, m_video, QString(), result, QString());
        merging.merger.merge(2, QString(), m_audio, result, s("mp4"));
        QTRY_VERIFY(merging.has(s("finished 2")));

        const QString launch = s("[QtProcessLaunchManager #%1]: launching process: ") +
                               merging.manager->ffmpegPath() + s(", with args: -y -i ");
        QVERIFY(log.contains(launch.arg(1) +
                             s("%1 -vcodec copy -acodec copy %2").arg(m_video, result)));
        QVERIFY(log.contains(launch.arg(2) +
                             s("%1 -vcodec copy -acodec copy -f mp4 %2").arg(m_audio, result)));
        QVERIFY(merging.output[1].startsWith("cwd: " + path("video").toUtf8() + "\n"));
        QVERIFY(merging.output[2].startsWith("cwd: " + path("audio").toUtf8() + "\n"));
        QVERIFY(!merging.errors[1].isSet());
        QCOMPARE(merging.sizes[1], 0); // nothing was written
    }

    void realMergeIntoALongPath() {
        // Deep enough for the whole path to pass the 260 characters that some systems reject.
        QString folder = m_dir.path();
        while (folder.size() < 280)
            folder += s("/a-rather-long-folder-name");
        QVERIFY(QDir().mkpath(folder));
        const QString video = folder + s("/v.mp4");
        QVERIFY(QFile::copy(m_video, video));
        const QString result = folder + s("/merged.mp4");
        const QString second = path("second.mkv");

        Merging merging(ffmpegFolder(), s("ffmpeg"));
        const int a = merging.merger.nextId();
        const int b = merging.merger.nextId();
        merging.merger.merge(a, video, m_audio, result, QString());
        merging.merger.merge(b, m_video, m_audio, second, QString());
        QTRY_VERIFY_WITH_TIMEOUT(merging.has(s("finished %1").arg(b)), 60000);

        // Merges wait for each other.
        const QString order = s("launching %1,finished %1,launching %2,finished %2").arg(a).arg(b);
        QCOMPARE(merging.list, order.split(QLatin1Char(',')));
        QVERIFY2(!merging.errors[a].isSet(), qPrintable(merging.errors[a].toText()));
        QVERIFY(merging.sizes[a] > 0);
        QCOMPARE(merging.sizes[a], QFileInfo(result).size());
        QVERIFY(!merging.progressBeyondTotal);
        for (const QString& file : {result, second}) {
            QStringList streams;
            double seconds = 0;
            QVERIFY(FfmpegTestMedia::probe(file, &streams, &seconds));
            streams.sort();
            QCOMPARE(streams, QStringList({s("audio"), s("video")}));
            QVERIFY2(qAbs(seconds - 3.0) < 0.2, qPrintable(QString::number(seconds)));
        }
    }

    void failuresAreReportedClearly() {
        Merging failing(ffmpegFolder(), s("ffmpeg"));
        failing.merger.merge(1, path("missing.mp4"), m_audio, path("x.mp4"), QString());
        QTRY_VERIFY_WITH_TIMEOUT(failing.has(s("finished 1")), 30000);
        QCOMPARE(failing.errors[1].code, QtFfmpegAvMerger::NonZeroExitErrorCode);
        QCOMPARE(failing.errors[1].category, std::string("GenericError"));
        QVERIFY(failing.exitCodes[1] != 0);
        QCOMPARE(failing.description(1),
                 s("FFmpeg returned non-zero (%1) exit status").arg(failing.exitCodes[1]));
        QCOMPARE(failing.sizes[1], 0);

        Merging absent(s("/nonexistent/dir"), s("ffmpeg"));
        absent.merger.merge(2, m_video, m_audio, path("y.mp4"), QString());
        QTRY_VERIFY(absent.has(s("finished 2")));
        QCOMPARE(absent.errors[2].code, QtProcessLaunchManager::ProcessFailedErrorCode);
        QVERIFY2(absent.description(2).contains(s("/nonexistent/dir/ffmpeg")),
                 qPrintable(absent.description(2)));

        // A merge through an ffmpeg that never answers can be aborted.
        Merging hanging(m_dir.path(), TestChild::makeFakeTool(m_dir.path(), s("hang")));
        hanging.merger.merge(3, m_video, m_audio, path("z.mp4"), QString());
        QTRY_VERIFY(hanging.output[3].startsWith("pid"));
        hanging.merger.abort(3);
        QTRY_VERIFY(hanging.has(s("finished 3")));
        QCOMPARE(hanging.errors[3].code, QtProcessLaunchManager::AbortedErrorCode);
        QCOMPARE(hanging.sizes[3], 0);
    }
};

QTEST_GUILESS_MAIN(TestQtFfmpegAvMerger)
#include "tst_qtffmpegavmerger.moc"
