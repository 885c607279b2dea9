#include "qtdenomanager.h"

#include "scriptruntimeprobe_p.h"

#include <terncl/core/qtappdefaultlogger.h>

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>

namespace {
const QRegularExpression& versionPattern() {
    static const QRegularExpression pattern(QStringLiteral("^deno\\s+(\\d+(\\.\\d+){0,3})"));
    return pattern;
}

#ifdef Q_OS_WIN
const QString programName = QStringLiteral("deno.exe");
#else
const QString programName = QStringLiteral("deno");
#endif
} // namespace

QtDenoManager::QtDenoManager(QSharedPointer<QtProcessSandboxManager> sandboxManager,
                             QObject* parent)
    : QtProcessLaunchManager(std::move(sandboxManager), parent) {}

QtDenoManager::~QtDenoManager() = default;

QList<QString> QtDenoManager::candidatePaths(const QString& pathVariable) {
    QList<QString> candidates;
    const QStringList folders = pathVariable.split(QDir::listSeparator(), Qt::SkipEmptyParts);
    for (const QString& folder : folders) {
        const bool endsWithSeparator =
            folder.endsWith(QLatin1Char('/')) || folder.endsWith(QLatin1Char('\\'));
        candidates.append(folder + (endsWithSeparator ? QString() : QStringLiteral("/")) +
                          programName);
    }
    return candidates;
}

bool QtDenoManager::isDenoInstalled(bool forceCheck) {
    if (!forceCheck && m_installedState != 0)
        return m_installedState == 1;
    const QList<QString> candidates = candidatePaths(qEnvironmentVariable("PATH"));
    for (const QString& candidate : candidates) {
        QString version;
        if (QFileInfo(candidate).isFile() &&
            isDenoInstalled(candidate, version, m_versionCheckTimeoutMs)) {
            m_denoPath = candidate;
            m_denoVersion = version;
            m_installedState = 1;
            return true;
        }
    }
    m_denoPath.clear();
    m_denoVersion.clear();
    m_installedState = 2;
    return false;
}

bool QtDenoManager::isDenoInstalled(const QString& path, QString& version, int timeoutMs) {
    return terncl::probeScriptRuntimeVersion(path, "QtDenoManager", "Deno", versionPattern(),
                                             timeoutMs, &version);
}

QString QtDenoManager::denoPath() const {
    return m_denoPath;
}

QString QtDenoManager::denoVersion() const {
    return m_denoVersion;
}

void QtDenoManager::launchDeno(int id, const QList<QString>& args, const QString& workingDir,
                               bool mergeChannels, bool useQueue, const Sandbox& sandbox,
                               int maxRunningProcessesInQueue) {
    if (m_denoPath.isEmpty()) {
        terncl::logLine(
            QtAppLogger::Warning, QtAppLogger::Process,
            QStringLiteral("[QtDenoManager]: no Deno found, launch %1 dropped").arg(id));
        return;
    }
    launch(id, m_denoPath, args, workingDir, mergeChannels, useQueue, sandbox,
           maxRunningProcessesInQueue);
}

QtProcessLaunchManager::Sandbox QtDenoManager::buildSandboxSettings(bool enable) {
    Sandbox sandbox;
    sandbox.enabled = enable;
    if (!isDenoInstalled(false))
        return sandbox;
    // Deno is one self-contained program: the program file is all it needs, not its folder.
    const QFileInfo program(m_denoPath);
    for (const QString& path : {program.absoluteFilePath(), program.canonicalFilePath()}) {
        const bool known = std::any_of(
            sandbox.settings.allowedPaths.cbegin(), sandbox.settings.allowedPaths.cend(),
            [&](const QtProcessSandboxManager::AllowedPath& entry) { return entry.path == path; });
        if (path.isEmpty() || known)
            continue;
        QtProcessSandboxManager::AllowedPath entry;
        entry.path = path;
        entry.read = true;
        entry.execute = true;
        sandbox.settings.allowedPaths.append(entry);
    }
    return sandbox;
}

void QtDenoManager::setVersionCheckTimeout(int msec) {
    m_versionCheckTimeoutMs = msec;
}

int QtDenoManager::versionCheckTimeout() const {
    return m_versionCheckTimeoutMs;
}
