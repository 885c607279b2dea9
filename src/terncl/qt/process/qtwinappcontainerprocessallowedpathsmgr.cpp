#include "qtwinappcontainerprocessallowedpathsmgr.h"

#include <terncl/qt/process/win/winsandboxapi.h>

#include <QFileInfo>
#include <QProcess>

QtWinAppContainerProcessAllowedPathsMgr::QtWinAppContainerProcessAllowedPathsMgr(
    std::shared_ptr<WinSandboxApi> api, const QString& containerSid, QObject* parent)
    : QObject(parent)
    , m_api(std::move(api))
    , m_sid(containerSid.toStdWString()) {}

QtWinAppContainerProcessAllowedPathsMgr::~QtWinAppContainerProcessAllowedPathsMgr() {
    const auto holders = m_processPaths.keys();
    for (const QProcess* process : holders)
        withdrawAll(const_cast<QProcess*>(process));
}

bool QtWinAppContainerProcessAllowedPathsMgr::grantAccess(QProcess* process, const QString& path,
                                                          quint32 access) {
    PathGrants& grants = m_paths[path];
    grants.byProcess[process] |= access;
    QStringList& paths = m_processPaths[process];
    if (!paths.contains(path))
        paths.append(path);
    if (applyUnion(path, grants))
        return true;
    // A path that is not there cannot be used anyway; the child simply will not find it.
    if (!QFileInfo::exists(path)) {
        forget(process, path);
        return true;
    }
    withdrawAll(process);
    return false;
}

void QtWinAppContainerProcessAllowedPathsMgr::withdrawWhenFinished(QProcess* process) {
    connect(process, &QProcess::finished, this, [this, process] { withdrawAll(process); });
    connect(process, &QProcess::errorOccurred, this, [this, process] {
        if (process->state() == QProcess::NotRunning)
            withdrawAll(process);
    });
    connect(process, &QObject::destroyed, this, [this, process] { withdrawAll(process); });
}

void QtWinAppContainerProcessAllowedPathsMgr::keepGrants(QProcess* process) {
    const QStringList paths = m_processPaths.take(process);
    for (const QString& path : paths) {
        PathGrants& grants = m_paths[path];
        grants.byProcess[nullptr] |= grants.byProcess.take(process);
    }
}

void QtWinAppContainerProcessAllowedPathsMgr::withdrawAll(QProcess* process) {
    const QStringList paths = m_processPaths.take(process);
    for (const QString& path : paths)
        forget(process, path);
}

quint32 QtWinAppContainerProcessAllowedPathsMgr::grantedAccess(const QString& path) const {
    return m_paths.value(path).applied;
}

bool QtWinAppContainerProcessAllowedPathsMgr::applyUnion(const QString& path, PathGrants& grants) {
    quint32 wanted = 0;
    for (quint32 access : std::as_const(grants.byProcess))
        wanted |= access;
    if (wanted == grants.applied)
        return true;
    const std::wstring nativePath = path.toStdWString();
    std::uint32_t error = 0;
    // A grant only adds rights, so rights that are no longer wanted go with a revoke first.
    if ((grants.applied & ~wanted) != 0) {
        if (!m_api->revokeAccess(nativePath, m_sid, &error))
            return false;
        grants.applied = 0;
    }
    if (wanted != 0 && !m_api->grantAccess(nativePath, m_sid, wanted, &error))
        return false;
    grants.applied = wanted;
    return true;
}

void QtWinAppContainerProcessAllowedPathsMgr::forget(const QProcess* holder, const QString& path) {
    const auto it = m_paths.find(path);
    if (it == m_paths.end())
        return;
    it->byProcess.remove(holder);
    if (!it->byProcess.isEmpty() || it->applied != 0) {
        // Withdrawing is best effort: a path that vanished meanwhile has no access list left.
        applyUnion(path, *it);
    }
    if (it->byProcess.isEmpty())
        m_paths.erase(it);
}
