#pragma once

#include <terncl/core/qtabstractmodule.h>

#include <QList>

// A module made of sub-modules. A pass runs the module's own before-step, then its sub-modules
// one at a time (front to back when initializing, back to front when de-initializing), then its
// own after-step. A sub-module's failed initialization stops the walk and becomes this module's
// failure; a failed de-initialization does not stop it. Lives on one thread: initialize() may be
// called from any thread and re-posts itself there, and sub-modules report through queued
// connections, so each step runs in a later event-loop turn.
//
// The current index is not reset between passes: a de-initialization walks back from where the
// initialization stopped (the last module, or the one that failed).
class TERNCL_EXPORT QtAbstractComplexModule : public QtAbstractModule {
    Q_OBJECT

public:
    explicit QtAbstractComplexModule(QObject* parent = nullptr);
    ~QtAbstractComplexModule() override;

public Q_SLOTS:
    void initialize(bool init) override;

protected Q_SLOTS:
    // The module's own work before the sub-modules; the default has none. A subclass with work
    // of its own calls onInitializeSelfBeforeFinished(init) when it is done.
    virtual void initializeSelfBefore(bool init);
    // The module's own work after the sub-modules; the default ends the pass. A subclass with
    // work of its own calls onInitializeSelfAfterFinished(init) when it is done.
    virtual void initializeSelfAfter(bool init);
    // A sub-module's report; only the current sub-module's end of a pass moves the walk on.
    virtual void onModuleInitializeRunning(bool running, bool initializing);
    void onInitializeSelfBeforeFinished(bool init);
    void onInitializeSelfAfterFinished(bool init);

protected:
    void addModule(QtAbstractModule* module);
    void removeModule(QtAbstractModule* module);
    void clearModules();
    // Null when there are no sub-modules.
    QtAbstractModule* currentModule() const;
    int currentModuleIndex() const { return m_currentIndex; }

private:
    void copyOutcomeOf(const QtAbstractModule& module, bool initializing);

    QList<QtAbstractModule*> m_modules;
    qint32 m_currentIndex = 0;
};
