#include <terncl/qt/process/qtprocesslaunchmanager.h>

#include "support/recordinglogger.h"
#include "support/testchild.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>

#ifdef Q_OS_UNIX
#include <csignal>
#endif

namespace {
using Sandbox = QtProcessLaunchManager::Sandbox;

QStringList texts(std::initializer_list<const char*> items) {
    QStringList list;
    for (const char* item : items)
        list << QString::fromLatin1(item);
    return list;
}

// The manager's signals as one ordered list. After each end, a marker is added on the next turn
// of the event loop: a launch listed before the marker started at once, one listed after it
// waited for a timer.
class Events : public QObject {
public:
    explicit Events(QtProcessLaunchManager* manager) {
        connect(manager, &QtProcessLaunchManager::running, this, [this](bool on) {
            list << (on ? QStringLiteral("running") : QStringLiteral("idle"));
        });
        connect(manager, &QtProcessLaunchManager::launching, this,
                [this](int id) { list << QStringLiteral("launching %1").arg(id); });
        connect(manager, &QtProcessLaunchManager::dataFromProcess, this,
                [this](int id, const QByteArray& bytes) { data[id] += bytes; });
        connect(manager, &QtProcessLaunchManager::errorDataFromProcess, this,
                [this](int id, const QByteArray& bytes) { errorData[id] += bytes; });
        connect(
            manager, &QtProcessLaunchManager::finished, this,
            [this](int id, const AbstractError& error, int exitCode) {
                list << QStringLiteral("finished %1 %2 %3").arg(id).arg(error.code).arg(exitCode);
                errors[id] = error;
                QTimer::singleShot(0, this,
                                   [this, id] { list << QStringLiteral("turn %1").arg(id); });
            });
    }
    bool has(const QString& event) const { return list.contains(event); }

    QStringList list;
    QHash<int, QByteArray> data, errorData;
    QHash<int, AbstractError> errors;
};
} // namespace

class TestQtProcessLaunchManager : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    int m_round = 0;

    void launchChild(QtProcessLaunchManager& manager, int id, const QStringList& args,
                     bool useQueue = false, int maximum = 0, bool merge = false,
                     const Sandbox& sandbox = Sandbox()) {
        manager.launch(id, TestChild::program(), args, QString(), merge, useQueue, sandbox,
                       maximum);
    }
    // A child that ends when its gate is opened.
    void launchGated(QtProcessLaunchManager& manager, int id, int maximum) {
        launchChild(manager, id, {QStringLiteral("waitfile"), gate(id)}, true, maximum);
    }
    QString gate(int id) const {
        return m_dir.filePath(QStringLiteral("gate-%1-%2").arg(m_round).arg(id));
    }
    void open(int id) {
        QFile file(gate(id));
        QVERIFY(file.open(QIODevice::WriteOnly));
    }

