#include "qtabstractmodule.h"

#include <QMutexLocker>

QtAbstractModule::QtAbstractModule(QObject* parent)
    : QObject(parent) {}

QtAbstractModule::~QtAbstractModule() = default;

bool QtAbstractModule::initFailed(bool init) const {
    return init ? m_initFailed.load() : m_uninitFailed.load();
}

AbstractError QtAbstractModule::error() const {
    QMutexLocker lock(&m_errorMutex);
    return m_error;
}

void QtAbstractModule::setInitFailed(bool init, const AbstractError& error, bool finish) {
    (init ? m_initFailed : m_uninitFailed) = true;
    {
        QMutexLocker lock(&m_errorMutex);
        m_error = error;
    }
    if (finish && m_initializeRunning)
        setInitializeRunning(false, init);
}

void QtAbstractModule::setInitializeRunning(bool running, bool init) {
    if (m_initializeRunning.exchange(running) == running)
        return;
    Q_EMIT initializeRunning(running, init);
}
