#include <terncl/qt/process/qtprocesslaunchmanager.h>

#include "support/recordinglogger.h"
#include "support/testchild.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <memory>

using namespace Qt::StringLiterals;

namespace {
using Sandbox = QtProcessLaunchManager::Sandbox;

QStringList texts(const char* commaSeparated) {
    return QString::fromUtf8(commaSeparated).split(QLatin1Char(','));
}

// A manager that runs the helper program, with its signals as one ordered list. After each end,
// a marker is added on the next turn of the event loop: a launch listed before the marker started
// at once, one listed after it waited for a timer.
class Rig : public QObject {
public:
    explicit Rig(QSharedPointer<QtProcessSandboxManager> sandboxManager = nullptr)
        : manager(std::move(sandboxManager)) {
        connect(&manager, &QtProcessLaunchManager::running, this,
                [this](bool on) { list << QString::fromUtf8(on ? "running" : "idle"); });
        connect(&manager, &QtProcessLaunchManager::launching, this,
                [this](int id) { list << u"launching %1"_s.arg(id); });
        connect(&manager, &QtProcessLaunchManager::dataFromProcess, this,
                [this](int id, const QByteArray& bytes) { data[id] += bytes; });
        connect(&manager, &QtProcessLaunchManager::errorDataFromProcess, this,
                [this](int id, const QByteArray& bytes) { errorData[id] += bytes; });
        connect(&manager, &QtProcessLaunchManager::finished, this,
                [this](int id, const AbstractError& error, int exitCode) {
                    list << u"finished %1 %2 %3"_s.arg(id).arg(error.code).arg(exitCode);
                    errors[id] = error;
                    QTimer::singleShot(0, this, [this, id] { list << u"turn %1"_s.arg(id); });
                });
    }
    void launch(int id, const char* args, bool merge = false, const Sandbox& sandbox = Sandbox()) {
        manager.launch(id, TestChild::program(), texts(args), QString(), merge, false, sandbox, 0);
    }
    // A queued child that ends when open(id) is called.
    void launchGated(int id, int maximum) {
        manager.launch(id, TestChild::program(), {u"waitfile"_s, gate(id)}, QString(), false, true,
                       Sandbox(), maximum);
    }
    void open(int id) { QVERIFY(QFile(gate(id)).open(QIODevice::WriteOnly)); }
    bool has(const char* event) const { return list.contains(QString::fromUtf8(event)); }

    QStringList list;
    QHash<int, QByteArray> data, errorData;
    QHash<int, AbstractError> errors;
    QTemporaryDir gates;
    // Last, so that it ends its children while the rest is still there.
    QtProcessLaunchManager manager;

private:
    QString gate(int id) const { return gates.filePath(QString::number(id)); }
};
} // namespace

