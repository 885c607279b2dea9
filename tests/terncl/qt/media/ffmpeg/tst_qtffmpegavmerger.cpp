// The ffmpeg manager (finding ffmpeg, reading its progress) and the merger built on it.
#include <terncl/qt/media/ffmpeg/ffmpegpaths_p.h>
#include <terncl/qt/media/ffmpeg/qtffmpegavmerger.h>

#include "support/ffmpegtestmedia.h"
#include "support/signalrecorder.h"
#include "support/testchild.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
// Records the manager's duration and progress, in order.
void recordReports(SignalRecorder* reports, const QtFfmpegManager* manager) {
    reports->record(manager, &QtFfmpegManager::duration, u"duration"_s);
    reports->record<QtProcessLaunchManager>(manager, &QtProcessLaunchManager::progress,
                                            u"progress"_s);
}

// A merger over its own manager running program from folder, with the merger's ends and what
// the manager saw of the same launches in one ordered list.
class Merging : public QObject {
public:
    Merging(const QString& folder, const QString& program)
        : manager(QSharedPointer<QtFfmpegManager>::create(folder, program, nullptr))
        , merger(manager) {
        connect(manager.data(), &QtProcessLaunchManager::launching, this,
                [this](int id) { list << u"launching %1"_s.arg(id); });
        connect(manager.data(), &QtProcessLaunchManager::dataFromProcess, this,
                [this](int id, const QByteArray& bytes) { output[id] += bytes; });
        connect(manager.data(), &QtProcessLaunchManager::finished, this,
                [this](int id, const AbstractError&, int code) { exitCodes[id] = code; });
        connect(&merger, &QtFfmpegAvMerger::finished, this,
                [this](int id, const AbstractError& error, qint64 size) {
                    list << u"finished %1"_s.arg(id);
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
};
} // namespace

class TestQtFfmpeg : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_video, m_audio;

    QString path(const char* name) const { return m_dir.filePath(QString::fromUtf8(name)); }
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

    void versionCheck() {
        QtFfmpegManager real(ffmpegFolder(), u"ffmpeg"_s, nullptr);
        QVERIFY(real.isFfmpegInstalled(false));
        QtFfmpegManager missing(u"/nonexistent/folder"_s, u"ffmpeg"_s, nullptr);
        QVERIFY(!missing.isFfmpegInstalled(false));

        // A program that never answers counts as not installed once the limit has passed.
        const QString hang = TestChild::makeFakeTool(m_dir.path(), u"hang"_s);
        QtFfmpegManager hanging(m_dir.path(), hang, nullptr);
        hanging.setVersionCheckTimeout(300);
        QVERIFY(!hanging.isFfmpegInstalled(false));
        QVERIFY(TestChild::runningChildCount() <= 0); // killed, not left behind
    }

    void durationThenTimeFromChunkedOutput() {
        QtFfmpegManager manager(QString(), u"ffmpeg"_s, nullptr);
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
        QCOMPARE(reports.events(), QStringList{u"duration(1, 65)"_s});
        feed(1, "ate=1kbit/s\r");
        feed(1, "frame=  2 time=00:01:10.00 bitrate=1kbit/s\rframe=  3 time=00:01:05.500");
        Q_EMIT manager.finished(1, AbstractError(), 0);
        // Two-digit fractions never round up, three-digit ones from 500.
        QCOMPARE(reports.events(),
                 u"duration(1, 65);progress(1, 11, 65);duration(1, 70);progress(1, 70, 70);"
                 "progress(1, 66, 70)"_s.split(u';'));
    }

    void probeOfARealFile() {
        QtFfmpegManager manager(ffmpegFolder(), u"ffmpeg"_s, nullptr);
        SignalRecorder reports;
        recordReports(&reports, &manager);
        QSignalSpy finished(&manager, &QtProcessLaunchManager::finished);
        const int id = manager.nextId();
        manager.launchFfmpeg(id, m_video, true);
        QVERIFY(finished.wait());
        QCOMPARE(reports.events(), QStringList{u"duration(%1, 3)"_s.arg(id)});
        QCOMPARE(finished.at(0).at(2).toInt(), 1); // no output file given
    }

    void argumentsAndWorkingDirectory() {
        // ffmpeg runs in the video's folder, or the audio's when there is no video.
        const struct {
            const char *path, *expected;
        } cases[] = {{"/a/b/c.mp4", "/a/b"}, {"C:\\a\\c.mp4", "C:\\a"}, {"c.mp4", ""}};
        for (const auto& c : cases)
            QCOMPARE(terncl::ffmpegDirectoryPart(QString::fromUtf8(c.path)),
                     QString::fromUtf8(c.expected));

        Merging merging(m_dir.path(), TestChild::makeFakeTool(m_dir.path(), u"cwd"_s));
        const QString result = path("out.mp4");
        merging.merger.merge(1, m_video, QString(), result, QString());
        merging.merger.merge(2, QString(), m_audio, result, u"mp4"_s);
        QTRY_VERIFY(merging.has(u"finished 2"_s));

        QVERIFY(merging.output[1].startsWith("cwd: " + path("video").toUtf8() + "\n"));
        QVERIFY(merging.output[2].startsWith("cwd: " + path("audio").toUtf8() + "\n"));
        QVERIFY(!merging.errors[1].isSet());
        QCOMPARE(merging.sizes[1], 0); // nothing was written
    }

    void realMergeIntoALongPath() {
        // Deep enough for the whole path to pass the 260 characters that some systems reject.
        QString folder = m_dir.path();
        while (folder.size() < 280)
            folder += u"/a-rather-long-folder-name"_s;
        QVERIFY(QDir().mkpath(folder));
        const QString video = folder + u"/v.mp4"_s;
        QVERIFY(QFile::copy(m_video, video));
        const QString result = folder + u"/merged.mp4"_s;
        const QString second = path("second.mkv");

        Merging merging(ffmpegFolder(), u"ffmpeg"_s);
        const int a = merging.merger.nextId();
        const int b = merging.merger.nextId();
        merging.merger.merge(a, video, m_audio, result, QString());
        merging.merger.merge(b, m_video, m_audio, second, QString());
        QTRY_VERIFY_WITH_TIMEOUT(merging.has(u"finished %1"_s.arg(b)), 60000);

        // Merges wait for each other.
        const QString order = u"launching %1,finished %1,launching %2,finished %2"_s.arg(a).arg(b);
        QCOMPARE(merging.list, order.split(u','));
        QVERIFY2(!merging.errors[a].isSet(), qPrintable(merging.errors[a].toText()));
        QVERIFY(merging.sizes[a] > 0);
        QCOMPARE(merging.sizes[a], QFileInfo(result).size());
    }

    void failuresAreReportedClearly() {
        Merging failing(ffmpegFolder(), u"ffmpeg"_s);
        failing.merger.merge(1, path("missing.mp4"), m_audio, path("x.mp4"), QString());
        QTRY_VERIFY_WITH_TIMEOUT(failing.has(u"finished 1"_s), 30000);
        QCOMPARE(failing.errors[1].code, QtFfmpegAvMerger::NonZeroExitErrorCode);
        QCOMPARE(failing.description(1),
                 u"FFmpeg returned non-zero (%1) exit status"_s.arg(failing.exitCodes[1]));
        QCOMPARE(failing.sizes[1], 0);

        Merging absent(u"/nonexistent/dir"_s, u"ffmpeg"_s);
        absent.merger.merge(2, m_video, m_audio, path("y.mp4"), QString());
        QTRY_VERIFY(absent.has(u"finished 2"_s));
        QCOMPARE(absent.errors[2].code, QtProcessLaunchManager::ProcessFailedErrorCode);
        QVERIFY2(absent.description(2).contains(u"/nonexistent/dir/ffmpeg"_s),
                 qPrintable(absent.description(2)));

        // A merge through an ffmpeg that never answers can be aborted.
        Merging hanging(m_dir.path(), TestChild::makeFakeTool(m_dir.path(), u"hang"_s));
        hanging.merger.merge(3, m_video, m_audio, path("z.mp4"), QString());
        QTRY_VERIFY(hanging.output[3].startsWith("pid"));
        hanging.merger.abort(3);
        QTRY_VERIFY(hanging.has(u"finished 3"_s));
        QCOMPARE(hanging.errors[3].code, QtProcessLaunchManager::AbortedErrorCode);
        QCOMPARE(hanging.sizes[3], 0);
    }
};

QTEST_GUILESS_MAIN(TestQtFfmpeg)
#include "tst_qtffmpegavmerger.moc"
