// The process sandbox's calls over the Win32 API. Plain C++: no Qt, so that it builds and runs
// on its own (the cross-compiled check in .ci/windows-layers uses it that way).
#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0A00
#endif
#ifndef WINVER
#define WINVER 0x0A00
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif

#include "winsandboxapi.h"

#include <windows.h>

#include <aclapi.h>
// Defines the known-folder identifiers here, so that no import library has to provide them.
#include <initguid.h>
#include <knownfolders.h>
#include <sddl.h>
#include <shellapi.h>
#include <shlobj.h>
#include <tlhelp32.h>
#include <userenv.h>

#include <vector>

namespace {

// Frees what a call handed out, whichever way the function returns.
template <typename T, typename Free> class Owned {
public:
    Owned(T value, Free free)
        : m_value(value)
        , m_free(free) {}
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() {
        if (m_value)
            m_free(m_value);
    }
    T get() const { return m_value; }

private:
    T m_value;
    Free m_free;
};

void freeLocal(void* memory) {
    LocalFree(memory);
}

void closeHandle(HANDLE handle) {
    CloseHandle(handle);
}

void lastError(std::uint32_t* error) {
    *error = GetLastError();
}

// Keeps the failed call's error; false, for returning at once.
bool failed(std::uint32_t* error) {
    lastError(error);
    return false;
}

std::wstring sidText(PSID sid, std::uint32_t* error) {
    LPWSTR text = nullptr;
    if (!ConvertSidToStringSidW(sid, &text)) {
        lastError(error);
        return std::wstring();
    }
    const Owned<LPWSTR, void (*)(void*)> owned(text, freeLocal);
    return std::wstring(text);
}

// The security capabilities of a container, in a process-thread attribute list.
class SecurityCapabilitiesAttributes : public WinSandboxApi::StartupAttributes {
public:
    ~SecurityCapabilitiesAttributes() override {
        if (m_listReady)
            DeleteProcThreadAttributeList(list());
        if (m_containerSid)
            LocalFree(m_containerSid);
    }

    bool build(const std::wstring& sid, bool internetClient, std::uint32_t* error) {
        if (!ConvertStringSidToSidW(sid.c_str(), &m_containerSid))
            return failed(error);
        m_capabilities = {};
        m_capabilities.AppContainerSid = m_containerSid;
        if (internetClient) {
            DWORD size = sizeof(m_internetClientSid);
            if (!CreateWellKnownSid(WinCapabilityInternetClientSid, nullptr, m_internetClientSid,
                                    &size)) {
                return failed(error);
            }
            m_capability.Sid = m_internetClientSid;
            m_capability.Attributes = SE_GROUP_ENABLED;
            m_capabilities.Capabilities = &m_capability;
            m_capabilities.CapabilityCount = 1;
        }
        SIZE_T size = 0;
        InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        m_listMemory.resize(size);
        if (!InitializeProcThreadAttributeList(list(), 1, 0, &size))
            return failed(error);
        m_listReady = true;
        if (!UpdateProcThreadAttribute(list(), 0, PROC_THREAD_ATTRIBUTE_SECURITY_CAPABILITIES,
                                       &m_capabilities, sizeof(m_capabilities), nullptr, nullptr)) {
            return failed(error);
        }
        return true;
    }

    void* extend(void* startupInfo, unsigned long* creationFlags) override {
        m_startupInfo = {};
        m_startupInfo.StartupInfo = *static_cast<STARTUPINFOW*>(startupInfo);
        m_startupInfo.StartupInfo.cb = sizeof(m_startupInfo);
        m_startupInfo.lpAttributeList = list();
        *creationFlags |= EXTENDED_STARTUPINFO_PRESENT;
        return &m_startupInfo;
    }

private:
    LPPROC_THREAD_ATTRIBUTE_LIST list() {
        return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_listMemory.data());
    }

