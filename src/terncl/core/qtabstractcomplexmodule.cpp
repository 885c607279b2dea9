#include "qtabstractcomplexmodule.h"

#include <QThread>

QtAbstractComplexModule::QtAbstractComplexModule(QObject* parent)
    : QtAbstractModule(parent) {}

QtAbstractComplexModule::~QtAbstractComplexModule() = default;

void QtAbstractComplexModule::initialize(bool init) {
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [this, init] { initialize(init); }, Qt::QueuedConnection);
        return;
    }
    if (isInitializeRunning())
        return;
    setInitializeRunning(true, init);
    initializeSelfBefore(init);
}

void QtAbstractComplexModule::initializeSelfBefore(bool init) {
    onInitializeSelfBeforeFinished(init);
}

void QtAbstractComplexModule::initializeSelfAfter(bool init) {
    setInitializeRunning(false, init);
}

void QtAbstractComplexModule::onInitializeSelfBeforeFinished(bool init) {
    if (init && initFailed(true))
        setInitializeRunning(false, init);
    else if (auto* module = currentModule())
        module->initialize(init);
    else
        initializeSelfAfter(init);
}

void QtAbstractComplexModule::onInitializeSelfAfterFinished(bool init) {
    setInitializeRunning(false, init);
}

void QtAbstractComplexModule::onModuleInitializeRunning(bool running, bool initializing) {
    auto* module = currentModule();
    if (running || !module || !isInitializeRunning())
        return;
    if (initializing && module->initFailed(true)) {
        setInitFailed(true, module->error(), false);
        setUnsupportedDeviceError(module->isUnsupportedDeviceError());
    } else if (module->needExit()) {
        setNeedExit(true);
    } else {
        // A failed de-initialization is kept but does not stop the walk back.
        if (!initializing && module->initFailed(false))
            setInitFailed(false, module->error(), false);
        const int next = m_currentIndex + (initializing ? 1 : -1);
        if (next >= 0 && next < m_modules.size()) {
            m_currentIndex = next;
            m_modules.at(next)->initialize(initializing);
            return;
        }
    }
    copyOutcomeOf(*module, initializing);
}

void QtAbstractComplexModule::copyOutcomeOf(const QtAbstractModule& module, bool initializing) {
    if (module.needRestart())
        setNeedRestart(true);
    if (module.abortedByUser())
        setAbortedByUser(true);
    initializeSelfAfter(initializing);
}

void QtAbstractComplexModule::addModule(QtAbstractModule* module) {
    if (!module)
        return;
    m_modules.append(module);
    // Only the current sub-module moves the walk: a report of another one (a pass it ran on its
    // own) is dropped.
    connect(
        module, &QtAbstractModule::initializeRunning, this,
        [this, module](bool running, bool initializing) {
            if (module == currentModule())
                onModuleInitializeRunning(running, initializing);
        },
        Qt::QueuedConnection);
}

void QtAbstractComplexModule::removeModule(QtAbstractModule* module) {
    const auto index = m_modules.indexOf(module);
    if (!module || index < 0)
        return;
    m_modules.removeAt(index);
    disconnect(module, &QtAbstractModule::initializeRunning, this, nullptr);
    // The current index keeps pointing at the same sub-module, or at the last one left.
    if (index < m_currentIndex)
        --m_currentIndex;
    m_currentIndex = qBound(0, m_currentIndex, qMax(0, int(m_modules.size()) - 1));
}

void QtAbstractComplexModule::clearModules() {
    for (auto* module : std::as_const(m_modules))
        disconnect(module, &QtAbstractModule::initializeRunning, this, nullptr);
    m_modules.clear();
    m_currentIndex = 0;
}

QtAbstractModule* QtAbstractComplexModule::currentModule() const {
    return m_currentIndex >= 0 && m_currentIndex < m_modules.size() ? m_modules.at(m_currentIndex)
                                                                    : nullptr;
}
