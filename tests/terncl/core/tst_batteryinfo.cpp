#include <terncl/core/qtlinuxbatteryinfo.h>
#include <terncl/core/qtwindowsbatteryinfo.h>

#include "support/testfiles.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
// A power status the test changes while the battery info polls it.
class FakePowerStatus : public SystemPowerStatusSource {
public:
    bool read(SystemPowerStatus& out) override {
        out = status;
        return true;
    }
    SystemPowerStatus status;
};

// Writes each "folder file=value ..." line as a power-supply folder with one file per value.
void writeSupplies(const QTemporaryDir& root, const char* lines) {
    for (const QString& line : QString::fromLatin1(lines).split(u'\n')) {
        const QStringList words = line.split(u' ');
        for (const QString& pair : words.mid(1))
            QVERIFY(writeFile(root.filePath(words[0] + u'/' + pair.section(u'=', 0, 0)),
                              pair.section(u'=', 1).toLatin1() + '\n'));
    }
}

const auto devicePath = u"/org/freedesktop/UPower/devices/DisplayDevice"_s;
const auto managerPath = u"/org/freedesktop/UPower"_s;

// UPower's display device and service object as the battery info reads them.
class FakeUPowerDevice : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.UPower.Device")
    Q_PROPERTY(uint Type MEMBER type)
    Q_PROPERTY(bool IsPresent MEMBER isPresent)
    Q_PROPERTY(uint State MEMBER state)
    Q_PROPERTY(double Percentage MEMBER percentage)

public:
    uint type = 2;
    bool isPresent = true;
    uint state = 2;
    double percentage = 42;
};

class FakeUPowerManager : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.UPower")
    Q_PROPERTY(bool OnBattery MEMBER onBattery)

public:
    bool onBattery = true;
};

void announce(QDBusConnection& bus, const QString& path, const char* interface,
              const QVariantMap& changed) {
    auto signal = QDBusMessage::createSignal(path, u"org.freedesktop.DBus.Properties"_s,
                                             u"PropertiesChanged"_s);
    signal << QString::fromLatin1(interface) << changed << QStringList();
    QVERIFY(bus.send(signal));
}
} // namespace

class TestBatteryInfo : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void windowsStatusIsPolled() {
        auto source = std::make_unique<FakePowerStatus>();
        FakePowerStatus* fake = source.get();
        fake->status = {0, 0, 80};
        QtWindowsBatteryInfo info(std::move(source), 5);
        QVERIFY(info.hasBattery() && !info.isCharging() && !info.isACLineActive());
        QCOMPARE(info.level(), 0.8f);
        QSignalSpy changed(&info, &QtAbstractBatteryInfo::changed);
        fake->status = {1, 8, 55};
        QTRY_COMPARE(changed.count(), 1);
        QVERIFY(info.isCharging() && info.isACLineActive());
        QCOMPARE(info.level(), 0.55f);
    }

    void powerSupplyFilesWithoutDBus() {
        QTemporaryDir root;
        writeSupplies(root, "BAT0 type=Battery present=1 capacity=40\n"
                            "BAT1 type=Battery status=Charging energy_now=30 energy_full=60\n"
                            "BAT2 type=Battery capacity=full\nBAT3 type=Battery charge_full=0\n"
                            "mouse type=Battery scope=Device capacity=5\nAC type=Mains online=1");

        const auto noBus = u"unix:path=/nonexistent/bus"_s;
        QtLinuxBatteryInfo info(noBus, root.path(), 5);
        QCOMPARE(info.source(), QtLinuxBatteryInfo::Source::PowerSupplyFiles);
        QVERIFY(info.hasBattery() && info.isCharging() && info.isACLineActive());
        // The unreadable batteries and the mouse's are left out of the level.
        QCOMPARE(info.level(), 0.45f);
    }

    void upowerOnAPrivateBus() {
        QProcess daemon;
        daemon.start(u"dbus-daemon"_s, {u"--session"_s, u"--nofork"_s, u"--print-address"_s});
        if (!daemon.waitForStarted())
            QSKIP("dbus-daemon is not installed (Debian package dbus-daemon)");
        const auto stop = qScopeGuard([&daemon] {
            daemon.kill();
            daemon.waitForFinished();
        });
        QTRY_VERIFY(daemon.canReadLine());
        const QString address = QString::fromUtf8(daemon.readLine().trimmed());

        QTemporaryDir emptyRoot;
        QDBusConnection bus = QDBusConnection::connectToBus(address, u"fake-upower"_s);
        const auto disconnect =
            qScopeGuard([] { QDBusConnection::disconnectFromBus(u"fake-upower"_s); });
        FakeUPowerDevice device;
        FakeUPowerManager manager;
        QVERIFY(bus.registerObject(devicePath, &device, QDBusConnection::ExportAllProperties));
        QVERIFY(bus.registerObject(managerPath, &manager, QDBusConnection::ExportAllProperties));
        QVERIFY(bus.registerService(u"org.freedesktop.UPower"_s));

        QtLinuxBatteryInfo info(address, emptyRoot.path(), 5);
        QTRY_COMPARE(info.source(), QtLinuxBatteryInfo::Source::UPower);
        QTRY_COMPARE(info.level(), 0.42f);
        QVERIFY(info.hasBattery() && !info.isCharging() && !info.isACLineActive());

        announce(bus, devicePath, "org.freedesktop.UPower.Device",
                 {{u"State"_s, 1u}, {u"Percentage"_s, 43.5}});
        announce(bus, managerPath, "org.freedesktop.UPower", {{u"OnBattery"_s, false}});
        QTRY_VERIFY(info.isACLineActive());
        QVERIFY(info.isCharging());
        QCOMPARE(info.level(), 0.435f);
    }
};

QTEST_GUILESS_MAIN(TestBatteryInfo)
#include "tst_batteryinfo.moc"
