#include "src/client/qavel-client.h"

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "src/client/configCheck.h"
#include "src/client/hostDiscovery.h"
#include "src/client/liveConfig.h"
#include "src/client/metricsFile.h"
#include "src/client/orderDispatch.h"
#include "src/client/orderSettings.h"
#include "src/client/statusFile.h"
#include "src/client/stopSignal.h"
#include "src/common/iniConfig.h"
#include "src/common/uniqueFd.h"
#include "src/common/wholeFile.h"
#include "src/link/linkOpener.h"
#include "src/service/pluginConfinement.h"

std::string pathToConfigFile = "/etc/nivo/qavel.conf";
std::string pathSN = "/etc/nivo/sn";
std::string pathLastExecFile = "/tmp/nivo/lastexec";
std::string NIVO_SN;
std::string cafile;
std::string keyfile;
int debug = 0;
std::atomic<int> die_orva{0};
logFile* fileLog = nullptr;
WSSEndpoint* endpoint = nullptr;
PoolThreadService* monitorPool = nullptr;
PoolThreadService* webPool = nullptr;
AgentSettings agentSettings;
std::mutex mutex_lastexec;
std::mutex mutex_response;
std::condition_variable cond_var;
int receiveResponse = 0;
agentMetrics agentCounters(configCheck::version(), std::chrono::system_clock::now());

