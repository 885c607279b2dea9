#include "linuxsandbox_p.h"

#include "landlock_p.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSignalBlocker>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <linux/securebits.h>
#include <memory>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace terncl {
namespace {
using namespace landlock;

constexpr std::uint64_t ReadAccess = ReadFile | ReadDir;
constexpr std::uint64_t ReadExecuteAccess = ReadAccess | Execute;
constexpr std::uint64_t WriteAccess = WriteFile | Truncate | MakeReg | MakeDir | MakeSym |
                                      MakeFifo | MakeSock | RemoveFile | RemoveDir | Refer;
constexpr std::uint64_t DeviceAccess = ReadFile | WriteFile | Truncate | IoctlDev;

struct SystemPath {
    const char* path;
    std::uint64_t access;
};

// Programs and libraries, and what the dynamic loader, the C library (locale, time zone, users,
// name resolution) and TLS read under /etc. The rest of /etc stays out of reach.
constexpr SystemPath systemPaths[] = {
    {"/usr", ReadExecuteAccess},
    {"/bin", ReadExecuteAccess},
    {"/sbin", ReadExecuteAccess},
    {"/lib", ReadExecuteAccess},
    {"/lib32", ReadExecuteAccess},
    {"/lib64", ReadExecuteAccess},
    {"/libx32", ReadExecuteAccess},
    {"/etc/alternatives", ReadExecuteAccess},
    {"/etc/ld.so.cache", ReadAccess},
    {"/etc/ld.so.conf", ReadAccess},
    {"/etc/ld.so.conf.d", ReadAccess},
    {"/etc/ld.so.preload", ReadAccess},
    {"/etc/locale.alias", ReadAccess},
    {"/etc/localtime", ReadAccess},
    {"/etc/timezone", ReadAccess},
    {"/etc/nsswitch.conf", ReadAccess},
    {"/etc/passwd", ReadAccess},
    {"/etc/group", ReadAccess},
    {"/etc/hosts", ReadAccess},
    {"/etc/host.conf", ReadAccess},
    {"/etc/resolv.conf", ReadAccess},
    {"/etc/gai.conf", ReadAccess},
    {"/etc/services", ReadAccess},
    {"/etc/protocols", ReadAccess},
    {"/etc/mime.types", ReadAccess},
    {"/etc/ssl", ReadAccess},
    {"/etc/ca-certificates", ReadAccess},
    {"/etc/ca-certificates.conf", ReadAccess},
    {"/sys/devices/system/cpu", ReadAccess},
    {"/dev/null", DeviceAccess},
    {"/dev/zero", DeviceAccess},
    {"/dev/full", DeviceAccess},
    {"/dev/random", DeviceAccess},
    {"/dev/urandom", DeviceAccess},
};

// The steps of the namespace holder and of the child, in order; a failed one is reported to
// the parent by number.
enum ChildStep {
    UnshareStep = 1,
    SetGroupsStep,
    UidMapStep,
    GidMapStep,
    JoinUserStep,
    JoinIpcStep,
    JoinNetStep,
    SecureBitsStep,
    NoNewPrivsStep,
    SyscallFilterStep,
    LandlockStep
};

const char* stepText(int step) {
    switch (step) {
    case UnshareStep:
        return "unshare(user, IPC and network namespaces)";
    case SetGroupsStep:
        return "writing /proc/self/setgroups";
    case UidMapStep:
        return "writing /proc/self/uid_map";
    case GidMapStep:
        return "writing /proc/self/gid_map";
    case JoinUserStep:
        return "setns(user namespace)";
    case JoinIpcStep:
        return "setns(IPC namespace)";
    case JoinNetStep:
        return "setns(network namespace)";
    case SecureBitsStep:
        return "prctl(PR_SET_SECUREBITS)";
    case NoNewPrivsStep:
        return "prctl(PR_SET_NO_NEW_PRIVS)";
    case SyscallFilterStep:
        return "installing the seccomp filter";
    case LandlockStep:
        return "landlock_restrict_self";
    default:
        return "an unknown step";
    }
}

struct ChildReport {
    int step;
    int error;
};

constexpr int MaxFilterLength = 16;

// Everything the child needs, made in the parent: the child must not allocate.
struct ChildPlan {
    int rulesetFd = -1;
    int reportFd = -1;
    int userNamespaceFd = -1;
    int ipcNamespaceFd = -1;
    // -1: the child keeps the network of its parent.
    int netNamespaceFd = -1;
    sock_filter filter[MaxFilterLength] = {};
    sock_fprog filterProgram = {};
};

// Children may create UNIX-domain sockets only in pairs (socketpair), so no socket file or
// abstract name outside the sandbox is reachable; io_uring could open sockets around that rule.
// Other system call conventions (32-bit, x32) are not expected from these programs and end them.
void fillSyscallFilter(ChildPlan* plan) {
#if defined(__x86_64__)
    constexpr std::uint32_t nativeArch = AUDIT_ARCH_X86_64;
    constexpr bool hasX32 = true;
#elif defined(__aarch64__)
    constexpr std::uint32_t nativeArch = AUDIT_ARCH_AARCH64;
    constexpr bool hasX32 = false;
#else
    return;
#endif
#if defined(__x86_64__) || defined(__aarch64__)
    sock_filter* f = plan->filter;
    int n = 0;
    const auto load = [&](std::uint32_t offset) {
        f[n++] = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset);
    };
    const auto jumpIfEqual = [&](std::uint32_t value, unsigned char whenTrue,
                                 unsigned char whenFalse) {
        f[n++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, whenTrue, whenFalse);
    };
    const auto giveBack = [&](std::uint32_t action) {
        f[n++] = BPF_STMT(BPF_RET | BPF_K, action);
    };

