#include "src/service/pluginConfinement.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "src/common/wholeNumber.h"
#include "src/service/landlock.h"

namespace {

constexpr std::uint64_t kReadAndExecute =
    LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR | LANDLOCK_ACCESS_FS_EXECUTE;
// The rights the kernel accepts on a file that is not a directory.
constexpr std::uint64_t kFileRights = LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_WRITE_FILE |
                                      LANDLOCK_ACCESS_FS_READ_FILE | landlock::kAccessFsTruncate |
                                      landlock::kAccessFsIoctlDev;

// Every file-system right ABI `abi` knows: all of them are handled, so that what no rule allows is
// denied. An unknown bit would make the kernel refuse the whole ruleset.
std::uint64_t fileSystemRights(int abi) {
  std::uint64_t rights = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1;  // ABI 1
  if (abi >= 2) rights |= LANDLOCK_ACCESS_FS_REFER;
  if (abi >= 3) rights |= landlock::kAccessFsTruncate;
  if (abi >= 5) rights |= landlock::kAccessFsIoctlDev;
  return rights;
}

std::string systemError() { return std::strerror(errno); }

// Allows `rights` (those a file can take, for a file) beneath `path`.
void allowBeneath(int ruleset, const std::string& path, std::uint64_t rights, const char* what) {
  const auto failure = [&] {
    return ConfinementError(std::string("cannot allow ") + what + " " + path + ": " +
                            systemError());
  };
  const UniqueFd beneath(::open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat status;
  if (!beneath || ::fstat(beneath.get(), &status) == -1) throw failure();
  landlock_path_beneath_attr rule{};
  rule.allowed_access = S_ISDIR(status.st_mode) ? rights : rights & kFileRights;
  rule.parent_fd = beneath.get();
  if (landlock::addRule(ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule) == -1) throw failure();
}

}  // namespace

const LandlockSupport& LandlockSupport::get() {
  static const LandlockSupport support = [] {
    const int abi = landlock::createRuleset(nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    return LandlockSupport(abi, abi < 0 ? errno : 0, std::getenv("NIVO_LANDLOCK_ABI_MAX"));
  }();
  return support;
}

LandlockSupport::LandlockSupport(int kernelAbi, int kernelError, const char* abiMax) {
  if (kernelAbi <= 0) {
    if (kernelError == ENOSYS)
      absence_ = "this kernel has no Landlock (Linux 5.13 or later built with it is needed)";
    else if (kernelError == EOPNOTSUPP)
      absence_ = "Landlock is disabled in this kernel (it is not in the boot parameter lsm=)";
    else
      absence_ =
          "the kernel's Landlock ABI cannot be read: " + std::string(std::strerror(kernelError));
    return;
  }
  abi_ = std::min(kernelAbi, landlock::kNewestKnownAbi);
  unsigned long long cap = 0;
  if (abiMax != nullptr && parseWholeNumber(abiMax, INT_MAX, cap) &&
      cap < static_cast<unsigned>(abi_)) {
    abi_ = static_cast<int>(cap);
    if (abi_ == 0) absence_ = "NIVO_LANDLOCK_ABI_MAX=0 leaves no Landlock ABI (a test setting)";
  }
}

std::string LandlockSupport::notRunText(const std::string& plugin) const {
  return "EXEC plugin: " + plugin + " not run: it cannot be confined: " + absence_;
}

std::vector<std::string> LandlockSupport::warnings() const {
  const std::string key = "NIVO/confine_plugins: ";
  if (abi_ == 0) return {key + absence_ + "; every order is refused"};
  std::vector<std::string> lines;
  for (const std::string& restriction : unenforcedRestrictions(abi_))
    lines.push_back(key + "Landlock ABI " + std::to_string(abi_) + " cannot restrict " +
                    restriction + "; plugins run without that restriction");
  return lines;
}

int confinementAbi(bool confinePlugins) {
  return confinePlugins ? LandlockSupport::get().abi() : 0;
}

std::vector<std::string> unenforcedRestrictions(int abi) {
  const struct {
    int since;
    const char* restriction;
  } later[] = {
      {3, "truncating files (ABI 3)"},
      {4, "TCP bind and connect (ABI 4)"},
      {5, "ioctl on devices (ABI 5)"},
      {6, "signals and abstract UNIX sockets (ABI 6)"},
  };
  std::vector<std::string> missing;
  for (const auto& step : later)
    if (abi < step.since) missing.push_back(step.restriction);
  return missing;
}

std::shared_ptr<const PluginConfinement> PluginConfinement::make(
    int abi, const std::vector<std::string>& writePaths,
    const std::vector<std::uint16_t>& connectPorts) {
  landlock::RulesetAttr attr{};
  attr.handledAccessFs = fileSystemRights(abi);
  if (abi >= 4)
    attr.handledAccessNet = landlock::kAccessNetBindTcp | landlock::kAccessNetConnectTcp;
  if (abi >= 6) attr.scoped = landlock::kScopeAbstractUnixSocket | landlock::kScopeSignal;
  UniqueFd ruleset(landlock::createRuleset(&attr, landlock::rulesetAttrSize(abi), 0));
  if (!ruleset) throw ConfinementError("cannot create a Landlock ruleset: " + systemError());

  allowBeneath(ruleset.get(), "/", kReadAndExecute, "reading beneath");
  // `: > /dev/null` opens it with O_TRUNC.
  allowBeneath(ruleset.get(), "/dev/null", attr.handledAccessFs, "writing to");
  for (const std::string& path : writePaths)
    allowBeneath(ruleset.get(), path, attr.handledAccessFs, "writing beneath");
  // Before ABI 4 the ports are not restricted, and a rule for one would be refused.
  if (abi >= 4) {
    for (const std::uint16_t port : connectPorts) {
      landlock::NetPortAttr rule{landlock::kAccessNetConnectTcp, port};
      if (landlock::addRule(ruleset.get(), landlock::kRuleNetPort, &rule) == -1)
        throw ConfinementError("cannot allow TCP connect to port " + std::to_string(port) + ": " +
                               systemError());
    }
  }
  return std::shared_ptr<const PluginConfinement>(new PluginConfinement(std::move(ruleset), abi));
}