namespace {

constexpr auto kRegisterPause = std::chrono::milliseconds(600);
constexpr auto kPingInterval = std::chrono::seconds(40);
const char* const kServerUrlFile = "/tmp/nivo/server_url";
const char* const kStopText = "stop qavel client... SIGTERM: ";

// Left by start-up once a stop request has been served, to end the agent like a normal stop.
struct AgentStopped {};

// The pools are created by the main thread after the link is open, while the network thread may
// already deliver an order and a worker or the network thread may run the stop routine. Their
// pointers are published under this lock so that those threads see them whole.
std::mutex poolsLock;
std::condition_variable poolsPublished;

// True once the server has accepted the registration.
std::atomic<bool> registered{false};
// Made when a metrics file is first asked for; never freed (the process ends with _exit).
std::atomic<metricsFile*> metricsWriter{nullptr};
// Seconds between two writes of the metrics file: a reader sees figures at most this old, plus the
// time of a write.
constexpr auto kMetricsInterval = std::chrono::seconds(10);

// The end of every path out of the agent. The process ends with _exit, after the log (which
// flushes every line) and the standard streams are flushed: a web-pool worker may still be running
// a plugin, and running the static destructors under it, or freeing the log it writes to, would
// crash the process on its way out. The operating system reclaims the rest.
[[noreturn]] void endAgent(int status) {
  // The last figures, with the link down, for whoever reads them after the agent is gone.
  if (metricsFile* const writer = metricsWriter.load()) writer->finish();
  std::cout.flush();
  std::fflush(nullptr);
  _exit(status);
}

// A failure caught at the end of main. Before the log exists the line goes to standard error,
// which is still the terminal or the service manager's journal at that point, so an early failure
// (a missing configuration file, an unwritable log) is never silent.
void reportFailure(const char* prefix, const std::exception& failure) {
  if (fileLog != nullptr) {
    logLine(4, prefix, failure.what());
  } else {
    std::cerr << prefix << failure.what() << std::endl;
  }
}

// Serves a stop request recorded by the signal handler, in normal context.
void serveStopRequest() {
  if (const int signo = stopSignal::takePending()) HandlerQuit(signo);
}

// Start-up checkpoint: a stop requested while starting ends the agent here, before anything that
// the stop routine could no longer reach (pools started after it ran) comes into being.
void leaveIfStopped() {
  serveStopRequest();
  if (die_orva != 0) throw AgentStopped{};
}

// A start-up wait: at most `duration`, cut short when woken, left when a stop comes.
void sleepServingStops(std::chrono::milliseconds duration) {
  stopSignal::sleepFor(duration);
  leaveIfStopped();
}

// The link's keys; a client key or a proxy that cannot be used throws here, before anything is
// sent.
LinkOptions linkOptions(std::chrono::seconds openLimit) {
  LinkOptions options;
  options.verifyServer = agentSettings.verifyServer;
  options.caFile = cafile;
  if (!agentSettings.clientKey.empty()) {
    options.clientCertificate = keyfile;
    options.clientKey = agentSettings.clientKey;
  }
  options.pongTimeout = std::chrono::seconds(agentSettings.pongTimeout);
  if (!agentSettings.proxyUrl.empty() && !agentSettings.proxy)
    throw WSSEndpointException("proxy_url " + masked(agentSettings.proxyUrl) +
                               " cannot be used: the link is not opened around it");
  options.proxy = agentSettings.proxy;
  // With open_timeout alone too: the library's 5 s for a step would cut a slow link short. 0
  // without any of these keys leaves the library its own limits, though lifting them would not
  // show either: REGISTER then goes out 0.6 s after the connect and ends the agent on a link that
  // is not open, whatever the steps still pending.
  options.openingStepLimit = openLimit;
  // A link ended for want of a pong wakes the main loop, whose ping then fails at once.
  options.onLinkEvent = stopSignal::wake;
  return options;
}

void parseCommandLine(int argc, char** argv) {
  if (argc <= 1) return;
  int option;
  while ((option = getopt_long(argc, argv, "f:D", configCheck::kLongOptions, nullptr)) != -1) {
    switch (option) {
      case 'f':
        pathToConfigFile = optarg;
        break;
      case 'D':
        debug = 1;
        break;
      default:
        break;  // long options set configCheck::request; other options are ignored
    }
  }
}

// The opt-in keys, once; a value that cannot be used is said at WARNING level so that it shows
// without -D, and its key stays off.
void readSettings(iniConfig& config) {
  std::vector<std::string> problems;
  agentSettings = readAgentSettings(config, problems);
  for (const std::string& problem : problems) fileLog->write(3, "NIVO configuration: " + problem);
}

AgentGauges::Pool poolGauges(PoolThreadService* pool) {
  AgentGauges::Pool gauges;
  if (pool != nullptr) {
    gauges.waiting = pool->getSizeofExecuteQueue();
    gauges.workers = pool->getSizePool();
  }
  return gauges;
}

std::string renderMetrics(bool final) {
  AgentGauges gauges;
  // `registered` is set on the network thread after the endpoint was made: endpoint is safe to
  // read once it is seen.
  gauges.linkUp =
      !final && registered.load() && endpoint->linkState() == WSSEndpoint::LinkState::Open;
  const AgentPools pools = publishedPools();
  gauges.web = poolGauges(pools.web);
  gauges.monitor = poolGauges(pools.monitor);
  const std::shared_ptr<const OrderSettings> settings = currentOrderSettings();
  gauges.maxQueue = settings->maxQueue;
  if (settings->confineKeyGiven) gauges.confinementAbi = settings->confinementAbi;
  for (const auto& plugin : settings->pluginPathExec) gauges.plugins.push_back(plugin.first);
  return agentCounters.exposition(gauges);
}

void startPools(int monitorSize) {
  auto* monitor = new PoolThreadService(monitorSize, fileLog, callbackService);
  auto* web = new PoolThreadService(1, fileLog, callbackService);
  monitor->setThreadMode(1);
  web->setThreadMode(1);
  monitor->setMaxWorkers(agentSettings.maxWorkers);
  web->setMaxWorkers(agentSettings.maxWorkers);
  monitor->run();
  web->run();
  publishPools({monitor, web});
  if (!monitor->isRunning()) throw PoolThreadServiceException("monitor pool could not start");
  if (!web->isRunning()) throw PoolThreadServiceException("Web pool could not start");
}

// Pings every 40 s until a stop; a reload keeps the link and the rhythm, any other wake-up (a stop,
// a link that ended) pings at once, and a failed ping ends the agent.
void runMainLoop() {
  auto pingAt = std::chrono::steady_clock::now() + kPingInterval;
  while (die_orva == 0) {
    serveReloadRequest();  // one that came during start-up
    const bool woken = stopSignal::sleepFor(std::chrono::duration_cast<std::chrono::milliseconds>(
        pingAt - std::chrono::steady_clock::now()));
    serveStopRequest();
    if (woken && serveReloadRequest() && die_orva == 0 &&
        endpoint->linkState() == WSSEndpoint::LinkState::Open)
      continue;
    endpoint->ping();
    pingAt = std::chrono::steady_clock::now() + kPingInterval;
  }
}

void runAgent() {
  iniConfig config(pathToConfigFile);
  statusFile status(config.getKey("LOG", "info"));

  const std::string logPath = config.getKey("LOG", "log_file");
  if (debug != 0) {
    fileLog = new logFile(static_cast<char>(0), logPath);
    fileLog->write(0, "Debug mode enabled");
  } else {
    fileLog = new logFile(static_cast<char>(2), logPath);
  }
  fileLog->write(2, "NIVO start.... ");

  fileLog->write(0, "LOAD CA certificate");
  cafile = config.getKey("SSL", "cafile");
  fileLog->write(0, "File CA certificate: " + cafile);
  keyfile = config.getKey("SSL", "local_cert");
  fileLog->write(0, "File Key: " + keyfile);
  readSettings(config);

  {
    std::ifstream serialFile(pathSN);
    if (serialFile.fail()) throw FileException("SN File not found");
    std::getline(serialFile, NIVO_SN);
    fileLog->write(2, "NIVO SN: " + NIVO_SN);
  }
  agentCounters.setSerial(NIVO_SN);
  useMetricsFile(agentSettings.metricsFile);

  if (dup2(1, 2) == -1) {
    const std::string text =
        std::string("erreur de redirection de flux stderr (dup2): ") + std::strerror(errno);
    std::cout << text << std::endl;
    std::perror(text.c_str());
    endAgent(2);
  }
  fileLog->write(0, "NIVO configuration open succesful");

  const std::vector<std::string> pluginList = readPluginList(config.getKey("NIVO", "plugin_list"));
  pathLastExecFile = config.getKey("LOG", "lastExec");
  LiveConfig live;
  live.settings = agentSettings;
  live.catalogue = pluginCatalogue(config.getKey("NIVO", "plugin_dir"), pluginList, fileLog);
  // A rules file that cannot be read ends the agent here: it never runs an order unchecked.
  live.rules = readRules(agentSettings.pluginRules, live.catalogue,
                         confinementAbi(agentSettings.confinePlugins));
  readKeyTexts(config, pathSN, live);
  adoptConfiguration(std::move(live));

  status.write("CONNECTING", "NONE");
  fileLog->write(0, "Signal arming...");
  stopSignal::arm(SIGTERM);

  const std::string url = serverUrl(config.getKey("NIVO", "server_url"), kServerUrlFile, fileLog);
  fileLog->write(0, "Server connection " + url + ".....");
  const HostIdentity identity = findIdentity(config.getKey("NIVO", "ip_command"), fileLog);
  fileLog->write(1, "Local information: " + identity.interfaceName + " " + identity.ip + ".....");
  fileLog->write(1, "Connect to server information: " + url);
  leaveIfStopped();

  status.write("REGISTERING", "NONE");
  const OpeningPlan plan =
      OpeningPlan::of(url, agentSettings.fallbackUrls, agentSettings.openTimeout,
                      agentSettings.proxy ? agentSettings.proxy->shown : std::string());
  endpoint = new WSSEndpoint(fileLog);
  endpoint->setOptions(linkOptions(plan.limit));
  endpoint->setCallbackFctOnMessage(on_message);
  linkOpener(*endpoint, fileLog, sleepServingStops).open(plan, kRegisterPause);

  endpoint->registerQAVEL(NIVO_SN, identity.ip, identity.mac);
  fileLog->write(1, "REGISTER SUCCESS");
  status.finish("RUNNING", "OK");
  linkOpener::pauseWhole(kRegisterPause, sleepServingStops);

  fileLog->write(1, "CREATE EXEC POOL");
  // std::stoi throws on an empty or non-numeric value: the agent cannot size its pool and ends.
  startPools(std::stoi(config.getKey("NIVO", "thread")));
  // A stop run by another thread (a reply that failed on the network thread) just before the pools
  // were published found none to stop; they run now, and joining the monitor pool at the end would
  // wait for ever. Such a stop ends the agent here instead.
  leaveIfStopped();
  fileLog->write(1, "Pool exec is running");
  writeLastExecTime();

  runMainLoop();
  monitorPool->join();
  // The monitor pool is joined but not deleted, and the web pool is left running: the network
  // thread may still hand either of them an order until the link has closed, and the process ends
  // right after this.
}

}  // namespace

