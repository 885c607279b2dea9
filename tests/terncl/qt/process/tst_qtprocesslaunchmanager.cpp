#include <terncl/qt/process/qtprocesslaunchmanager.h>

#include "support/recordinglogger.h"
#include "support/testchild.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>

#ifdef Q_OS_UNIX
#include <csignal>
#endif

namespace {
using Sandbox = QtProcessLaunchManager::Sandbox;

QStringList texts(const char* commaSeparated) {
    return QString::fromUtf8(commaSeparated).split(QLatin1Char(','));
}

// The manager's signals as one ordered list. After each end, a marker is added on the next turn
// of the event loop: a launch listed before the marker started at once, one listed after it
// waited for a timer.
class Events : public QObject {
public:
    explicit Events(QtProcessLaunchManager* manager) {
        connect(manager, &QtProcessLaunchManager::running, this,
                [this](bool on) { list << QString::fromUtf8(on ? "running" : "idle"); });
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
    bool has(const char* event) const { return has(QString::fromUtf8(event)); }

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
    // A queued child that ends when open(id) is called.
    void launchGated(QtProcessLaunchManager& manager, int id, int maximum) {
        launchChild(manager, id, QStringList{QStringLiteral("waitfile"), gate(id)}, true, maximum);
    }
    QString gate(int id) const {
        return m_dir.filePath(QStringLiteral("gate-%1-%2").arg(m_round).arg(id));
    }
    void open(int id) { QVERIFY(QFile(gate(id)).open(QIODevice::WriteOnly)); }

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

        launchChild(manager, 2, texts("exit,3"));
        QTRY_VERIFY(events.has("finished 2 0 3"));
        QVERIFY(log.contains(QStringLiteral("[QtProcessLaunchManager #2]: launching process: ") +
                             TestChild::program() + QStringLiteral(", with args: exit 3")));
        QVERIFY(log.contains(QStringLiteral(
            "[QtProcessLaunchManager #2]: process finished with exit code: 3 and status: 0")));

        manager.launch(7, QStringLiteral("C:/tools/run.BAT"), texts("a"), QString(), false, false,
                       Sandbox(), 0);
        QTRY_VERIFY(events.has("turn 7"));
        QVERIFY(log.contains(QStringLiteral("[QtProcessLaunchManager #7]: launching process: "
                                            "cmd.exe, with args: /C C:/tools/run.BAT a")));
#ifndef Q_OS_WIN
        QVERIFY(events.has("finished 7 2 0"));
        QCOMPARE(events.errors[7].category, std::string("GenericError"));
        QVERIFY(log.contains(
            QStringLiteral("[QtProcessLaunchManager #7]: process failed with error: 0")));
#endif
        QCOMPARE(events.list.count(QStringLiteral("running")), 2);
        QCOMPARE(events.list.count(QStringLiteral("idle")), 2);
    }

    void outputAndDeadChildren() {
        RecordingLogger log;
        QtProcessLaunchManager manager(nullptr);
        Events events(&manager);
        const QStringList streams = texts("streams,out,err");
        launchChild(manager, 1, streams);
        launchChild(manager, 2, streams, false, 0, true);
        // A line split over several writes arrives whole, once.
        launchChild(manager, 3, texts("chunks,20,ti,me=1,\\n"));
        launchChild(manager, 4, texts("large,4194304"));
        launchChild(manager, 5, texts("crash"));
        QTRY_COMPARE(events.list.filter(QStringLiteral("finished")).size(), 5);

        QCOMPARE(events.data[1], QByteArray("out"));
        QCOMPARE(events.errorData[1], QByteArray("err"));
        QVERIFY(events.data[2] == "outerr" || events.data[2] == "errout");
        QVERIFY(!events.errorData.contains(2));
        QCOMPARE(events.data[3], QByteArray("time=1\n"));
        QCOMPARE(events.data[4].size(), 4194304);
        QVERIFY(events.has("finished 5 2 0"));
        QCOMPARE(events.data[5], QByteArray("about to crash\n"));
        QVERIFY(log.contains(
            QStringLiteral("[QtProcessLaunchManager #5]: process failed with error: 1")));
#ifdef Q_OS_UNIX
        launchChild(manager, 6, texts("hang"));
        QTRY_VERIFY(events.data[6].startsWith("pid "));
        const pid_t pid = events.data[6].mid(4).trimmed().toInt();
        QVERIFY(pid > 0);
        ::kill(pid, SIGKILL);
        QTRY_VERIFY(events.has("finished 6 2 0"));
#endif
        // The manager goes on working after its children died.
        launchChild(manager, 7, texts("echo,alive"));
        QTRY_VERIFY(events.has("finished 7 0 0"));
        QCOMPARE(events.data[7], QByteArray("alive\n"));
    }

