#pragma once

#include <cstdint>

// The power status fields that battery information reads, with the meanings of the Windows
// SYSTEM_POWER_STATUS structure. Plain C++, so that the platform layer that fills it needs no
// Qt and the logic around it can be tested anywhere with a fake source.
struct SystemPowerStatus {
    std::uint8_t acLineStatus = 255;       // 0 offline, 1 online, 255 unknown
    std::uint8_t batteryFlag = 255;        // bit 8 charging, 128 no battery; 255 unknown
    std::uint8_t batteryLifePercent = 255; // 0 to 100, 255 unknown
};

// Where the power status comes from: the operating system, or a test's fake.
class SystemPowerStatusSource {
public:
    virtual ~SystemPowerStatusSource() = default;

    // Fills status; false when the system cannot tell.
    virtual bool read(SystemPowerStatus& status) = 0;
};
