#pragma once

#include <QList>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

namespace terncl {

// Runs program with args, standard error merged into the output, and returns the trimmed
// output; a null string when the program cannot start or has not ended within timeoutMs (it is
// killed then).
QString runForOutput(const QString& program, const QStringList& args, int timeoutMs);

// Asks a script runtime for its version ("--version") and matches the answer against pattern,
// whose first capture is the version. Logs "[<className>]: Checking <runtime> version (...)"
// and "[<className>]: Got response from <runtime>: ...".
bool probeScriptRuntimeVersion(const QString& program, const char* className,
                               const char* runtimeName, const QRegularExpression& pattern,
                               int timeoutMs, QString* version);

// The folder a script runtime's interpreter is installed in: the folder of the executable, or
// the one above it when the executable sits in a "bin" or "Scripts" folder beside the runtime's
// libraries. Given the canonical file too, so that a link into another installation counts.
QStringList interpreterInstallationFolders(const QString& executable);

} // namespace terncl
