#pragma once

#include <cstdint>

// Landlock through its system calls. The distribution headers this library builds against may
// describe only the first ABI, so the structures and rights of later ABIs are defined here and
// the running kernel's ABI decides which of them are used.
namespace terncl::landlock {

// Rights on files and directories, as the kernel numbers them.
enum FileAccess : std::uint64_t {
    Execute = 1ULL << 0,
    WriteFile = 1ULL << 1,
    ReadFile = 1ULL << 2,
    ReadDir = 1ULL << 3,
    RemoveDir = 1ULL << 4,
    RemoveFile = 1ULL << 5,
    MakeChar = 1ULL << 6,
    MakeDir = 1ULL << 7,
    MakeReg = 1ULL << 8,
    MakeSock = 1ULL << 9,
    MakeFifo = 1ULL << 10,
    MakeBlock = 1ULL << 11,
    MakeSym = 1ULL << 12,
    Refer = 1ULL << 13,    // ABI 2
    Truncate = 1ULL << 14, // ABI 3
    IoctlDev = 1ULL << 15, // ABI 5
};

// The rights that apply to a file that is not a directory.
constexpr std::uint64_t NonDirectoryAccess = Execute | WriteFile | ReadFile | Truncate | IoctlDev;

// TCP rights (ABI 4).
enum NetAccess : std::uint64_t { BindTcp = 1ULL << 0, ConnectTcp = 1ULL << 1 };

// What a domain keeps its processes from reaching outside it (ABI 6).
enum Scope : std::uint64_t { AbstractUnixSocket = 1ULL << 0, Signal = 1ULL << 1 };

// The running kernel's Landlock ABI, 0 when Landlock is missing or disabled.
int abiVersion();
// Every file right that the ABI knows; these are all handled, so anything not granted is denied.
std::uint64_t fileAccessOf(int abi);

// A ruleset being built in the parent process. The descriptor is close-on-exec.
class Ruleset {
public:
    Ruleset() = default;
    Ruleset(const Ruleset&) = delete;
    Ruleset& operator=(const Ruleset&) = delete;
    ~Ruleset();

    // Handles every file right of abi; from ABI 4 on, denyTcp handles (and so denies) TCP bind
    // and connect; from ABI 6 on, abstract UNIX sockets and signals outside the domain are cut
    // off. Returns 0 or an errno value.
    int create(int abi, bool denyTcp);
    // Grants access beneath the file or directory open as pathFd (an O_PATH descriptor is
    // enough). Rights that the ABI does not know are dropped. Returns 0 or an errno value.
    int allowBeneath(int pathFd, std::uint64_t access, bool isDirectory);
    int fd() const { return m_fd; }

private:
    int m_fd = -1;
    std::uint64_t m_handled = 0;
};

// Enforces the ruleset on the calling thread: a raw system call, safe after fork or vfork.
// Returns 0 or -1 with errno set.
int restrictSelf(int rulesetFd);

} // namespace terncl::landlock
