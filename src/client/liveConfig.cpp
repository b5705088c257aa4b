#include "src/client/liveConfig.h"

#include <fstream>
#include <utility>

#include "src/client/hostDiscovery.h"
#include "src/common/convertTo.h"
#include "src/common/iniConfig.h"
#include "src/service/pluginConfinement.h"

namespace {

// In the order of the sample configuration. Taken up by a reload: the opt-in keys of the order
// path and of the metrics, and the plugin list and directory. The others are read once, for the
// link and the run: the status file is written during start-up only, the last-execution file and
// the log keep their paths (the log being reopened at its own), the pools keep the workers they
// started with.
const ConfigKey kKeys[] = {
    {"LOG", "info", false},
    {"LOG", "log_file", false},
    {"LOG", "lastExec", false},
    {"LOG", "metrics_file", true},
    {"SSL", "cafile", false},
    {"SSL", "local_cert", false},
    {"SSL", "verify_server", false},
    {"SSL", "client_key", false},
    {"NIVO", "plugin_list", true},
    {"NIVO", "plugin_dir", true},
    {"NIVO", "server_url", false},
    {"NIVO", "ip_command", false},
    {"NIVO", "thread", false},
    {"NIVO", "plugin_timeout", true},
    {"NIVO", "max_output", true},
    {"NIVO", "max_workers", true},
    {"NIVO", "open_timeout", false},
    {"NIVO", "unknown_on_failure", true},
    {"NIVO", "pong_timeout", false},
    {"NIVO", "plugin_rules", true},
    {"NIVO", "max_queue", true},
    {"NIVO", "proxy_url", false},
    {"NIVO", "fallback_urls", false},
    {"NIVO", "max_order_bytes", true},
    {"NIVO", "confine_plugins", true},
};

const char kSerialNumber[] = "serial number";

std::string keyName(const ConfigKey& key) { return std::string(key.section) + "/" + key.name; }

}  // namespace

std::vector<ConfigKey> configKeys() { return {std::begin(kKeys), std::end(kKeys)}; }

void readKeyTexts(iniConfig& config, const std::string& serialFile, LiveConfig& into) {
  for (const ConfigKey& key : kKeys)
    (key.reloaded ? into.appliedKeys : into.restartKeys)[keyName(key)] =
        config.getKey(key.section, key.name);
  std::ifstream serial(serialFile);
  std::string line;
  std::getline(serial, line);
  into.restartKeys[kSerialNumber] = line;
}

std::shared_ptr<PluginRules> readRules(const std::string& path,
                                       const std::map<std::string, std::string>& catalogue,
                                       int confinementAbi) {
  return path.empty() ? nullptr : std::make_shared<PluginRules>(path, catalogue, confinementAbi);
}

LiveConfig readLiveConfig(iniConfig& config, const std::string& serialFile,
                          std::vector<std::string>& problems) {
  LiveConfig live;
  readKeyTexts(config, serialFile, live);
  live.settings = readAgentSettings(config, problems);
  // Without a log: the start-up's lines on each plugin are not written again at every reload.
  live.catalogue = pluginCatalogue(config.getKey("NIVO", "plugin_dir"),
                                   readPluginList(config.getKey("NIVO", "plugin_list")), nullptr);
  live.rules = readRules(live.settings.pluginRules, live.catalogue,
                         confinementAbi(live.settings.confinePlugins));
  return live;
}

std::string describeChanges(const LiveConfig& before, const LiveConfig& after) {
  std::vector<std::string> added;
  std::vector<std::string> removed;
  for (const auto& [name, path] : after.catalogue)
    if (before.catalogue.count(name) == 0) added.push_back(name);
  for (const auto& [name, path] : before.catalogue)
    if (after.catalogue.count(name) == 0) removed.push_back(name);
  std::vector<std::string> parts;
  if (!added.empty()) parts.push_back("plugins added: " + joined(added, ", "));
  if (!removed.empty()) parts.push_back("plugins removed: " + joined(removed, ", "));
  for (const auto& [name, now] : after.appliedKeys) {
    const std::string& old = before.appliedKeys.at(name);
    if (old != now) parts.push_back(name + ": '" + old + "' -> '" + now + "'");
  }
  const auto rulesText = [](const LiveConfig& config) {
    return config.rules ? config.rules->text() : std::string();
  };
  if (rulesText(before) != rulesText(after)) parts.push_back("plugin rules changed");
  return parts.empty() ? "nothing changed" : joined(parts, "; ");
}

std::vector<std::string> changedRestartKeys(const LiveConfig& before, const LiveConfig& after) {
  std::vector<std::string> changed;
  for (const auto& [name, text] : after.restartKeys)
    if (before.restartKeys.at(name) != text) changed.push_back(name);
  return changed;
}
