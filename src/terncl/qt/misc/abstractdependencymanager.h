#pragma once

#include <terncl/qt/misc/dependencyinfo.h>
#include <terncl/ternclshared_export.h>

#include <QObject>
#include <QSharedPointer>
#include <QString>
#include <QUrl>

class AbstractDependencyInstallManager;

// Describes optional dependencies: which ones it knows, whether they are present, how to install
// them and how to present them to the user. The application implements it; lives on the thread
// of the user interface that asks.
class TERNCL_EXPORT AbstractDependencyManager : public QObject {
    Q_OBJECT

public:
    explicit AbstractDependencyManager(QObject* parent = nullptr);
    ~AbstractDependencyManager() override;

public Q_SLOTS:
    virtual bool isKnownDependency(const DependencyInfo& info) const = 0;
    // Whether the dependency is present and usable.
    virtual bool checkDependency(const DependencyInfo& info) const = 0;
    // What installs the dependency; null when it cannot be installed from here.
    virtual QSharedPointer<AbstractDependencyInstallManager>
    installer(const DependencyInfo& info) const = 0;
    virtual QUrl dependencyIconUrl(const DependencyInfo& info) const = 0;
    virtual QString dependencyDescription(const DependencyInfo& info) const = 0;
    virtual QUrl dependencyWebPageUrl(const DependencyInfo& info) const = 0;

Q_SIGNALS:
    // A dependency was installed; earlier answers of checkDependency may have changed.
    void dependencyInstalled();
};
