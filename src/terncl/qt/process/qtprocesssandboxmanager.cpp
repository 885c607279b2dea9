#include "qtprocesssandboxmanager.h"

#include <QProcess>

QtProcessSandboxManager::QtProcessSandboxManager(const QString& name, QObject* parent)
    : QObject(parent)
    , m_name(name) {}

QtProcessSandboxManager::~QtProcessSandboxManager() = default;

QString QtProcessSandboxManager::name() const {
    return m_name;
}

bool QtProcessSandboxManager::startInSandbox(const SandboxSettings& settings,
                                             bool allowStartWithoutSandbox, QProcess* process,
                                             QIODeviceBase::OpenMode mode) {
    if (!process)
        return false;
    if (!m_name.isEmpty() && doStartInSandbox(settings, process, mode))
        return true;
    if (!allowStartWithoutSandbox)
        return false;
    // A failed sandbox attempt may already have started the child; never start it twice.
    if (process->state() != QProcess::NotRunning)
        return true;
    process->start(mode);
    return true;
}

bool QtProcessSandboxManager::doStartInSandbox(const SandboxSettings&, QProcess*,
                                               QIODeviceBase::OpenMode) {
    // No isolation mechanism is built in yet, so every sandboxed start fails here.
    return false;
}
