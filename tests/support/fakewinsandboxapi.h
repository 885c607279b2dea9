#pragma once

#include <terncl/qt/process/win/winsandboxapi.h>

#include <QHash>
#include <QSet>
#include <QString>
#include <QStringList>

// Stands in for the Win32 calls of the process sandbox, so that its Windows decisions run on
// any system. Each call is recorded in calls; the fields say how calls answer. Failing calls
// report failureError.
class FakeWinSandboxApi : public WinSandboxApi {
public:
    std::wstring sid = L"S-1-15-2-7"; // empty: the profile cannot be made
    std::wstring containerFolder;     // empty: the folder cannot be found
    std::wstring lowFolder;           // empty: the known folder cannot be found
    QSet<QString> failingGrants;      // grants to these paths fail
    bool capabilitiesFail = false;
    IntegrityStep integrityFailure = IntegrityStep::Done;
    std::uint32_t failureError = 5;

    // "sid NAME", "folder SID", "lowfolder", "grant PATH HEXMASK", "revoke PATH",
    // "capabilities SID internet|nointernet", "lower", "resume", "shell PROGRAM PARAMS VERB".
    QStringList calls;
    // The access in force per path, as grants and revokes left it.
    QHash<QString, std::uint32_t> granted;

    std::wstring appContainerSid(const std::wstring& name, std::uint32_t* error) override;
    std::wstring appContainerFolder(const std::wstring& sid, std::uint32_t* error) override;
    std::wstring localAppDataLowFolder(std::uint32_t* error) override;
    bool grantAccess(const std::wstring& path, const std::wstring& sid, std::uint32_t access,
                     std::uint32_t* error) override;
    bool revokeAccess(const std::wstring& path, const std::wstring& sid,
                      std::uint32_t* error) override;
    std::shared_ptr<StartupAttributes> securityCapabilities(const std::wstring& sid,
                                                            bool internetClient,
                                                            std::uint32_t* error) override;
    IntegrityStep lowerIntegrityLevel(std::uint32_t processId, std::uint32_t* error) override;
    bool resumeProcess(std::uint32_t processId, std::uint32_t* error) override;
    bool runShellAndWait(const std::wstring& program, const std::wstring& parameters,
                         const std::wstring& verb, std::uint32_t* error) override;
};
