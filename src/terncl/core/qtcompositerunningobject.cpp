#include "qtcompositerunningobject.h"

QtCompositeRunningObject::QtCompositeRunningObject(QObject* parent)
    : QtRunningObject(parent) {}

void QtCompositeRunningObject::addRunningObject(QPointer<QtRunningObject> child) {
    m_children.append(child);
    if (!child)
        return;
    connect(child.data(), &QtRunningObject::running, this,
            &QtCompositeRunningObject::updateRunningState);
    if (child->isRunning())
        setRunning(true);
}

void QtCompositeRunningObject::removeRunningObject(QPointer<QtRunningObject> child) {
    if (!child)
        return;
    for (auto i = m_children.size() - 1; i >= 0; --i) {
        if (m_children.at(i) == child) {
            m_children.removeAt(i);
            break;
        }
    }
    disconnect(child.data(), nullptr, this, nullptr);
    if (child->isRunning())
        updateRunningState();
}

void QtCompositeRunningObject::updateRunningState() {
    for (const auto& child : std::as_const(m_children)) {
        if (child && child->isRunning()) {
            setRunning(true);
            return;
        }
    }
    setRunning(false);
}
