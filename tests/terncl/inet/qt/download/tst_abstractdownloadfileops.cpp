// The file operations that take a download's files to their final names, and the companion
// that runs them (and self-merges) for a download.
#include "support/testfiles.h"
#include <terncl/inet/qt/download/abstractdownloadfileops.h>
#include <terncl/inet/qt/download/abstractdownloadfilesopscompanion.h>
#include <terncl/qt/media/ffmpeg/qtffmpegavmerger.h>

#include "support/fakedownload.h"
#include "support/ffmpegtestmedia.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

using namespace Qt::StringLiterals;

namespace {
using Companion = AbstractDownloadFilesOpsCompanion;

AbstractDownloadFileInfo fileRecord(const QString& name, qint64 done, const QString& tmpPath = {}) {
    AbstractDownloadFileInfo file;
    file.name = name;
    file.size = done;
    file.sections = {{0, done, done}};
    file.tmpPath = tmpPath;
    return file;
}

} // namespace

class TestAbstractDownloadFileOps : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QThread m_writers;
    QPointer<AbstractDownloadFileOps> m_ops;
    FakeDownload m_download;
    AbstractDownloadSettings m_settings;

    QString path(const char* name) const { return m_dir.filePath(QString::fromUtf8(name)); }
    QByteArray read(const char* name) const { return readFile(path(name)); }

    // A finished record whose file "name" waits at its temporary path with content.
    AbstractDownloadPersistentInfo finishedRecord(const QString& name, const QByteArray& content) {
        AbstractDownloadPersistentInfo info;
        info.destinationPath = m_dir.path();
        info.state = AbstractDownloadPersistentInfo::Finished;
        info.files = {fileRecord(name, content.size(), m_dir.filePath(u"tmp/"_s + name))};
        writeFile(info.files.first().tmpPath, content);
        return info;
    }

    struct Result {
        AbstractDownloadFileOps::FileInitializeOperations ops;
        int count = -1;
        AbstractError error;
        QThread* thread = nullptr; // where the result was reported
    };
    Result perform(const AbstractDownloadFileOps::FileInitializeOperations& ops) {
        Result result;
        connect(
            m_ops, &AbstractDownloadFileOps::performInitializeOpsFinished, this,
            [&result](const QString&, const AbstractDownloadFileOps::FileInitializeOperations& done,
                      int count, const AbstractError& error) {
                result = {done, count, error, QThread::currentThread()};
            },
            Qt::DirectConnection);
        m_ops->performInitializeOps(m_dir.path(), ops);
        [[maybe_unused]] const bool done =
            QTest::qWaitFor([&result] { return result.thread != nullptr; }, 10000);
        m_ops->disconnect(this);
        return result;
    }

