#pragma once

#include <QString>

// What Linux's power-supply files say (one folder per supply under /sys/class/power_supply).
struct PowerSupplyState {
    bool batteryPresent = false;
    bool charging = false;
    bool mainsPower = false;
    float level = 1.0f;
};

// Reads every supply folder under root. System batteries count (peripherals' do not); a battery
// whose charge cannot be read, or is not a number, counts as none. Several batteries give the
// mean of their charges and charge while any of them does. Mains and USB supplies that are
// online mean mains power.
PowerSupplyState readPowerSupplyFiles(const QString& root);
