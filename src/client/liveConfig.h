// The configuration as a running agent uses it, so that a reload (SIGHUP) can read the file again,
// say what changed and take up what it can without a new link: the opt-in keys, the plugin
// catalogue, the metrics file. What only a new link can take up (the server, the TLS keys, the
// host's identity, the serial number) is kept as text, to say that a change there takes a restart.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "src/client/agentSettings.h"
#include "src/client/pluginRules.h"

class iniConfig;

// A key of the configuration, and whether a reload takes a new value of it up.
struct ConfigKey {
  const char* section;
  const char* name;
  bool reloaded;  // else it takes a restart
};

// Every key the agent reads, in the order of the sample configuration.
std::vector<ConfigKey> configKeys();

struct LiveConfig {
  AgentSettings settings;
  std::map<std::string, std::string> catalogue;    // plugin name to executable path
  std::shared_ptr<PluginRules> rules;              // null: no rules file
  std::map<std::string, std::string> appliedKeys;  // "SECTION/key" to its text, taken up
  std::map<std::string, std::string> restartKeys;  // "SECTION/key" to its text, for a new link
};

// The text of every key of both kinds in `config`, and the serial number (first line of
// `serialFile`, under the name "serial number").
void readKeyTexts(iniConfig& config, const std::string& serialFile, LiveConfig& into);

// The rules file at `path` for `catalogue`, each line with its confinement for `confinementAbi`
// (confinementAbi(settings.confinePlugins); 0: not confined); null for an empty path. Throws
// FileException when it cannot be read.
std::shared_ptr<PluginRules> readRules(const std::string& path,
                                       const std::map<std::string, std::string>& catalogue,
                                       int confinementAbi = 0);

// The whole configuration, read again, the rules with the confinement confine_plugins asks for.
// `problems` gets the values the agent cannot use, one line a key. Throws FileException when the
// configuration, the plugin list or the rules file cannot be read, and
// std::filesystem::filesystem_error when the plugin directory cannot be listed.
LiveConfig readLiveConfig(iniConfig& config, const std::string& serialFile,
                          std::vector<std::string>& problems);

// What `after` changes of `before`, as one line: "plugins added: a, b; plugins removed: c;
// NIVO/plugin_timeout: '60' -> '30'; plugin rules changed", or "nothing changed".
std::string describeChanges(const LiveConfig& before, const LiveConfig& after);

// The keys that need a new link whose text differs, in a fixed order.
std::vector<std::string> changedRestartKeys(const LiveConfig& before, const LiveConfig& after);
