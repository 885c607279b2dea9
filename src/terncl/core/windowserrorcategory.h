#pragma once

#include <terncl/ternclshared_export.h>

#include <system_error>

// The error category "windows" for Win32 and WinINet error numbers. Its messages are generic;
// it exists so that those numbers compare with the portable std::errc conditions.
class TERNCL_EXPORT WindowsErrorCategory : public std::error_category {
public:
    const char* name() const noexcept override;
    std::string message(int code) const override;
    std::error_condition default_error_condition(int code) const noexcept override;

    static const WindowsErrorCategory& instance();
};
