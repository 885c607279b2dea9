#include <terncl/inet/qt/download/abstractdownloadfileops.h>

#include <QDir>
#include <QFile>
#include <QPointer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

namespace {
using Op = AbstractDownloadFileOps::FileInitializeOperation;
using Reaction = AbstractDownloadExistingFileReaction;
using Action = AbstractDownloadFileExistsAction;

AbstractDownloadFileInfo fileRecord(const QString& name, qint64 done, const QString& tmpPath = {}) {
    AbstractDownloadFileInfo file;
    file.name = name;
    file.size = done;
    file.sections = {{0, done, done}};
    file.tmpPath = tmpPath;
    return file;
}

bool writeFile(const QString& path, const QByteArray& data) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}
} // namespace

class TestAbstractDownloadFileOps : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QThread m_writers;
    AbstractDownloadFileOps* m_ops = nullptr;

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

    // Runs ops on the writers thread, answering questions with answers in order.
    QList<QVariant> perform(const AbstractDownloadFileOps::FileInitializeOperations& ops,
                            QList<Action> answers = {}) {
        QList<QVariant> result;
        connect(m_ops, &AbstractDownloadFileOps::performInitializeOpsFinished, this,
                [&result](const QString& dst,
                          const AbstractDownloadFileOps::FileInitializeOperations& done, int count,
                          const AbstractError& error) {
                    result = {dst, QVariant::fromValue(done), count, QVariant::fromValue(error)};
                });
        connect(m_ops, &AbstractDownloadFileOps::fileExistsActionRequired, this,
                [this, &answers](int fileIndex, const QList<QString>&) {
                    m_ops->fileExistsAction(fileIndex, answers.takeFirst());
                });
        m_ops->performInitializeOps(m_dir.path(), ops);
        [[maybe_unused]] const bool done =
            QTest::qWaitFor([&result] { return !result.isEmpty(); }, 10000);
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
        const QPointer<AbstractDownloadFileOps> ops = m_ops;
        m_ops->deleteLater();
        QTRY_VERIFY(!ops);
    }

    void computesOperationsFromTheRecordOnly() {
        AbstractDownloadPersistentInfo info;
        info.destinationPath = QStringLiteral("/dst");
        info.files = {fileRecord(QStringLiteral("a.bin"), 10, QStringLiteral("/tmp/a.part")),
                      fileRecord(QStringLiteral("dir/b.bin"), 10),
                      fileRecord(QStringLiteral("dir/c.bin"), 10),
                      fileRecord(QStringLiteral("d.bin"), 0, QStringLiteral("/tmp/d.part")),
                      fileRecord(QStringLiteral("e.bin"), 0)};
        info.files[2].priority = AbstractDownloadFileInfo::NotSelected;
        const AbstractDownloadSettings settings;

        const auto finished = AbstractDownloadFileOps::calcFilesInitOps(settings, info, true);
        QCOMPARE(finished.size(), 4);
        QCOMPARE(finished[0].kind, Op::MoveToFinal);
        QCOMPARE(finished[0].sourcePath, QStringLiteral("/tmp/a.part"));
        QCOMPARE(finished[0].targetPath, QStringLiteral("/dst/a.bin"));
        QCOMPARE(finished[1].kind, Op::MoveToUnwanted); // b is already at its final name
        QCOMPARE(finished[1].targetPath, QStringLiteral("/dst/dir/.unwanted/c.bin"));
        // Empty files that were never written are created where they belong.
        QCOMPARE(finished[2].kind, Op::CreateFinal);
        QCOMPARE(finished[2].targetPath, QStringLiteral("/dst/d.bin"));
        QCOMPARE(finished[3].targetPath, QStringLiteral("/dst/e.bin"));

        const auto unfinished = AbstractDownloadFileOps::calcFilesInitOps(settings, info, false);
        QCOMPARE(unfinished.size(), 3);
        QCOMPARE(unfinished[0].kind, Op::MoveToUnwanted);
        QCOMPARE(unfinished[1].kind, Op::CreateTemporary);
        QCOMPARE(unfinished[1].targetPath, QStringLiteral("/tmp/d.part"));
        QCOMPARE(unfinished[2].kind, Op::CreateFinal);

        info.destinationPath.clear();
        QVERIFY(AbstractDownloadFileOps::calcFilesInitOps(settings, info, true).isEmpty());
    }

    void movesOnTheWritersThreadAndAppliesTheResult() {
        auto info = finishedRecord(QStringLiteral("sub/dir/a.bin"), "data");
        QThread* thread = nullptr;
        connect(
            m_ops, &AbstractDownloadFileOps::performInitializeOpsFinished, this,
            [&thread] { thread = QThread::currentThread(); }, Qt::DirectConnection);
        const auto ops = AbstractDownloadFileOps::calcFilesInitOps({}, info, true);
        const auto result = perform(ops);
        QCOMPARE(thread, &m_writers);
        QCOMPARE(result.at(2).toInt(), 1);
        QVERIFY(!result.at(3).value<AbstractError>().isSet());
        QCOMPARE(readFile(path(QStringLiteral("sub/dir/a.bin"))), QByteArray("data"));
        QVERIFY(!QFile::exists(path(QStringLiteral("tmp/sub/dir/a.bin"))));

        const auto done = result.at(1).value<AbstractDownloadFileOps::FileInitializeOperations>();
        QVERIFY(AbstractDownloadFileOps::applyFilesInitOpsFinished(done, 1, info));
        QCOMPARE(info.files[0].name, QStringLiteral("sub/dir/a.bin"));
        QVERIFY(info.files[0].tmpPath.isEmpty());
        QVERIFY(info.files[0].testFlag(AbstractDownloadFileInfo::Initialized));
        QVERIFY(AbstractDownloadFileOps::calcFilesInitOps({}, info, true).isEmpty());
    }

    void existingTarget_data() {
        QTest::addColumn<Reaction>("reaction");
        QTest::addColumn<QList<Action>>("answers");
        QTest::addColumn<QString>("resultName");
        QTest::addColumn<QByteArray>("existingAfter");
        QTest::addColumn<int>("errorCode");
        QTest::newRow("rename") << Reaction::RenameToUniqueName << QList<Action>()
                                << QStringLiteral("a (1).bin") << QByteArray("old") << 0;
        QTest::newRow("overwrite") << Reaction::Overwrite << QList<Action>()
                                   << QStringLiteral("a.bin") << QByteArray("new") << 0;
        QTest::newRow("ask, overwrite") << Reaction::Ask << QList<Action>{Action::Overwrite}
                                        << QStringLiteral("a.bin") << QByteArray("new") << 0;
        QTest::newRow("ask, rename") << Reaction::Ask << QList<Action>{Action::Rename}
                                     << QStringLiteral("a (1).bin") << QByteArray("old") << 0;
        QTest::newRow("ask, abort")
            << Reaction::Ask << QList<Action>{Action::Abort} << QString() << QByteArray("old")
            << AbstractDownloadFileOps::AbortedErrorCode;
    }
    void existingTarget() {
        QFETCH(Reaction, reaction);
        QFETCH(QList<Action>, answers);
        QFETCH(QString, resultName);
        QFETCH(QByteArray, existingAfter);
        QFETCH(int, errorCode);
        auto info = finishedRecord(QStringLiteral("a.bin"), "new");
        QVERIFY(writeFile(path(QStringLiteral("a.bin")), "old"));
        m_ops->setExistingFileReaction(reaction);
        QList<QStringList> asked;
        int applied = 0;
        connect(m_ops, &AbstractDownloadFileOps::fileExistsActionRequired, this,
                [&asked](int, const QList<QString>& files) { asked.append(files); });
        connect(m_ops, &AbstractDownloadFileOps::fileExistsActionApplied, this,
                [&applied] { ++applied; });

        const auto result =
            perform(AbstractDownloadFileOps::calcFilesInitOps({}, info, true), answers);
        QCOMPARE(asked.size(), answers.size());
        QCOMPARE(applied, answers.size());
        if (!asked.isEmpty())
            QCOMPARE(asked[0], QStringList{path(QStringLiteral("a.bin"))});
        QCOMPARE(result.at(3).value<AbstractError>().code, errorCode);
        QCOMPARE(readFile(path(QStringLiteral("a.bin"))), existingAfter);
        if (errorCode) {
            QCOMPARE(readFile(info.files[0].tmpPath), QByteArray("new"));
            return;
        }
        QCOMPARE(readFile(path(resultName)), QByteArray("new"));
        QCOMPARE(QDir(m_dir.path()).entryList(QDir::Files | QDir::Hidden).size(),
                 resultName == QStringLiteral("a.bin") ? 1 : 2); // nothing kept aside
        AbstractDownloadFileOps::applyFilesInitOpsFinished(
            result.at(1).value<AbstractDownloadFileOps::FileInitializeOperations>(), 1, info);
        QCOMPARE(info.files[0].name, resultName);
    }

    // The second move fails: the first file goes back and the overwritten one returns.
    void failureUndoesEverything() {
        auto info = finishedRecord(QStringLiteral("a.bin"), "new a");
        info.files.append(
            fileRecord(QStringLiteral("b.bin"), 5, path(QStringLiteral("tmp/b.bin"))));
        QVERIFY(writeFile(path(QStringLiteral("a.bin")), "old a"));
        m_ops->setExistingFileReaction(Reaction::Overwrite);
        const auto result = perform(AbstractDownloadFileOps::calcFilesInitOps({}, info, true));
        const auto error = result.at(3).value<AbstractError>();
        QCOMPARE(error.category, std::string(AbstractError::QtFileError));
        QCOMPARE(result.at(2).toInt(), 0);
        QCOMPARE(readFile(path(QStringLiteral("a.bin"))), QByteArray("old a"));
        QCOMPARE(readFile(path(QStringLiteral("tmp/a.bin"))), QByteArray("new a"));
        QCOMPARE(QDir(m_dir.path()).entryList(QDir::Files | QDir::Hidden),
                 QStringList{QStringLiteral("a.bin")});
        QVERIFY(!AbstractDownloadFileOps::applyFilesInitOpsFinished(
            result.at(1).value<AbstractDownloadFileOps::FileInitializeOperations>(), 0, info));
    }

    void createsFilesAndFoldersAndDeselectedGoAside() {
        AbstractDownloadPersistentInfo info;
        info.destinationPath = m_dir.path();
        info.files = {fileRecord(QStringLiteral("new/x.bin"), 0, path(QStringLiteral("t/x.part"))),
                      fileRecord(QStringLiteral("album/y.bin"), 2)};
        info.files[1].priority = AbstractDownloadFileInfo::NotSelected;
        QVERIFY(writeFile(path(QStringLiteral("t/x.part")), "kept"));
        QVERIFY(writeFile(path(QStringLiteral("album/y.bin")), "yy"));
        const auto result = perform(AbstractDownloadFileOps::calcFilesInitOps({}, info, false));
        QCOMPARE(result.at(2).toInt(), 2);
        QCOMPARE(readFile(path(QStringLiteral("t/x.part"))), QByteArray("kept"));
        QCOMPARE(readFile(path(QStringLiteral("album/.unwanted/y.bin"))), QByteArray("yy"));
        AbstractDownloadFileOps::applyFilesInitOpsFinished(
            result.at(1).value<AbstractDownloadFileOps::FileInitializeOperations>(), 2, info);
        QVERIFY(info.files[0].testFlag(AbstractDownloadFileInfo::Created));
        QCOMPARE(info.files[1].tmpPath, path(QStringLiteral("album/.unwanted/y.bin")));
        QCOMPARE(info.files[1].name, QStringLiteral("album/y.bin"));

        // Selected again and finished: it comes back out.
        info.files[1].priority = AbstractDownloadFileInfo::NormalPriority;
        const auto back = AbstractDownloadFileOps::calcFilesInitOps({}, info, true);
        QCOMPARE(back.size(), 2);
        QCOMPARE(back[1].kind, Op::MoveToFinal);
        QCOMPARE(back[1].sourcePath, path(QStringLiteral("album/.unwanted/y.bin")));
        QCOMPARE(back[1].targetPath, path(QStringLiteral("album/y.bin")));
    }

    void destroyedWhileAskingUndoes() {
        auto info = finishedRecord(QStringLiteral("a.bin"), "new a");
        info.files.append(
            fileRecord(QStringLiteral("sub/b.bin"), 5, path(QStringLiteral("tmp/b"))));
        QVERIFY(writeFile(info.files[1].tmpPath, "new b"));
        QVERIFY(writeFile(path(QStringLiteral("sub/b.bin")), "old b"));
        // a.bin moves first; b.bin's question is never answered.
        m_ops->setExistingFileReaction(Reaction::Ask);
        bool asked = false;
        connect(m_ops, &AbstractDownloadFileOps::fileExistsActionRequired, this,
                [&asked] { asked = true; });
        m_ops->performInitializeOps(m_dir.path(),
                                    AbstractDownloadFileOps::calcFilesInitOps({}, info, true));
        QTRY_VERIFY(asked);
        QCOMPARE(readFile(path(QStringLiteral("a.bin"))), QByteArray("new a"));
        m_ops->fileExistsAction(0, Action::Overwrite); // not the file asked about: ignored
        const QPointer<AbstractDownloadFileOps> ops = m_ops;
        m_ops->deleteLater();
        QTRY_VERIFY(!ops);
        QCOMPARE(readFile(path(QStringLiteral("tmp/a.bin"))), QByteArray("new a"));
        QVERIFY(!QFile::exists(path(QStringLiteral("a.bin"))));
        QCOMPARE(readFile(path(QStringLiteral("sub/b.bin"))), QByteArray("old b"));
        m_ops = new AbstractDownloadFileOps; // for cleanup()
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownloadFileOps)
#include "tst_abstractdownloadfileops.moc"
