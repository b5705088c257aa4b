// The agent process: its process-wide state, the start-up and run phase (qavelClientMain), the
// stop routine and the last-execution file. The dispatch of orders and the reporting of results
// live in orderDispatch, the order settings and the reload in orderSettings; they meet here.
// The state is plain namespace-scope data so that tests can put fakes in place of the pools and the
// endpoint and drive on_message/callbackService without a network or a child process.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "src/client/agentMetrics.h"
#include "src/client/agentSettings.h"
#include "src/common/logFile.h"
#include "src/link/WSSEndpoint.h"
#include "src/pool/PoolThreadService.h"

// Thread rules: the paths, NIVO_SN, the certificates' names, debug and agentSettings are written by
// the main thread during start-up, before the link and the pools exist, and only read afterwards.
// fileLog and endpoint are created once by the main thread and never freed while another thread
// runs (the process ends with _exit). The pools' pointers are published under a lock (see
// publishPools), since an order may arrive before they exist. die_orva is atomic; mutex_lastexec
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

// The agent's own counters, from the start of the process; from any thread.
extern agentMetrics agentCounters;

// The prefixes of the failure lines, one per kind of failure. The double blanks, and the one
// prefix in capitals, are deliberate: they are the texts the administrators' log filters match.
inline constexpr char kFileFailure[] = "NIVO  File exception ";
inline constexpr char kFileFailureInCallback[] = "NIVO FILE exception ";
inline constexpr char kPoolFailure[] = "NIVO  Pool exception ";
inline constexpr char kLinkFailure[] = "NIVO  QAVEL Link exception ";
inline constexpr char kJsonFailure[] = "NIVO  JSON exception ";

// A line of the parts joined to the agent's log, the text built only when the log writes the line.
template <typename... Parts>
void logLine(char level, const Parts&... parts) {
  writeJoinedTo(fileLog, level, parts...);
}

// Both pools as published; either may be null while start-up has not created it.
struct AgentPools {
  PoolThreadService* monitor = nullptr;
  PoolThreadService* web = nullptr;
};
// Makes the pools visible whole to every thread; wakes the threads waiting in awaitPools.
void publishPools(AgentPools pools);
// The pools as published now; from any thread.
AgentPools publishedPools();
// The pools once start-up has published both, or null ones when the agent stops meanwhile: an
// order that arrives before the pools exist waits for them instead of being lost.
AgentPools awaitPools();

// Writes the metrics file at `path` from now on; "" stops it. Main thread.
void useMetricsFile(const std::string& path);
// The server accepted the registration: the link counts as up, and the metrics say so at once.
void noteRegistered();

// Ends the process at once (a refused registration). Tests put a recorder here to observe the end
// without ending the test process.
extern void (*agentExit)(int status);

// The agent's whole life; returns only through the process exit.
int qavelClientMain(int argc, char** argv);

// The stop routine: sets die_orva, logs, closes the link with 1000 and stops both pools.
void HandlerQuit(int signal);
// Writes the current time to pathLastExecFile; throws a FileException* when it cannot be opened.
void writeLastExecTime();