class TestQtProcessLaunchManager : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() {
        if (TestChild::runningChildCount() >= 0)
            QTRY_COMPARE(TestChild::runningChildCount(), 0);
    }

    // The log is the only trace of the rewrite where cmd.exe does not exist.
    void batchFilesRunThroughTheCommandInterpreter() {
        RecordingLogger log;
        Rig rig;
        rig.manager.launch(7, u"C:/tools/run.BAT"_s, texts("a"), QString(), false, false, Sandbox(),
                           0);
        QTRY_VERIFY(rig.has("turn 7"));
        QVERIFY(log.contains(QStringLiteral("[QtProcessLaunchManager #7]: launching process: "
                                            "cmd.exe, with args: /C C:/tools/run.BAT a")));
#ifndef Q_OS_WIN
        QVERIFY(rig.has("finished 7 2 0"));
        QCOMPARE(rig.errors[7].category, std::string("GenericError"));
#endif
    }

    void outputAndDeadChildren() {
        Rig rig;
        rig.launch(1, "streams,out,err");
        rig.launch(2, "streams,out,err", true);
        rig.launch(3, "large,4194304");
        rig.launch(4, "crash");
        rig.launch(5, "exit,3");
        QTRY_COMPARE(rig.list.filter(u"finished"_s).size(), 5);

        QCOMPARE(rig.data[1], QByteArray("out"));
        QCOMPARE(rig.errorData, (QHash<int, QByteArray>{{1, "err"}})); // none when merged
        QVERIFY(rig.data[2] == "outerr" || rig.data[2] == "errout");
        QCOMPARE(rig.data[3], QByteArray(4194304, 'x'));
        QVERIFY(rig.has("finished 4 2 0"));
        QCOMPARE(rig.data[4], QByteArray("about to crash\n"));
        QVERIFY(rig.has("finished 5 0 3"));
        // The manager goes on working after its children died.
        rig.launch(6, "echo,alive");
        QTRY_VERIFY(rig.has("finished 6 0 0"));
        QCOMPARE(rig.data[6], QByteArray("alive\n"));
    }

    void queueMaximaAndLimitsBelowOne() {
        Rig rig;
        rig.launchGated(1, 1);
        rig.launchGated(2, 0);
        rig.launchGated(3, -1);
        QCOMPARE(rig.list, texts("running,launching 1"));
        for (int id = 1; id <= 3; ++id) {
            rig.open(id);
            QTRY_VERIFY(rig.list.contains(u"turn %1"_s.arg(id)));
        }
        // After a normal end the next launch starts at once, before the event loop turns.
        QCOMPARE(rig.list, texts("running,launching 1,finished 1 0 0,launching 2,turn 1,"
                                 "finished 2 0 0,launching 3,turn 2,finished 3 0 0,idle,turn 3"));

        // 5 may run beside one other, 7 beside two others; 6 waits for an empty queue.
        rig.list.clear();
        rig.launchGated(4, 1);
        rig.launchGated(5, 2);
        rig.launchGated(6, 1);
        rig.launchGated(7, 3);
        QCOMPARE(rig.list, texts("running,launching 4,launching 5,launching 7"));
        rig.open(4);
        rig.open(5);
        QTRY_VERIFY(rig.has("turn 4") && rig.has("turn 5"));
        QVERIFY(!rig.has("launching 6"));
        rig.open(7);
        QTRY_VERIFY(rig.has("launching 6"));
        rig.open(6);
        QTRY_VERIFY(rig.has("idle"));
    }

    void abortQueuedAndRunningLaunches() {
        Rig rig;
        for (int id = 1; id <= 5; ++id)
            rig.launchGated(id, 1);

        // A queued launch ends at once and never starts; an unknown id changes nothing.
        rig.manager.abort(2);
        rig.manager.abort(99);
        QCOMPARE(rig.list, texts("running,launching 1,finished 2 4 0"));

        // A running launch is killed; the next one waits for the pause after an abort.
        rig.manager.abort(1);
        QTRY_VERIFY(rig.has("launching 3"));
        const auto at = [&](const char* event) {
            return rig.list.indexOf(QLatin1String(event));
        };
        QVERIFY(at("finished 1 4 0") < at("turn 1") && at("turn 1") < at("launching 3"));
        QCOMPARE(rig.errors[1].category, std::string("GenericError"));

        // Aborted during the pause, 4 must not be started when the pause ends; 5 is.
        rig.manager.abort(3);
        QTRY_VERIFY(rig.has("finished 3 4 0"));
        rig.manager.abort(4);
        QTRY_VERIFY(rig.has("launching 5"));
        QVERIFY(!rig.has("launching 4") && rig.has("finished 4 4 0"));

        rig.manager.abortAll();
        QTRY_VERIFY(rig.has("finished 5 4 0") && rig.has("idle"));
        QVERIFY(!rig.has("launching 2"));
    }

    void launchAndAbortFromAnotherThread() {
        Rig rig;
        const auto inThread = [](const std::function<void()>& work) {
            QScopedPointer<QThread> thread(QThread::create(work));
            thread->start();
            return thread->wait();
        };
        QVERIFY(inThread([&] {
            rig.launch(1, "hang");
            rig.launch(2, "hang");
        }));
        QTRY_VERIFY(rig.data[1].startsWith("pid") && rig.data[2].startsWith("pid"));
        QVERIFY(inThread([&] { rig.manager.abortList({1}); }));
        QTRY_VERIFY(rig.has("finished 1 4 0"));
        QVERIFY(inThread([&] { rig.manager.abortAll(); }));
        QTRY_VERIFY(rig.has("finished 2 4 0"));
    }

    void sandboxedLaunchesFollowTheFallbackRule() {
        // No sandbox manager, and one with sandboxing disabled.
        for (int kind = 0; kind < 2; ++kind) {
            QSharedPointer<QtProcessSandboxManager> sandboxManager;
            if (kind > 0)
                sandboxManager.reset(new QtProcessSandboxManager(QString()));
            Rig rig(sandboxManager);
            Sandbox sandbox;
            sandbox.enabled = true;
            rig.launch(1, "echo,normal", false, sandbox);
            sandbox.allowStartWithoutSandbox = false;
            rig.launch(2, "echo,never", false, sandbox);
            QTRY_VERIFY(rig.has("idle"));
            QVERIFY(rig.has("finished 1 0 0") && rig.has("finished 2 2 0"));
            QCOMPARE(rig.data, (QHash<int, QByteArray>{{1, "normal\n"}}));
        }
    }

    void destructionKillsRunningChildren() {
        auto rig = std::make_unique<Rig>();
        rig->launch(1, "hang");
        rig->launchGated(2, 1);
        QTRY_VERIFY(rig->data[1].startsWith("pid") && rig->has("launching 2"));
        rig.reset();
        if (TestChild::runningChildCount() >= 0)
            QCOMPARE(TestChild::runningChildCount(), 0);
    }
};

QTEST_GUILESS_MAIN(TestQtProcessLaunchManager)
#include "tst_qtprocesslaunchmanager.moc"
