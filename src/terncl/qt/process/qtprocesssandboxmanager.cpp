#include "qtprocesssandboxmanager.h"

#include "qtwinappcontainerprocessallowedpathsmgr.h"
#include "win/winsandboxapi.h"

#include <terncl/core/qtappdefaultlogger.h>
#include <terncl/core/sourceplace.h>

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#ifdef Q_OS_LINUX
#include "linux/linuxsandbox_p.h"
#endif

namespace {
const QString loopbackTool = QStringLiteral("CheckNetIsolation.exe");

quint32 accessMaskOf(const QtProcessSandboxManager::AllowedPath& entry) {
    quint32 access = 0;
    if (entry.write)
        access += WinSandboxApi::GenericWrite;
    if (entry.read)
        access += WinSandboxApi::GenericRead;
    if (entry.execute)
        access += WinSandboxApi::GenericExecute;
    return access;
}

QString integrityStepText(WinSandboxApi::IntegrityStep step) {
    switch (step) {
    case WinSandboxApi::IntegrityStep::OpenToken:
        return QStringLiteral("OpenProcessToken");
    case WinSandboxApi::IntegrityStep::MakeLowSid:
        return QStringLiteral("ConvertStringSidToSid");
    case WinSandboxApi::IntegrityStep::SetLevel:
        return QStringLiteral("SetTokenInformation");
    case WinSandboxApi::IntegrityStep::Done:
        break;
    }
    return QString();
}

// Adds the creation flags (and the AppContainer's startup attributes) to the process's
// CreateProcessW call; only Windows has that call.
void tweakCreateProcess(QProcess* process, unsigned long flags,
                        std::shared_ptr<WinSandboxApi::StartupAttributes> attributes) {
#ifdef Q_OS_WIN
    process->setCreateProcessArgumentsModifier(
        [flags, attributes](QProcess::CreateProcessArguments* arguments) {
            arguments->flags |= flags;
            if (attributes) {
                arguments->startupInfo = static_cast<Q_STARTUPINFO*>(
                    attributes->extend(arguments->startupInfo, &arguments->flags));
            }
        });
#else
    Q_UNUSED(process)
    Q_UNUSED(flags)
    Q_UNUSED(attributes)
#endif
}
} // namespace

QtProcessSandboxManager::QtProcessSandboxManager(const QString& name, QObject* parent)
    : QtProcessSandboxManager(name, createWin32SandboxApi(), parent) {}

QtProcessSandboxManager::QtProcessSandboxManager(const QString& name,
                                                 std::shared_ptr<WinSandboxApi> windowsApi,
                                                 QObject* parent)
    : QObject(parent)
    , m_name(name)
    , m_windows(std::move(windowsApi)) {}

QtProcessSandboxManager::~QtProcessSandboxManager() = default;

QString QtProcessSandboxManager::name() const {
    return m_name;
}

bool QtProcessSandboxManager::hasSandboxSupport() {
#if defined(Q_OS_WIN)
    return true;
#elif defined(Q_OS_LINUX)
    return terncl::LinuxSandbox::support().available;
#else
    return false;
#endif
}

bool QtProcessSandboxManager::startInSandbox(const SandboxSettings& settings,
                                             bool allowStartWithoutSandbox, QProcess* process,
                                             QIODeviceBase::OpenMode mode) {
    if (!process)
        return false;
    if (m_name.isEmpty())
        log(QStringLiteral("sandboxing is disabled (the manager has no name)"));
    else if (doStartInSandbox(settings, process, mode))
        return true;
    if (!allowStartWithoutSandbox) {
        log(QStringLiteral("not starting %1: it may only run in the sandbox")
                .arg(process->program()));
        return false;
    }
    log(QStringLiteral("starting %1 without sandbox").arg(process->program()));
    // A failed sandbox attempt may already have started the child; never start it twice.
    if (process->state() != QProcess::NotRunning) {
        if (m_windows && m_suspendedUnconfined == process) {
            std::uint32_t error = 0;
            m_windows->resumeProcess(quint32(process->processId()), &error);
        }
        m_suspendedUnconfined.clear();
        return true;
    }
    process->start(mode);
    return true;
}

bool QtProcessSandboxManager::doStartInSandbox(const SandboxSettings& settings, QProcess* process,
                                               QIODeviceBase::OpenMode mode) {
    if (!m_windows)
        return startConfinedOnLinux(settings, process, mode);
    if ((settings.kind == 0 || settings.kind == 2) &&
        startInAppContainer(settings, process, mode)) {
        return true;
    }
    return startInLowIntegrity(settings, process, mode);
}

