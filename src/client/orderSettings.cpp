#include "src/client/orderSettings.h"

#include <filesystem>
#include <utility>
#include <vector>

#include "src/client/qavel-client.h"
#include "src/client/stopSignal.h"
#include "src/common/convertTo.h"
#include "src/common/iniConfig.h"

namespace {

// Read and replaced through the atomic shared_ptr functions: an order arriving on the network
// thread while the main thread serves a reload gets the old settings or the new, whole.
std::shared_ptr<const OrderSettings> orderSettings = std::make_shared<const OrderSettings>();

// The configuration in use, for a reload to compare with; main thread only.
LiveConfig liveConfig;

// Puts in use what orders are checked and run with in `config`; its rules' unusable lines are said.
void takeUpOrderSettings(const LiveConfig& config) {
  OrderSettings orders;
  orders.pluginPathExec = config.catalogue;
  orders.rules = config.rules;
  orders.maxQueue = config.settings.maxQueue;
  orders.maxOrderBytes = config.settings.maxOrderBytes;
  orders.limits = {config.settings.pluginTimeout, config.settings.maxOutput,
                   config.settings.unknownOnFailure};
  orders.confine = config.settings.confinePlugins;
  orders.confineKeyGiven = config.settings.confinePluginsGiven;
  if (orders.confine) {
    for (const std::string& warning : LandlockSupport::get().warnings())
      logLine(3, "NIVO configuration: ", warning);
    orders.confinementAbi = confinementAbi(true);
    try {
      if (orders.confinementAbi > 0)
        orders.defaultConfinement = PluginConfinement::make(orders.confinementAbi);
    } catch (const ConfinementError& e) {
      // Never unconfined: without its ruleset every order is refused, as without Landlock.
      logLine(3, "NIVO configuration: NIVO/confine_plugins: ", e.what(),
              "; every order is refused");
      orders.confinementAbi = 0;
    }
  }
  publishOrderSettings(std::move(orders));
  if (config.rules)
    for (const std::string& problem : config.rules->problems())
      logLine(3, "NIVO plugin rules: ", problem);
}

// The reload was not taken up: one line why, and the configuration in use stays as it is.
void refuseReload(const std::string& why) {
  logLine(3, "NIVO reload refused, the configuration in use is kept: ", why);
  agentCounters.countReload(false);
}

// Takes up what a running agent can: the plugin catalogue, the bounds of a run, the pools' bound,
// the metrics file. The link is left as it is.
void reload() {
  if (const std::string failure = fileLog->reopen(); !failure.empty())
    logLine(3, "NIVO reload: cannot reopen the log file ", fileLog->path(), ": ", failure,
            "; it is written on where it was");
  LiveConfig next;
  std::vector<std::string> problems;
  try {
    iniConfig config(pathToConfigFile);
    next = readLiveConfig(config, pathSN, problems);
  } catch (const FileException& e) {
    return refuseReload(e.what());
  } catch (const std::filesystem::filesystem_error& e) {
    return refuseReload(e.what());
  }
  if (!problems.empty()) return refuseReload(joined(problems, "; "));

  takeUpOrderSettings(next);
  const AgentPools pools = publishedPools();
  for (PoolThreadService* pool : {pools.monitor, pools.web})
    if (pool != nullptr) pool->setMaxWorkers(next.settings.maxWorkers);
  useMetricsFile(next.settings.metricsFile);

  for (const std::string& key : changedRestartKeys(liveConfig, next))
    logLine(2, "NIVO reload: ", key, " changed; it takes a restart");
  logLine(2, "NIVO reload: ", describeChanges(liveConfig, next));
  // What needs a restart stays as it is in use, so that each reload says it again until then.
  next.restartKeys = liveConfig.restartKeys;
  liveConfig = std::move(next);
  agentCounters.countReload(true);
}

}  // namespace

std::shared_ptr<const OrderSettings> currentOrderSettings() {
  return std::atomic_load(&orderSettings);
}

void publishOrderSettings(OrderSettings settings) {
  settings.counters.clear();
  for (const auto& plugin : settings.pluginPathExec)
    settings.counters[plugin.first] = agentCounters.counters(plugin.first);
  std::atomic_store(&orderSettings, std::shared_ptr<const OrderSettings>(
                                        std::make_shared<OrderSettings>(std::move(settings))));
}

void adoptConfiguration(LiveConfig config) {
  takeUpOrderSettings(config);
  liveConfig = std::move(config);
}

bool serveReloadRequest() {
  if (!stopSignal::takeReload()) return false;
  reload();
  return true;
}