private Q_SLOTS:
    void init() { ++m_round; }

    void cleanup() {
        if (TestChild::runningChildCount() >= 0)
            QTRY_COMPARE(TestChild::runningChildCount(), 0);
    }

    void idsLogLinesAndBatchRewrite() {
        RecordingLogger log;
        QtProcessLaunchManager manager(nullptr);
        Events events(&manager);
        QCOMPARE(manager.nextId(), 1);
        QCOMPARE(manager.nextId(), 2);

        launchChild(manager, 2, {QStringLiteral("exit"), QStringLiteral("3")});
        QTRY_VERIFY(events.has(QStringLiteral("finished 2 0 3")));
        QVERIFY(log.contains(QStringLiteral("[QtProcessLaunchManager #2]: launching process: ") +
                             TestChild::program() + QStringLiteral(", with args: exit 3")));
        QVERIFY(log.contains(QStringLiteral(
            "[QtProcessLaunchManager #2]: process finished with exit code: 3 and status: 0")));

        manager.launch(7, QStringLiteral("C:/tools/run.BAT"), {QStringLiteral("a")}, QString(),
                       false, false, Sandbox(), 0);
        QTRY_VERIFY(events.has(QStringLiteral("turn 7")));
        QVERIFY(log.contains(QStringLiteral("[QtProcessLaunchManager #7]: launching process: "
                                            "cmd.exe, with args: /C C:/tools/run.BAT a")));
#ifndef Q_OS_WIN
        QVERIFY(events.has(QStringLiteral("finished 7 2 0")));
        QCOMPARE(events.errors[7].category, std::string("GenericError"));
        QVERIFY(log.contains(
            QStringLiteral("[QtProcessLaunchManager #7]: process failed with error: 0")));
#endif
        QCOMPARE(events.list.filter(QStringLiteral("running")).size(), 2);
        QCOMPARE(events.list.filter(QStringLiteral("idle")).size(), 2);
    }

    void outputOnBothChannels() {
        QtProcessLaunchManager manager(nullptr);
        Events events(&manager);
        const QStringList streams{QStringLiteral("streams"), QStringLiteral("out"),
                                  QStringLiteral("err")};
        launchChild(manager, 1, streams);
        launchChild(manager, 2, streams, false, 0, true);
        // A line split over several writes arrives whole, once.
        launchChild(manager, 3,
                    {QStringLiteral("chunks"), QStringLiteral("20"), QStringLiteral("ti"),
                     QStringLiteral("me=1"), QStringLiteral("\\n")});
        launchChild(manager, 4, {QStringLiteral("large"), QStringLiteral("4194304")});
        QTRY_COMPARE(events.list.filter(QStringLiteral("finished")).size(), 4);

        QCOMPARE(events.data[1], QByteArray("out"));
        QCOMPARE(events.errorData[1], QByteArray("err"));
        QVERIFY(events.data[2] == "outerr" || events.data[2] == "errout");
        QVERIFY(!events.errorData.contains(2));
        QCOMPARE(events.data[3], QByteArray("time=1\n"));
        QCOMPARE(events.data[4].size(), 4194304);
        QVERIFY(events.data[4].endsWith("abcdefghijklmnop") || events.data[4].endsWith('\n'));
    }

    void crashedOrKilledChildren() {
        RecordingLogger log;
        QtProcessLaunchManager manager(nullptr);
        Events events(&manager);
        launchChild(manager, 1, {QStringLiteral("crash")});
        QTRY_VERIFY(events.has(QStringLiteral("finished 1 2 0")));
        QCOMPARE(events.data[1], QByteArray("about to crash\n"));
        QVERIFY(log.contains(
            QStringLiteral("[QtProcessLaunchManager #1]: process failed with error: 1")));

#ifdef Q_OS_UNIX
        launchChild(manager, 2, {QStringLiteral("hang")});
        QTRY_VERIFY(events.data[2].startsWith("pid "));
        const pid_t pid = events.data[2].mid(4).trimmed().toInt();
        QVERIFY(pid > 0);
        ::kill(pid, SIGKILL);
        QTRY_VERIFY(events.has(QStringLiteral("finished 2 2 0")));
#endif
        // The manager goes on working after its children died.
        launchChild(manager, 3, {QStringLiteral("echo"), QStringLiteral("alive")});
        QTRY_VERIFY(events.has(QStringLiteral("finished 3 0 0")));
        QCOMPARE(events.data[3], QByteArray("alive\n"));
    }

    void queueWithMaximumOneAndLimitsBelowOne() {
        QtProcessLaunchManager manager(nullptr);
        Events events(&manager);
        launchGated(manager, 1, 1);
        launchGated(manager, 2, 0);
        launchGated(manager, 3, -1);
        QCOMPARE(events.list, texts({"running", "launching 1"}));
        QVERIFY(manager.isRunning());

        open(1);
        QTRY_VERIFY(events.has(QStringLiteral("turn 1")));
        open(2);
        QTRY_VERIFY(events.has(QStringLiteral("turn 2")));
        open(3);
        QTRY_VERIFY(events.has(QStringLiteral("turn 3")));
        // After a normal end the next launch starts at once, before the event loop turns.
        QCOMPARE(events.list, texts({"running", "launching 1", "finished 1 0 0", "launching 2",
                                     "turn 1", "finished 2 0 0", "launching 3", "turn 2",
                                     "finished 3 0 0", "idle", "turn 3"}));
        QVERIFY(!manager.isRunning());
    }

    void queueWithMaximaOneThenTwo() {
        QtProcessLaunchManager manager(nullptr);
        Events events(&manager);
        launchGated(manager, 1, 1);
        launchGated(manager, 2, 2);
        launchGated(manager, 3, 1);
        launchGated(manager, 4, 3);
        // 2 may run beside one other, 4 beside two others; 3 waits for an empty queue.
        QCOMPARE(events.list, texts({"running", "launching 1", "launching 2", "launching 4"}));

        open(1);
        open(2);
        QTRY_VERIFY(events.has(QStringLiteral("turn 2")) && events.has(QStringLiteral("turn 1")));
        QVERIFY(!events.has(QStringLiteral("launching 3")));
        open(4);
        QTRY_VERIFY(events.has(QStringLiteral("launching 3")));
        open(3);
        QTRY_VERIFY(events.has(QStringLiteral("idle")));
    }

    void abortQueuedAndRunningLaunches() {
        QtProcessLaunchManager manager(nullptr);
        QCOMPARE(manager.queueRestartDelayAfterAbort(), 1000);
        Events events(&manager);
        for (int id = 1; id <= 5; ++id)
            launchGated(manager, id, 1);

        // A queued launch ends at once and never starts; an unknown id changes nothing.
        manager.abort(2);
        QCOMPARE(events.list, texts({"running", "launching 1", "finished 2 4 0"}));
        manager.abort(99);
        QCOMPARE(events.list.size(), 3);

        // A running launch is killed; the next one waits for the pause after an abort.
        manager.abort(1);
        QTRY_VERIFY(events.has(QStringLiteral("launching 3")));
        const auto at = [&](const char* event) {
            return events.list.indexOf(QLatin1String(event));
        };
        QVERIFY(at("finished 1 4 0") < at("turn 1"));
        QVERIFY(at("turn 1") < at("launching 3"));
        QCOMPARE(events.errors[1].category, std::string("GenericError"));

        // Aborted during the pause, 4 must not be started when the pause ends; 5 is.
        manager.abort(3);
        QTRY_VERIFY(events.has(QStringLiteral("finished 3 4 0")));
        manager.abort(4);
        QTRY_VERIFY(events.has(QStringLiteral("launching 5")));
        QVERIFY(!events.has(QStringLiteral("launching 4")));
        QVERIFY(events.has(QStringLiteral("finished 4 4 0")));

        manager.abortAll();
        QTRY_VERIFY(events.has(QStringLiteral("finished 5 4 0")));
        QTRY_VERIFY(events.has(QStringLiteral("idle")));
        QCOMPARE(events.list.filter(QStringLiteral("launching 2")).size(), 0);
    }

    void launchAndAbortFromAnotherThread() {
        QtProcessLaunchManager manager(nullptr);
        Events events(&manager);
        const auto inThread = [](const std::function<void()>& work) {
            QScopedPointer<QThread> thread(QThread::create(work));
            thread->start();
            return thread->wait();
        };
        QVERIFY(inThread([&] {
            launchChild(manager, 1, {QStringLiteral("echo"), QStringLiteral("hi")});
            launchChild(manager, 2, {QStringLiteral("hang")});
            launchChild(manager, 3, {QStringLiteral("hang")});
        }));
        QTRY_VERIFY(events.has(QStringLiteral("finished 1 0 0")));
        QCOMPARE(events.data[1], QByteArray("hi\n"));

        QTRY_VERIFY(events.data[2].startsWith("pid") && events.data[3].startsWith("pid"));
        QVERIFY(inThread([&] { manager.abortList({2}); }));
        QTRY_VERIFY(events.has(QStringLiteral("finished 2 4 0")));
        QVERIFY(inThread([&] { manager.abortAll(); }));
        QTRY_VERIFY(events.has(QStringLiteral("finished 3 4 0")));
    }

    void sandboxedLaunchesFollowTheFallbackRule() {
        // Built one by one: an initializer list of shared pointers trips a false
        // maybe-uninitialized warning in optimized builds.
        QList<QSharedPointer<QtProcessSandboxManager>> sandboxManagers;
        sandboxManagers.append(nullptr);
        sandboxManagers.append(QSharedPointer<QtProcessSandboxManager>::create(QString()));
        sandboxManagers.append(
            QSharedPointer<QtProcessSandboxManager>::create(QStringLiteral("tern")));
        for (const auto& sandboxManager : sandboxManagers) {
            QtProcessLaunchManager manager(sandboxManager);
            Events events(&manager);
            Sandbox sandbox;
            sandbox.enabled = true;
            launchChild(manager, 1, {QStringLiteral("echo"), QStringLiteral("normal")}, false, 0,
                        false, sandbox);
            sandbox.allowStartWithoutSandbox = false;
            launchChild(manager, 2, {QStringLiteral("echo"), QStringLiteral("never")}, false, 0,
                        false, sandbox);
            QTRY_VERIFY(events.has(QStringLiteral("idle")));
            QVERIFY(events.has(QStringLiteral("finished 1 0 0")));
            QCOMPARE(events.data[1], QByteArray("normal\n"));
            QVERIFY(events.has(QStringLiteral("finished 2 2 0")));
            QVERIFY(!events.data.contains(2));
        }
    }

    void destructionKillsRunningChildren() {
        auto* manager = new QtProcessLaunchManager(nullptr);
        Events events(manager);
        launchChild(*manager, 1, {QStringLiteral("hang")});
        launchGated(*manager, 2, 1);
        QTRY_VERIFY(events.data[1].startsWith("pid"));
        QVERIFY(events.has(QStringLiteral("launching 2")));
        delete manager;
        if (TestChild::runningChildCount() >= 0)
            QCOMPARE(TestChild::runningChildCount(), 0);
    }
};

QTEST_GUILESS_MAIN(TestQtProcessLaunchManager)
#include "tst_qtprocesslaunchmanager.moc"
