#include "windowserrorcategory.h"

const char* WindowsErrorCategory::name() const noexcept {
    return "windows";
}

std::string WindowsErrorCategory::message(int) const {
    return "windows unknown error";
}

std::error_condition WindowsErrorCategory::default_error_condition(int code) const noexcept {
    switch (code) {
    case 5: // ERROR_ACCESS_DENIED
        return std::errc::permission_denied;
    case 12007: // ERROR_INTERNET_NAME_NOT_RESOLVED
        return std::errc::address_not_available;
    case 12029: // ERROR_INTERNET_CANNOT_CONNECT
        return std::errc::host_unreachable;
    case 12030: // ERROR_INTERNET_CONNECTION_ABORTED
        return std::errc::connection_aborted;
    case 12031: // ERROR_INTERNET_CONNECTION_RESET
        return std::errc::connection_reset;
    default:
        return std::error_condition(code, *this);
    }
}

const WindowsErrorCategory& WindowsErrorCategory::instance() {
    static const WindowsErrorCategory category;
    return category;
}
