#include "support/fakenetworkconsumer.h"
#include "support/recordinglogger.h"
#include "support/signalrecorder.h"

#include <terncl/inet/qt/download/abstractnetworkconsumerspack.h>

#include <QAuthenticator>
#include <QSequentialIterable>
#include <QSignalSpy>
#include <QTest>

namespace {

using FakePtr = QSharedPointer<FakeNetworkConsumer>;
constexpr auto Down = NetworkTrafficDirection::Download;
constexpr auto Up = NetworkTrafficDirection::Upload;

class Pack : public AbstractNetworkConsumersPack {
public:
    qint64 id() const override { return 1000; }
    using AbstractNetworkConsumersPack::applySettingsToRunningItems;
    using AbstractNetworkConsumersPack::isRedivisionScheduled;
    using AbstractNetworkConsumersPack::redivisionInterval;
    using AbstractNetworkConsumersPack::setRedivisionInterval;
};

QtHostAndPort endpoint(int port) {
    return {QStringLiteral("host"), port};
}

// An item with one connection (so it uses the network) and the given speeds.
FakePtr activeItem(qint64 id, qint64 downSpeed, qint64 upSpeed = 0) {
    auto item = FakePtr::create(id);
    item->setConnections(endpoint(443), 1);
    item->setSpeed(Down, downSpeed);
    item->setSpeed(Up, upSpeed);
    return item;
}

NetworkUsageSettings limits(qint64 down, qint64 up, qint32 connections, qint32 perServer = 0,
                            bool flag = false) {
    return {down, up, connections, perServer, flag};
}

} // namespace

class TestAbstractNetworkConsumersPack : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void itemsStaySortedAndAdditionsAreAnnounced() {
        Pack pack;
        SignalRecorder recorder;
        recorder.record<AbstractNetworkConsumersPack>(
            &pack, &AbstractNetworkConsumersPack::itemsAdded, QStringLiteral("added"));
        AbstractNetworkConsumerSettings settings;
        settings.userAgent = QStringLiteral("agent");
        pack.setNetworkSettings(settings);

        const FakePtr three = FakePtr::create(3);
        pack.addItem(three);
        pack.addItem(FakePtr::create(1));
        pack.addItems({FakePtr::create(7), FakePtr::create(2), FakePtr::create(5)});
        QCOMPARE(recorder.events(),
                 QStringList({QStringLiteral("added([3])"), QStringLiteral("added([1])"),
                              QStringLiteral("added([7,2,5])")}));
        QCOMPARE(pack.itemsIds(), QList<qint64>({1, 2, 3, 5, 7}));
        QCOMPARE(three->networkSettings(), settings);
        QCOMPARE(pack.item(3), AbstractNetworkConsumersPack::ItemPtr(three));
        QVERIFY(pack.item(4).isNull());

