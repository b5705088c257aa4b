#include "src/client/liveConfig.h"

#include <fstream>
#include <utility>

#include "src/client/hostDiscovery.h"
#include "src/common/iniConfig.h"

namespace {

struct Key {
  const char* section;
  const char* name;
};

// Taken up by a reload.
const Key kAppliedKeys[] = {
    {"LOG", "metrics_file"},        {"NIVO", "plugin_list"},  {"NIVO", "plugin_dir"},
    {"NIVO", "plugin_timeout"},     {"NIVO", "max_output"},   {"NIVO", "max_workers"},
    {"NIVO", "unknown_on_failure"}, {"NIVO", "plugin_rules"}, {"NIVO", "max_queue"},
};

// Read once, for the link and the run: a change waits for the next start. The status file is
// written during start-up only, and the last-execution file and the log keep their paths, the log
// being reopened at its own.
const Key kRestartKeys[] = {
    {"LOG", "info"},       {"LOG", "log_file"},      {"LOG", "lastExec"},
    {"SSL", "cafile"},     {"SSL", "local_cert"},    {"SSL", "verify_server"},
    {"SSL", "client_key"}, {"NIVO", "server_url"},   {"NIVO", "ip_command"},
    {"NIVO", "thread"},    {"NIVO", "open_timeout"}, {"NIVO", "pong_timeout"},
};

const char kSerialNumber[] = "serial number";

std::string keyName(const Key& key) { return std::string(key.section) + "/" + key.name; }

std::string joined(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : ", ") + item;
  return text;
}

}  // namespace

void readKeyTexts(iniConfig& config, const std::string& serialFile, LiveConfig& into) {
  for (const Key& key : kAppliedKeys)
    into.appliedKeys[keyName(key)] = config.getKey(key.section, key.name);
  for (const Key& key : kRestartKeys)
    into.restartKeys[keyName(key)] = config.getKey(key.section, key.name);
  std::ifstream serial(serialFile);
  std::string line;
  std::getline(serial, line);
  into.restartKeys[kSerialNumber] = line;
}

std::shared_ptr<PluginRules> readRules(const std::string& path,
                                       const std::map<std::string, std::string>& catalogue) {
  return path.empty() ? nullptr : std::make_shared<PluginRules>(path, catalogue);
}

LiveConfig readLiveConfig(iniConfig& config, const std::string& serialFile,
                          std::vector<std::string>& problems) {
  LiveConfig live;
  readKeyTexts(config, serialFile, live);
  live.settings = readAgentSettings(config, problems);
  // Without a log: the start-up's lines on each plugin are not written again at every reload.
  live.catalogue = pluginCatalogue(config.getKey("NIVO", "plugin_dir"),
                                   readPluginList(config.getKey("NIVO", "plugin_list")), nullptr);
  live.rules = readRules(live.settings.pluginRules, live.catalogue);
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
  if (!added.empty()) parts.push_back("plugins added: " + joined(added));
  if (!removed.empty()) parts.push_back("plugins removed: " + joined(removed));
  for (const Key& key : kAppliedKeys) {
    const std::string name = keyName(key);
    const std::string& old = before.appliedKeys.at(name);
    const std::string& now = after.appliedKeys.at(name);
    if (old != now) parts.push_back(name + ": '" + old + "' -> '" + now + "'");
  }
  const auto rulesText = [](const LiveConfig& config) {
    return config.rules ? config.rules->text() : std::string();
  };
  if (rulesText(before) != rulesText(after)) parts.push_back("plugin rules changed");
  if (parts.empty()) return "nothing changed";
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : "; ") + part;
  return text;
}

std::vector<std::string> changedRestartKeys(const LiveConfig& before, const LiveConfig& after) {
  std::vector<std::string> changed;
  for (const auto& [name, text] : after.restartKeys)
    if (before.restartKeys.at(name) != text) changed.push_back(name);
  return changed;
}
