#include "qtrunningobjectwithresult.h"

QtRunningObjectWithResult::QtRunningObjectWithResult(QObject* parent)
    : QtRunningObject(parent) {}

AbstractError QtRunningObjectWithResult::error() const {
    return m_error;
}

void QtRunningObjectWithResult::setError(const AbstractError& error) {
    m_error = error;
}
