// The kernel's Landlock interface as the agent uses it. <linux/landlock.h> of Debian 12
// (linux-libc-dev 6.1) stops at ABI 2; what later ABIs added is written out below from the
// kernel's stable user-space API (include/uapi/linux/landlock.h), in a namespace of its own so
// that a newer system header never clashes with it. The C library has no wrappers for these system
// calls. The child of childProcess.cpp calls landlock_restrict_self through its own raw system
// call, not through this header.
#pragma once

#include <linux/landlock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

namespace landlock {

// ABI 3 (Linux 6.2): truncating a file, by truncate(2) or by open(O_TRUNC).
constexpr std::uint64_t kAccessFsTruncate = 1ULL << 14;
// ABI 5 (Linux 6.10): ioctl(2) on a character or block device.
constexpr std::uint64_t kAccessFsIoctlDev = 1ULL << 15;

// ABI 4 (Linux 6.7): TCP, in struct RulesetAttr::handledAccessNet and in port rules.
constexpr std::uint64_t kAccessNetBindTcp = 1ULL << 0;
constexpr std::uint64_t kAccessNetConnectTcp = 1ULL << 1;

// ABI 6 (Linux 6.12): what a domain keeps from the processes outside it.
constexpr std::uint64_t kScopeAbstractUnixSocket = 1ULL << 0;
constexpr std::uint64_t kScopeSignal = 1ULL << 1;

// ABI 7 (Linux 6.15) adds only flags of landlock_restrict_self that steer the audit log; the agent
// leaves them at their defaults.
constexpr int kNewestKnownAbi = 7;

// The rule type of struct NetPortAttr (enum landlock_rule_type).
constexpr int kRuleNetPort = 2;

// struct landlock_ruleset_attr as of ABI 6. The kernel is given the size its ABI knows (see
// rulesetAttrSize): an older kernel refuses a longer structure whose extra fields are not zero.
struct RulesetAttr {
  std::uint64_t handledAccessFs;
  std::uint64_t handledAccessNet;  // ABI 4
  std::uint64_t scoped;            // ABI 6
};

constexpr unsigned long rulesetAttrSize(int abi) {
  return abi >= 6   ? sizeof(RulesetAttr)
         : abi >= 4 ? 2 * sizeof(std::uint64_t)
                    : sizeof(std::uint64_t);
}

// struct landlock_net_port_attr (ABI 4).
struct NetPortAttr {
  std::uint64_t allowedAccess;
  std::uint64_t port;
} __attribute__((packed));

// landlock_create_ruleset(2): a new ruleset's descriptor (close-on-exec), or -1 with errno. With
// a null attr, size 0 and LANDLOCK_CREATE_RULESET_VERSION: the kernel's ABI.
inline int createRuleset(const RulesetAttr* attr, unsigned long size, unsigned flags) {
  return static_cast<int>(::syscall(SYS_landlock_create_ruleset, attr, size, flags));
}

// landlock_add_rule(2): 0, or -1 with errno.
inline int addRule(int ruleset, int type, const void* attr) {
  return static_cast<int>(::syscall(SYS_landlock_add_rule, ruleset, type, attr, 0U));
}

}  // namespace landlock
