#include "support/fakenetworkconsumer.h"
#include "support/signalrecorder.h"

#include <terncl/inet/qt/download/abstractnetworkconsumerswithextrataskspack.h>

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
        recorder.record<Base>(&pack, &Base::itemsAdded, QStringLiteral("added"));
        recorder.record<Base>(&pack, &Base::beforeItemsRemoved, QStringLiteral("before"));
        recorder.record<Base>(&pack, &Base::itemsRemoved, QStringLiteral("removed"));
        recorder.record<Base>(&pack, &Base::itemRunning, QStringLiteral("itemRunning"));
        recorder.record<AbstractNetworkConsumerWithExtraTasks>(
            &pack, &AbstractNetworkConsumerWithExtraTasks::running, QStringLiteral("running"));
        const FakePtr idle = FakePtr::create(1);
        const FakePtr second = runningItem(2);
        const FakePtr third = runningItem(3);

        // Several running items start the pack once.
        pack.addItems({third, idle, second});
        QCOMPARE(recorder.events(), events({"added([3,1,2])", "running(true)",
                                            "itemRunning(3, true)", "itemRunning(2, true)"}));
        QCOMPARE(pack.itemsIds(), QList<qint64>({1, 2, 3}));

        // An item whose id is taken is neither added nor tracked.
        recorder.clear();
        const FakePtr impostor = runningItem(1);
        pack.addItem(impostor);
        pack.addItems({impostor});
        impostor->setRunningState(false);
        impostor->setRunningState(true);
        QCOMPARE(recorder.events(), events({"added([])"}));
        QCOMPARE(pack.runningItemsIds(), QSet<qint64>({2, 3}));

        // The pack stops with the last running item.
        recorder.clear();
        idle->setRunningState(true);
        Q_EMIT idle->running(true); // a repeated report changes nothing
        third->setRunningState(false);
        second->setRunningState(false);
        idle->setRunningState(false);
        QCOMPARE(recorder.events(),
                 events({"itemRunning(1, true)", "itemRunning(3, false)", "itemRunning(2, false)",
                         "itemRunning(1, false)", "running(false)"}));

        // Removing running items ends their runs, and the pack's after the last one.
        recorder.clear();
        second->setRunningState(true);
        third->setRunningState(true);
        pack.removeItem(2);
        pack.removeItem(9);
        pack.removeItems({1, 3, 9});
        QCOMPARE(
            recorder.events(),
            events({"running(true)", "itemRunning(2, true)", "itemRunning(3, true)", "before([2])",
                    "removed([2])", "itemRunning(2, false)", "before([9])", "before([1,3,9])",
                    "removed([1,3,9])", "itemRunning(3, false)", "running(false)"}));
        QVERIFY(pack.empty());
        QVERIFY(!pack.isRunning());

        // Removed items no longer reach the pack.
        recorder.clear();
        second->setRunningState(false);
        idle->setRunningState(true);
        QCOMPARE(recorder.events(), QStringList());
    }

    void metaTypesAreRegisteredByName() {
        Pack pack;
        QCOMPARE(QMetaType::fromName("AbstractNetworkConsumersWithExtraTasksPack::ItemPtr"),
                 QMetaType::fromType<Base::ItemPtr>());
        QCOMPARE(
            QMetaType::fromName("QVector<AbstractNetworkConsumersWithExtraTasksPack::ItemPtr>"),
            QMetaType::fromType<QList<Base::ItemPtr>>());
    }
};

QTEST_GUILESS_MAIN(TestAbstractNetworkConsumersWithExtraTasksPack)
#include "tst_abstractnetworkconsumerswithextrataskspack.moc"
