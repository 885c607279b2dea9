#pragma once

#include <terncl/core/qtabstractbatteryinfo.h>
#include <terncl/core/systempowerstatussource.h>

#include <QTimer>

#include <atomic>
#include <memory>

// Battery information from the Windows power status. It reads the status once at construction
// and then every 10 seconds for as long as a battery is present: on a machine without one (or
// whose battery state is unknown) the values are read once and never again. A failed read
// changes nothing and ends the polling. changed() follows a read that changed any value.
class TERNCL_EXPORT QtWindowsBatteryInfo : public QtAbstractBatteryInfo {
    Q_OBJECT

public:
    static constexpr int defaultPollIntervalMs = 10000;

#ifdef Q_OS_WIN
    // Reads GetSystemPowerStatus.
    explicit QtWindowsBatteryInfo(QObject* parent = nullptr);
#endif
    // Reads the given source (a test's fake) every pollIntervalMs.
    explicit QtWindowsBatteryInfo(std::unique_ptr<SystemPowerStatusSource> source,
                                  int pollIntervalMs = defaultPollIntervalMs,
                                  QObject* parent = nullptr);
    ~QtWindowsBatteryInfo() override;

    bool hasBattery() const override {
        return m_batteryPresent;
    }
    bool isCharging() const override {
        return m_charging;
    }
    bool isACLineActive() const override {
        return m_mainsPower;
    }
    float level() const override {
        return m_level;
    }
    // A next read is scheduled.
    bool isPolling() const {
        return m_pollTimer.isActive();
    }

private:
    void refresh();

    std::atomic_bool m_batteryPresent{false};
    std::atomic_bool m_charging{false};
    std::atomic_bool m_mainsPower{false};
    std::atomic<float> m_level{1.0f};
    std::unique_ptr<SystemPowerStatusSource> m_source;
    QTimer m_pollTimer;
};
