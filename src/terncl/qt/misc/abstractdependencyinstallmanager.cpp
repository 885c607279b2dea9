#include "abstractdependencyinstallmanager.h"

AbstractDependencyInstallManager::AbstractDependencyInstallManager(QObject* parent)
    : QObject(parent) {}

AbstractDependencyInstallManager::~AbstractDependencyInstallManager() = default;
