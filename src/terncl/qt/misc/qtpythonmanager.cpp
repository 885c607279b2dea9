#include "qtpythonmanager.h"

#include "scriptruntimeprobe_p.h"

#include <terncl/core/qtappdefaultlogger.h>

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QVersionNumber>

#include <algorithm>

namespace {
const QRegularExpression& versionPattern() {
    static const QRegularExpression pattern(QStringLiteral("^Python\\s+(\\d+(\\.\\d+){0,3})"));
    return pattern;
}

bool isFile(const QString& path) {
    return !path.isEmpty() && QFileInfo(path).isFile();
}
} // namespace

QtPythonManager::QtPythonManager(const QString& folder, const QList<QString>& candidates,
                                 QSharedPointer<QtProcessSandboxManager> sandboxManager,
                                 QObject* parent)
    : QtProcessLaunchManager(std::move(sandboxManager), parent)
    , m_folder(folder)
    , m_candidates(candidates) {}

QtPythonManager::~QtPythonManager() = default;

bool QtPythonManager::isPythonInstalled(bool forceCheck) {
    if (!forceCheck && m_installedState != 0)
        return m_installedState == 1;
    m_pythonPath.clear();
    m_pythonVersion.clear();
    m_interpreterLocations.clear();
    if (m_candidates.isEmpty())
        return m_installedState == 1;
    for (const QString& name : std::as_const(m_candidates)) {
        const QString path = candidatePath(name);
        QString version;
        if (isPythonInstalled(path, version, m_versionCheckTimeoutMs)) {
            m_pythonPath = path;
            m_pythonVersion = version;
            m_installedState = 1;
            return true;
        }
    }
    m_installedState = 2;
    return false;
}

bool QtPythonManager::isPythonInstalled(const QString& path, QString& version, int timeoutMs) {
    return terncl::probeScriptRuntimeVersion(path, "QtPythonManager", "Python", versionPattern(),
                                             timeoutMs, &version);
}

QString QtPythonManager::candidatePath(const QString& name) const {
    if (m_folder.isEmpty())
        return name;
    if (m_folder.endsWith(QLatin1Char('/')) || m_folder.endsWith(QLatin1Char('\\')))
        return m_folder + name;
    return m_folder + QLatin1Char('/') + name;
}

QString QtPythonManager::pythonPath() const {
    return m_pythonPath;
}

QString QtPythonManager::pythonVersion() const {
    return m_pythonVersion;
}

void QtPythonManager::launchPython(int id, const QList<QString>& args, const QString& workingDir,
                                   bool mergeChannels, bool useQueue, const Sandbox& sandbox,
                                   int maxRunningProcessesInQueue) {
    if (m_pythonPath.isEmpty()) {
        terncl::logLine(
            QtAppLogger::Warning, QtAppLogger::Process,
            QStringLiteral("[QtPythonManager]: no Python found, launch %1 dropped").arg(id));
        return;
    }
    launch(id, m_pythonPath, args, workingDir, mergeChannels, useQueue, sandbox,
           maxRunningProcessesInQueue);
}

QtProcessLaunchManager::Sandbox QtPythonManager::buildSandboxSettings(bool enable) {
    Sandbox sandbox;
    sandbox.enabled = enable;
    if (!isPythonInstalled(false))
        return sandbox;
    if (enable && QVersionNumber::fromString(m_pythonVersion) < QVersionNumber(3, 12, 3))
        sandbox.settings.kind = 1;
    QStringList folders;
    for (const QString& location : interpreterLocations()) {
        for (const QString& folder : terncl::interpreterInstallationFolders(location)) {
            if (!folders.contains(folder))
                folders.append(folder);
        }
    }
    for (const QString& folder : std::as_const(folders)) {
        QtProcessSandboxManager::AllowedPath entry;
        entry.path = folder;
        entry.read = true;
        entry.execute = true;
        sandbox.settings.allowedPaths.append(entry);
    }
    return sandbox;
}

QStringList QtPythonManager::interpreterLocations() {
    const bool allThere =
        std::all_of(m_interpreterLocations.cbegin(), m_interpreterLocations.cend(), isFile);
    if (!m_interpreterLocations.isEmpty() && allThere)
        return m_interpreterLocations;
    m_interpreterLocations.clear();
    if (!m_pythonPath.contains(QLatin1Char('/'))) {
#ifdef Q_OS_WIN
        const QString listing =
            terncl::runForOutput(QStringLiteral("where"), {m_pythonPath}, m_versionCheckTimeoutMs);
        const QStringList lines = listing.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        const QString first =
            lines.isEmpty() ? QString() : QDir::fromNativeSeparators(lines.first().trimmed());
#else
        const QString first = QStandardPaths::findExecutable(m_pythonPath);
#endif
        if (isFile(first))
            m_interpreterLocations.append(first);
    }
    const QString executable = QDir::fromNativeSeparators(terncl::runForOutput(
        m_pythonPath, {QStringLiteral("-c"), QStringLiteral("import sys; print(sys.executable)")},
        m_versionCheckTimeoutMs));
    if (isFile(executable) && !m_interpreterLocations.contains(executable))
        m_interpreterLocations.append(executable);
    return m_interpreterLocations;
}

void QtPythonManager::setVersionCheckTimeout(int msec) {
    m_versionCheckTimeoutMs = msec;
}

int QtPythonManager::versionCheckTimeout() const {
    return m_versionCheckTimeoutMs;
}
