#pragma once

#include <terncl/ternclshared_export.h>

#include <cstdint>
#include <memory>
#include <string>

// The Windows calls behind the process sandbox (AppContainer profiles, access lists, tokens,
// the shell), as plain C++ without Qt. The decisions around them live in
// QtProcessSandboxManager and QtWinAppContainerProcessAllowedPathsMgr, so that they can be
// tested anywhere against another implementation of this interface. Error values are the
// system's (GetLastError codes, or an HRESULT where the call returns one).
class TERNCL_EXPORT WinSandboxApi {
public:
    // What CreateProcessW must be given so that the child starts inside an AppContainer. It
    // stays alive until the process has been created.
    class StartupAttributes {
    public:
        virtual ~StartupAttributes();
        // startupInfo is the STARTUPINFOW about to be passed to CreateProcessW; returns the
        // extended startup information to pass instead and adds its flag to *creationFlags.
        virtual void* extend(void* startupInfo, unsigned long* creationFlags) = 0;
    };

    // The call that failed while lowering a process to low integrity: OpenProcessToken,
    // ConvertStringSidToSidW (of "LW") or SetTokenInformation.
    enum class IntegrityStep { Done, OpenToken, MakeLowSid, SetLevel };

    // Generic rights, as access masks of a grant.
    static constexpr std::uint32_t GenericExecute = 0x20000000;
    static constexpr std::uint32_t GenericWrite = 0x40000000;
    static constexpr std::uint32_t GenericRead = 0x80000000;
    // CreateProcessW flags.
    static constexpr std::uint32_t CreateSuspended = 0x4;
    static constexpr std::uint32_t ExtendedStartupInfoPresent = 0x80000;

    virtual ~WinSandboxApi();

    // Creates the AppContainer profile named name, or derives the SID of an existing one.
    // Returns the SID as a string ("S-1-15-2-..."), empty on failure.
    virtual std::wstring appContainerSid(const std::wstring& name, std::uint32_t* error) = 0;
    // The folder that belongs to the container, empty on failure.
    virtual std::wstring appContainerFolder(const std::wstring& sid, std::uint32_t* error) = 0;
    // The user's low-integrity local application data folder, empty on failure.
    virtual std::wstring localAppDataLowFolder(std::uint32_t* error) = 0;
    // Adds access (generic rights) for the SID to the path's access list, inherited below it.
    virtual bool grantAccess(const std::wstring& path, const std::wstring& sid,
                             std::uint32_t access, std::uint32_t* error) = 0;
    // Removes every access of the SID from the path's access list.
    virtual bool revokeAccess(const std::wstring& path, const std::wstring& sid,
                              std::uint32_t* error) = 0;
    // The security capabilities of the container, with the internet-client capability if asked,
    // as startup attributes; null on failure.
    virtual std::shared_ptr<StartupAttributes>
    securityCapabilities(const std::wstring& sid, bool internetClient, std::uint32_t* error) = 0;
    // Sets the integrity level of the process's token to low.
    virtual IntegrityStep lowerIntegrityLevel(std::uint32_t processId, std::uint32_t* error) = 0;
    // Resumes the main thread of a process created suspended.
    virtual bool resumeProcess(std::uint32_t processId, std::uint32_t* error) = 0;
    // Runs program (looked up on the search path) with parameters through the shell with the
    // verb ("open", "runas"), waits for it and tells whether it ended with exit code 0.
    virtual bool runShellAndWait(const std::wstring& program, const std::wstring& parameters,
                                 const std::wstring& verb, std::uint32_t* error) = 0;
};

// The implementation over the Win32 API; null on other systems.
TERNCL_EXPORT std::shared_ptr<WinSandboxApi> createWin32SandboxApi();