    load(offsetof(seccomp_data, arch));
    jumpIfEqual(nativeArch, 1, 0);
    giveBack(SECCOMP_RET_KILL_PROCESS);
    load(offsetof(seccomp_data, nr));
    if (hasX32) {
        f[n++] = BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, 0x40000000U, 0, 1);
        giveBack(SECCOMP_RET_KILL_PROCESS);
    }
    jumpIfEqual(__NR_io_uring_setup, 0, 1);
    giveBack(SECCOMP_RET_ERRNO | ENOSYS);
    jumpIfEqual(__NR_socket, 1, 0);
    giveBack(SECCOMP_RET_ALLOW);
    // The low half of the first argument, the address family, on a little-endian machine.
    load(offsetof(seccomp_data, args));
    jumpIfEqual(AF_UNIX, 0, 1);
    giveBack(SECCOMP_RET_ERRNO | EACCES);
    giveBack(SECCOMP_RET_ALLOW);
    plan->filterProgram.len = static_cast<unsigned short>(n);
    plan->filterProgram.filter = plan->filter;
#endif
}

// --- In the child: raw system calls only --------------------------------------------------

#define TERNCL_CHILD_SIDE __attribute__((no_sanitize("address", "undefined")))

TERNCL_CHILD_SIDE size_t textLength(const char* text) {
    size_t length = 0;
    while (text[length])
        ++length;
    return length;
}

TERNCL_CHILD_SIDE bool writeWhole(const char* path, const char* text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const size_t length = textLength(text);
    const bool written = ::write(fd, text, length) == ssize_t(length);
    ::close(fd);
    return written;
}

TERNCL_CHILD_SIDE void report(int fd, int step) {
    const ChildReport report{step, step == 0 ? 0 : errno};
    [[maybe_unused]] const auto written = ::write(fd, &report, sizeof(report));
}

[[noreturn]] TERNCL_CHILD_SIDE void failChild(const ChildPlan& plan, int step) {
    report(plan.reportFd, step);
    ::_exit(127);
}

TERNCL_CHILD_SIDE void confineChild(const ChildPlan& plan) {
    if (::setns(plan.userNamespaceFd, CLONE_NEWUSER) != 0)
        failChild(plan, JoinUserStep);
    if (::setns(plan.ipcNamespaceFd, CLONE_NEWIPC) != 0)
        failChild(plan, JoinIpcStep);
    if (plan.netNamespaceFd >= 0 && ::setns(plan.netNamespaceFd, CLONE_NEWNET) != 0)
        failChild(plan, JoinNetStep);
    // Joining the user namespace gave every capability inside it; whatever the child's user id
    // there, its program must start with none.
    if (::prctl(PR_SET_SECUREBITS, SECBIT_NOROOT | SECBIT_NOROOT_LOCKED, 0, 0, 0) != 0)
        failChild(plan, SecureBitsStep);
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        failChild(plan, NoNewPrivsStep);
    if (plan.filterProgram.len > 0 &&
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &plan.filterProgram) != 0) {
        failChild(plan, SyscallFilterStep);
    }
    if (restrictSelf(plan.rulesetFd) != 0)
        failChild(plan, LandlockStep);
}

