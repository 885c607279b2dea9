#pragma once

#include <terncl/qt/process/qtprocesslaunchmanager.h>
#include <terncl/ternclshared_export.h>

#include <QList>
#include <QString>
#include <QStringList>

// Finds a Python interpreter among candidate names (in a folder, or on the search path when
// the folder is empty), checks its version, launches it through the process queue and builds
// the sandbox requests that let it run confined. Download modules hold it weakly. Lives on the
// thread that owns it, like every launch manager; the checks block that thread (each program
// asked gets at most versionCheckTimeout()).
class TERNCL_EXPORT QtPythonManager : public QtProcessLaunchManager {
    Q_OBJECT

public:
    static constexpr int DefaultVersionCheckTimeoutMs = 30000;

    QtPythonManager(const QString& folder, const QList<QString>& candidates,
                    QSharedPointer<QtProcessSandboxManager> sandboxManager,
                    QObject* parent = nullptr);
    ~QtPythonManager() override;

    // Asks the candidates in order for their version until one answers "Python X.Y..."; the
    // answer is cached until forceCheck asks again. A missing, hanging or foreign program is
    // simply not Python.
    bool isPythonInstalled(bool forceCheck);
    QString pythonPath() const;
    QString pythonVersion() const;

    // Launches the interpreter found by the last check; nothing is launched while none is known.
    void launchPython(int id, const QList<QString>& args, const QString& workingDir,
                      bool mergeChannels, bool useQueue,
                      const QtProcessLaunchManager::Sandbox& sandbox,
                      int maxRunningProcessesInQueue);
    // A sandbox request for the interpreter: enabled as asked, the interpreter's installation
    // folders readable and executable. Interpreters older than 3.12.3 are kept out of the
    // AppContainer on Windows and run at low integrity only.
    QtProcessLaunchManager::Sandbox buildSandboxSettings(bool enable);

    void setVersionCheckTimeout(int msec);
    int versionCheckTimeout() const;

private:
    static bool isPythonInstalled(const QString& path, QString& version, int timeoutMs);
    QString candidatePath(const QString& name) const;
    // Where the interpreter really lives, asked once and cached while the files exist.
    QStringList interpreterLocations();

    QString m_folder;
    QList<QString> m_candidates;
    // 0 not checked yet, 1 installed, 2 not installed.
    int m_installedState = 0;
    QString m_pythonPath;
    QString m_pythonVersion;
    QStringList m_interpreterLocations;
    int m_versionCheckTimeoutMs = DefaultVersionCheckTimeoutMs;
};
