#include "qtqobjectstracker.h"

#include "qtappdefaultlogger.h"

#include <QMap>
#include <QMutexLocker>

namespace {
QMutex& instanceMutex() {
    static QMutex mutex;
    return mutex;
}

QWeakPointer<QtQObjectsTracker>& trackerInstance() {
    static QWeakPointer<QtQObjectsTracker> tracker;
    return tracker;
}

void warn(const QString& text) {
    terncl::logLine(QtAppLogger::Warning, QtAppLogger::General,
                    QStringLiteral("[QtQObjectsTracker]: ") + text);
}
} // namespace

QtQObjectsTracker::QtQObjectsTracker(QObject* parent)
    : QObject(parent) {}

QtQObjectsTracker::~QtQObjectsTracker() = default;

void QtQObjectsTracker::registerObject(QObject* object, const char* typeName) {
    if (!object)
        return;
    {
        QMutexLocker lock(&m_mutex);
        m_monitoredObjects.insert(object, typeName);
    }
    // The object itself is the connection's context, not the tracker: the connection must survive
    // the tracker, so that an object destroyed later finds the tracker gone and says so instead
    // of touching freed memory.
    connect(
        object, &QObject::destroyed, object,
        [](QObject* destroyed) {
            if (const auto tracker = instance())
                tracker->onQObjectDestroyed(destroyed);
            else
                warn(QStringLiteral("WARNING: a monitored object outlived the tracker"));
        },
        Qt::DirectConnection);
}

void QtQObjectsTracker::onQObjectDestroyed(QObject* object) {
    QMutexLocker lock(&m_mutex);
    m_monitoredObjects.remove(object);
}

void QtQObjectsTracker::verifyNoObjectsLeft() {
    QMap<QByteArray, int> countsByType;
    {
        QMutexLocker lock(&m_mutex);
        if (m_monitoredObjects.isEmpty())
            return;
        for (const char* typeName : std::as_const(m_monitoredObjects))
            ++countsByType[QByteArray(typeName)];
    }
    warn(QStringLiteral("WARNING: verifyNoObjectsLeft has failed:"));
    for (auto it = countsByType.cbegin(); it != countsByType.cend(); ++it) {
        warn(QString::fromUtf8(it.key()) + QStringLiteral(": ") + QString::number(it.value()) +
             QStringLiteral(" object(s)"));
    }
}

int QtQObjectsTracker::monitoredObjectsCount() const {
    QMutexLocker lock(&m_mutex);
    return int(m_monitoredObjects.size());
}

QSharedPointer<QtQObjectsTracker> QtQObjectsTracker::instance() {
    QMutexLocker lock(&instanceMutex());
    return trackerInstance().toStrongRef();
}

void QtQObjectsTracker::setInstance(const QWeakPointer<QtQObjectsTracker>& tracker) {
    QMutexLocker lock(&instanceMutex());
    trackerInstance() = tracker;
}