// Makes the namespaces, then waits until the parent has opened them and closes release.
[[noreturn]] TERNCL_CHILD_SIDE void holdNamespaces(int readyFd, int releaseFd, const char* uidMap,
                                                   const char* gidMap) {
    int step = 0;
    if (::unshare(CLONE_NEWUSER | CLONE_NEWIPC | CLONE_NEWNET) != 0)
        step = UnshareStep;
    else if (!writeWhole("/proc/self/setgroups", "deny"))
        step = SetGroupsStep;
    else if (!writeWhole("/proc/self/uid_map", uidMap))
        step = UidMapStep;
    else if (!writeWhole("/proc/self/gid_map", gidMap))
        step = GidMapStep;
    report(readyFd, step);
    char byte;
    while (::read(releaseFd, &byte, 1) < 0 && errno == EINTR) {
    }
    ::_exit(0);
}

// --- In the parent --------------------------------------------------------------------------

QString errorText(int error) {
    return QString::fromLocal8Bit(std::strerror(error));
}

std::uint64_t accessOf(const QtProcessSandboxManager::AllowedPath& entry) {
    std::uint64_t access = 0;
    if (entry.read)
        access |= ReadAccess;
    if (entry.write)
        access |= WriteAccess;
    if (entry.execute)
        access |= Execute;
    return access;
}

// Adds a rule for path; a path that does not exist is left out. Returns 0 or an errno value.
int allowPath(Ruleset& ruleset, const QByteArray& path, std::uint64_t access) {
    const int fd = ::open(path.constData(), O_PATH | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT || errno == ENOTDIR ? 0 : errno;
    struct stat info = {};
    int error = ::fstat(fd, &info) == 0 ? 0 : errno;
    if (error == 0)
        error = ruleset.allowBeneath(fd, access, S_ISDIR(info.st_mode));
    ::close(fd);
    return error;
}

bool addRules(Ruleset& ruleset, const LinuxSandbox::Request& request, QString* reason) {
    for (const SystemPath& entry : systemPaths)
        allowPath(ruleset, entry.path, entry.access);
    // Debian keeps the interpreter's site customisation under /etc/python3.X.
    static const QStringList pythonConfig =
        QDir(QStringLiteral("/etc")).entryList({QStringLiteral("python3*")}, QDir::Dirs);
    for (const QString& name : pythonConfig)
        allowPath(ruleset, QFile::encodeName(QStringLiteral("/etc/") + name), ReadAccess);

    if (int error = allowPath(ruleset, QFile::encodeName(request.privateFolder),
                              ReadAccess | WriteAccess)) {
        *reason = QStringLiteral("cannot open %1: %2").arg(request.privateFolder, errorText(error));
        return false;
    }
    for (const auto& entry : request.allowedPaths) {
        if (int error = allowPath(ruleset, QFile::encodeName(entry.path), accessOf(entry))) {
            *reason = QStringLiteral("cannot open %1: %2").arg(entry.path, errorText(error));
            return false;
        }
    }
    return true;
}

// Reads the child's report until every write end is closed: the child's closes when it runs its
// program (close-on-exec) or exits. False when the child reported nothing.
bool readReport(int fd, ChildReport* report) {
    size_t got = 0;
    auto* bytes = reinterpret_cast<char*>(report);
    for (;;) {
        const ssize_t n = ::read(fd, bytes + got, sizeof(*report) - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += size_t(n);
        if (got == sizeof(*report))
            break;
    }
    return got == sizeof(*report);
}

QString reportText(const ChildReport& report) {
    return QStringLiteral("%1 failed in the child: %2")
        .arg(QString::fromLatin1(stepText(report.step)), errorText(report.error));
}

// A user namespace (with an IPC and a network namespace it owns) made once per process and kept
// open, so that every child joins it instead of paying for new namespaces: creating and tearing
// down a network namespace costs milliseconds. Children of every sandbox manager share it; it
// holds nothing but the loopback interface, which is down.
struct SharedNamespaces {
    int user = -1;
    int ipc = -1;
    int net = -1;
    QString error;
};

SharedNamespaces makeSharedNamespaces() {
    SharedNamespaces namespaces;
    // Inside, the user keeps its own ids (and root stays root, without capabilities: see the
    // secure bits the child sets).
    char uidMap[48], gidMap[48];
    std::snprintf(uidMap, sizeof(uidMap), "%u %u 1\n", unsigned(::getuid()), unsigned(::getuid()));
    std::snprintf(gidMap, sizeof(gidMap), "%u %u 1\n", unsigned(::getgid()), unsigned(::getgid()));
    int ready[2], release[2];
    if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(release, O_CLOEXEC) != 0) {
        namespaces.error = QStringLiteral("pipe2 failed: %1").arg(errorText(errno));
        return namespaces;
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The holder must not keep the parent's ends open, or it would wait for itself.
        ::close(ready[0]);
        ::close(release[1]);
        holdNamespaces(ready[1], release[0], uidMap, gidMap);
    }
    ::close(ready[1]);
    ::close(release[0]);
    ChildReport report = {};
    if (pid < 0) {
        namespaces.error = QStringLiteral("fork failed: %1").arg(errorText(errno));
    } else if (!readReport(ready[0], &report)) {
        namespaces.error = QStringLiteral("the namespace holder ended early");
    } else if (report.step != 0) {
        namespaces.error = reportText(report);
    } else {
        const auto open = [pid](const char* name) {
            const QByteArray path = "/proc/" + QByteArray::number(pid) + "/ns/" + name;
            return ::open(path.constData(), O_RDONLY | O_CLOEXEC);
        };
        namespaces.user = open("user");
        namespaces.ipc = open("ipc");
        namespaces.net = open("net");
        if (namespaces.user < 0 || namespaces.ipc < 0 || namespaces.net < 0)
            namespaces.error = QStringLiteral("cannot open the namespaces of the holder");
    }
    ::close(release[1]);
    ::close(ready[0]);
    if (pid > 0)
        ::waitpid(pid, nullptr, 0);
    return namespaces;
}

const SharedNamespaces& sharedNamespaces() {
    static const SharedNamespaces namespaces = makeSharedNamespaces();
    return namespaces;
}

std::unique_ptr<ChildPlan> makePlan(int rulesetFd, bool network) {
    const SharedNamespaces& namespaces = sharedNamespaces();
    auto plan = std::make_unique<ChildPlan>();
    plan->rulesetFd = rulesetFd;
    plan->userNamespaceFd = namespaces.user;
    plan->ipcNamespaceFd = namespaces.ipc;
    plan->netNamespaceFd = network ? -1 : namespaces.net;
    fillSyscallFilter(plan.get());
    return plan;
}

LinuxSandbox::Support probeSupport() {
    LinuxSandbox::Support support;
    support.landlockAbi = abiVersion();
    if (support.landlockAbi < 1) {
        support.reason = QStringLiteral("the kernel offers no Landlock");
        return support;
    }
    if (!sharedNamespaces().error.isEmpty()) {
        support.reason = sharedNamespaces().error;
        return support;
    }
    Ruleset ruleset;
    if (int error = ruleset.create(support.landlockAbi, true)) {
        support.reason = QStringLiteral("landlock_create_ruleset failed: %1").arg(errorText(error));
        return support;
    }
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        support.reason = QStringLiteral("pipe2 failed: %1").arg(errorText(errno));
        return support;
    }
    auto plan = makePlan(ruleset.fd(), false);
    plan->reportFd = fds[1];
    const pid_t pid = ::fork();
    if (pid == 0) {
        confineChild(*plan);
        ::_exit(0);
    }
    ::close(fds[1]);
    ChildReport report = {};
    const bool failed = pid < 0 || readReport(fds[0], &report);
    ::close(fds[0]);
    int status = 0;
    if (pid > 0)
        ::waitpid(pid, &status, 0);
    if (pid < 0)
        support.reason = QStringLiteral("fork failed: %1").arg(errorText(errno));
    else if (failed)
        support.reason = reportText(report);
    else
        support.available = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!support.available && support.reason.isEmpty())
        support.reason = QStringLiteral("a confined test child did not end normally");
    return support;
}
} // namespace