private Q_SLOTS:
    void initTestCase() { m_writers.start(); }
    void cleanupTestCase() {
        m_writers.quit();
        m_writers.wait();
    }
    void init() {
        QDir(m_dir.path()).removeRecursively();
        QDir().mkpath(m_dir.path());
        m_ops = new AbstractDownloadFileOps;
        m_ops->moveToThread(&m_writers);
    }
    void cleanup() {
        if (m_ops)
            m_ops->deleteLater();
        QTRY_VERIFY(!m_ops);
    }

    // a.bin moves first, then b.bin's move fails or its question is never answered: the first
    // file goes back and the overwritten one returns.
    void failureOrDestructionUndoesEverything() {
        auto info = finishedRecord(u"a.bin"_s, "new a");
        info.files.append(fileRecord(u"sub/b.bin"_s, 5, path("tmp/b")));
        QVERIFY(writeFile(path("a.bin"), "old a"));
        m_ops->setExistingFileReaction(AbstractDownloadExistingFileReaction::Overwrite);
        const auto result = perform(AbstractDownloadFileOps::calcFilesInitOps({}, info, true));
        QCOMPARE(result.error.category, std::string(AbstractError::QtFileError));
        QCOMPARE(result.count, 0);
        QCOMPARE(read("a.bin"), QByteArray("old a"));
        QCOMPARE(read("tmp/a.bin"), QByteArray("new a"));
        QCOMPARE(QDir(m_dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{u"a.bin"_s});
        QVERIFY(!AbstractDownloadFileOps::applyFilesInitOpsFinished(result.ops, 0, info));

        QVERIFY(QFile::remove(path("a.bin")));
        QVERIFY(writeFile(info.files[1].tmpPath, "new b"));
        QVERIFY(writeFile(path("sub/b.bin"), "old b"));
        m_ops->setExistingFileReaction(AbstractDownloadExistingFileReaction::Ask);
        bool asked = false;
        connect(m_ops, &AbstractDownloadFileOps::fileExistsActionRequired, this,
                [&asked] { asked = true; });
        m_ops->performInitializeOps(m_dir.path(),
                                    AbstractDownloadFileOps::calcFilesInitOps({}, info, true));
        QTRY_VERIFY(asked);
        QCOMPARE(read("a.bin"), QByteArray("new a"));
        // An answer about another file than the one asked about is ignored.
        m_ops->fileExistsAction(0, AbstractDownloadFileExistsAction::Overwrite);
        m_ops->deleteLater();
        QTRY_VERIFY(!m_ops);
        QCOMPARE(read("tmp/a.bin"), QByteArray("new a"));
        QVERIFY(!QFile::exists(path("a.bin")));
        QCOMPARE(read("sub/b.bin"), QByteArray("old b"));
    }

    // Which operations a record needs, and what they do on disk. Unfinished: a file not created
    // yet is created without losing what its temporary path holds, an empty one never written
    // is created in place and a deselected one goes aside. Finished and selected again, the files
    // move to their final names (folders created); then nothing is left.
    void filesFromCreationToTheirFinalNames() {
        AbstractDownloadPersistentInfo info;
        info.destinationPath = path("dst");
        info.files = {fileRecord(u"a.bin"_s, 10, path("tmp/a.part")),
                      fileRecord(u"dir/b.bin"_s, 10), fileRecord(u"dir/c.bin"_s, 10),
                      fileRecord(u"new/d.bin"_s, 0, path("tmp/d.part")), fileRecord(u"e.bin"_s, 0)};
        info.files[2].priority = AbstractDownloadFileInfo::NotSelected;
        for (const char* name : {"tmp/a.part", "dst/dir/b.bin", "dst/dir/c.bin", "tmp/d.part"})
            QVERIFY(writeFile(path(name), name));
        // Without a destination nothing may be written relative to the working directory.
        auto nowhere = info;
        nowhere.destinationPath.clear();
        QVERIFY(AbstractDownloadFileOps::calcFilesInitOps({}, nowhere, true).isEmpty());

        auto result = perform(AbstractDownloadFileOps::calcFilesInitOps({}, info, false));
        QCOMPARE(result.count, 3);
        QCOMPARE(read("tmp/d.part"), QByteArray("tmp/d.part"));
        QCOMPARE(read("dst/dir/.unwanted/c.bin"), QByteArray("dst/dir/c.bin"));
        QCOMPARE(read("dst/e.bin"), QByteArray());
        QVERIFY(AbstractDownloadFileOps::applyFilesInitOpsFinished(result.ops, 3, info));
        QVERIFY(info.files[3].testFlag(AbstractDownloadFileInfo::Created));
        QCOMPARE(info.files[2].tmpPath, path("dst/dir/.unwanted/c.bin"));

        info.files[3].size = 10;
        info.files[3].sections = {{0, 10, 10}};
        info.files[2].priority = AbstractDownloadFileInfo::NormalPriority;
        info.state = AbstractDownloadPersistentInfo::Finished;
        result = perform(AbstractDownloadFileOps::calcFilesInitOps({}, info, true));
        QCOMPARE(result.count, 3);
        QVERIFY(!result.error.isSet());
        QCOMPARE(read("dst/a.bin"), QByteArray("tmp/a.part"));
        QCOMPARE(read("dst/dir/c.bin"), QByteArray("dst/dir/c.bin"));
        QCOMPARE(read("dst/new/d.bin"), QByteArray("tmp/d.part"));
        QVERIFY(!QFile::exists(path("tmp/d.part")));
        QVERIFY(AbstractDownloadFileOps::applyFilesInitOpsFinished(result.ops, 3, info));
        for (const auto& file : std::as_const(info.files)) {
            QVERIFY(file.tmpPath.isEmpty());
            QVERIFY(file.testFlag(AbstractDownloadFileInfo::Initialized) ||
                    file.name == "dir/b.bin"_L1);
        }
        QVERIFY(AbstractDownloadFileOps::calcFilesInitOps({}, info, true).isEmpty());
    }

    // Without a merger a self-merge ends at once with an error. The standard operation runs one
    // at a time and the record is stored again; each is announced as files operations.
    void companionOperations() {
        auto info = finishedRecord(u"v.m4s"_s, "data");
        Companion companion(&m_download, info, m_settings, {});
        companion.setWritersThread(&m_writers);
        QSignalSpy finished(&companion, &Companion::operationFinished);
        QSignalSpy changed(&companion, &Companion::changed);
        QSignalSpy performing(&companion, &Companion::performingFilesOperations);
        companion.performSelfMerge();
        QCOMPARE(finished.size(), 1);
        QCOMPARE(finished[0][1].value<AbstractError>().code,
                 Companion::SelfMergeNotStartedErrorCode);
        QCOMPARE(info.files[0].name, u"v.m4s"_s);

        QVERIFY(companion.isStandardOpRequired());
        companion.performRequiredStandardOp();
        companion.performRequiredStandardOp(); // ignored: one is running
        QVERIFY(finished.wait(10000));
        QTest::qWait(0);
        QCOMPARE(finished.size(), 2);
        QVERIFY(!finished[1][1].value<AbstractError>().isSet());
        QCOMPARE(changed.size(), 1);
        QCOMPARE(read("v.m4s"), QByteArray("data"));
        QVERIFY(info.files[0].tmpPath.isEmpty());
        QVERIFY(!companion.isStandardOpRequired());
        QCOMPARE(QList<QVariantList>(performing),
                 (QList<QVariantList>{{true}, {false}, {true}, {false}}));
    }

    // A self-merge that fails or is aborted leaves the file as it was. (The downloader's test
    // remuxes real segments through a companion.)
    void selfMergeFailsOrIsAborted() {
        if (FfmpegTestMedia::ffmpeg().isEmpty())
            QSKIP("ffmpeg is not installed");
        QString error;
        QVERIFY2(FfmpegTestMedia::makeHls(path("hls"), 2, 1, true, &error), qPrintable(error));
        QByteArray fmp4; // a whole fragmented MP4 stream, segments back to back
        for (const auto& file : FfmpegTestMedia::segmentFiles(path("hls/index.m3u8")))
            fmp4 += readFile(file);
        for (const bool abort : {false, true}) { // not media, or aborted
            const QByteArray content = abort ? fmp4 : QByteArray(5000, 'x');
            auto info = finishedRecord(u"Clip.M4S"_s, content);
            const auto merger =
                QSharedPointer<QtFfmpegAvMerger>::create(QSharedPointer<QtFfmpegManager>::create(
                    QFileInfo(FfmpegTestMedia::ffmpeg()).path(), u"ffmpeg"_s, nullptr));
            Companion companion(&m_download, info, m_settings, merger);
            QSignalSpy finished(&companion, &Companion::operationFinished);
            companion.performSelfMerge();
            if (abort)
                companion.abortOperation();
            QVERIFY(finished.wait(30000));

            QVERIFY(finished[0][1].value<AbstractError>().isSet());
            QCOMPARE(companion.mergeProgress(), std::make_pair(qint64(-1), qint64(-1)));
            QVERIFY(!QFile::exists(path("tmp/Clip.mp4")));
            QCOMPARE(read("tmp/Clip.M4S"), content);
            QCOMPARE(info.files[0].name, u"Clip.M4S"_s);
        }
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownloadFileOps)
#include "tst_abstractdownloadfileops.moc"