void (*agentExit)(int status) = endAgent;

int qavelClientMain(int argc, char** argv) {
  parseCommandLine(argc, argv);
  if (configCheck::request != configCheck::kNone) {
    endAgent(configCheck::answer(static_cast<configCheck::Request>(configCheck::request),
                                 pathToConfigFile, {pathSN, kServerUrlFile}, std::cout));
  }
  // First of all: SIGHUP's default action would end the agent. One during start-up is served
  // once the agent runs.
  stopSignal::armReload(SIGHUP);
  die_orva = 0;
  try {
    runAgent();
  } catch (const FileException& e) {
    reportFailure(kFileFailure, e);
  } catch (const PoolThreadServiceException& e) {
    reportFailure(kPoolFailure, e);
  } catch (const WSSEndpointException& e) {
    reportFailure(kLinkFailure, e);
  } catch (const AgentStopped&) {
    // stopped during start-up; the stop routine has logged it
  }
  endAgent(0);
}

void publishPools(AgentPools pools) {
  {
    std::lock_guard<std::mutex> guard(poolsLock);
    monitorPool = pools.monitor;
    webPool = pools.web;
  }
  poolsPublished.notify_all();
}

AgentPools publishedPools() {
  std::lock_guard<std::mutex> guard(poolsLock);
  return {monitorPool, webPool};
}