    PSID m_containerSid = nullptr;
    BYTE m_internetClientSid[SECURITY_MAX_SID_SIZE] = {};
    SID_AND_ATTRIBUTES m_capability = {};
    SECURITY_CAPABILITIES m_capabilities = {};
    std::vector<unsigned char> m_listMemory;
    bool m_listReady = false;
    STARTUPINFOEXW m_startupInfo = {};
};

// Changes the SID's entry in the path's access list: GRANT_ACCESS merges access into it,
// REVOKE_ACCESS removes it.
bool changeAccess(const std::wstring& path, const std::wstring& sid, ACCESS_MODE mode, DWORD access,
                  std::uint32_t* error) {
    PSID trusteeSid = nullptr;
    if (!ConvertStringSidToSidW(sid.c_str(), &trusteeSid))
        return failed(error);
    const Owned<PSID, void (*)(void*)> ownedSid(trusteeSid, freeLocal);
    PACL oldAcl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    DWORD result = GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION,
                                         nullptr, nullptr, &oldAcl, nullptr, &descriptor);
    if (result != ERROR_SUCCESS) {
        *error = result;
        return false;
    }
    const Owned<PSECURITY_DESCRIPTOR, void (*)(void*)> ownedDescriptor(descriptor, freeLocal);
    EXPLICIT_ACCESSW entry = {};
    entry.grfAccessPermissions = access;
    entry.grfAccessMode = mode;
    entry.grfInheritance = SUB_CONTAINERS_AND_OBJECTS_INHERIT;
    entry.Trustee.TrusteeForm = TRUSTEE_IS_SID;
    entry.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    entry.Trustee.ptstrName = static_cast<LPWSTR>(trusteeSid);
    PACL newAcl = nullptr;
    result = SetEntriesInAclW(1, &entry, oldAcl, &newAcl);
    if (result != ERROR_SUCCESS) {
        *error = result;
        return false;
    }
    const Owned<PACL, void (*)(void*)> ownedAcl(newAcl, freeLocal);
    result = SetNamedSecurityInfoW(const_cast<LPWSTR>(path.c_str()), SE_FILE_OBJECT,
                                   DACL_SECURITY_INFORMATION, nullptr, nullptr, newAcl, nullptr);
    *error = result;
    return result == ERROR_SUCCESS;
}

