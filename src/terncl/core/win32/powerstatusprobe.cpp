// Prints the power status the Win32 layer reads, so that a Windows build (or wine) shows that
// the layer links and answers: "ac=1 flag=8 percent=55", exit code 0; 1 when the call fails.
#include <terncl/core/win32/win32systempowerstatussource_p.h>

#include <cstdio>

int main() {
    Win32SystemPowerStatusSource source;
    SystemPowerStatus status;
    if (!source.read(status)) {
        std::fprintf(stderr, "GetSystemPowerStatus failed\n");
        return 1;
    }
    std::printf("ac=%u flag=%u percent=%u\n", unsigned(status.acLineStatus),
                unsigned(status.batteryFlag), unsigned(status.batteryLifePercent));
    return 0;
}
