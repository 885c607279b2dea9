#pragma once

#include <terncl/ternclshared_export.h>

#include <QIODeviceBase>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QString>

class QProcess;

// Starts prepared processes with reduced rights, shared by every launch manager of a host. Lives
// on the thread of the launch managers that call it.
//
// This build has no sandbox implementation yet: startInSandbox never isolates a process, so it
// applies the caller's fallback rule (start normally when allowed, otherwise refuse).
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
        bool internetClient = true;
        bool requireLoopbackExemption = false;
        bool setXdgCacheHome = true;
        bool setPythonPycachePrefix = true;
        // Withdraw the accesses granted to allowedPaths when the child ends.
        bool revokeAllowedPathsOnFinish = true;
        // 0 or 2: isolated container first, low integrity if that fails; other values: low
        // integrity only.
        int kind = 2;
        bool overrideUserProfile = false;
        bool overrideAppData = false;
        bool overrideLocalAppData = true;
    };

    // An empty name disables sandboxing.
    explicit QtProcessSandboxManager(const QString& name, QObject* parent = nullptr);
    ~QtProcessSandboxManager() override;

    QString name() const;

    // Starts process, whose program, arguments and connections are already set. When no sandbox
    // can be used, the process is started normally if allowStartWithoutSandbox is set, and left
    // unstarted (false) otherwise. A null process gives false.
    bool startInSandbox(const SandboxSettings& settings, bool allowStartWithoutSandbox,
                        QProcess* process, QIODeviceBase::OpenMode mode);

private:
    bool doStartInSandbox(const SandboxSettings& settings, QProcess* process,
                          QIODeviceBase::OpenMode mode);

    QString m_name;
};

Q_DECLARE_METATYPE(QtProcessSandboxManager::AllowedPath)
Q_DECLARE_METATYPE(QtProcessSandboxManager::SandboxSettings)
