// The rules file (NIVO/plugin_rules): which plugins of the catalogue an order may run, with which
// arguments, and from which executable content. Once it is loaded, an order runs only when a line
// of its plugin allows it; a plugin without a usable line never runs.
//
// One rule per line: the plugin's name, then optionally the options `sha256=HEX`,
// `write=PATH[,PATH...]`, `connect=PORT[,PORT...]`, `cpu=SECONDS` and `memory=MIB`, each once, then
// `args=PATTERNS`, separated by blanks; `args=` comes last and takes the rest of the line. Blank
// lines and lines whose first non-blank character is `#` are ignored. PATTERNS is split exactly as
// an order's parameter text is (appendParameterTokens), one POSIX extended regular expression per
// argument; an order must have as many arguments as there are patterns, each matching its own
// pattern whole. `args=` with nothing after it allows no argument at all, a line without `args=`
// any arguments. `sha256=` pins the executable's content (HashedExecutable). Several lines of one
// plugin are alternatives.
// `cpu=` and `memory=` bound the runs the line allows (RLIMIT_CPU, RLIMIT_AS); `write=` (absolute
// paths) and `connect=` (TCP ports 1 to 65535) widen their confinement, which applies when the
// rules are loaded with a confinement ABI: each line's Landlock ruleset is built then, once.
//
// A line that cannot be used allows nothing and is reported by problems(). check() updates the
// executables' hashes: call it from one thread at a time (the dispatch's). The descriptors in its
// verdicts may be used from any thread.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "src/common/uniqueFd.h"
#include "src/service/service.h"

class PluginRules {
 public:
  struct Verdict {
    bool allowed = false;
    // Why not, when not allowed: "no rule allows these arguments", "the executable does not match
    // its hash", or why the executable could not be hashed.
    std::string refusal;
    // The checked executable, when the allowing line pins one: hand it to service::SetExecutable.
    // Null: the plugin is started by its path.
    std::shared_ptr<const UniqueFd> executable;
    // What the allowing line sets for the run (service::SetRuleLimits): its cpu= and memory=
    // limits and, when the rules were loaded with a confinement ABI, its confinement (never null
    // then).
    RuleLimits limits;
  };

  // Reads the rules file at `path` for the plugins of `catalogue` (name to executable path). With
  // `confinementAbi` (confinementAbi(): 0 when plugins are not confined) each usable line gets its
  // confinement, built here; a line whose confinement cannot be built allows nothing. Throws
  // FileException, naming the file and the system's reason, when the file cannot be read.
  PluginRules(const std::string& path, const std::map<std::string, std::string>& catalogue,
              int confinementAbi = 0);
  PluginRules(PluginRules&&) noexcept;
  PluginRules& operator=(PluginRules&&) noexcept;
  ~PluginRules();

  // One text per line that allows nothing: "<path>:<line>: <what>; the line allows nothing".
  const std::vector<std::string>& problems() const noexcept { return problems_; }
  // The file's content as it was read: a reload tells by it whether the rules changed.
  const std::string& text() const noexcept { return text_; }

  // May the plugin `name` run with these arguments (as appendParameterTokens split them)?
  Verdict check(const std::string& name, const std::vector<std::string>& arguments);

 private:
  struct Plugin;

  std::string text_;
  std::map<std::string, std::unique_ptr<Plugin>> plugins_;
  std::vector<std::string> problems_;
};
