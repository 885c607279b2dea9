#include "support/fakenetworkconsumer.h"
#include "support/signalrecorder.h"

#include <terncl/inet/qt/download/abstractnetworkconsumerswithextrataskspack.h>

#include <QSequentialIterable>
#include <QTest>

namespace {

using FakePtr = QSharedPointer<FakeNetworkConsumer>;
using Base = AbstractNetworkConsumersWithExtraTasksPack;

class Pack : public AbstractNetworkConsumersWithExtraTasksPack {
public:
    qint64 id() const override { return 500; }
};

FakePtr runningItem(qint64 id) {
    auto item = FakePtr::create(id);
    item->setRunningState(true);
    return item;
}

// Records the pack's own signals under short names.
void recordPack(SignalRecorder& recorder, Pack& pack) {
    recorder.record<Base>(&pack, &Base::itemsAdded, QStringLiteral("added"));
    recorder.record<Base>(&pack, &Base::beforeItemsRemoved, QStringLiteral("before"));
    recorder.record<Base>(&pack, &Base::itemsRemoved, QStringLiteral("removed"));
    recorder.record<Base>(&pack, &Base::itemRunning, QStringLiteral("itemRunning"));
    recorder.record<AbstractNetworkConsumerWithExtraTasks>(
        &pack, &AbstractNetworkConsumerWithExtraTasks::running, QStringLiteral("running"));
}

QStringList events(std::initializer_list<const char*> texts) {
    QStringList list;
    for (const char* text : texts)
        list.append(QString::fromLatin1(text));
    return list;
}

} // namespace

class TestAbstractNetworkConsumersWithExtraTasksPack : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void runningChangesOnlyAtTheEdges() {
        Pack pack;
        SignalRecorder recorder;
        recordPack(recorder, pack);
        const FakePtr first = runningItem(1);
        const FakePtr second = FakePtr::create(2);

        pack.addItem(first);
        pack.addItem(second);
        QCOMPARE(recorder.events(),
                 events({"added([1])", "running(true)", "itemRunning(1, true)", "added([2])"}));
        QVERIFY(pack.isRunning());

        recorder.clear();
        second->setRunningState(true);
        Q_EMIT second->running(true); // a repeated report changes nothing
        first->setRunningState(false);
        QCOMPARE(recorder.events(), events({"itemRunning(2, true)", "itemRunning(1, false)"}));
        QCOMPARE(pack.runningItemsIds(), QSet<qint64>({2}));

        recorder.clear();
        second->setRunningState(false);
        QCOMPARE(recorder.events(), events({"itemRunning(2, false)", "running(false)"}));
        QVERIFY(!pack.isRunning());
        QVERIFY(pack.runningItemsIds().isEmpty());
    }

    void addingSeveralRunningItemsStartsThePackOnce() {
        Pack pack;
        SignalRecorder recorder;
        recordPack(recorder, pack);
        pack.addItems({runningItem(3), FakePtr::create(1), runningItem(2)});
        QCOMPARE(recorder.events(), events({"added([3,1,2])", "running(true)",
                                            "itemRunning(3, true)", "itemRunning(2, true)"}));
        QCOMPARE(pack.itemsIds(), QList<qint64>({1, 2, 3}));
        QCOMPARE(pack.size(), 3);

        // An item whose id is taken is neither added nor tracked.
        recorder.clear();
        const FakePtr impostor = runningItem(1);
        pack.addItem(impostor);
        pack.addItems({impostor});
        impostor->setRunningState(false);
        impostor->setRunningState(true);
        QCOMPARE(recorder.events(), events({"added([])"}));
        QCOMPARE(pack.runningItemsIds(), QSet<qint64>({2, 3}));
    }

    void removingRunningItemsStopsThePack() {
        Pack pack;
        const FakePtr first = runningItem(1);
        const FakePtr second = runningItem(2);
        const FakePtr idle = FakePtr::create(3);
        pack.addItems({first, second, idle});
        SignalRecorder recorder;
        recordPack(recorder, pack);

        pack.removeItem(1);
        pack.removeItem(9);
        QCOMPARE(recorder.events(),
                 events({"before([1])", "removed([1])", "itemRunning(1, false)", "before([9])"}));

        recorder.clear();
        pack.removeItems({2, 3, 9});
        QCOMPARE(recorder.events(), events({"before([2,3,9])", "removed([2,3,9])",
                                            "itemRunning(2, false)", "running(false)"}));
        QVERIFY(pack.empty());

        // Removed items no longer reach the pack.
        recorder.clear();
        first->setRunningState(false);
        idle->setRunningState(true);
        QCOMPARE(recorder.events(), QStringList());
        QVERIFY(!pack.isRunning());
    }

    void metaTypesAreRegisteredByName() {
        Pack pack;
        QCOMPARE(QMetaType::fromName("AbstractNetworkConsumersWithExtraTasksPack::ItemPtr"),
                 QMetaType::fromType<Base::ItemPtr>());
        QCOMPARE(
            QMetaType::fromName("QVector<AbstractNetworkConsumersWithExtraTasksPack::ItemPtr>"),
            QMetaType::fromType<QList<Base::ItemPtr>>());
        const Base::ItemPtr item = FakePtr::create(1);
        QCOMPARE(QVariant::fromValue(item).value<QObject*>(), item.get());
        QCOMPARE(
            QVariant::fromValue(QList<Base::ItemPtr>{item}).value<QSequentialIterable>().size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestAbstractNetworkConsumersWithExtraTasksPack)
#include "tst_abstractnetworkconsumerswithextrataskspack.moc"