QString QtProcessSandboxManager::winAppContainerName() const {
    return m_name + QStringLiteral("AppContainerSandbox");
}

bool QtProcessSandboxManager::startInAppContainer(const SandboxSettings& settings,
                                                  QProcess* process, QIODeviceBase::OpenMode mode) {
    std::uint32_t error = 0;
    const std::wstring sid =
        m_windows->appContainerSid(winAppContainerName().toStdWString(), &error);
    if (sid.empty()) {
        log(QStringLiteral("CreateAppContainerProfile failed with error: %1").arg(error));
        return false;
    }
    if (settings.requireLoopbackExemption && !isGlobalLoopbackAccessEnabled()) {
        log(QStringLiteral("the AppContainer has no loopback exemption"));
        return false;
    }
    if (!m_allowedPathsMgr || m_containerSid != QString::fromStdWString(sid)) {
        m_containerSid = QString::fromStdWString(sid);
        m_allowedPathsMgr.reset(
            new QtWinAppContainerProcessAllowedPathsMgr(m_windows, m_containerSid));
    }
    const std::wstring folder = m_windows->appContainerFolder(sid, &error);
    if (folder.empty()) {
        log(QStringLiteral("GetAppContainerFolderPath failed with error: %1").arg(error));
        return false;
    }
    winBuildEnv(process, settings, QString::fromStdWString(folder));
    if (!grantAllowedPaths(settings, process))
        return false;
    const auto attributes = m_windows->securityCapabilities(sid, settings.internetClient, &error);
    if (!attributes) {
        log(QStringLiteral("building the security capabilities failed with error: %1").arg(error));
        m_allowedPathsMgr->withdrawAll(process);
        return false;
    }
    tweakCreateProcess(process, WinSandboxApi::ExtendedStartupInfoPresent, attributes);
    log(QStringLiteral("using AppContainer sandbox"));
    process->start(mode);
    return true;
}

bool QtProcessSandboxManager::grantAllowedPaths(const SandboxSettings& settings,
                                                QProcess* process) {
    for (const AllowedPath& entry : settings.allowedPaths) {
        if (!m_allowedPathsMgr->grantAccess(process, entry.path, accessMaskOf(entry))) {
            log(QStringLiteral("granting access to %1 failed").arg(entry.path));
            return false;
        }
    }
    if (settings.revokeAllowedPathsOnFinish)
        m_allowedPathsMgr->withdrawWhenFinished(process);
    else
        m_allowedPathsMgr->keepGrants(process);
    return true;
}

bool QtProcessSandboxManager::startInLowIntegrity(const SandboxSettings& settings,
                                                  QProcess* process, QIODeviceBase::OpenMode mode) {
    std::uint32_t error = 0;
    const std::wstring folder = m_windows->localAppDataLowFolder(&error);
    if (folder.empty()) {
        log(QStringLiteral("SHGetKnownFolderPath failed with error: %1").arg(error));
        return false;
    }
    const QString base = QString::fromStdWString(folder) + QStringLiteral("\\Temp\\") + m_name;
    winBuildEnv(process, settings, base);

    tweakCreateProcess(process, WinSandboxApi::CreateSuspended, nullptr);
    process->start(mode);
    if (!process->waitForStarted(StartTimeoutMs)) {
        log(QStringLiteral("QProcess::waitForStarted failed"));
        return false;
    }
    const auto processId = quint32(process->processId());
    const auto step = m_windows->lowerIntegrityLevel(processId, &error);
    if (step != WinSandboxApi::IntegrityStep::Done) {
        log(QStringLiteral("%1 failed with error: %2").arg(integrityStepText(step)).arg(error));
        m_suspendedUnconfined = process;
        return false;
    }
    if (!m_windows->resumeProcess(processId, &error)) {
        log(QStringLiteral("ResumeThread failed with error: %1").arg(error));
        m_suspendedUnconfined = process;
        return false;
    }
    log(QStringLiteral("using LowIntegrityLevel sandbox"));
    return true;
}

void QtProcessSandboxManager::winBuildEnv(QProcess* process, const SandboxSettings& settings,
                                          const QString& base) {
    const QString local = base + QStringLiteral("\\AppData") + QStringLiteral("\\Local");
    Variables extra;
    if (settings.overrideUserProfile)
        extra.append({QStringLiteral("USERPROFILE"), base});
    if (settings.overrideAppData) {
        extra.append({QStringLiteral("APPDATA"),
                      base + QStringLiteral("\\AppData") + QStringLiteral("\\Roaming")});
    }
    if (settings.overrideLocalAppData)
        extra.append({QStringLiteral("LOCALAPPDATA"), local});
    buildEnv(process, settings, local + QStringLiteral("\\Temp"), extra);
}

