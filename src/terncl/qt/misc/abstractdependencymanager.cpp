#include "abstractdependencymanager.h"

AbstractDependencyManager::AbstractDependencyManager(QObject* parent)
    : QObject(parent) {}

AbstractDependencyManager::~AbstractDependencyManager() = default;
