#include "landlock_p.h"

#include <cerrno>
#include <cstddef>
#include <sys/syscall.h>
#include <unistd.h>

namespace terncl::landlock {
namespace {
#ifndef __NR_landlock_create_ruleset
constexpr long landlockCreateRuleset = 444;
constexpr long landlockAddRule = 445;
constexpr long landlockRestrictSelf = 446;
#else
constexpr long landlockCreateRuleset = __NR_landlock_create_ruleset;
constexpr long landlockAddRule = __NR_landlock_add_rule;
constexpr long landlockRestrictSelf = __NR_landlock_restrict_self;
#endif

constexpr unsigned createRulesetVersion = 1U << 0;
constexpr int rulePathBeneath = 1;

// The kernel reads as much of this as the size passed tells: ABI 1 to 3 know the first field,
// ABI 4 and 5 the first two, ABI 6 and later all three.
struct RulesetAttr {
    std::uint64_t handledAccessFs;
    std::uint64_t handledAccessNet;
    std::uint64_t scoped;
};

struct PathBeneathAttr {
    std::uint64_t allowedAccess;
    std::int32_t parentFd;
} __attribute__((packed));
} // namespace

int abiVersion() {
    const long abi = ::syscall(landlockCreateRuleset, nullptr, 0, createRulesetVersion);
    return abi > 0 ? int(abi) : 0;
}

std::uint64_t fileAccessOf(int abi) {
    if (abi < 1)
        return 0;
    std::uint64_t access = (MakeSym << 1) - 1;
    if (abi >= 2)
        access |= Refer;
    if (abi >= 3)
        access |= Truncate;
    if (abi >= 5)
        access |= IoctlDev;
    return access;
}

Ruleset::~Ruleset() {
    if (m_fd >= 0)
        ::close(m_fd);
}

int Ruleset::create(int abi, bool denyTcp) {
    RulesetAttr attr = {};
    attr.handledAccessFs = fileAccessOf(abi);
    size_t size = sizeof(attr.handledAccessFs);
    if (abi >= 4) {
        attr.handledAccessNet = denyTcp ? (BindTcp | ConnectTcp) : 0;
        size = offsetof(RulesetAttr, scoped);
    }
    if (abi >= 6) {
        attr.scoped = AbstractUnixSocket | Signal;
        size = sizeof(attr);
    }
    const long fd = ::syscall(landlockCreateRuleset, &attr, size, 0U);
    if (fd < 0)
        return errno;
    m_fd = int(fd);
    m_handled = attr.handledAccessFs;
    return 0;
}

int Ruleset::allowBeneath(int pathFd, std::uint64_t access, bool isDirectory) {
    PathBeneathAttr attr = {};
    attr.allowedAccess = access & m_handled & (isDirectory ? ~0ULL : NonDirectoryAccess);
    attr.parentFd = pathFd;
    if (attr.allowedAccess == 0)
        return 0;
    if (::syscall(landlockAddRule, m_fd, rulePathBeneath, &attr, 0U) != 0)
        return errno;
    return 0;
}

int restrictSelf(int rulesetFd) {
    return int(::syscall(landlockRestrictSelf, rulesetFd, 0U));
}

} // namespace terncl::landlock
