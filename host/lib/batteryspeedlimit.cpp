#include "batteryspeedlimit.h"

#include <terncl/core/qtabstractbatteryinfo.h>

BatterySpeedLimit::BatterySpeedLimit(QtAbstractBatteryInfo* battery, qint64 normalLimit,
                                     qint64 batteryLimit, QObject* parent)
    : QObject(parent)
    , m_battery(battery)
    , m_normalLimit(normalLimit)
    , m_batteryLimit(batteryLimit) {
    if (m_battery)
        connect(m_battery, &QtAbstractBatteryInfo::changed, this, &BatterySpeedLimit::update);
    update();
}

BatterySpeedLimit::~BatterySpeedLimit() = default;

qint64 BatterySpeedLimit::limit() const {
    if (!m_onBattery)
        return m_normalLimit;
    return m_normalLimit > 0 ? qMin(m_normalLimit, m_batteryLimit) : m_batteryLimit;
}

void BatterySpeedLimit::update() {
    // A battery that charges is on mains power even where the supply does not say so.
    const bool onBattery = m_battery && m_battery->hasBattery() && !m_battery->isACLineActive() &&
                           !m_battery->isCharging();
    if (onBattery == m_onBattery)
        return;
    m_onBattery = onBattery;
    Q_EMIT limitChanged(limit(), m_onBattery);
}
