#include "batteryspeedlimit.h"
#include "support/testfiles.h"

#include <terncl/core/qtlinuxbatteryinfo.h>

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {
const auto noBus = QStringLiteral("unix:path=/nonexistent/bus");

// A laptop's power-supply folders: one battery and the mains adapter.
bool writeSupplies(const QTemporaryDir& root, bool mains) {
    return writeFile(root.filePath(QStringLiteral("BAT0/type")), "Battery\n") &&
           writeFile(root.filePath(QStringLiteral("BAT0/capacity")), "70\n") &&
           writeFile(root.filePath(QStringLiteral("BAT0/status")),
                     mains ? "Not charging\n" : "Discharging\n") &&
           writeFile(root.filePath(QStringLiteral("AC/type")), "Mains\n") &&
           writeFile(root.filePath(QStringLiteral("AC/online")), mains ? "1\n" : "0\n");
}
} // namespace

class TestBatterySpeedLimit : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void followsThePowerSource_data() {
        QTest::addColumn<qint64>("normal");
        QTest::addColumn<qint64>("onBattery");
        QTest::newRow("no normal limit") << qint64(0) << qint64(100000);
        QTest::newRow("a higher normal limit") << qint64(500000) << qint64(100000);
        QTest::newRow("a lower normal limit stays") << qint64(50000) << qint64(50000);
    }

    void followsThePowerSource() {
        QFETCH(qint64, normal);
        QFETCH(qint64, onBattery);
        QTemporaryDir root;
        QVERIFY(writeSupplies(root, true));
        QtLinuxBatteryInfo battery(noBus, root.path(), 5);
        BatterySpeedLimit limit(&battery, normal, 100000);
        QCOMPARE(limit.limit(), normal);

        QSignalSpy changed(&limit, &BatterySpeedLimit::limitChanged);
        QVERIFY(writeSupplies(root, false));
        QTRY_COMPARE(changed.size(), 1);
        QCOMPARE(changed.at(0), (QVariantList{onBattery, true}));
        QCOMPARE(limit.limit(), onBattery);

        // A limit made on battery starts there.
        QtLinuxBatteryInfo unplugged(noBus, root.path(), 5);
        const BatterySpeedLimit later(&unplugged, normal, 100000);
        QVERIFY(later.onBattery());
        QCOMPARE(later.limit(), onBattery);

        QVERIFY(writeSupplies(root, true));
        QTRY_COMPARE(changed.size(), 2);
        QCOMPARE(changed.at(1), (QVariantList{normal, false}));

        // A desktop, with no battery and no mains supply folder either, is never held back.
        QtLinuxBatteryInfo none(noBus, root.filePath(QStringLiteral("none")), 5);
        QCOMPARE(BatterySpeedLimit(&none, normal, 100000).limit(), normal);
    }
};

QTEST_GUILESS_MAIN(TestBatterySpeedLimit)
#include "tst_batteryspeedlimit.moc"
