// What orders are checked and run with, and the reload (SIGHUP) that replaces it. The settings are
// one immutable object published through an atomic shared_ptr: an order takes the settings current
// when it arrives, so orders already queued or running finish as they began, whatever a reload
// does meanwhile. currentOrderSettings may be called from any thread; the rest from the main thread
// only (the reload is served there, in normal context, never in the signal handler).
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "src/client/agentMetrics.h"
#include "src/client/liveConfig.h"
#include "src/client/pluginRules.h"
#include "src/service/pluginConfinement.h"
#include "src/service/service.h"

struct OrderSettings {
  // The plugin catalogue: plugin name to the path of its executable.
  std::map<std::string, std::string> pluginPathExec;
  // Null: any arguments. Checked on the network thread only, which keeps its hashes up to date.
  std::shared_ptr<PluginRules> rules;
  int maxQueue = 0;  // orders that may wait in the two pools together; 0: no bound
  // Bytes an EXEC frame may hold; a longer one is answered at once, unread. 0: no bound.
  std::size_t maxOrderBytes = 0;
  RunLimits limits;
  // confine_plugins=1: every plugin runs confined, with the ABI in use; 0 there is no Landlock, and
  // every order is refused rather than run unconfined.
  bool confine = false;
  int confinementAbi = 0;
  bool confineKeyGiven = false;  // the metrics show confinementAbi only then
  // The confinement of every plugin when there are no rules; null when not confined.
  std::shared_ptr<const PluginConfinement> defaultConfinement;
  // The run counters of each plugin of the catalogue; filled by publishOrderSettings.
  std::map<std::string, std::shared_ptr<PluginCounters>> counters;
};

// The settings in use; from any thread.
std::shared_ptr<const OrderSettings> currentOrderSettings();
// Puts `settings` in use, from any thread.
void publishOrderSettings(OrderSettings settings);

// The configuration read at start-up: its order settings are put in use (unusable rule lines
// said) and it is kept for the reloads to compare with.
void adoptConfiguration(LiveConfig config);

// Serves a reload requested by SIGHUP, if one is pending: the log is reopened first, then the
// configuration read again and what a running agent can take up put in use, without a new link;
// a configuration that cannot be used is refused whole. True when there was a request.
bool serveReloadRequest();
