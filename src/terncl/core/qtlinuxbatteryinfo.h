#pragma once

#include <terncl/core/qtabstractbatteryinfo.h>

#include <QString>
#include <QTimer>
#include <QVariantMap>

#include <atomic>
#include <memory>

// Battery information on Linux. Where the UPower service answers on the system bus, its
// display device gives the values and its change signals keep them current. Without D-Bus or
// UPower, the power-supply files (/sys/class/power_supply) are read at once and then every
// 10 seconds for as long as a battery is present. Until UPower has answered (or failed to)
// source() is Pending and the values are those of a machine without a battery.
class TERNCL_EXPORT QtLinuxBatteryInfo : public QtAbstractBatteryInfo {
    Q_OBJECT

public:
    enum class Source { Pending, UPower, PowerSupplyFiles };

    static constexpr int defaultPollIntervalMs = 10000;
    static const QString defaultPowerSupplyRoot;

    // UPower on the system bus, or the system's power-supply files.
    explicit QtLinuxBatteryInfo(QObject* parent = nullptr);
    // UPower on the bus at busAddress (empty: the system bus), or the power-supply folders
    // under powerSupplyRoot read every pollIntervalMs.
    QtLinuxBatteryInfo(const QString& busAddress, const QString& powerSupplyRoot,
                       int pollIntervalMs = defaultPollIntervalMs, QObject* parent = nullptr);
    ~QtLinuxBatteryInfo() override;

    bool hasBattery() const override { return m_batteryPresent; }
    bool isCharging() const override { return m_charging; }
    bool isACLineActive() const override { return m_mainsPower; }
    float level() const override { return m_level; }
    Source source() const { return m_source; }

private:
    struct UPower;

    void connectToUPower(const QString& busAddress);
    void fetchUPowerProperties(bool device);
    void onUPowerPropertiesChanged(bool device, const QString& interface,
                                   const QVariantMap& changed, const QStringList& invalidated);
    void publishUPowerState();
    void usePowerSupplyFiles();
    void readPowerSupplyFiles();
    void store(bool present, bool charging, bool mains, float level);

    std::atomic_bool m_batteryPresent{false};
    std::atomic_bool m_charging{false};
    std::atomic_bool m_mainsPower{false};
    std::atomic<float> m_level{1.0f};
    std::atomic<Source> m_source{Source::Pending};
    QString m_powerSupplyRoot;
    QTimer m_pollTimer;
    std::unique_ptr<UPower> m_upower;
};
