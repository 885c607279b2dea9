#include "support/fakenetworkconsumer.h"

#include <terncl/inet/qt/download/abstractnetworkconsumersstats.h>
#include <terncl/inet/qt/download/qtnetworkauthscope.h>
#include <terncl/inet/qt/download/qtsslhost.h>

#include <QAssociativeIterable>
#include <QSignalSpy>
#include <QTest>

namespace {
QtHostAndPort endpoint(const char* host, int port) {
    return {QString::fromLatin1(host), port};
}

QtConnectionsMap mapOf(std::initializer_list<std::pair<QtHostAndPort, int>> entries) {
    QtConnectionsMap map;
    for (const auto& [key, count] : entries)
        map[key].count = count;
    return map;
}
} // namespace

class TestNetworkConsumerBase : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void deltasMergeAndUnregisterNegates() {
        AbstractNetworkConsumersStats stats;
        QSignalSpy deltas(&stats, &AbstractNetworkConsumersStats::connectionsMapChangedDelta);
        FakeNetworkConsumer first(1), second(2), idle(3);
        first.setConnections(endpoint("a", 443), 2);
        second.setConnections(endpoint("a", 443), 3);

        stats.registerConsumer(&idle, true);
        QCOMPARE(deltas.count(), 0);
        stats.registerConsumer(&first, true);
        stats.registerConsumer(&second, true);
        QCOMPARE(stats.connectionsMap(), mapOf({{endpoint("a", 443), 5}}));

        stats.registerConsumer(&first, false);
        QCOMPARE(deltas.last().at(0).value<QtConnectionsMap>(), mapOf({{endpoint("a", 443), -2}}));
        QCOMPARE(stats.connectionsMap(), mapOf({{endpoint("a", 443), 3}}));

        // An unregistered consumer no longer reaches the merged map.
        first.setConnections(endpoint("z", 1), 4);
        QVERIFY(!stats.connectionsMap().contains(endpoint("z", 1)));

        // Live deltas pass through unchanged; zero erases, negatives are kept.
        second.setConnections(endpoint("b", 80), 1);
        QCOMPARE(deltas.last().at(0).value<QtConnectionsMap>(), mapOf({{endpoint("b", 80), 1}}));
        second.setConnections(endpoint("b", 80), 0);
        QVERIFY(!stats.connectionsMap().contains(endpoint("b", 80)));

        QtConnectionsMap map = mapOf({{endpoint("b", 80), 1}});
        terncl::applyConnectionsDelta(map,
                                      mapOf({{endpoint("b", 80), -1}, {endpoint("c", 21), -1}}));
        QCOMPARE(map, mapOf({{endpoint("c", 21), -1}}));
    }

    // Hosts are keys of accepted certificates and scopes keys of stored credentials: every
    // field must take part.
    void keysCompareEveryField() {
        const QtSslHostPublicKey rsa{QByteArrayLiteral("key"), 1};
        const QtSslHost host(endpoint("h", 443), rsa);
        QCOMPARE(host, QtSslHost(endpoint("h", 443), rsa));
        QVERIFY(host != QtSslHost(endpoint("h", 443), {QByteArrayLiteral("key"), 2}));
        QVERIFY(host != QtSslHost(endpoint("h", 443), {QByteArrayLiteral("other"), 1}));
        QVERIFY(host != QtSslHost(endpoint("h", 8443), rsa));
        QVERIFY(qHash(endpoint("h", 80)) != qHash(endpoint("h", 443)));

        const QtNetworkAuthScope a{0, QUrl(QStringLiteral("http://a/")), QStringLiteral("z")};
        const QtNetworkAuthScope b{0, QUrl(QStringLiteral("http://b/")), QStringLiteral("a")};
        const QtNetworkAuthScope proxy{1, QUrl(QStringLiteral("http://a/")), QString()};
        QtNetworkAuthScope otherRealm = a;
        otherRealm.realm = QStringLiteral("y");
        QVERIFY(a < b && !(b < a) && b < proxy && otherRealm < a);
    }

    void metaTypesUnderTheirNames() {
        for (const char* name : {"QtConnectionsMap", "QtHostAndPort", "QtSslHost",
                                 "QtNetworkAuthScope", "NetworkTrafficDirection", "bool*"})
            QVERIFY2(QMetaType::fromName(name).isValid(), name);
        QVERIFY(QMetaType::canConvert(QMetaType::fromType<QtConnectionsMap>(),
                                      QMetaType::fromType<QAssociativeIterable>()));
    }
};

QTEST_GUILESS_MAIN(TestNetworkConsumerBase)
#include "tst_networkconsumerbase.moc"
