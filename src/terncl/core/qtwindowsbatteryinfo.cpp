#include "qtwindowsbatteryinfo.h"

#ifdef Q_OS_WIN
#include "win32/win32systempowerstatussource_p.h"
#endif

#include <cstdint>

namespace {
constexpr std::uint8_t chargingFlag = 8;
constexpr std::uint8_t acOnline = 1;
} // namespace

#ifdef Q_OS_WIN
QtWindowsBatteryInfo::QtWindowsBatteryInfo(QObject* parent)
    : QtWindowsBatteryInfo(std::make_unique<Win32SystemPowerStatusSource>(), defaultPollIntervalMs,
                           parent) {}
#endif

QtWindowsBatteryInfo::QtWindowsBatteryInfo(std::unique_ptr<SystemPowerStatusSource> source,
                                           int pollIntervalMs, QObject* parent)
    : QtAbstractBatteryInfo(parent)
    , m_source(std::move(source)) {
    m_pollTimer.setSingleShot(true);
    m_pollTimer.setInterval(pollIntervalMs);
    connect(&m_pollTimer, &QTimer::timeout, this, &QtWindowsBatteryInfo::refresh);
    refresh();
}

QtWindowsBatteryInfo::~QtWindowsBatteryInfo() = default;

void QtWindowsBatteryInfo::refresh() {
    SystemPowerStatus status;
    if (!m_source || !m_source->read(status))
        return;
    bool present = false;
    bool charging = false;
    float level = 1.0f;
    // The top bit set means no system battery (128) or an unknown state (255).
    if (static_cast<std::int8_t>(status.batteryFlag) >= 0) {
        present = true;
        charging = (status.batteryFlag & chargingFlag) != 0;
        if (status.batteryLifePercent <= 100)
            level = float(status.batteryLifePercent / 100.0);
        m_pollTimer.start();
    }
    const bool mains = status.acLineStatus == acOnline;
    if (present == m_batteryPresent && charging == m_charging && mains == m_mainsPower &&
        level == m_level)
        return;
    m_batteryPresent.exchange(present);
    m_charging.exchange(charging);
    m_mainsPower.exchange(mains);
    m_level.exchange(level);
    Q_EMIT changed();
}