void QtProcessSandboxManager::buildEnv(QProcess* process, const SandboxSettings& settings,
                                       const QString& tempFolder, const Variables& extraVariables) {
    QDir().mkpath(tempFolder);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"TMPDIR", "TEMP", "TMP"})
        environment.insert(QString::fromLatin1(name), tempFolder);
    if (settings.setXdgCacheHome)
        environment.insert(QStringLiteral("XDG_CACHE_HOME"),
                           tempFolder + QStringLiteral("/.cache"));
    if (settings.setPythonPycachePrefix) {
        environment.insert(QStringLiteral("PYTHONPYCACHEPREFIX"),
                           tempFolder + QStringLiteral("/Python"));
    }
    for (const auto& variable : extraVariables)
        environment.insert(variable.first, variable.second);
    process->setProcessEnvironment(environment);
}

bool QtProcessSandboxManager::startConfinedOnLinux(const SandboxSettings& settings,
                                                   QProcess* process,
                                                   QIODeviceBase::OpenMode mode) {
#ifdef Q_OS_LINUX
    const auto& support = terncl::LinuxSandbox::support();
    if (!support.available) {
        log(QStringLiteral("no sandbox on this system: %1").arg(support.reason));
        return false;
    }
    terncl::LinuxSandbox::Request request;
    request.privateFolder = privateFolder();
    if (request.privateFolder.isEmpty()) {
        log(QStringLiteral("cannot make the sandbox's private folder in %1").arg(QDir::tempPath()));
        return false;
    }
    request.allowedPaths = settings.allowedPaths;
    request.network = settings.internetClient;
    buildEnv(process, settings, request.privateFolder, {});
    QString reason;
    if (!terncl::LinuxSandbox::start(process, mode, request, &reason)) {
        log(QStringLiteral("cannot confine %1: %2").arg(process->program(), reason));
        return false;
    }
    log(QStringLiteral("using Landlock sandbox (ABI %1)%2")
            .arg(support.landlockAbi)
            .arg(settings.internetClient ? QString() : QStringLiteral(" without network")));
    return true;
#else
    Q_UNUSED(settings)
    Q_UNUSED(process)
    Q_UNUSED(mode)
    log(QStringLiteral("no sandbox on this system"));
    return false;
#endif
}

QString QtProcessSandboxManager::privateFolder() {
    if (!m_privateFolder) {
        m_privateFolder.reset(new QTemporaryDir(QDir::tempPath() + QLatin1Char('/') + m_name +
                                                QStringLiteral("Sandbox-XXXXXX")));
    }
    return m_privateFolder->isValid() ? m_privateFolder->path() : QString();
}

bool QtProcessSandboxManager::enableGlobalLoopbackAccess(bool enable) {
    if (m_name.isEmpty())
        return false;
    if (!m_windows) {
#ifdef Q_OS_LINUX
        return enable;
#else
        return false;
#endif
    }
    const QString parameters = QStringLiteral("LoopbackExempt -%1 -n=\"%2\"")
                                   .arg(enable ? QLatin1Char('a') : QLatin1Char('d'))
                                   .arg(winAppContainerName());
    std::uint32_t error = 0;
    // Changing an exemption needs administrator rights, so the shell asks for them.
    const bool done = m_windows->runShellAndWait(loopbackTool.toStdWString(),
                                                 parameters.toStdWString(), L"runas", &error);
    if (!done)
        log(QStringLiteral("%1 %2 failed with error: %3").arg(loopbackTool, parameters).arg(error));
    return done;
}

bool QtProcessSandboxManager::isGlobalLoopbackAccessEnabled() const {
    if (m_name.isEmpty())
        return false;
    if (!m_windows) {
#ifdef Q_OS_LINUX
        return true;
#else
        return false;
#endif
    }
    QProcess p;
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(loopbackTool, {QStringLiteral("LoopbackExempt"), QStringLiteral("-s")},
            QIODeviceBase::ReadOnly);
    TERNCL_ASSERT(p.waitForFinished(-1));
    const QString listing = QString::fromLocal8Bit(p.readAll());
    return listing.contains(winAppContainerName(), Qt::CaseInsensitive);
}

void QtProcessSandboxManager::log(const QString& text) const {
    terncl::logLine(QtAppLogger::Info, QtAppLogger::Process,
                    QStringLiteral("[QtProcessSandboxManager]: ") + text);
}
