// Drives the Win32 layer of the process sandbox on Windows, or under Wine: each check prints
// "ok NAME" or "FAILED NAME (error N)". Cross-compiled and run by .ci/windows-layers.
//
// Usage: win32sandboxcheck [--skip NAMES] [--may-fail NAMES]  (NAMES: comma-separated checks)
//          exits 1 when a check that may not fail fails; skipped checks are not run at all
//          (a call that an emulator does not implement can end the program)
//        win32sandboxcheck child N  exits with N (the child that the checks start)
#include <terncl/qt/process/win/winsandboxapi.h>

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {
const std::wstring someSid = L"S-1-15-2-1";
std::wstring self;

// Starts this program as "child 7", suspended and optionally with extended startup information,
// lowers its integrity level when asked, resumes it and checks that it exits with 7.
bool runChild(WinSandboxApi& api, std::uint32_t* error,
              WinSandboxApi::StartupAttributes* attributes = nullptr, bool lower = false) {
    std::wstring commandLine = L"\"" + self + L"\" child 7";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    unsigned long flags = CREATE_SUSPENDED;
    void* startupInfo = attributes ? attributes->extend(&startup, &flags) : &startup;
    PROCESS_INFORMATION info = {};
    if (!CreateProcessW(self.c_str(), &commandLine[0], nullptr, nullptr, FALSE, flags, nullptr,
                        nullptr, static_cast<STARTUPINFOW*>(startupInfo), &info)) {
        *error = GetLastError();
        return false;
    }
    const bool lowered = !lower || api.lowerIntegrityLevel(info.dwProcessId, error) ==
                                       WinSandboxApi::IntegrityStep::Done;
    DWORD code = 0;
    const bool ended = api.resumeProcess(info.dwProcessId, error) &&
                       WaitForSingleObject(info.hProcess, 30000) == WAIT_OBJECT_0 &&
                       GetExitCodeProcess(info.hProcess, &code) && code == 7;
    if (!ended)
        TerminateProcess(info.hProcess, 1);
    CloseHandle(info.hThread);
    CloseHandle(info.hProcess);
    return ended && lowered;
}

// Whether the folder's access list holds an entry for sid.
bool aclNames(const std::wstring& folder, const std::wstring& sid) {
    PACL acl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    PSID wanted = nullptr;
    if (GetNamedSecurityInfoW(folder.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                              nullptr, &acl, nullptr, &descriptor) != ERROR_SUCCESS ||
        !ConvertStringSidToSidW(sid.c_str(), &wanted)) {
        return false;
    }
    bool found = false;
    for (DWORD i = 0; acl && i < acl->AceCount && !found; ++i) {
        ACCESS_ALLOWED_ACE* ace = nullptr;
        if (GetAce(acl, i, reinterpret_cast<void**>(&ace)) &&
            ace->Header.AceType == ACCESS_ALLOWED_ACE_TYPE) {
            found = EqualSid(&ace->SidStart, wanted);
        }
    }
    LocalFree(wanted);
    LocalFree(descriptor);
    return found;
}

bool checkGrantAndRevoke(WinSandboxApi& api, std::uint32_t* error) {
    wchar_t temp[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temp);
    const std::wstring folder =
        std::wstring(temp) + L"terncl-check-" + std::to_wstring(GetCurrentProcessId());
    CreateDirectoryW(folder.c_str(), nullptr);
    const bool granted = api.grantAccess(folder, someSid, WinSandboxApi::GenericRead, error) &&
                         aclNames(folder, someSid);
    const bool revoked =
        granted && api.revokeAccess(folder, someSid, error) && !aclNames(folder, someSid);
    RemoveDirectoryW(folder.c_str());
    return granted && revoked;
}

bool checkAppContainerChild(WinSandboxApi& api, std::uint32_t* error) {
    const std::wstring sid = api.appContainerSid(L"terncheckAppContainerSandbox", error);
    if (sid.rfind(L"S-1-15-2-", 0) != 0 || api.appContainerFolder(sid, error).empty())
        return false;
    const auto attributes = api.securityCapabilities(sid, true, error);
    return attributes && runChild(api, error, attributes.get());
}

bool named(const std::string& names, const char* name) {
    return ("," + names + ",").find("," + std::string(name) + ",") != std::string::npos;
}

bool checkShell(WinSandboxApi& api, std::uint32_t* error) {
    std::uint32_t exitCode = 0;
    return api.runShellAndWait(L"cmd.exe", L"/c exit 0", L"open", error) &&
           !api.runShellAndWait(L"cmd.exe", L"/c exit 3", L"open", &exitCode) && exitCode == 3;
}
} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "child")
        return std::atoi(argv[2]);
    std::string skip, mayFail;
    for (int i = 1; i + 1 < argc; i += 2)
        (std::string(argv[i]) == "--skip" ? skip : mayFail) = argv[i + 1];
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    self = path;

    const auto api = createWin32SandboxApi();
    struct Check {
        const char* name;
        bool (*run)(WinSandboxApi&, std::uint32_t*);
    };
    const Check checks[] = {
        {"known-folder",
         [](WinSandboxApi& a, std::uint32_t* e) {
             return !a.localAppDataLowFolder(e).empty();
         }},
        {"capabilities",
         [](WinSandboxApi& a, std::uint32_t* e) {
             return a.securityCapabilities(someSid, true, e) != nullptr;
         }},
        {"grant-revoke", checkGrantAndRevoke},
        {"resume",
         [](WinSandboxApi& a, std::uint32_t* e) {
             return runChild(a, e);
         }},
        {"low-integrity",
         [](WinSandboxApi& a, std::uint32_t* e) {
             return runChild(a, e, nullptr, true);
         }},
        {"appcontainer-child", checkAppContainerChild},
        {"shell", checkShell},
    };
    int failures = 0;
    for (const Check& check : checks) {
        if (named(skip, check.name)) {
            std::printf("skipped %s\n", check.name);
            continue;
        }
        std::uint32_t error = 0;
        if (check.run(*api, &error)) {
            std::printf("ok %s\n", check.name);
            continue;
        }
        const bool allowed = named(mayFail, check.name);
        std::printf("%s %s (error %lu)\n", allowed ? "failed as expected:" : "FAILED", check.name,
                    static_cast<unsigned long>(error));
        failures += allowed ? 0 : 1;
    }
    return failures == 0 ? 0 : 1;
}
