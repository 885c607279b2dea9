#pragma once

#include <terncl/core/qtapplogger.h>

#include <QSharedPointer>

// Holds the process-wide logger. Until a host installs one, lines go to Qt's message handler
// under the logging category "terncl" (warnings and above unless QT_LOGGING_RULES says more),
// at the Qt level matching the line's level.
class TERNCL_EXPORT QtAppDefaultLogger : public QtAppLogger {
public:
    QtAppDefaultLogger();

    // The installed logger, or the built-in one. Never null; safe from any thread.
    static QSharedPointer<QtAppLogger> instance();
    // Installs a host logger; a null pointer restores the built-in one.
    static void setInstance(const QSharedPointer<QtAppLogger>& logger);

    int verbosityLevel() const override;
    quint64 categories() const override;
    void log(int level, quint64 categories, const QString& text) override;
};

namespace terncl {
// Writes one line through the current default logger when its level and category are enabled.
TERNCL_EXPORT void logLine(int level, quint64 categories, const QString& text);
} // namespace terncl
