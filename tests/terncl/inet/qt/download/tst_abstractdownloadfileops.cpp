#include "support/testfiles.h"
#include <terncl/inet/qt/download/abstractdownloadfileops.h>

#include <QDir>
#include <QFile>
#include <QPointer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

namespace {
using Op = AbstractDownloadFileOps::FileInitializeOperation;

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
};

QTEST_GUILESS_MAIN(TestAbstractDownloadFileOps)
#include "tst_abstractdownloadfileops.moc"