AgentPools awaitPools() {
  std::unique_lock<std::mutex> guard(poolsLock);
  poolsPublished.wait(
      guard, [] { return (monitorPool != nullptr && webPool != nullptr) || die_orva != 0; });
  return {monitorPool, webPool};
}

void useMetricsFile(const std::string& path) {
  metricsFile* writer = metricsWriter.load();
  if (writer == nullptr) {
    if (path.empty()) return;  // an agent without metrics has no thread for them
    writer = new metricsFile(fileLog, renderMetrics, kMetricsInterval);
    metricsWriter.store(writer);
  }
  writer->setPath(path);
}

void noteRegistered() {
  registered = true;
  if (metricsFile* const writer = metricsWriter.load()) writer->poke();
}

void HandlerQuit(int signal) {
  die_orva = 1;
  logLine(2, kStopText + std::to_string(signal));
  const AgentPools pools = publishedPools();
  poolsPublished.notify_all();  // an order waiting for the pools gives up
  // Any of these may not exist yet when the stop comes during start-up.
  if (endpoint != nullptr) {
    try {
      endpoint->close(1000, kStopText);
    } catch (const WSSEndpointException&) {
      // The link is already gone (the endpoint has logged why); the pools must still stop, and a
      // worker that lands here must not die of it.
    }
  }
  if (pools.monitor != nullptr) pools.monitor->stop();
  if (pools.web != nullptr) pools.web->stop();
  stopSignal::wake();
}

namespace {

// The last-execution file as the agent last left it; under mutex_lastexec.
struct LastExecWrite {
  std::string path;
  std::time_t second = -1;  // -1: none to rely on
  struct stat file {};

  // True when `path` is still, provably, the file written within `now`: the same inode, size and
  // modification time as left. Another program's write in between changes at least one of them.
  bool unchangedSince(const std::string& current, std::time_t now) const {
    struct stat found;
    return second == now && current == path && ::lstat(current.c_str(), &found) == 0 &&
           found.st_dev == file.st_dev && found.st_ino == file.st_ino &&
           found.st_size == file.st_size && found.st_mtim.tv_sec == file.st_mtim.tv_sec &&
           found.st_mtim.tv_nsec == file.st_mtim.tv_nsec;
  }
};
LastExecWrite lastExecWrite;

}  // namespace

void writeLastExecTime() {
  const std::time_t now = std::time(nullptr);
  std::lock_guard<std::mutex> guard(mutex_lastexec);
  // The file holds whole seconds: rewriting the agent's own line within its second would change
  // nothing and cost a disk write per result (ext4 writes a truncated and rewritten file back at
  // close). Anything else is rewritten: a file removed, replaced or written by another program.
  if (lastExecWrite.unchangedSince(pathLastExecFile, now)) return;
  lastExecWrite.second = -1;
  // A symbolic link is not followed: the default directory lies under /tmp, where anyone may have
  // planted one that would make the agent truncate a file of its choosing.
  const UniqueFd file(::open(pathLastExecFile.c_str(),
                             O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!file)
    throw new FileException("Error opening file: " + pathLastExecFile);  // deliberately a pointer
  if (!writeWhole(file.get(), std::to_string(now) + "\n")) {
    const int error = errno;
    logLine(4, "Error writing file: " + pathLastExecFile + ": " + std::strerror(error));
    return;
  }
  if (::fstat(file.get(), &lastExecWrite.file) == 0) {
    lastExecWrite.second = now;
    lastExecWrite.path = pathLastExecFile;
  }
}
