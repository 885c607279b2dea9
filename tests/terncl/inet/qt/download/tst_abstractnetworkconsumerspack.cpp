#include "support/fakenetworkconsumer.h"
#include "support/signalrecorder.h"

#include <terncl/inet/qt/download/abstractnetworkconsumerspack.h>
#include <terncl/inet/qt/download/abstractnetworkconsumersstats.h>
#include <terncl/inet/qt/download/abstractnetworkconsumerswithextrataskspack.h>
#include <terncl/inet/qt/download/qtnetworkauthscope.h>
#include <terncl/inet/qt/download/qtsslhost.h>

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

using TasksBase = AbstractNetworkConsumersWithExtraTasksPack;
using FakePtr = QSharedPointer<FakeNetworkConsumer>;
constexpr auto Down = NetworkTrafficDirection::Download;
constexpr auto Up = NetworkTrafficDirection::Upload;

class Pack : public AbstractNetworkConsumersPack {
public:
    qint64 id() const override { return 1000; }
    using AbstractNetworkConsumersPack::applySettingsToRunningItems;
    using AbstractNetworkConsumersPack::isRedivisionScheduled;
    using AbstractNetworkConsumersPack::setRedivisionInterval;
};

class TasksPack : public AbstractNetworkConsumersWithExtraTasksPack {
public:
    qint64 id() const override { return 500; }
};

const QtHostAndPort https{u"host"_s, 443};
const QtHostAndPort http{u"host"_s, 80};

// An item with one connection (so it uses the network) and the given speeds.
FakePtr activeItem(qint64 id, qint64 downSpeed, qint64 upSpeed = 0) {
    auto item = FakePtr::create(id);
    item->setConnections(https, 1);
    item->setSpeed(Down, downSpeed);
    item->setSpeed(Up, upSpeed);
    return item;
}

using limits = NetworkUsageSettings;

QtConnectionsMap mapOf(std::initializer_list<std::pair<QtHostAndPort, int>> entries) {
    QtConnectionsMap map;
    for (const auto& [key, count] : entries)
        map[key].count = count;
    return map;
}

} // namespace

class TestAbstractNetworkConsumersPack : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void itemsStaySortedAndIdsStayUnique() {
        Pack pack;
        AbstractNetworkConsumerSettings settings;
        settings.userAgent = u"agent"_s;
        pack.setNetworkSettings(settings);

