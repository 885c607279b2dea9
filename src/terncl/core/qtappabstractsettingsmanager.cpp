#include "qtappabstractsettingsmanager.h"

QtAppAbstractSettingsManager::QtAppAbstractSettingsManager(QObject* parent)
    : QObject(parent) {}

void QtAppAbstractSettingsManager::setValue(const QString& name, const QString& value) {
    setValues(QtStringsPairVector{{name, value}});
}
