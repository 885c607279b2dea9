#pragma once

#include <terncl/ternclshared_export.h>

#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>
#include <string>

class QProcess;
class WinSandboxApi;

// Grants AppContainer children access to paths and withdraws it again. Access lists belong to
// the container, not to one process, so the manager keeps what each process was granted and
// keeps in force, per path, the union of the grants of the processes that still hold one: a
// path shared by two children stays usable until the last of them ends. Lives on the thread
// of the sandbox manager that owns it.
class TERNCL_EXPORT QtWinAppContainerProcessAllowedPathsMgr : public QObject {
    Q_OBJECT

public:
    QtWinAppContainerProcessAllowedPathsMgr(std::shared_ptr<WinSandboxApi> api,
                                            const QString& containerSid, QObject* parent = nullptr);
    // Withdraws the grants of every process still recorded (kept grants stay).
    ~QtWinAppContainerProcessAllowedPathsMgr() override;

    // Grants access (generic rights) to path for process. A grant that fails for a path that
    // does not exist is ignored (true). One that fails for an existing path withdraws every
    // grant of process and gives false.
    bool grantAccess(QProcess* process, const QString& path, quint32 access);
    // Withdraws process's grants when it has finished, failed to start or been destroyed.
    void withdrawWhenFinished(QProcess* process);
    // Keeps process's grants for as long as the manager lives: they no longer belong to it.
    void keepGrants(QProcess* process);
    // Withdraws every grant of process now.
    void withdrawAll(QProcess* process);

    // The access in force for path (the union of its grants), 0 when none.
    quint32 grantedAccess(const QString& path) const;

private:
    struct PathGrants {
        // nullptr holds the grants that are kept.
        QHash<const QProcess*, quint32> byProcess;
        quint32 applied = 0;
    };

    bool applyUnion(const QString& path, PathGrants& grants);
    void forget(const QProcess* holder, const QString& path);

    std::shared_ptr<WinSandboxApi> m_api;
    std::wstring m_sid;
    QHash<QString, PathGrants> m_paths;
    QHash<const QProcess*, QStringList> m_processPaths;
};