        const FakePtr three = FakePtr::create(3);
        pack.addItem(three);
        pack.addItem(FakePtr::create(1));
        pack.addItems({FakePtr::create(7), FakePtr::create(2), FakePtr::create(5)});
        // An id already in the pack is turned away, also within one batch.
        const FakePtr duplicate = FakePtr::create(3);
        pack.addItem(duplicate);
        pack.addItems({FakePtr::create(9), duplicate, FakePtr::create(9)});
        QCOMPARE(pack.itemsIds(), QList<qint64>({1, 2, 3, 5, 7, 9}));
        QCOMPARE(three->networkSettings(), settings);
    }

    void limitsAreDividedAmongActiveItems() {
        struct Row {
            limits pack;
            QList<std::pair<qint64, qint64>> speeds; // down and up, one item each
            limits share;
        };
        const Row rows[] = {
            // Threshold min(500, 100): idle items get the same share.
            {{50000, 0, 0}, {{600, 0}, {400, 0}, {0, 0}}, {25000, 0, 0}},
            // Threshold 1 / 100 = 0: any speed counts; 1 / 2 is raised to 1.
            {{1, 0, 0}, {{5, 0}, {5, 0}}, {1, 0, 0}},
            // Connections by the larger count, each direction by its own count.
            {{0, 0, 8}, {{200, 200}, {200, 0}, {200, 0}}, {0, 0, 2}},
            {{1000, 1000, 8}, {{50, 50}, {0, 50}, {0, 0}}, {1000, 500, 4}},
            // One active item gets the pack's settings; per-server limit and flag never divided.
            {{50000, 3000, 8, 2, true}, {{600, 0}, {0, 0}}, {50000, 3000, 8, 2, true}},
            {{400, 0, 0, 3, true}, {{200, 0}, {200, 0}}, {200, 0, 0, 3, true}},
        };
        for (const Row& row : rows) {
            Pack pack;
            QList<FakePtr> items;
            for (const auto& [down, up] : row.speeds)
                items.append(activeItem(items.size() + 1, down, up));
            pack.addItems({items.cbegin(), items.cend()});
            pack.setNetworkUsageSettings(row.pack);
            for (const FakePtr& item : std::as_const(items))
                QCOMPARE(item->networkUsageSettings(), row.share);
        }
    }

    void sharesReplaceOnlyWhatDiffersAndLeaveWithTheirLimit() {
        Pack pack;
        // Own limits that already match the share where it sets one: left alone.
        const FakePtr holding = activeItem(1, 0);
        holding->setNetworkUsageSettings(limits{1000, 777, 0, 0, true});
        // Differs in the download limit: receives the share whole, zero fields and flag too.
        const FakePtr differing = activeItem(2, 0);
        differing->setNetworkUsageSettings(limits{0, 777, 0, 0, true});
        pack.addItems({holding, differing});

        pack.setNetworkUsageSettings(limits{1000, 0, 0});
        QCOMPARE(holding->networkUsageSettings(), (limits{1000, 777, 0, 0, true}));
        QCOMPARE(differing->networkUsageSettings(), (limits{1000, 0, 0, 0, false}));

        // A lifted pack limit is lifted from every item, with connections or not.
        const FakePtr offline = FakePtr::create(3);
        offline->setNetworkUsageSettings(limits{123, 0, 5});
        pack.addItem(offline);
        pack.setNetworkUsageSettings(limits{0, 0, 4});
        QCOMPARE(holding->networkUsageSettings(), (limits{0, 0, 4})); // lacked the new share
        QCOMPARE(differing->networkUsageSettings(), (limits{0, 0, 4}));
        QCOMPARE(offline->networkUsageSettings(), (limits{0, 0, 5}));
    }

    void redivisionTimerRunsOnlyWhileNeeded() {
        Pack pack;
        const FakePtr first = activeItem(1, 600);
        const FakePtr second = FakePtr::create(2);
        second->setSpeed(Down, 600);
        pack.addItems({first, second});
        pack.setNetworkUsageSettings(limits{1000, 0, 0});
        QVERIFY(pack.isRedivisionScheduled());
        QCOMPARE(first->networkUsageSettings(), (limits{1000, 0, 0}));

        // The second item starts using the network: the shares follow at once.
        second->setConnections(http, 2);
        QCOMPARE(first->networkUsageSettings(), (limits{500, 0, 0}));
        QCOMPARE(second->networkUsageSettings(), (limits{500, 0, 0}));

        // Speeds change without any signal; the timer's next tick re-divides.
        pack.setRedivisionInterval(5);
        pack.applySettingsToRunningItems();
        second->setSpeed(Down, 0);
        QTRY_COMPARE(first->networkUsageSettings(), (limits{1000, 0, 0}));

        // Once no item uses the network the last tick does not re-arm.
        first->setConnections(https, 0);
        second->setConnections(http, 0);
        QTRY_VERIFY(!pack.isRedivisionScheduled());
    }

    void aggregatesCoverItemsUsingTheNetwork() {
        Pack pack;
        const FakePtr first = activeItem(1, 100, 10);
        const FakePtr second = activeItem(2, 200, 20);
        second->setConnections(http, 3);
        const FakePtr offline = FakePtr::create(3);
        offline->setSpeed(Down, 5000);
        pack.addItems({offline, second, first});
        QCOMPARE(pack.speed(Down, false), 300);
        QCOMPARE(pack.speed(Up, false), 30);
        QCOMPARE(pack.connectionsMap(), mapOf({{https, 2}, {http, 3}}));

        // The latest error of any item is the pack's.
        const QDateTime noon(QDate(2024, 5, 1), QTime(12, 0));
        const AbstractError early(1, "GenericError", "a"), late(3, "GenericError", "c");
        first->failWith(early, noon);
        second->failWith(late, noon.addSecs(1));
        offline->failWith(early, noon);
        QCOMPARE(pack.lastError(), late);
        pack.clearLastError();
        QVERIFY(!first->lastError().isSet());

        // Out-parameters filled by the pack's listener reach the asking item.
        connect(&pack, &AbstractNetworkConsumer::sslAcceptUnknownHostRequired, this,
                [](const QtSslHost&, bool* accept) { *accept = true; });
        bool accept = false;
        Q_EMIT first->sslAcceptUnknownHostRequired({}, &accept);
        QVERIFY(accept);
    }

    // A pack of items with tasks runs while any of its items runs.
    void runningChangesOnlyAtTheEdges() {
        TasksPack pack;
        SignalRecorder recorder;
        recorder.record<TasksBase>(&pack, &TasksBase::beforeItemsRemoved, u"before"_s);
        recorder.record<TasksBase>(&pack, &TasksBase::itemsRemoved, u"removed"_s);
        recorder.record<TasksBase>(&pack, &TasksBase::itemRunning, u"itemRunning"_s);
        recorder.record<AbstractNetworkConsumerWithExtraTasks>(
            &pack, &AbstractNetworkConsumerWithExtraTasks::running, u"running"_s);
        const FakePtr idle = FakePtr::create(1);
        const FakePtr second = FakePtr::create(2, true);
        const FakePtr third = FakePtr::create(3, true);

        // Several running items start the pack once.
        pack.addItems({third, idle, second});
        QCOMPARE(recorder.events().join(u"; "),
                 u"running(true); itemRunning(3, true); itemRunning(2, true)"_s);

        // The pack stops with the last running item.
        recorder.clear();
        idle->setRunningState(true);
        third->setRunningState(false);
        second->setRunningState(false);
        idle->setRunningState(false);
        QCOMPARE(recorder.events().join(u"; "),
                 u"itemRunning(1, true); itemRunning(3, false); itemRunning(2, false); "
                 u"itemRunning(1, false); running(false)"_s);

        // Removing running items ends their runs, and the pack's after the last one.
        recorder.clear();
        second->setRunningState(true);
        third->setRunningState(true);
        pack.removeItem(2);
        pack.removeItem(9);
        pack.removeItems({1, 3, 9});
        QCOMPARE(recorder.events().join(u"; "),
                 u"running(true); itemRunning(2, true); itemRunning(3, true); before([2]); "
                 u"removed([2]); itemRunning(2, false); before([9]); before([1,3,9]); "
                 u"removed([1,3,9]); itemRunning(3, false); running(false)"_s);
        QVERIFY(pack.empty());
        QVERIFY(!pack.isRunning());

        // Removed items no longer reach the pack, neither their runs nor their connections.
        recorder.clear();
        second->setRunningState(false);
        idle->setRunningState(true);
        idle->setConnections(http, 1);
        QCOMPARE(recorder.events(), QStringList());
        QVERIFY(pack.connectionsMap().isEmpty());
    }

    void deltasMergeAndUnregisterNegates() {
        AbstractNetworkConsumersStats stats;
        QSignalSpy deltas(&stats, &AbstractNetworkConsumersStats::connectionsMapChangedDelta);
        FakeNetworkConsumer first(1), second(2), idle(3);
        const QtHostAndPort a{u"a"_s, 443}, b{u"b"_s, 80}, z{u"z"_s, 1};
        first.setConnections(a, 2);
        second.setConnections(a, 3);

        stats.registerConsumer(&idle, true);
        stats.registerConsumer(&first, true);
        stats.registerConsumer(&second, true);
        QCOMPARE(stats.connectionsMap(), mapOf({{a, 5}}));

        stats.registerConsumer(&first, false);
        QCOMPARE(deltas.last().at(0).value<QtConnectionsMap>(), mapOf({{a, -2}}));
        QCOMPARE(stats.connectionsMap(), mapOf({{a, 3}}));

        // An unregistered consumer no longer reaches the merged map.
        first.setConnections(z, 4);
        QVERIFY(!stats.connectionsMap().contains(z));

        // A connection count dropping to zero leaves the map.
        second.setConnections(b, 1);
        second.setConnections(b, 0);
        QCOMPARE(stats.connectionsMap(), mapOf({{a, 3}}));
    }

    // Hosts are keys of accepted certificates and scopes keys of stored credentials: every
    // field must take part.
    void keysTakeEveryField() {
        const QtSslHostPublicKey rsa{QByteArrayLiteral("key"), 1};
        const QtSslHost host(https, rsa);
        QCOMPARE(host, QtSslHost(https, rsa));
        QVERIFY(host != QtSslHost(https, {QByteArrayLiteral("key"), 2}));
        QVERIFY(host != QtSslHost(https, {QByteArrayLiteral("other"), 1}));
        QVERIFY(host != QtSslHost({u"host"_s, 8443}, rsa));

        const QtNetworkAuthScope a{0, QUrl(u"http://a/"_s), u"z"_s};
        const QtNetworkAuthScope b{0, QUrl(u"http://b/"_s), u"a"_s};
        const QtNetworkAuthScope proxy{1, QUrl(u"http://a/"_s), QString()};
        QVERIFY(a < b && !(b < a) && b < proxy);
    }
};

QTEST_GUILESS_MAIN(TestAbstractNetworkConsumersPack)
#include "tst_abstractnetworkconsumerspack.moc"
