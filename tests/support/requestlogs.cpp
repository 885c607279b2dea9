#include "requestlogs.h"

#include <QDir>
#include <QRegularExpression>

#include <algorithm>

namespace {
// The counter the logger put after the registration time: R_<time>_<counter>_<name>.log.
int logCounter(const QString& fileName) {
    static const QRegularExpression pattern(QStringLiteral("^R_[^_]*_(\\d+)_"));
    return pattern.match(fileName).captured(1).toInt();
}
} // namespace

QStringList requestLogFiles(const QString& folder) {
    const QDir dir(folder);
    QStringList names = dir.entryList({QStringLiteral("R_*.log")}, QDir::Files);
    std::sort(names.begin(), names.end(),
              [](const QString& a, const QString& b) { return logCounter(a) < logCounter(b); });
    QStringList paths;
    for (const auto& name : std::as_const(names))
        paths.append(dir.filePath(name));
    return paths;
}

QList<RequestLogSection> parseRequestLog(const QByteArray& log) {
    static const QRegularExpression title(QStringLiteral("^======= (.+) =======$"));
    QList<RequestLogSection> sections;
    for (const QByteArray& raw : log.split('\n')) {
        const QByteArray line = raw.endsWith('\r') ? raw.chopped(1) : raw;
        const auto match = title.match(QString::fromUtf8(line));
        if (match.hasMatch()) {
            sections.append({match.captured(1), {}});
        } else if (!sections.isEmpty()) {
            const bool headers = sections.last().title.endsWith(QStringLiteral("HEADERS"));
            sections.last().lines.append(headers ? QString::fromLatin1(line)
                                                 : QString::fromUtf8(line));
        }
    }
    // Drop the empty line that ends the file and the one before each closing section.
    for (auto& section : sections) {
        while (!section.lines.isEmpty() && section.lines.last().isEmpty())
            section.lines.removeLast();
    }
    return sections;
}
