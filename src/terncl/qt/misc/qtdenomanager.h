#pragma once

#include <terncl/qt/process/qtprocesslaunchmanager.h>
#include <terncl/ternclshared_export.h>

#include <QList>
#include <QString>

// Finds Deno on the search path (PATH), checks its version, launches it through the process
// queue and builds the sandbox requests that let it run confined. Download modules hold it
// weakly. Lives on the thread that owns it, like every launch manager; the check blocks that
// thread (each program asked gets at most versionCheckTimeout()).
class TERNCL_EXPORT QtDenoManager : public QtProcessLaunchManager {
    Q_OBJECT

public:
    static constexpr int DefaultVersionCheckTimeoutMs = 30000;

    explicit QtDenoManager(QSharedPointer<QtProcessSandboxManager> sandboxManager,
                           QObject* parent = nullptr);
    ~QtDenoManager() override;

    // Asks the first "deno" ("deno.exe" on Windows) of each PATH folder, in order, for its
    // version until one answers "deno X.Y..."; cached until forceCheck asks again.
    bool isDenoInstalled(bool forceCheck);
    QString denoPath() const;
    QString denoVersion() const;

    // Launches the Deno found by the last check; nothing is launched while none is known.
    void launchDeno(int id, const QList<QString>& args, const QString& workingDir,
                    bool mergeChannels, bool useQueue,
                    const QtProcessLaunchManager::Sandbox& sandbox, int maxRunningProcessesInQueue);
    // A sandbox request for Deno: enabled as asked, the Deno program readable and executable.
    QtProcessLaunchManager::Sandbox buildSandboxSettings(bool enable);

    // The programs that a PATH value offers, in order: empty folders (two separators in a row)
    // offer none, rather than the working directory.
    static QList<QString> candidatePaths(const QString& pathVariable);

    void setVersionCheckTimeout(int msec);
    int versionCheckTimeout() const;

private:
    static bool isDenoInstalled(const QString& path, QString& version, int timeoutMs);

    // 0 not checked yet, 1 installed, 2 not installed.
    int m_installedState = 0;
    QString m_denoPath;
    QString m_denoVersion;
    int m_versionCheckTimeoutMs = DefaultVersionCheckTimeoutMs;
};
