#include "fakewinsandboxapi.h"

namespace {
QString text(const std::wstring& value) {
    return QString::fromStdWString(value);
}

class FakeAttributes : public WinSandboxApi::StartupAttributes {
public:
    void* extend(void* startupInfo, unsigned long* creationFlags) override {
        *creationFlags |= WinSandboxApi::ExtendedStartupInfoPresent;
        return startupInfo;
    }
};

template <typename T> T answer(bool ok, T value, std::uint32_t failure, std::uint32_t* error) {
    *error = ok ? 0 : failure;
    return ok ? value : T();
}
} // namespace

std::wstring FakeWinSandboxApi::appContainerSid(const std::wstring& name, std::uint32_t* error) {
    calls << QStringLiteral("sid ") + text(name);
    return answer(!sid.empty(), sid, failureError, error);
}

std::wstring FakeWinSandboxApi::appContainerFolder(const std::wstring& containerSid,
                                                   std::uint32_t* error) {
    calls << QStringLiteral("folder ") + text(containerSid);
    return answer(!containerFolder.empty(), containerFolder, failureError, error);
}

std::wstring FakeWinSandboxApi::localAppDataLowFolder(std::uint32_t* error) {
    calls << QStringLiteral("lowfolder");
    return answer(!lowFolder.empty(), lowFolder, failureError, error);
}

bool FakeWinSandboxApi::grantAccess(const std::wstring& path, const std::wstring&,
                                    std::uint32_t access, std::uint32_t* error) {
    calls << QStringLiteral("grant %1 %2").arg(text(path)).arg(access, 0, 16);
    const bool ok = !failingGrants.contains(text(path));
    if (ok)
        granted[text(path)] |= access;
    return answer(ok, true, failureError, error);
}

bool FakeWinSandboxApi::revokeAccess(const std::wstring& path, const std::wstring&,
                                     std::uint32_t* error) {
    calls << QStringLiteral("revoke ") + text(path);
    granted.remove(text(path));
    return answer(true, true, failureError, error);
}

std::shared_ptr<WinSandboxApi::StartupAttributes>
FakeWinSandboxApi::securityCapabilities(const std::wstring& containerSid, bool internetClient,
                                        std::uint32_t* error) {
    calls << QStringLiteral("capabilities %1 %2")
                 .arg(text(containerSid),
                      internetClient ? QStringLiteral("internet") : QStringLiteral("nointernet"));
    return answer<std::shared_ptr<StartupAttributes>>(
        !capabilitiesFail, std::make_shared<FakeAttributes>(), failureError, error);
}

WinSandboxApi::IntegrityStep FakeWinSandboxApi::lowerIntegrityLevel(std::uint32_t,
                                                                    std::uint32_t* error) {
    calls << QStringLiteral("lower");
    *error = integrityFailure == IntegrityStep::Done ? 0 : failureError;
    return integrityFailure;
}

bool FakeWinSandboxApi::resumeProcess(std::uint32_t, std::uint32_t* error) {
    calls << QStringLiteral("resume");
    return answer(true, true, failureError, error);
}

bool FakeWinSandboxApi::runShellAndWait(const std::wstring& program, const std::wstring& parameters,
                                        const std::wstring& verb, std::uint32_t* error) {
    calls << QStringLiteral("shell %1 %2 %3").arg(text(program), text(parameters), text(verb));
    return answer(true, true, failureError, error);
}