class Win32SandboxApi : public WinSandboxApi {
public:
    std::wstring appContainerSid(const std::wstring& name, std::uint32_t* error) override {
        PSID sid = nullptr;
        HRESULT result =
            CreateAppContainerProfile(name.c_str(), name.c_str(), name.c_str(), nullptr, 0, &sid);
        if (result == HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS))
            result = DeriveAppContainerSidFromAppContainerName(name.c_str(), &sid);
        if (FAILED(result)) {
            *error = std::uint32_t(result);
            return std::wstring();
        }
        const Owned<PSID, PVOID (*)(PSID)> owned(sid, FreeSid);
        return sidText(sid, error);
    }

    std::wstring appContainerFolder(const std::wstring& sid, std::uint32_t* error) override {
        PWSTR path = nullptr;
        const HRESULT result = GetAppContainerFolderPath(sid.c_str(), &path);
        if (FAILED(result)) {
            *error = std::uint32_t(result);
            return std::wstring();
        }
        const Owned<PWSTR, void (*)(LPVOID)> owned(path, CoTaskMemFree);
        return std::wstring(path);
    }

    std::wstring localAppDataLowFolder(std::uint32_t* error) override {
        PWSTR path = nullptr;
        const HRESULT result = SHGetKnownFolderPath(FOLDERID_LocalAppDataLow, 0, nullptr, &path);
        const Owned<PWSTR, void (*)(LPVOID)> owned(path, CoTaskMemFree);
        if (FAILED(result)) {
            *error = std::uint32_t(result);
            return std::wstring();
        }
        return std::wstring(path);
    }

    bool grantAccess(const std::wstring& path, const std::wstring& sid, std::uint32_t access,
                     std::uint32_t* error) override {
        return changeAccess(path, sid, GRANT_ACCESS, access, error);
    }

    bool revokeAccess(const std::wstring& path, const std::wstring& sid,
                      std::uint32_t* error) override {
        return changeAccess(path, sid, REVOKE_ACCESS, 0, error);
    }

    std::shared_ptr<StartupAttributes> securityCapabilities(const std::wstring& sid,
                                                            bool internetClient,
                                                            std::uint32_t* error) override {
        auto attributes = std::make_shared<SecurityCapabilitiesAttributes>();
        if (!attributes->build(sid, internetClient, error))
            return nullptr;
        return attributes;
    }

    IntegrityStep lowerIntegrityLevel(std::uint32_t processId, std::uint32_t* error) override {
        const Owned<HANDLE, void (*)(HANDLE)> process(
            OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, processId), closeHandle);
        HANDLE token = nullptr;
        if (!process.get() ||
            !OpenProcessToken(process.get(), TOKEN_QUERY | TOKEN_ADJUST_DEFAULT, &token)) {
            lastError(error);
            return IntegrityStep::OpenToken;
        }
        const Owned<HANDLE, void (*)(HANDLE)> ownedToken(token, closeHandle);
        PSID lowSid = nullptr;
        if (!ConvertStringSidToSidW(L"LW", &lowSid)) {
            lastError(error);
            return IntegrityStep::MakeLowSid;
        }
        const Owned<PSID, void (*)(void*)> ownedSid(lowSid, freeLocal);
        TOKEN_MANDATORY_LABEL label = {};
        label.Label.Attributes = SE_GROUP_INTEGRITY;
        label.Label.Sid = lowSid;
        if (!SetTokenInformation(token, TokenIntegrityLevel, &label,
                                 DWORD(sizeof(label) + GetLengthSid(lowSid)))) {
            lastError(error);
            return IntegrityStep::SetLevel;
        }
        *error = 0;
        return IntegrityStep::Done;
    }

    bool resumeProcess(std::uint32_t processId, std::uint32_t* error) override {
        // A process created suspended has one thread, its main thread.
        const Owned<HANDLE, void (*)(HANDLE)> snapshot(
            CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0), closeHandle);
        if (snapshot.get() == INVALID_HANDLE_VALUE)
            return failed(error);
        THREADENTRY32 entry = {};
        entry.dwSize = sizeof(entry);
        for (BOOL more = Thread32First(snapshot.get(), &entry); more;
             more = Thread32Next(snapshot.get(), &entry)) {
            if (entry.th32OwnerProcessID != processId)
                continue;
            const Owned<HANDLE, void (*)(HANDLE)> thread(
                OpenThread(THREAD_SUSPEND_RESUME, FALSE, entry.th32ThreadID), closeHandle);
            if (!thread.get() || ResumeThread(thread.get()) == DWORD(-1))
                return failed(error);
            *error = 0;
            return true;
        }
        *error = ERROR_NOT_FOUND;
        return false;
    }

    bool runShellAndWait(const std::wstring& program, const std::wstring& parameters,
                         const std::wstring& verb, std::uint32_t* error) override {
        wchar_t found[MAX_PATH] = {};
        if (!SearchPathW(nullptr, program.c_str(), nullptr, MAX_PATH, found, nullptr))
            return failed(error);
        SHELLEXECUTEINFOW info = {};
        info.cbSize = sizeof(info);
        info.fMask = SEE_MASK_NOCLOSEPROCESS | SEE_MASK_NOASYNC;
        info.lpVerb = verb.c_str();
        info.lpFile = found;
        info.lpParameters = parameters.c_str();
        info.nShow = SW_HIDE;
        if (!ShellExecuteExW(&info) || !info.hProcess)
            return failed(error);
        const Owned<HANDLE, void (*)(HANDLE)> process(info.hProcess, closeHandle);
        WaitForSingleObject(process.get(), INFINITE);
        DWORD exitCode = 1;
        if (!GetExitCodeProcess(process.get(), &exitCode))
            return failed(error);
        *error = exitCode;
        return exitCode == 0;
    }
};

} // namespace

std::shared_ptr<WinSandboxApi> createWin32SandboxApi() {
    return std::make_shared<Win32SandboxApi>();
}
