#pragma once

#include <terncl/core/systempowerstatussource.h>

// The power status as GetSystemPowerStatus reports it. Windows only; plain C++ over kernel32.
class Win32SystemPowerStatusSource final : public SystemPowerStatusSource {
public:
    bool read(SystemPowerStatus& status) override;
};
