#pragma once

#include <terncl/qt/process/qtprocesssandboxmanager.h>

#include <QIODeviceBase>
#include <QList>
#include <QString>

class QProcess;

namespace terncl {

// Confines a child process on Linux. The child may read and execute the system's programs and
// libraries, read the few files under /etc that the dynamic loader, the C library and TLS need,
// use the harmless devices (/dev/null, /dev/zero, /dev/full, /dev/random, /dev/urandom) and read
// the CPU topology; beyond that only the allowed paths, with exactly their read, write and
// execute bits, and its private folder. It gets no new privileges, cannot create UNIX-domain
// sockets (so it reaches no session bus, agent or display server through a socket file), cannot
// use io_uring, starts without capabilities, shares System V IPC only with other sandboxed
// children, and without network access lives in a network namespace that holds only a loopback
// interface that is down.
//
// Files are confined with Landlock, the socket rule comes from a seccomp filter. The user, IPC
// and network namespaces are made once per process (unshare(2) in a short-lived holder) and each
// child joins them with setns(2): that costs microseconds, a new network namespace per child
// milliseconds. Everything is prepared in the parent: the child only makes raw
// system calls, as the child-process modifier of QProcess runs in a vfork-style child.
class LinuxSandbox {
public:
    struct Support {
        bool available = false;
        int landlockAbi = 0;
        // Why the sandbox is not available.
        QString reason;
    };

    struct Request {
        QList<QtProcessSandboxManager::AllowedPath> allowedPaths;
        // Read and written by the child: its temporary and cache files go there.
        QString privateFolder;
        bool network = true;
    };

    // Whether this kernel lets the sandbox be built; probed once per process by confining a
    // forked child the way launched children are confined.
    static const Support& support();

    // Starts process confined as asked. On false the process is not running and reason says
    // why (an allowed path that cannot be opened, a kernel call refused in the child). A program
    // that cannot be executed in the sandbox fails like any program that cannot start.
    static bool start(QProcess* process, QIODeviceBase::OpenMode mode, const Request& request,
                      QString* reason);
};

} // namespace terncl
