#include "winsandboxapi.h"

WinSandboxApi::StartupAttributes::~StartupAttributes() = default;

WinSandboxApi::~WinSandboxApi() = default;

#ifndef _WIN32
std::shared_ptr<WinSandboxApi> createWin32SandboxApi() {
    return nullptr;
}
#endif
