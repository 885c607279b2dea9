#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/ternclshared_export.h>

#include <QObject>
#include <QString>

// Installs one dependency (downloads it, runs its installer). The application implements it;
// install() and abort() may be invoked through the meta-object. Lives on the thread of the
// dependency manager that made it.
class TERNCL_EXPORT AbstractDependencyInstallManager : public QObject {
    Q_OBJECT

public:
    explicit AbstractDependencyInstallManager(QObject* parent = nullptr);
    ~AbstractDependencyInstallManager() override;

    Q_INVOKABLE virtual void install() = 0;
    Q_INVOKABLE virtual void abort() = 0;
    virtual bool isInstalling() const = 0;
    // 0 to 100.
    virtual int progressPercent() const = 0;
    // Why the last installation failed; no error while it has not.
    virtual AbstractError lastError() const = 0;
    // What the installation is doing, for the user.
    virtual QString statusText() const = 0;

Q_SIGNALS:
    // Any of the state above changed.
    void changed();
    void progress(int percent);
    void installed();
};
