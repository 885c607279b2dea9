#pragma once

#include <terncl/ternclshared_export.h>

#include <QIODeviceBase>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QString>

#include <memory>

class QProcess;
class QTemporaryDir;
class QtWinAppContainerProcessAllowedPathsMgr;
class WinSandboxApi;

// Starts prepared processes with reduced rights, shared by every launch manager of a host.
//
// On Windows the child runs inside an AppContainer, or at low integrity level when that fails
// or is asked for; the allowed paths are granted to the container while the child runs. On
// Linux the child is confined with Landlock, namespaces and a system call filter (see
// hasSandboxSupport()): it reads and executes the system's programs and libraries, uses the
// allowed paths with exactly their read, write and execute bits and a private writable folder
// of this manager, gains no privileges, and has no network unless internetClient is set. On
// both, the child's temporary and cache files are pointed into that folder.
//
// Lives on the thread of the launch managers that call it; starts block that thread briefly.
class TERNCL_EXPORT QtProcessSandboxManager : public QObject {
    Q_OBJECT

public:
    // A path the sandboxed child may use, and how.
    struct AllowedPath {
        QString path;
        bool execute = false;
        bool read = false;
        // Kept so that stored settings keep their layout; it has no effect.
        bool reserved = false;
        bool write = false;
    };

    // What a sandbox allows the child: paths, environment and network.
    struct SandboxSettings {
        QList<AllowedPath> allowedPaths;
        // Network access. Without it a Linux child has no network at all, loopback included.
        bool internetClient = true;
        // Windows: refuse the AppContainer unless its loopback exemption is in force.
        bool requireLoopbackExemption = false;
        bool setXdgCacheHome = true;
        bool setPythonPycachePrefix = true;
        // Windows: withdraw the accesses granted to allowedPaths when the child ends; otherwise
        // they stay for as long as the manager lives (granting is slow on large folders).
        bool revokeAllowedPathsOnFinish = true;
        // Windows: 0 or 2: AppContainer first, low integrity if that fails; other values: low
        // integrity only. Linux has one kind of sandbox.
        int kind = 2;
        // Windows: point these profile folders into the sandbox's folder too.
        bool overrideUserProfile = false;
        bool overrideAppData = false;
        bool overrideLocalAppData = true;
    };

    static constexpr int StartTimeoutMs = 30000;

    // An empty name disables sandboxing. The name also names the AppContainer and the
    // sandbox's folders.
    explicit QtProcessSandboxManager(const QString& name, QObject* parent = nullptr);
    // Uses windowsApi for the Windows sandbox, on any system: the Windows decisions run against
    // whatever implements it. Without it (null) the system's own sandbox is used.
    QtProcessSandboxManager(const QString& name, std::shared_ptr<WinSandboxApi> windowsApi,
                            QObject* parent = nullptr);
    ~QtProcessSandboxManager() override;

    QString name() const;

    // Whether this system can confine children: always on Windows; on Linux when the kernel
    // offers Landlock and lets this process make user, IPC and network namespaces.
    static bool hasSandboxSupport();

    // Starts process, whose program, arguments and connections are already set. When the
    // sandbox cannot be used, the process is started normally if allowStartWithoutSandbox is
    // set, and left unstarted (false) otherwise; the log says why. A null process gives false.
    bool startInSandbox(const SandboxSettings& settings, bool allowStartWithoutSandbox,
                        QProcess* process, QIODeviceBase::OpenMode mode);

    // Windows: adds or removes the AppContainer's loopback exemption with the system's tool (it
    // asks for administrator rights). Linux: a child with network access always reaches
    // loopback, and that cannot be taken away, so only enabling succeeds.
    bool enableGlobalLoopbackAccess(bool enable);
    bool isGlobalLoopbackAccessEnabled() const;

private:
    using Variables = QList<QPair<QString, QString>>;

    bool doStartInSandbox(const SandboxSettings& settings, QProcess* process,
                          QIODeviceBase::OpenMode mode);
    bool startInAppContainer(const SandboxSettings& settings, QProcess* process,
                             QIODeviceBase::OpenMode mode);
    bool startInLowIntegrity(const SandboxSettings& settings, QProcess* process,
                             QIODeviceBase::OpenMode mode);
    bool startConfinedOnLinux(const SandboxSettings& settings, QProcess* process,
                              QIODeviceBase::OpenMode mode);
    bool grantAllowedPaths(const SandboxSettings& settings, QProcess* process);
    QString winAppContainerName() const;
    void winBuildEnv(QProcess* process, const SandboxSettings& settings, const QString& base);
    void buildEnv(QProcess* process, const SandboxSettings& settings, const QString& tempFolder,
                  const Variables& extraVariables);
    QString privateFolder();
    void log(const QString& text) const;

    QString m_name;
    std::shared_ptr<WinSandboxApi> m_windows;
    QString m_containerSid;
    std::unique_ptr<QtWinAppContainerProcessAllowedPathsMgr> m_allowedPathsMgr;
    std::unique_ptr<QTemporaryDir> m_privateFolder;
    // A child left suspended by a failed low-integrity start, resumed if it may run anyway.
    QPointer<QProcess> m_suspendedUnconfined;
};

Q_DECLARE_METATYPE(QtProcessSandboxManager::AllowedPath)
Q_DECLARE_METATYPE(QtProcessSandboxManager::SandboxSettings)
