#include "win32systempowerstatussource_p.h"

#include <windows.h>

bool Win32SystemPowerStatusSource::read(SystemPowerStatus& status) {
    SYSTEM_POWER_STATUS system{};
    if (!GetSystemPowerStatus(&system))
        return false;
    status.acLineStatus = system.ACLineStatus;
    status.batteryFlag = system.BatteryFlag;
    status.batteryLifePercent = system.BatteryLifePercent;
    return true;
}
