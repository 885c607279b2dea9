#include "support/fakedownload.h"
#include "support/signalrecorder.h"

#include <terncl/inet/qt/download/abstractdownloadspack.h>

#include <QTest>
#include <QThread>

namespace {

using Pack = AbstractDownloadsPack;
using Task = AbstractDownloadTask;

// A download that reports whatever tasks it is told to, running or not, and may refuse a
// writers thread.
class ReportingDownload : public FakeDownload {
public:
    using FakeDownload::FakeDownload;

    quint64 currentTasks() const override { return tasks; }
    AbstractDownloadTasksProgress tasksProgress() const override { return progress; }
    bool setWritersThread(QThread* thread) override {
        FakeDownload::setWritersThread(thread);
        return acceptsWritersThread;
    }

    quint64 tasks = 0;
    AbstractDownloadTasksProgress progress;
    bool acceptsWritersThread = true;
};

using ReportingPtr = QSharedPointer<ReportingDownload>;

ReportingPtr runningChild(qint64 id) {
    auto child = ReportingPtr::create(id);
    child->startRunning();
    return child;
}

QStringList events(const char* separatedBySemicolons) {
    return QString::fromLatin1(separatedBySemicolons).split(QLatin1Char(';'));
}

AbstractDownloadSettings someSettings() {
    AbstractDownloadSettings settings;
    settings.temporaryFolder = QStringLiteral("/tmp/parts");
    settings.flags = AbstractDownloadSettings::SkipPreallocation;
    return settings;
}

} // namespace

class TestAbstractDownloadsPack : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void settingsCommandsAndThreadsReachEveryChild() {
        Pack pack(1);
        const auto third = ReportingPtr::create(30);
        const auto first = ReportingPtr::create(10);
        const auto second = ReportingPtr::create(20);
        pack.addDownload(third);
        pack.setSettings(someSettings());
        QCOMPARE(third->settings(), someSettings());
        // Settings stick: later children have them before they are announced.
        AbstractDownloadSettings seenWhenAdded;
        connect(&pack, &Pack::downloadsAdded, this, [&] { seenWhenAdded = first->settings(); });
        pack.addDownloads({first, second});
        QCOMPARE(seenWhenAdded, someSettings());

        QList<qint64> started;
        for (const auto& child : {third, first, second})
            connect(child.get(), &AbstractDownload::running, this,
                    [&started, id = child->id()] { started.append(id); });
        pack.doCommand(AbstractDownloadCommand::Start);
        QCOMPARE(started, QList<qint64>({10, 20, 30}));
        QVERIFY(pack.isRunning());

        // Every child is asked even after one took the thread.
        first->acceptsWritersThread = false;
        third->acceptsWritersThread = false;
        QThread writers;
        QVERIFY(pack.setWritersThread(&writers));
        QCOMPARE(third->writersThread(), &writers);
        second->acceptsWritersThread = false;
        QVERIFY(!pack.setWritersThread(&writers));
    }

    void tasksCoverRunningChildrenOnly() {
        Pack pack(1);
        const auto downloading = runningChild(1);
        downloading->tasks = quint64(Task::Downloading);
        downloading->progress = {{Task::Downloading, {10, 100}}};
        const auto merging = runningChild(2);
        merging->tasks = Task::Downloading | Task::Merging;
        merging->progress = {{Task::Downloading, {5, 50}}, {Task::Merging, {1, 2}}};
        const auto idle = ReportingPtr::create(3);
        idle->tasks = quint64(Task::Verifying);
        idle->progress = {{Task::Verifying, {7, 7}}};
        pack.addDownloads({downloading, merging, idle});

        QCOMPARE(pack.currentTasks(), Task::Downloading | Task::Merging);
        const AbstractDownloadTasksProgress expected{{Task::Downloading, {15, 150}},
                                                     {Task::Merging, {1, 2}}};
        QCOMPARE(pack.tasksProgress(), expected);
    }

    void childrenSignalsComeOutOfThePack() {
        Pack pack(1);
        SignalRecorder recorder;
        recorder.record<Pack>(&pack, &Pack::downloadsAdded, QStringLiteral("added"));
        recorder.record<Pack>(&pack, &Pack::beforeDownloadsRemoved, QStringLiteral("before"));
        recorder.record<Pack>(&pack, &Pack::downloadsRemoved, QStringLiteral("removed"));
        recorder.record<Pack>(&pack, &Pack::downloadRunning, QStringLiteral("downloadRunning"));
        using Consumer = AbstractNetworkConsumerWithExtraTasks;
        recorder.record<Consumer>(&pack, &Consumer::running, QStringLiteral("running"));
        recorder.record<AbstractDownload>(&pack, &Pack::changed, QStringLiteral("changed"));
        const auto a = ReportingPtr::create(1);
        const auto b = ReportingPtr::create(2);
        const auto c = ReportingPtr::create(3);

        pack.addDownloads({c, a, b});
        a->startRunning();
        b->receive(10);
        a->fail(AbstractError(5, AbstractError::GenericError, "here"));
        QCOMPARE(pack.lastError().code, 5);
        QCOMPARE(recorder.events(), events("added([3,1,2]);running(true);downloadRunning(1, true);"
                                           "changed(false);changed(true);"
                                           "downloadRunning(1, false);running(false)"));

        // Removed children no longer reach the pack, one at a time or several at once.
        recorder.clear();
        pack.removeDownload(1);
        pack.removeDownloads({2, 3, 4});
        a->receive(1);
        b->receive(1);
        c->startRunning();
        QCOMPARE(recorder.events(),
                 events("before([1]);removed([1]);before([2,3,4]);removed([2,3,4])"));
        QVERIFY(pack.downloads().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestAbstractDownloadsPack)
#include "tst_abstractdownloadspack.moc"
