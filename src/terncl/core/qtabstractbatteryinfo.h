#pragma once

#include <terncl/ternclshared_export.h>

#include <QObject>

// Whether the machine has a battery, whether it charges, whether it runs from the mains and how
// full the battery is, with a signal when any of it changes: the application adapts its
// behaviour (a lower speed limit, fewer connections) while it runs on battery. The getters may
// be called from any thread; the signal comes on the object's thread.
class TERNCL_EXPORT QtAbstractBatteryInfo : public QObject {
    Q_OBJECT

public:
    explicit QtAbstractBatteryInfo(QObject* parent = nullptr);
    ~QtAbstractBatteryInfo() override;

    virtual bool hasBattery() const = 0;
    virtual bool isCharging() const = 0;
    // The machine runs from the mains.
    virtual bool isACLineActive() const = 0;
    // Charge from 0.0 to 1.0; 1.0 without a battery.
    virtual float level() const = 0;

    // The implementation for the system the library runs on, owned by parent: the Windows
    // power status, UPower or the power-supply files on Linux; null elsewhere.
    static QtAbstractBatteryInfo* createForThisSystem(QObject* parent = nullptr);

Q_SIGNALS:
    void changed();
};
