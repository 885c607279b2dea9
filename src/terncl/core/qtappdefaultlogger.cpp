#include "qtappdefaultlogger.h"

#include <QLoggingCategory>
#include <QMutex>
#include <QMutexLocker>

namespace {

Q_LOGGING_CATEGORY(lcTerncl, "terncl", QtWarningMsg)

QMutex& instanceMutex() {
    static QMutex mutex;
    return mutex;
}

QSharedPointer<QtAppLogger>& installedLogger() {
    static QSharedPointer<QtAppLogger> logger;
    return logger;
}

QSharedPointer<QtAppLogger> builtInLogger() {
    static const QSharedPointer<QtAppLogger> logger(new QtAppDefaultLogger);
    return logger;
}

} // namespace

QtAppDefaultLogger::QtAppDefaultLogger() = default;

QSharedPointer<QtAppLogger> QtAppDefaultLogger::instance() {
    QMutexLocker lock(&instanceMutex());
    const auto& logger = installedLogger();
    return logger ? logger : builtInLogger();
}

void QtAppDefaultLogger::setInstance(const QSharedPointer<QtAppLogger>& logger) {
    QMutexLocker lock(&instanceMutex());
    installedLogger() = logger;
}

int QtAppDefaultLogger::verbosityLevel() const {
    return Debug;
}

quint64 QtAppDefaultLogger::categories() const {
    return AllCategories;
}

void QtAppDefaultLogger::log(int level, quint64, const QString& text) {
    switch (level) {
    case Critical:
        qCCritical(lcTerncl).noquote() << text;
        break;
    case Warning:
        qCWarning(lcTerncl).noquote() << text;
        break;
    case Info:
        qCInfo(lcTerncl).noquote() << text;
        break;
    default:
        qCDebug(lcTerncl).noquote() << text;
        break;
    }
}

namespace terncl {
void logLine(int level, quint64 categories, const QString& text) {
    const auto logger = QtAppDefaultLogger::instance();
    if (logger->isEnabled(level, categories))
        logger->log(level, categories, text);
}
} // namespace terncl