    void queueMaximaAndLimitsBelowOne() {
        QtProcessLaunchManager manager(nullptr);
        Events events(&manager);
        launchGated(manager, 1, 1);
        launchGated(manager, 2, 0);
        launchGated(manager, 3, -1);
        QCOMPARE(events.list, texts("running,launching 1"));
        QVERIFY(manager.isRunning());
        for (int id = 1; id <= 3; ++id) {
            open(id);
            QTRY_VERIFY(events.has(QStringLiteral("turn %1").arg(id)));
        }
        // After a normal end the next launch starts at once, before the event loop turns.
        QCOMPARE(events.list,
                 texts("running,launching 1,finished 1 0 0,launching 2,turn 1,"
                       "finished 2 0 0,launching 3,turn 2,finished 3 0 0,idle,turn 3"));
        QVERIFY(!manager.isRunning());

        // 5 may run beside one other, 7 beside two others; 6 waits for an empty queue.
        events.list.clear();
        launchGated(manager, 4, 1);
        launchGated(manager, 5, 2);
        launchGated(manager, 6, 1);
        launchGated(manager, 7, 3);
        QCOMPARE(events.list, texts("running,launching 4,launching 5,launching 7"));
        open(4);
        open(5);
        QTRY_VERIFY(events.has("turn 4") && events.has("turn 5"));
        QVERIFY(!events.has("launching 6"));
        open(7);
        QTRY_VERIFY(events.has("launching 6"));
        open(6);
        QTRY_VERIFY(events.has("idle"));
    }

    void abortQueuedAndRunningLaunches() {
        QtProcessLaunchManager manager(nullptr);
        QCOMPARE(manager.queueRestartDelayAfterAbort(), 1000);
        Events events(&manager);
        for (int id = 1; id <= 5; ++id)
            launchGated(manager, id, 1);

        // A queued launch ends at once and never starts; an unknown id changes nothing.
        manager.abort(2);
        manager.abort(99);
        QCOMPARE(events.list, texts("running,launching 1,finished 2 4 0"));

        // A running launch is killed; the next one waits for the pause after an abort.
        manager.abort(1);
        QTRY_VERIFY(events.has("launching 3"));
        const auto at = [&](const char* event) {
            return events.list.indexOf(QLatin1String(event));
        };
        QVERIFY(at("finished 1 4 0") < at("turn 1") && at("turn 1") < at("launching 3"));
        QCOMPARE(events.errors[1].category, std::string("GenericError"));

        // Aborted during the pause, 4 must not be started when the pause ends; 5 is.
        manager.abort(3);
        QTRY_VERIFY(events.has("finished 3 4 0"));
        manager.abort(4);
        QTRY_VERIFY(events.has("launching 5"));
        QVERIFY(!events.has("launching 4") && events.has("finished 4 4 0"));

        manager.abortAll();
        QTRY_VERIFY(events.has("finished 5 4 0") && events.has("idle"));
        QVERIFY(!events.has("launching 2"));
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
            launchChild(manager, 1, texts("hang"));
            launchChild(manager, 2, texts("hang"));
        }));
        QTRY_VERIFY(events.data[1].startsWith("pid") && events.data[2].startsWith("pid"));
        QVERIFY(inThread([&] { manager.abortList({1}); }));
        QTRY_VERIFY(events.has("finished 1 4 0"));
        QVERIFY(inThread([&] { manager.abortAll(); }));
        QTRY_VERIFY(events.has("finished 2 4 0"));
    }

    void sandboxedLaunchesFollowTheFallbackRule() {
        // No sandbox manager, one with sandboxing disabled, and one whose sandbox cannot be used.
        for (int kind = 0; kind < 3; ++kind) {
            QSharedPointer<QtProcessSandboxManager> sandboxManager;
            if (kind > 0)
                sandboxManager.reset(
                    new QtProcessSandboxManager(kind == 1 ? QString() : QStringLiteral("tern")));
            QtProcessLaunchManager manager(sandboxManager);
            Events events(&manager);
            Sandbox sandbox;
            sandbox.enabled = true;
            launchChild(manager, 1, texts("echo,normal"), false, 0, false, sandbox);
            sandbox.allowStartWithoutSandbox = false;
            launchChild(manager, 2, texts("echo,never"), false, 0, false, sandbox);
            QTRY_VERIFY(events.has("idle"));
            QVERIFY(events.has("finished 1 0 0") && events.has("finished 2 2 0"));
            QCOMPARE(events.data[1], QByteArray("normal\n"));
            QVERIFY(!events.data.contains(2));
        }
    }

    void destructionKillsRunningChildren() {
        auto* manager = new QtProcessLaunchManager(nullptr);
        Events events(manager);
        launchChild(*manager, 1, texts("hang"));
        launchGated(*manager, 2, 1);
        QTRY_VERIFY(events.data[1].startsWith("pid") && events.has("launching 2"));
        delete manager;
        if (TestChild::runningChildCount() >= 0)
            QCOMPARE(TestChild::runningChildCount(), 0);
    }
};

QTEST_GUILESS_MAIN(TestQtProcessLaunchManager)
#include "tst_qtprocesslaunchmanager.moc"