const LinuxSandbox::Support& LinuxSandbox::support() {
    static const Support support = probeSupport();
    return support;
}

bool LinuxSandbox::start(QProcess* process, QIODeviceBase::OpenMode mode, const Request& request,
                         QString* reason) {
    const Support& supported = support();
    if (!supported.available) {
        *reason = supported.reason;
        return false;
    }
    Ruleset ruleset;
    if (int error = ruleset.create(supported.landlockAbi, !request.network)) {
        *reason = QStringLiteral("landlock_create_ruleset failed: %1").arg(errorText(error));
        return false;
    }
    if (!addRules(ruleset, request, reason))
        return false;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        *reason = QStringLiteral("pipe2 failed: %1").arg(errorText(errno));
        return false;
    }
    const auto plan = makePlan(ruleset.fd(), request.network);
    plan->reportFd = fds[1];
    const ChildPlan* childPlan = plan.get();
    process->setChildProcessModifier([childPlan] { confineChild(*childPlan); });
    process->start(mode);
    ::close(fds[1]);
    process->setChildProcessModifier({});
    ChildReport report = {};
    const bool failed = readReport(fds[0], &report);
    ::close(fds[0]);
    if (!failed)
        return true;
    // The child ended before running the program: its start and end are no news to anyone.
    const QSignalBlocker blocker(process);
    if (!process->waitForFinished(5000)) {
        process->kill();
        process->waitForFinished(-1);
    }
    *reason = reportText(report);
    return false;
}

} // namespace terncl
