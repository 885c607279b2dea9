#include "complexdependencymanager.h"

#include <terncl/qt/misc/abstractdependencyinstallmanager.h>

ComplexDependencyManager::ComplexDependencyManager(QObject* parent)
    : AbstractDependencyManager(parent) {}

ComplexDependencyManager::~ComplexDependencyManager() = default;

void ComplexDependencyManager::addDependencyManager(
    const QSharedPointer<AbstractDependencyManager>& manager) {
    if (!manager)
        return;
    connect(manager.data(), &AbstractDependencyManager::dependencyInstalled, this,
            &AbstractDependencyManager::dependencyInstalled);
    m_managers.append(manager);
}

AbstractDependencyManager* ComplexDependencyManager::findMgr(const DependencyInfo& info) const {
    for (const auto& manager : m_managers) {
        if (manager->isKnownDependency(info))
            return manager.data();
    }
    return nullptr;
}

bool ComplexDependencyManager::isKnownDependency(const DependencyInfo& info) const {
    return findMgr(info) != nullptr;
}

bool ComplexDependencyManager::checkDependency(const DependencyInfo& info) const {
    const auto* manager = findMgr(info);
    return manager && manager->checkDependency(info);
}

QSharedPointer<AbstractDependencyInstallManager>
ComplexDependencyManager::installer(const DependencyInfo& info) const {
    const auto* manager = findMgr(info);
    return manager ? manager->installer(info) : nullptr;
}

QUrl ComplexDependencyManager::dependencyIconUrl(const DependencyInfo& info) const {
    const auto* manager = findMgr(info);
    return manager ? manager->dependencyIconUrl(info) : QUrl();
}

QString ComplexDependencyManager::dependencyDescription(const DependencyInfo& info) const {
    const auto* manager = findMgr(info);
    return manager ? manager->dependencyDescription(info) : QString();
}

QUrl ComplexDependencyManager::dependencyWebPageUrl(const DependencyInfo& info) const {
    const auto* manager = findMgr(info);
    return manager ? manager->dependencyWebPageUrl(info) : QUrl();
}