        // An id already in the pack is turned away, also within one batch.
        recorder.clear();
        const FakePtr duplicate = FakePtr::create(3);
        pack.addItem(duplicate);
        pack.addItems({FakePtr::create(9), duplicate, FakePtr::create(9)});
        QCOMPARE(recorder.events(), QStringList({QStringLiteral("added([9])")}));
        QCOMPARE(pack.itemsIds(), QList<qint64>({1, 2, 3, 5, 7, 9}));
        QCOMPARE(duplicate->networkSettingsCalls, 0);
        QCOMPARE(pack.item(3), AbstractNetworkConsumersPack::ItemPtr(three));
    }

    void removalsAreAnnouncedEvenForUnknownIds() {
        Pack pack;
        const FakePtr first = activeItem(1, 0);
        const FakePtr second = activeItem(2, 0);
        pack.addItems({first, second, FakePtr::create(3)});
        SignalRecorder recorder;
        recorder.record<AbstractNetworkConsumersPack>(
            &pack, &AbstractNetworkConsumersPack::beforeItemsRemoved, QStringLiteral("before"));
        recorder.record<AbstractNetworkConsumersPack>(
            &pack, &AbstractNetworkConsumersPack::itemsRemoved, QStringLiteral("removed"));
        QSignalSpy deltas(&pack, &AbstractNetworkConsumer::connectionsMapChangedDelta);

        pack.removeItem(42);
        pack.removeItem(1);
        pack.removeItems({42, 3, 3});
        QCOMPARE(recorder.events(),
                 QStringList({QStringLiteral("before([42])"), QStringLiteral("before([1])"),
                              QStringLiteral("removed([1])"), QStringLiteral("before([42,3,3])"),
                              QStringLiteral("removed([42,3,3])")}));
        QCOMPARE(pack.itemsIds(), QList<qint64>({2}));

        // The removed item's connections left the merged map and it no longer reaches the pack.
        QCOMPARE(deltas.count(), 1);
        QCOMPARE(pack.connectionsMap().value(endpoint(443)).count, 1);
        first->setConnections(endpoint(80), 1);
        int authRequests = 0;
        connect(&pack, &AbstractNetworkConsumer::authenticationRequired, this,
                [&authRequests] { ++authRequests; });
        first->requestAuthentication({}, nullptr);
        QCOMPARE(deltas.count(), 1);
        QCOMPARE(authRequests, 0);
        QVERIFY(!pack.connectionsMap().contains(endpoint(80)));

        pack.removeItems({2});
        QVERIFY(pack.empty());
        QVERIFY(pack.connectionsMap().isEmpty());
    }

    void limitsAreDividedAmongActiveItems_data() {
        QTest::addColumn<NetworkUsageSettings>("packLimits");
        QTest::addColumn<QList<qint64>>("downSpeeds");
        QTest::addColumn<QList<qint64>>("upSpeeds");
        QTest::addColumn<NetworkUsageSettings>("share");

        // Threshold min(500, 100): the idle item does not count but gets the same share.
        QTest::newRow("50000 among three, two active")
            << limits(50000, 0, 0) << QList<qint64>{600, 400, 0} << QList<qint64>{0, 0, 0}
            << limits(25000, 0, 0);
        QTest::newRow("a speed at the threshold is idle")
            << limits(50000, 0, 0) << QList<qint64>{600, 400, 100} << QList<qint64>{0, 0, 0}
            << limits(25000, 0, 0);
        QTest::newRow("150 between two") << limits(150, 0, 0) << QList<qint64>{200, 200}
                                         << QList<qint64>{0, 0} << limits(75, 0, 0);
        // Threshold 1 / 100 = 0: any speed counts; 1 / 2 is raised to 1.
        QTest::newRow("limit 1 raised to 1")
            << limits(1, 0, 0) << QList<qint64>{5, 5} << QList<qint64>{0, 0} << limits(1, 0, 0);
        QTest::newRow("connections by the larger count")
            << limits(0, 0, 8) << QList<qint64>{200, 200, 200} << QList<qint64>{200, 0, 0}
            << limits(0, 0, 2);
        QTest::newRow("each direction by its own count")
            << limits(1000, 1000, 8) << QList<qint64>{50, 0, 0} << QList<qint64>{50, 50, 0}
            << limits(1000, 500, 4);
        QTest::newRow("one active item gets the pack's settings unchanged")
            << limits(50000, 3000, 8, 2, true) << QList<qint64>{600, 0} << QList<qint64>{0, 0}
            << limits(50000, 3000, 8, 2, true);
        QTest::newRow("per-server limit and flag never divided")
            << limits(400, 0, 0, 3, true) << QList<qint64>{200, 200} << QList<qint64>{0, 0}
            << limits(200, 0, 0, 3, true);
    }

    void limitsAreDividedAmongActiveItems() {
        QFETCH(NetworkUsageSettings, packLimits);
        QFETCH(QList<qint64>, downSpeeds);
        QFETCH(QList<qint64>, upSpeeds);
        QFETCH(NetworkUsageSettings, share);

        Pack pack;
        QList<FakePtr> items;
        for (qsizetype i = 0; i < downSpeeds.size(); ++i)
            items.append(activeItem(i + 1, downSpeeds.at(i), upSpeeds.at(i)));
        const FakePtr offline = FakePtr::create(99);
        offline->setSpeed(Down, 10000);
        pack.addItems({items.cbegin(), items.cend()});
        pack.addItem(offline);
        pack.setNetworkUsageSettings(packLimits);

        for (const FakePtr& item : std::as_const(items))
            QCOMPARE(item->networkUsageSettings(), share);
        QCOMPARE(offline->networkUsageSettings(), NetworkUsageSettings());
        QCOMPARE(pack.networkUsageSettings(), packLimits);
    }

    void shareReplacesOnlyItemsThatDoNotHoldIt() {
        Pack pack;
        // Own limits that already match the share where it sets one: left alone.
        const FakePtr holding = activeItem(1, 0);
        holding->setNetworkUsageSettings(limits(1000, 777, 0, 0, true));
        // Differs in the download limit: receives the share whole, zero fields and flag too.
        const FakePtr differing = activeItem(2, 0);
        differing->setNetworkUsageSettings(limits(0, 777, 0, 0, true));
        pack.addItems({holding, differing});

        pack.setNetworkUsageSettings(limits(1000, 0, 0));
        QCOMPARE(holding->networkUsageSettings(), limits(1000, 777, 0, 0, true));
        QCOMPARE(differing->networkUsageSettings(), limits(1000, 0, 0, 0, false));
    }

    void liftingAPackLimitLiftsTheShares() {
        Pack pack;
        const FakePtr first = activeItem(1, 600);
        const FakePtr second = activeItem(2, 600);
        const FakePtr offline = FakePtr::create(3);
        offline->setNetworkUsageSettings(limits(123, 0, 5));
        pack.addItems({first, second, offline});
        pack.setNetworkUsageSettings(limits(50000, 0, 4));
        QCOMPARE(first->networkUsageSettings(), limits(25000, 0, 2));

        pack.setNetworkUsageSettings(limits(0, 0, 4));
        QCOMPARE(first->networkUsageSettings(), limits(0, 0, 2));
        QCOMPARE(second->networkUsageSettings(), limits(0, 0, 2));
        // Every item, with connections or not, loses the share of the lifted limit only.
        QCOMPARE(offline->networkUsageSettings(), limits(0, 0, 5));
    }

    void redivisionTimerRunsOnlyWhileNeeded() {
        Pack pack;
        QCOMPARE(pack.redivisionInterval(), 1000);
        const FakePtr first = activeItem(1, 600);
        const FakePtr second = FakePtr::create(2);
        second->setSpeed(Down, 600);
        pack.addItems({first, second});
        pack.applySettingsToRunningItems();
        QVERIFY(!pack.isRedivisionScheduled()); // no limits

        pack.setNetworkUsageSettings(limits(1000, 0, 0));
        QVERIFY(pack.isRedivisionScheduled());
        QCOMPARE(first->networkUsageSettings(), limits(1000, 0, 0));

        // The second item starts using the network: the shares follow at once.
        second->setConnections(endpoint(80), 2);
        QCOMPARE(first->networkUsageSettings(), limits(500, 0, 0));
        QCOMPARE(second->networkUsageSettings(), limits(500, 0, 0));

        // Speeds change without any signal; the next tick re-divides.
        second->setSpeed(Down, 0);
        pack.applySettingsToRunningItems();
        QCOMPARE(first->networkUsageSettings(), limits(1000, 0, 0));

        // The timer drives the same tick on its own.
        pack.setRedivisionInterval(5);
        pack.applySettingsToRunningItems();
        second->setSpeed(Down, 600);
        QTRY_COMPARE(first->networkUsageSettings(), limits(500, 0, 0));

        // Once no item uses the network the last tick does not re-arm.
        first->setConnections(endpoint(443), 0);
        second->setConnections(endpoint(80), 0);
        QTRY_VERIFY(!pack.isRedivisionScheduled());

        // Limits set but nobody on the network: nothing is armed.
        pack.applySettingsToRunningItems();
        QVERIFY(!pack.isRedivisionScheduled());
    }

    void usingNetworkIsTrackedFromDeltas() {
        RecordingLogger logger;
        Pack pack;
        const FakePtr item = FakePtr::create(1);
        item->setSpeed(Down, 300);
        pack.addItem(item);
        QCOMPARE(pack.speed(Down, true), 0);

        item->setConnections(endpoint(443), 1);
        QCOMPARE(pack.speed(Down, true), 300);
        item->setConnections(endpoint(443), 0);
        QCOMPARE(pack.speed(Down, true), 0);
        QVERIFY(logger.lines().isEmpty());

        // An empty map reported by an item that was not counted as using the network.
        Q_EMIT item->connectionsMapChangedDelta({});
        QCOMPARE(logger.lines(),
                 QStringList({QStringLiteral(
                     "ASSERTION FAILED: m_itemsIdsUsingNetwork.remove(id), "
                     "src/terncl/inet/qt/download/abstractnetworkconsumerspack,232")}));
    }

    void aggregatesAndReemittedSignals() {
        Pack pack;
        const FakePtr first = activeItem(1, 100, 10);
        const FakePtr second = activeItem(2, 200, 20);
        second->setConnections(endpoint(80), 3);
        const FakePtr offline = FakePtr::create(3);
        offline->setSpeed(Down, 5000);
        pack.addItems({offline, second, first});
        QCOMPARE(pack.speed(Down, false), 300);
        QCOMPARE(pack.speed(Up, false), 30);
        QCOMPARE(pack.connectionsMap().value(endpoint(443)).count, 2);
        QCOMPARE(pack.connectionsMap().value(endpoint(80)).count, 3);

        QVERIFY(!pack.lastError().isSet());
        QVERIFY(pack.lastErrorTime().isNull());
        const QDateTime noon(QDate(2024, 5, 1), QTime(12, 0));
        const AbstractError early(1, "GenericError", "a", "early");
        const AbstractError tie(2, "GenericError", "b", "tie");
        const AbstractError late(3, "GenericError", "c", "late");
        second->failWith(early, noon);
        offline->failWith(tie, noon);
        QCOMPARE(pack.lastError(), early); // equal times: the earlier item in the list
        first->failWith(late, noon.addSecs(1));
        QCOMPARE(pack.lastError(), late);
        QCOMPARE(pack.lastErrorTime(), noon.addSecs(1));
        pack.clearLastError();
        QVERIFY(!pack.lastError().isSet());
        QVERIFY(!second->lastError().isSet() && !offline->lastError().isSet());

        QAuthenticator* asked = nullptr;
        connect(&pack, &AbstractNetworkConsumer::authenticationRequired, this,
                [&asked](const QtNetworkAuthScope&, QAuthenticator* authenticator) {
                    asked = authenticator;
                });
        QAuthenticator authenticator;
        second->requestAuthentication({}, &authenticator);
        QCOMPARE(asked, &authenticator);
        connect(&pack, &AbstractNetworkConsumer::sslAcceptUnknownHostRequired, this,
                [](const QtSslHost&, bool* accept) { *accept = true; });
        QVERIFY(first->askAcceptUnknownHost({}));
    }

    void metaTypesAreRegisteredByName() {
        Pack pack;
        const QMetaType item = QMetaType::fromName("AbstractNetworkConsumersPack::ItemPtr");
        QCOMPARE(item, QMetaType::fromType<AbstractNetworkConsumersPack::ItemPtr>());
        const QMetaType list =
            QMetaType::fromName("QVector<AbstractNetworkConsumersPack::ItemPtr>");
        QCOMPARE(list, QMetaType::fromType<QList<AbstractNetworkConsumersPack::ItemPtr>>());

        const AbstractNetworkConsumersPack::ItemPtr consumer = FakePtr::create(5);
        QCOMPARE(QVariant::fromValue(consumer).value<QObject*>(), consumer.get());
        const QVariant items =
            QVariant::fromValue(QList<AbstractNetworkConsumersPack::ItemPtr>{consumer, consumer});
        QVERIFY(items.canConvert<QSequentialIterable>());
        QCOMPARE(items.value<QSequentialIterable>().size(), 2);
    }
};

QTEST_GUILESS_MAIN(TestAbstractNetworkConsumersPack)
#include "tst_abstractnetworkconsumerspack.moc"
