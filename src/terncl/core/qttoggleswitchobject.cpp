#include "qttoggleswitchobject.h"

#include <QMetaType>

QtToggleSwitchObject::QtToggleSwitchObject(bool switchedOn, QObject* parent)
    : QObject(parent)
    , m_switchedOn(switchedOn) {}

bool QtToggleSwitchObject::isSwitchedOn() const {
    return m_switchedOn;
}

void QtToggleSwitchObject::setSwitchedOn(bool on) {
    if (m_switchedOn == on)
        return;
    m_switchedOn = on;
    Q_EMIT switchedOnChanged();
}

void QtToggleSwitchObject::toggle() {
    setSwitchedOn(!m_switchedOn);
}

void QtToggleSwitchObject::registerMetatypes() {
    qRegisterMetaType<QSharedPointer<QtToggleSwitchObject>>("QSharedPointer<QtToggleSwitchObject>");
}
