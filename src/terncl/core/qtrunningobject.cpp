#include "qtrunningobject.h"

QtRunningObject::QtRunningObject(QObject* parent)
    : QObject(parent) {}

bool QtRunningObject::setRunning(bool value) {
    if (m_running.exchange(value) == value)
        return false;
    Q_EMIT running(value);
    return m_running.load() == value;
}
