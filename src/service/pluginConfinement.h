// Confining a plugin with the kernel's Landlock (NIVO/confine_plugins): what the kernel offers, and
// the ruleset one plugin rule runs its plugin under.
//
// A ruleset is built once, when the rules are loaded or reloaded, and its descriptor is handed to
// every run: the child only calls landlock_restrict_self with it (childProcess.cpp). A confined
// plugin may read and execute everything, write only /dev/null and beneath the rule's write=
// paths, bind no TCP port and connect only to the rule's connect= ports, and neither signal nor
// reach through an abstract UNIX socket any process outside its confinement, as far as the ABI in
// use can enforce each of these. Everything here may be used from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "src/common/messageException.h"
#include "src/common/uniqueFd.h"

// What this kernel offers for confinement, as the agent uses it.
class LandlockSupport {
 public:
  // The kernel's answer, asked once per process and capped at the newest ABI the agent knows and
  // by the environment variable NIVO_LANDLOCK_ABI_MAX. That variable is a test seam: a whole
  // number that makes the agent use at most that ABI, as on an older kernel (0: as if the kernel
  // had no Landlock); any other text is ignored.
  static const LandlockSupport& get();

  // From the kernel's answer to the version query (`kernelAbi`, or -1 with `kernelError` the errno)
  // and the seam's value (null when unset).
  LandlockSupport(int kernelAbi, int kernelError, const char* abiMax);

  // The ABI in use; 0: none, and no plugin can be confined.
  int abi() const noexcept { return abi_; }
  // Why abi() is 0, e.g. "this kernel has no Landlock ..."; empty otherwise.
  const std::string& absence() const noexcept { return absence_; }

  // The answer to an order that confine_plugins=1 cannot run because there is no Landlock:
  // "EXEC plugin: NAME not run: ...".
  std::string notRunText(const std::string& plugin) const;
  // With confine_plugins=1, one line per restriction the ABI in use cannot enforce, or one line
  // saying that every order is refused (abi() 0); none on a kernel that enforces them all. For the
  // log (WARNING, at start and at each reload) and for --check-config: "NIVO/confine_plugins: ...".
  std::vector<std::string> warnings() const;

 private:
  int abi_ = 0;
  std::string absence_;
};

// The ABI plugins are confined with: LandlockSupport::get().abi() with confine_plugins=1, else 0.
int confinementAbi(bool confinePlugins);

// Each restriction that Landlock ABI `abi` (1 or above) cannot enforce, one short phrase each, in
// the order of the ABIs that brought them: "truncating files (ABI 3)", "TCP bind and connect
// (ABI 4)", "ioctl on devices (ABI 5)", "signals and abstract UNIX sockets (ABI 6)".
std::vector<std::string> unenforcedRestrictions(int abi);

// A ruleset that could not be built; the message says what of it.
class ConfinementError : public MessageException {
 public:
  using MessageException::MessageException;
};

class PluginConfinement {
 public:
  // Builds the ruleset for Landlock ABI `abi` (1 or above): every file-system right the ABI knows
  // is handled; reading and executing are allowed beneath /, every right on /dev/null and beneath
  // each of `writePaths` (absolute; a directory covers everything beneath it, and each must exist
  // now); with ABI 4, TCP connect to `connectPorts` only and bind nowhere; with ABI 6, signals and
  // abstract UNIX sockets scoped. Without paths and ports: the confinement of a plugin whose rule
  // names none, and of every plugin when there are no rules. Throws ConfinementError naming the
  // path or the step that failed.
  static std::shared_ptr<const PluginConfinement> make(
      int abi, const std::vector<std::string>& writePaths = {},
      const std::vector<std::uint16_t>& connectPorts = {});

  PluginConfinement(const PluginConfinement&) = delete;
  PluginConfinement& operator=(const PluginConfinement&) = delete;

  // The ruleset's descriptor, close-on-exec, for the child's landlock_restrict_self.
  int rulesetFd() const noexcept { return ruleset_.get(); }
  int abi() const noexcept { return abi_; }

 private:
  PluginConfinement(UniqueFd ruleset, int abi) : ruleset_(std::move(ruleset)), abi_(abi) {}

  UniqueFd ruleset_;
  int abi_;
};
