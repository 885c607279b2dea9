#pragma once

#include <QObject>
#include <QPointer>

class QtAbstractBatteryInfo;

// The download speed limit of a program that calms down on battery: the normal limit (0: none)
// on mains power or without a battery, and the battery limit, or the normal one where that is
// lower, while the machine runs on battery. Follows the battery information's changes. Lives on
// the battery information's thread.
class BatterySpeedLimit : public QObject {
    Q_OBJECT

public:
    // battery must outlive this object; batteryLimit > 0.
    BatterySpeedLimit(QtAbstractBatteryInfo* battery, qint64 normalLimit, qint64 batteryLimit,
                      QObject* parent = nullptr);
    ~BatterySpeedLimit() override;

    // Bytes per second, 0 for no limit.
    qint64 limit() const;
    bool onBattery() const { return m_onBattery; }

Q_SIGNALS:
    // The machine went on battery or back to mains power.
    void limitChanged(qint64 limit, bool onBattery);

private:
    void update();

    QPointer<QtAbstractBatteryInfo> m_battery;
    qint64 m_normalLimit;
    qint64 m_batteryLimit;
    bool m_onBattery = false;
};
