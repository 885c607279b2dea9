#pragma once

#include <terncl/qt/misc/abstractdependencymanager.h>
#include <terncl/ternclshared_export.h>

#include <QList>
#include <QSharedPointer>

// Joins several dependency managers: every question goes to the first manager, in the order
// they were added, that knows the dependency. Unknown dependencies are absent, have no
// installer and no description.
class TERNCL_EXPORT ComplexDependencyManager : public AbstractDependencyManager {
    Q_OBJECT

public:
    explicit ComplexDependencyManager(QObject* parent = nullptr);
    ~ComplexDependencyManager() override;

    // Also passes on the manager's dependencyInstalled.
    void addDependencyManager(const QSharedPointer<AbstractDependencyManager>& manager);

    bool isKnownDependency(const DependencyInfo& info) const override;
    bool checkDependency(const DependencyInfo& info) const override;
    QSharedPointer<AbstractDependencyInstallManager>
    installer(const DependencyInfo& info) const override;
    QUrl dependencyIconUrl(const DependencyInfo& info) const override;
    QString dependencyDescription(const DependencyInfo& info) const override;
    QUrl dependencyWebPageUrl(const DependencyInfo& info) const override;

private:
    AbstractDependencyManager* findMgr(const DependencyInfo& info) const;

    QList<QSharedPointer<AbstractDependencyManager>> m_managers;
};
