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

namespace {
using Op = AbstractDownloadFileOps::FileInitializeOperation;
using Companion = AbstractDownloadFilesOpsCompanion;

QList<bool> edges(const QSignalSpy& spy) {
    QList<bool> list;
    for (const auto& args : spy)
        list << args.at(0).toBool();
    return list;
}

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
    QByteArray m_fmp4; // a whole fragmented MP4 stream, segments back to back

    QString path(const QString& name) const { return m_dir.filePath(name); }

    // A finished record whose file "name" waits at its temporary path with content.
    AbstractDownloadPersistentInfo finishedRecord(const QString& name, const QByteArray& content) {
        AbstractDownloadPersistentInfo info;
        info.destinationPath = m_dir.path();
        info.state = AbstractDownloadPersistentInfo::Finished;
        info.files = {fileRecord(name, content.size(), path(QStringLiteral("tmp/") + name))};
        writeFile(info.files.first().tmpPath, content);
        return info;
    }

    QSharedPointer<QtFfmpegAvMerger> makeMerger() const {
        return QSharedPointer<QtFfmpegAvMerger>::create(QSharedPointer<QtFfmpegManager>::create(
            QFileInfo(FfmpegTestMedia::ffmpeg()).path(), QStringLiteral("ffmpeg"), nullptr));
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
    void initTestCase() {
        m_writers.start();
        if (FfmpegTestMedia::ffmpeg().isEmpty())
            return;
        QString error;
        QVERIFY2(FfmpegTestMedia::makeHls(path(QStringLiteral("hls")), 2, 1, true, &error),
                 qPrintable(error));
        for (const auto& file :
             FfmpegTestMedia::segmentFiles(path(QStringLiteral("hls/index.m3u8"))))
            m_fmp4 += readFile(file);
    }
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

    // Which operations a record needs; what they do on disk is checked below.
    void computesOperationsFromTheRecordOnly() {
        AbstractDownloadPersistentInfo info;
        info.destinationPath = QStringLiteral("/dst");
        info.files = {fileRecord(QStringLiteral("a.bin"), 10, QStringLiteral("/tmp/a.part")),
                      fileRecord(QStringLiteral("dir/b.bin"), 10),
                      fileRecord(QStringLiteral("dir/c.bin"), 10),
                      fileRecord(QStringLiteral("d.bin"), 0, QStringLiteral("/tmp/d.part")),
                      fileRecord(QStringLiteral("e.bin"), 0)};
        info.files[2].priority = AbstractDownloadFileInfo::NotSelected;
        // Kinds: 0 create temporary, 1 create final, 2 move to final, 3 move to unwanted.
        const auto ops = [&info](bool finished) {
            QStringList list;
            for (const auto& op : AbstractDownloadFileOps::calcFilesInitOps({}, info, finished))
                list << QStringLiteral("%1 %2").arg(int(op.kind)).arg(op.targetPath);
            return list.join(QLatin1Char(','));
        };
        // b is already at its final name; empty files never written are created in place.
        QCOMPARE(ops(true), QStringLiteral("2 /dst/a.bin,3 /dst/dir/.unwanted/c.bin,"
                                           "1 /dst/d.bin,1 /dst/e.bin"));
        QCOMPARE(ops(false),
                 QStringLiteral("3 /dst/dir/.unwanted/c.bin,0 /tmp/d.part,1 /dst/e.bin"));
        info.destinationPath.clear();
        QVERIFY(ops(true).isEmpty());
    }

    // The second move fails: the first file goes back and the overwritten one returns.
    void failureUndoesEverything() {
        auto info = finishedRecord(QStringLiteral("a.bin"), "new a");
        info.files.append(
            fileRecord(QStringLiteral("b.bin"), 5, path(QStringLiteral("tmp/b.bin"))));
        QVERIFY(writeFile(path(QStringLiteral("a.bin")), "old a"));
        m_ops->setExistingFileReaction(AbstractDownloadExistingFileReaction::Overwrite);
        const auto result = perform(AbstractDownloadFileOps::calcFilesInitOps({}, info, true));
        QCOMPARE(result.error.category, std::string(AbstractError::QtFileError));
        QCOMPARE(result.count, 0);
        QCOMPARE(readFile(path(QStringLiteral("a.bin"))), QByteArray("old a"));
        QCOMPARE(readFile(path(QStringLiteral("tmp/a.bin"))), QByteArray("new a"));
        QCOMPARE(QDir(m_dir.path()).entryList(QDir::Files | QDir::Hidden),
                 QStringList{QStringLiteral("a.bin")});
        QVERIFY(!AbstractDownloadFileOps::applyFilesInitOpsFinished(result.ops, 0, info));
    }

    // Unfinished: a file not created yet is created without losing what its temporary path
    // holds and a deselected one goes aside. Finished and selected again, both move to their
    // final names (folders created) on the writers thread; then nothing is left to do.
    void filesFromCreationToTheirFinalNames() {
        AbstractDownloadPersistentInfo info;
        info.destinationPath = m_dir.path();
        info.files = {fileRecord(QStringLiteral("new/x.bin"), 0, path(QStringLiteral("t/x.part"))),
                      fileRecord(QStringLiteral("album/y.bin"), 2)};
        info.files[1].priority = AbstractDownloadFileInfo::NotSelected;
        QVERIFY(writeFile(path(QStringLiteral("t/x.part")), "kept"));
        QVERIFY(writeFile(path(QStringLiteral("album/y.bin")), "yy"));
        auto result = perform(AbstractDownloadFileOps::calcFilesInitOps({}, info, false));
        QCOMPARE(result.count, 2);
        QCOMPARE(readFile(path(QStringLiteral("t/x.part"))), QByteArray("kept"));
        QCOMPARE(readFile(path(QStringLiteral("album/.unwanted/y.bin"))), QByteArray("yy"));
        QVERIFY(AbstractDownloadFileOps::applyFilesInitOpsFinished(result.ops, 2, info));
        QVERIFY(info.files[0].testFlag(AbstractDownloadFileInfo::Created));
        QCOMPARE(info.files[1].tmpPath, path(QStringLiteral("album/.unwanted/y.bin")));
        QCOMPARE(info.files[1].name, QStringLiteral("album/y.bin"));

        info.files[0].size = 4;
        info.files[0].sections = {{0, 4, 4}};
        info.files[1].priority = AbstractDownloadFileInfo::NormalPriority;
        info.state = AbstractDownloadPersistentInfo::Finished;
        result = perform(AbstractDownloadFileOps::calcFilesInitOps({}, info, true));
        QCOMPARE(result.thread, &m_writers);
        QCOMPARE(result.count, 2);
        QVERIFY(!result.error.isSet());
        QCOMPARE(readFile(path(QStringLiteral("new/x.bin"))), QByteArray("kept"));
        QCOMPARE(readFile(path(QStringLiteral("album/y.bin"))), QByteArray("yy"));
        QVERIFY(!QFile::exists(path(QStringLiteral("t/x.part"))));
        QVERIFY(AbstractDownloadFileOps::applyFilesInitOpsFinished(result.ops, 2, info));
        for (const auto& file : std::as_const(info.files)) {
            QVERIFY(file.tmpPath.isEmpty());
            QVERIFY(file.testFlag(AbstractDownloadFileInfo::Initialized));
        }
        QVERIFY(AbstractDownloadFileOps::calcFilesInitOps({}, info, true).isEmpty());
    }

    void destroyedWhileAskingUndoes() {
        auto info = finishedRecord(QStringLiteral("a.bin"), "new a");
        info.files.append(
            fileRecord(QStringLiteral("sub/b.bin"), 5, path(QStringLiteral("tmp/b"))));
        QVERIFY(writeFile(info.files[1].tmpPath, "new b"));
        QVERIFY(writeFile(path(QStringLiteral("sub/b.bin")), "old b"));
        // a.bin moves first; b.bin's question is never answered.
        m_ops->setExistingFileReaction(AbstractDownloadExistingFileReaction::Ask);
        bool asked = false;
        connect(m_ops, &AbstractDownloadFileOps::fileExistsActionRequired, this,
                [&asked] { asked = true; });
        m_ops->performInitializeOps(m_dir.path(),
                                    AbstractDownloadFileOps::calcFilesInitOps({}, info, true));
        QTRY_VERIFY(asked);
        QCOMPARE(readFile(path(QStringLiteral("a.bin"))), QByteArray("new a"));
        // An answer about another file than the one asked about is ignored.
        m_ops->fileExistsAction(0, AbstractDownloadFileExistsAction::Overwrite);
        m_ops->deleteLater();
        QTRY_VERIFY(!m_ops);
        QCOMPARE(readFile(path(QStringLiteral("tmp/a.bin"))), QByteArray("new a"));
        QVERIFY(!QFile::exists(path(QStringLiteral("a.bin"))));
        QCOMPARE(readFile(path(QStringLiteral("sub/b.bin"))), QByteArray("old b"));
    }

    void standardOperationRunsOneAtATime() {
        auto info = finishedRecord(QStringLiteral("a.bin"), "new");
        Companion companion(&m_download, info, m_settings, {});
        companion.setWritersThread(&m_writers);
        QSignalSpy performing(&companion, &Companion::performingFilesOperations);
        QSignalSpy finished(&companion, &Companion::operationFinished);
        QSignalSpy changed(&companion, &Companion::changed);
        QVERIFY(companion.isStandardOpRequired());
        companion.performRequiredStandardOp();
        companion.performRequiredStandardOp(); // ignored: one is running
        QCOMPARE(companion.operation(), Companion::StandardOperation);
        QVERIFY(finished.wait(10000));
        QTest::qWait(0);

        QCOMPARE(finished.size(), 1);
        QVERIFY(!finished[0][1].value<AbstractError>().isSet());
        QCOMPARE(changed.size(), 1);
        QCOMPARE(edges(performing), (QList<bool>{true, false}));
        QCOMPARE(readFile(path(QStringLiteral("a.bin"))), QByteArray("new"));
        QVERIFY(info.files[0].tmpPath.isEmpty());
        QVERIFY(!companion.isStandardOpRequired());
        QVERIFY(!companion.isPerformingOperation());
    }

    // Inside an outer files operation, only the outer edges are signalled.
    void selfMergeWithoutMergerEndsAtOnce() {
        auto info = finishedRecord(QStringLiteral("v.m4s"), "data");
        Companion companion(&m_download, info, m_settings, {});
        QSignalSpy finished(&companion, &Companion::operationFinished);
        QSignalSpy performing(&companion, &Companion::performingFilesOperations);
        companion.beginPerformFilesOperations();
        companion.performSelfMerge();
        QCOMPARE(finished.size(), 1);
        QCOMPARE(finished[0][0].value<Companion::OperationType>(), Companion::SelfMerge);
        QCOMPARE(finished[0][1].value<AbstractError>().code,
                 Companion::SelfMergeNotStartedErrorCode);
        QCOMPARE(finished[0][1].value<AbstractError>().category,
                 std::string(AbstractError::GenericError));
        QCOMPARE(info.files[0].name, QStringLiteral("v.m4s"));
        QCOMPARE(edges(performing), QList<bool>{true});
        QVERIFY(companion.isPerformingFilesOps());
        companion.finishPerformFilesOperations();
        companion.finishPerformFilesOperations(); // unbalanced: ignored
        QCOMPARE(edges(performing), (QList<bool>{true, false}));
        QVERIFY(!companion.isPerformingFilesOps());
    }

    // A self-merge that fails or is aborted leaves the file as it was. (The downloader's test
    // remuxes real segments through a companion.)
    void selfMergeFailsOrIsAborted_data() {
        QTest::addColumn<bool>("abort");
        QTest::newRow("not media") << false;
        QTest::newRow("aborted") << true;
    }
    void selfMergeFailsOrIsAborted() {
        QFETCH(bool, abort);
        if (m_fmp4.isEmpty())
            QSKIP("ffmpeg is not installed");
        const QByteArray content = abort ? m_fmp4 : QByteArray(5000, 'x');
        auto info = finishedRecord(QStringLiteral("Clip.M4S"), content);
        const auto merger = makeMerger();
        Companion companion(&m_download, info, m_settings, merger);
        QSignalSpy finished(&companion, &Companion::operationFinished);
        companion.performSelfMerge();
        QCOMPARE(companion.operation(), Companion::SelfMerge);
        Q_EMIT merger->progress(merger->nextId(), 5, 10); // another merge: ignored
        QCOMPARE(companion.mergeProgress(), std::make_pair(qint64(-1), qint64(-1)));
        if (abort)
            companion.abortOperation();
        QVERIFY(finished.wait(30000));

        QVERIFY(finished[0][1].value<AbstractError>().isSet());
        QCOMPARE(companion.mergeProgress(), std::make_pair(qint64(-1), qint64(-1)));
        QVERIFY(!QFile::exists(path(QStringLiteral("tmp/Clip.mp4"))));
        QCOMPARE(readFile(path(QStringLiteral("tmp/Clip.M4S"))), content);
        QCOMPARE(info.files[0].name, QStringLiteral("Clip.M4S"));
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownloadFileOps)
#include "tst_abstractdownloadfileops.moc"
