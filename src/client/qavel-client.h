// The agent process: its process-wide state, the start-up and run phase (qavelClientMain), the stop
// routine, the last-execution file, the dispatch of inbound messages and the reporting of results.
// The state is plain namespace-scope data so that tests can put fakes in place of the pools and the
// endpoint and drive on_message/callbackService without a network or a child process.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "src/client/agentMetrics.h"
#include "src/client/agentSettings.h"
#include "src/client/pluginRules.h"
#include "src/common/logFile.h"
#include "src/link/WSSEndpoint.h"
#include "src/pool/PoolThreadService.h"
#include "src/service/service.h"

// Thread rules: the paths, NIVO_SN, the certificates' names, debug and agentSettings are written by
// the main thread during start-up, before the link and the pools exist, and only read afterwards.
// fileLog and endpoint are created once by the main thread and never freed while another thread
// runs (the process ends with _exit). The pools' pointers are published under a lock of
// qavel-client.cpp, since an order may arrive before they exist. The plugin catalogue is part of
// the order settings, which a reload (SIGHUP) replaces whole. die_orva is atomic; mutex_lastexec
// guards the last-execution file.
extern std::string pathToConfigFile;
extern std::string pathSN;
extern std::string pathLastExecFile;
extern std::string NIVO_SN;
extern std::string cafile;
extern std::string keyfile;
extern int debug;
extern std::atomic<int> die_orva;
extern logFile* fileLog;
extern WSSEndpoint* endpoint;
extern PoolThreadService* monitorPool;
extern PoolThreadService* webPool;
// The opt-in keys as read at start-up, before the link and the pools exist; read-only after. A
// reload takes up new values through the order settings, the pools and the metrics file.
extern AgentSettings agentSettings;
extern std::mutex mutex_lastexec;
extern std::mutex mutex_response;
extern std::condition_variable cond_var;
extern int receiveResponse;

// What an order is checked and run with: the plugin catalogue, plugin name to the path of its
// executable, the rules of what each plugin may run with, the bound of the queues and the bounds
// of a run. Made at start-up and by each reload and never changed after:
// an order takes the settings current when it arrives, so orders already queued or running finish
// as they began, whatever a reload does meanwhile.
struct OrderSettings {
  std::map<std::string, std::string> pluginPathExec;
  // Null: any arguments. Checked on the network thread only, which keeps its hashes up to date.
  std::shared_ptr<PluginRules> rules;
  int maxQueue = 0;  // orders that may wait in the two pools together; 0: no bound
  RunLimits limits;
  // The run counters of each plugin of the catalogue; filled by publishOrderSettings.
  std::map<std::string, std::shared_ptr<PluginCounters>> counters;
};
// The settings in use; from any thread.
std::shared_ptr<const OrderSettings> currentOrderSettings();
// Puts `settings` in use, from any thread.
void publishOrderSettings(OrderSettings settings);

// Ends the process at once (a refused registration). Tests put a recorder here to observe the end
// without ending the test process.
extern void (*agentExit)(int status);

// The agent's whole life; returns only through the process exit.
int qavelClientMain(int argc, char** argv);

// The stop routine: sets die_orva, logs, closes the link with 1000 and stops both pools.
void HandlerQuit(int signal);
// Writes the current time to pathLastExecFile; throws a FileException* when it cannot be opened.
void writeLastExecTime();
// The endpoint's message callback: registration answers and "EXEC" orders.
void on_message(std::weak_ptr<void> hdl, std::string message);
// The pools' after-exec callback: sends the "EXEC-RESPONSE" of a finished service.
void callbackService(std::shared_ptr<service> svc);
