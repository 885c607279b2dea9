#include "scriptruntimeprobe_p.h"

#include <terncl/core/qtappdefaultlogger.h>

#include <QDir>
#include <QFileInfo>
#include <QProcess>

namespace terncl {

QString runForOutput(const QString& program, const QStringList& args, int timeoutMs) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, args, QIODeviceBase::ReadOnly);
    if (!process.waitForFinished(timeoutMs)) {
        // Missing, or hanging: either way no answer, and a hanging one must not stay behind.
        process.kill();
        process.waitForFinished(-1);
        return QString();
    }
    return QString::fromLocal8Bit(process.readAll()).trimmed();
}

bool probeScriptRuntimeVersion(const QString& program, const char* className,
                               const char* runtimeName, const QRegularExpression& pattern,
                               int timeoutMs, QString* version) {
    const QString prefix = QStringLiteral("[%1]: ").arg(QLatin1String(className));
    const QString runtime = QLatin1String(runtimeName);
    logLine(QtAppLogger::Info, QtAppLogger::Process,
            prefix + QStringLiteral("Checking %1 version (%2)").arg(runtime, program));
    const QString response = runForOutput(program, {QStringLiteral("--version")}, timeoutMs);
    logLine(QtAppLogger::Info, QtAppLogger::Process,
            prefix + QStringLiteral("Got response from %1: %2").arg(runtime, response));
    const QRegularExpressionMatch match = pattern.match(response);
    if (!match.hasMatch())
        return false;
    *version = match.captured(1);
    return true;
}

QStringList interpreterInstallationFolders(const QString& executable) {
    QStringList folders;
    const QFileInfo file(executable);
    for (const QString& path : {file.absoluteFilePath(), file.canonicalFilePath()}) {
        if (path.isEmpty())
            continue;
        QDir folder = QFileInfo(path).absoluteDir();
        const QString name = folder.dirName();
        if (name == QLatin1String("bin") ||
            name.compare(QLatin1String("Scripts"), Qt::CaseInsensitive) == 0) {
            folder.cdUp();
        }
        if (!folders.contains(folder.absolutePath()))
            folders.append(folder.absolutePath());
    }
    return folders;
}

} // namespace terncl
