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
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "src/client/configCheck.h"
#include "src/client/hostDiscovery.h"
#include "src/client/liveConfig.h"
#include "src/client/metricsFile.h"
#include "src/client/statusFile.h"
#include "src/client/stopSignal.h"
#include "src/common/convertTo.h"
#include "src/common/iniConfig.h"
#include "src/common/uniqueFd.h"
#include "src/common/wholeFile.h"
#include "src/link/qavel.h"
#include "src/link/task.h"

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

namespace {

constexpr auto kRegisterPause = std::chrono::milliseconds(600);
constexpr std::chrono::seconds kWatchedOpenLimit{10};
constexpr auto kPingInterval = std::chrono::seconds(40);
const char* const kServerUrlFile = "/tmp/nivo/server_url";
const char* const kStopText = "stop qavel client... SIGTERM: ";

// Left by start-up once a stop request has been served, to end the agent like a normal stop.
struct AgentStopped {};

// The pools are created by the main thread after the link is open, while the network thread may
// already deliver an order and a worker or the network thread may run the stop routine. Their
// pointers are published under this lock so that those threads see them whole, and an order that
// arrives before the pools exist waits for them instead of being lost.
std::mutex poolsLock;
std::condition_variable poolsPublished;

// The order settings in use, read and replaced through the atomic shared_ptr functions: an order
// arriving on the network thread while the main thread serves a reload gets the old settings or
// the new, whole.
std::shared_ptr<const OrderSettings> orderSettings = std::make_shared<const OrderSettings>();

// The agent's own counters, from the start of the process.
agentMetrics metrics(configCheck::version(), std::chrono::system_clock::now());
// True once the server has accepted the registration.
std::atomic<bool> registered{false};
// Made when a metrics file is first asked for; never freed (the process ends with _exit).
std::atomic<metricsFile*> metricsWriter{nullptr};
// Seconds between two writes of the metrics file: a reader sees figures at most this old, plus the
// time of a write.
constexpr auto kMetricsInterval = std::chrono::seconds(10);

// The configuration in use, for a reload to compare with; main thread only.
LiveConfig liveConfig;

// Order of priority up to this value go to the web pool, the others to the monitor pool.
constexpr int kWebPriorityMax = 4;

// A line of the parts joined, the text built only when the log writes the line.
template <typename... Parts>
void logLine(char level, const Parts&... parts) {
  writeJoinedTo(fileLog, level, parts...);
}

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

}  // namespace

void (*agentExit)(int status) = endAgent;

namespace {

// The prefixes of the failure lines, one per kind of failure. The double blanks, and the one
// prefix in capitals, are deliberate: they are the texts the administrators' log filters match.
const char* const kFileFailure = "NIVO  File exception ";
const char* const kFileFailureInCallback = "NIVO FILE exception ";
const char* const kPoolFailure = "NIVO  Pool exception ";
const char* const kLinkFailure = "NIVO  QAVEL Link exception ";
const char* const kJsonFailure = "NIVO  JSON exception ";

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

// The whole of `duration`, unless a stop comes: the link's own wake-ups do not cut it short.
void pause(std::chrono::milliseconds duration) {
  const auto end = std::chrono::steady_clock::now() + duration;
  for (auto left = duration; left.count() > 0;
       left = std::chrono::duration_cast<std::chrono::milliseconds>(
           end - std::chrono::steady_clock::now())) {
    stopSignal::sleepFor(left);
    leaveIfStopped();
  }
}

// Until the link has opened or failed, at most until `deadline`; a stop still ends the agent at
// once. The endpoint wakes the main thread when the link opens or fails. True once open.
bool awaitLinkOpen(std::chrono::steady_clock::time_point deadline) {
  while (endpoint->linkState() == WSSEndpoint::LinkState::Opening) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    stopSignal::sleepFor(left);
    leaveIfStopped();
  }
  return endpoint->linkState() == WSSEndpoint::LinkState::Open;
}

// With a proxy or fallback servers each opening is awaited, and each that fails is said, URL and
// why: a fleet behind a proxy or failing over must show where its link went and why not.
bool watchEachOpening() { return agentSettings.proxy || !agentSettings.fallbackUrls.empty(); }

// The time an opening gets, from the connect to the open: open_timeout; without it, 10 s when
// each opening is watched; else 0: REGISTER goes out after the pause, open or not.
std::chrono::seconds openLimit() {
  if (agentSettings.openTimeout > 0) return std::chrono::seconds(agentSettings.openTimeout);
  return watchEachOpening() ? kWatchedOpenLimit : std::chrono::seconds(0);
}

void reportUnopened(const std::string& url, const std::string& why) {
  const std::string through = agentSettings.proxy ? " through " + agentSettings.proxy->shown : "";
  fileLog->write(4, "NIVO link to " + url + through + " not opened: " + why);
}

// Opens the link to server_url, then, while an opening fails, to each fallback server in turn:
// the first that opens carries the whole run. Once none has, REGISTER follows on the link as it
// is and fails there, which ends the agent as any failed opening always has.
void openLink(const std::string& serverUrl) {
  const std::chrono::seconds limit = openLimit();
  std::vector<std::string> urls{serverUrl};
  urls.insert(urls.end(), agentSettings.fallbackUrls.begin(), agentSettings.fallbackUrls.end());
  endpoint->setCallbackFctOnMessage(on_message);
  for (std::size_t tried = 0; tried < urls.size(); ++tried) {
    const std::string& url = urls[tried];
    const auto deadline = std::chrono::steady_clock::now() + limit;
    try {
      endpoint->connect(url);
    } catch (const WSSEndpointException& e) {
      if (!watchEachOpening()) throw;
      reportUnopened(url, e.what());
      continue;
    }
    if (tried == 0) pause(kRegisterPause);
    if (limit.count() == 0 || awaitLinkOpen(deadline)) {
      if (tried > 0) fileLog->write(2, "NIVO link open to " + url);
      return;
    }
    const bool timedOut = endpoint->linkState() == WSSEndpoint::LinkState::Opening;
    if (!watchEachOpening()) {
      if (timedOut)
        fileLog->write(4, "NIVO link not open after " + std::to_string(limit.count()) + " s");
      return;
    }
    const std::string failure = endpoint->openingFailure();
    reportUnopened(url, timedOut          ? "no open within " + std::to_string(limit.count()) + " s"
                        : failure.empty() ? "closed as it opened"
                                          : failure);
  }
}

// The link's keys; a client key or a proxy that cannot be used throws here, before anything is
// sent.
LinkOptions linkOptions() {
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
  options.openingStepLimit = openLimit();
  // A link ended for want of a pong wakes the main loop, whose ping then fails at once.
  options.onLinkEvent = stopSignal::wake;
  return options;
}

void publishPools(PoolThreadService* monitor, PoolThreadService* web) {
  {
    std::lock_guard<std::mutex> guard(poolsLock);
    monitorPool = monitor;
    webPool = web;
  }
  poolsPublished.notify_all();
}

// The pool for an order's priority; waits while start-up has not created the pools yet. Null when
// the agent stops meanwhile.
PoolThreadService* poolFor(int priority) {
  std::unique_lock<std::mutex> guard(poolsLock);
  poolsPublished.wait(
      guard, [] { return (monitorPool != nullptr && webPool != nullptr) || die_orva != 0; });
  return priority <= kWebPriorityMax ? webPool : monitorPool;
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

// Puts in use what orders are checked and run with in `config`; its rules' unusable lines are said.
void takeUpOrderSettings(const LiveConfig& config) {
  OrderSettings orders;
  orders.pluginPathExec = config.catalogue;
  orders.rules = config.rules;
  orders.maxQueue = config.settings.maxQueue;
  orders.limits = {config.settings.pluginTimeout, config.settings.maxOutput,
                   config.settings.unknownOnFailure};
  publishOrderSettings(std::move(orders));
  if (config.rules)
    for (const std::string& problem : config.rules->problems())
      logLine(3, "NIVO plugin rules: ", problem);
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
  PoolThreadService* monitor;
  PoolThreadService* web;
  {
    std::lock_guard<std::mutex> guard(poolsLock);
    monitor = monitorPool;
    web = webPool;
  }
  gauges.web = poolGauges(web);
  gauges.monitor = poolGauges(monitor);
  const std::shared_ptr<const OrderSettings> settings = currentOrderSettings();
  gauges.maxQueue = settings->maxQueue;
  for (const auto& plugin : settings->pluginPathExec) gauges.plugins.push_back(plugin.first);
  return metrics.exposition(gauges);
}

// Writes the metrics file at `path` from now on; "" stops it. The writer's thread is started by
// the first path, so an agent without metrics has no thread for them.
void useMetricsFile(const std::string& path) {
  metricsFile* writer = metricsWriter.load();
  if (writer == nullptr) {
    if (path.empty()) return;
    writer = new metricsFile(fileLog, renderMetrics, kMetricsInterval);
    metricsWriter.store(writer);
  }
  writer->setPath(path);
}

// The reload was not taken up: one line why, and the configuration in use stays as it is.
void refuseReload(const std::string& why) {
  logLine(3, "NIVO reload refused, the configuration in use is kept: ", why);
  metrics.countReload(false);
}

// Reads the configuration again and takes up what a running agent can: the plugin catalogue, the
// bounds of a run, the pools' bound, the metrics file. The log is reopened first, whatever the
// configuration says, so that a rotation never depends on it. The link is left as it is.
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
  {
    std::lock_guard<std::mutex> guard(poolsLock);
    for (PoolThreadService* pool : {monitorPool, webPool})
      if (pool != nullptr) pool->setMaxWorkers(next.settings.maxWorkers);
  }
  useMetricsFile(next.settings.metricsFile);

  for (const std::string& key : changedRestartKeys(liveConfig, next))
    logLine(2, "NIVO reload: ", key, " changed; it takes a restart");
  logLine(2, "NIVO reload: ", describeChanges(liveConfig, next));
  // What needs a restart stays as it is in use, so that each reload says it again until then.
  next.restartKeys = liveConfig.restartKeys;
  liveConfig = std::move(next);
  metrics.countReload(true);
}

// Serves a reload requested by SIGHUP; true when there was one.
bool serveReloadRequest() {
  if (!stopSignal::takeReload()) return false;
  reload();
  return true;
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
  publishPools(monitor, web);
  if (!monitor->isRunning()) throw PoolThreadServiceException("monitor pool could not start");
  if (!web->isRunning()) throw PoolThreadServiceException("Web pool could not start");
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
  metrics.setSerial(NIVO_SN);
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
  liveConfig.settings = agentSettings;
  liveConfig.catalogue = pluginCatalogue(config.getKey("NIVO", "plugin_dir"), pluginList, fileLog);
  // A rules file that cannot be read ends the agent here: it never runs an order unchecked.
  liveConfig.rules = readRules(agentSettings.pluginRules, liveConfig.catalogue);
  readKeyTexts(config, pathSN, liveConfig);
  takeUpOrderSettings(liveConfig);

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
  endpoint = new WSSEndpoint(fileLog);
  endpoint->setOptions(linkOptions());
  openLink(url);

  endpoint->registerQAVEL(NIVO_SN, identity.ip, identity.mac);
  fileLog->write(1, "REGISTER SUCCESS");
  status.finish("RUNNING", "OK");
  pause(kRegisterPause);

  fileLog->write(1, "CREATE EXEC POOL");
  // std::stoi throws on an empty or non-numeric value: the agent cannot size its pool and ends.
  startPools(std::stoi(config.getKey("NIVO", "thread")));
  // A stop run by another thread (a reply that failed on the network thread) just before the pools
  // were published found none to stop; they run now, and joining the monitor pool at the end would
  // wait for ever. Such a stop ends the agent here instead.
  leaveIfStopped();
  fileLog->write(1, "Pool exec is running");
  writeLastExecTime();

  auto pingAt = std::chrono::steady_clock::now() + kPingInterval;
  while (die_orva == 0) {
    serveReloadRequest();  // one that came during start-up
    const bool woken = stopSignal::sleepFor(std::chrono::duration_cast<std::chrono::milliseconds>(
        pingAt - std::chrono::steady_clock::now()));
    serveStopRequest();
    // A reload keeps the link and its keep-alive rhythm: the pause goes on. Any other wake-up (a
    // stop, a link that ended) pings at once, and the failed ping ends the agent.
    if (woken && serveReloadRequest() && die_orva == 0 &&
        endpoint->linkState() == WSSEndpoint::LinkState::Open)
      continue;
    endpoint->ping();
    pingAt = std::chrono::steady_clock::now() + kPingInterval;
  }

  monitorPool->join();
  // The monitor pool is joined but not deleted, and the web pool is left running: the network
  // thread may still hand either of them an order until the link has closed, and the process ends
  // right after this.
}

}  // namespace

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

std::shared_ptr<const OrderSettings> currentOrderSettings() {
  return std::atomic_load(&orderSettings);
}

void publishOrderSettings(OrderSettings settings) {
  settings.counters.clear();
  for (const auto& plugin : settings.pluginPathExec)
    settings.counters[plugin.first] = metrics.counters(plugin.first);
  std::atomic_store(&orderSettings, std::shared_ptr<const OrderSettings>(
                                        std::make_shared<OrderSettings>(std::move(settings))));
}

void HandlerQuit(int signal) {
  die_orva = 1;
  logLine(2, kStopText + std::to_string(signal));
  PoolThreadService* monitor;
  PoolThreadService* web;
  {
    std::lock_guard<std::mutex> guard(poolsLock);
    monitor = monitorPool;
    web = webPool;
  }
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
  if (monitor != nullptr) monitor->stop();
  if (web != nullptr) web->stop();
  stopSignal::wake();
}

namespace {

// The last line written to the last-execution file, and where; under mutex_lastexec.
std::string lastExecWrittenPath;
std::time_t lastExecWritten = -1;

}  // namespace

void writeLastExecTime() {
  const std::time_t now = std::time(nullptr);
  std::lock_guard<std::mutex> guard(mutex_lastexec);
  // The file holds whole seconds, so within the second last written its content would not change;
  // a rewrite per result would cost a disk write per result (ext4 writes a truncated and rewritten
  // file back at close). A file removed meanwhile is written again.
  struct stat written;
  if (now == lastExecWritten && pathLastExecFile == lastExecWrittenPath &&
      ::lstat(pathLastExecFile.c_str(), &written) == 0)
    return;
  // A symbolic link is not followed: the default directory lies under /tmp, where anyone may have
  // planted one that would make the agent truncate a file of its choosing.
  const UniqueFd file(::open(pathLastExecFile.c_str(),
                             O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!file) {
    lastExecWritten = -1;
    throw new FileException("Error opening file: " + pathLastExecFile);  // deliberately a pointer
  }
  if (!writeWhole(file.get(), std::to_string(now) + "\n")) {
    const int error = errno;
    lastExecWritten = -1;
    logLine(4, "Error writing file: " + pathLastExecFile + ": " + std::strerror(error));
    return;
  }
  lastExecWritten = now;
  lastExecWrittenPath = pathLastExecFile;
}

namespace {

// An order answered at once, without a plugin run: it names no known plugin, or cannot be read.
void answerUnrun(QAVEL& qavel, int identifier, int executionStatus, int returnCode,
                 std::string output) {
  Task task(identifier);
  task.setExecutionStatus(executionStatus);
  task.setReturn(returnCode);
  task.setOutput(std::move(output));
  const std::string text = qavel.buildJsonTaskState(task);
  logLine(0, text);
  endpoint->send(text);
}

// A failure in a callback that the agent cannot go on after: logged, then the stop routine.
void stopOnFailure(const char* prefix, const std::exception& failure) {
  logLine(4, prefix, failure.what());
  HandlerQuit(1);
}

// How much of a refused order's parameter text the audit line shows.
constexpr std::size_t kAuditedParameterBytes = 256;

// Whether the queue bound was said to be reached since the queues were last found empty; the
// network thread only.
bool queueFullSaid = false;

// Orders waiting in the two pools; none before the pools exist.
int waitingOrders() {
  PoolThreadService* pools[2];
  {
    std::lock_guard<std::mutex> guard(poolsLock);
    pools[0] = monitorPool;
    pools[1] = webPool;
  }
  int waiting = 0;
  for (PoolThreadService* pool : pools)
    if (pool != nullptr) waiting += pool->getSizeofExecuteQueue();
  return waiting;
}

// True when an order may wait in the queues; else it is answered at once, never queued. The
// network thread is the only one to queue, so the queues cannot fill between this look and the
// order's push.
bool roomInQueues(int bound, QAVEL& qavel, int identifier) {
  const int waiting = waitingOrders();
  if (waiting == 0) queueFullSaid = false;
  if (waiting < bound) return true;
  // Once, until the queues have emptied: a flood would otherwise write a line per order.
  if (!queueFullSaid)
    logLine(2, "NIVO max_queue reached: ", std::to_string(waiting),
            " orders waiting; further orders are answered UNKNOWN at once, unrun");
  queueFullSaid = true;
  metrics.countRefusal(Refusal::QueueFull);
  answerUnrun(qavel, identifier, 5, 3,
              "UNKNOWN: the agent is busy with " + std::to_string(waiting) +
                  " orders waiting; this one was not run");
  return false;
}

// An order's service, with the counters its run is counted under.
class countedService : public service {
 public:
  explicit countedService(std::shared_ptr<PluginCounters> counters)
      : counters_(std::move(counters)) {}
  PluginCounters& counters() const { return *counters_; }

 private:
  const std::shared_ptr<PluginCounters> counters_;
};

void dispatchOrder(QAVEL& qavel, int& identifier) {
  const Json::Value order = qavel.getTaskJSONRequest();
  identifier = order["TASKID"].asInt();
  const std::string name = order["NAME"].asString();
  const std::string parameter = order["PARAMETER"].asString();
  const int priority = order["PRIORITY"].asInt();
  logLine(0, "EXEC plugin ", name, " ", parameter);

  const std::shared_ptr<const OrderSettings> settings = currentOrderSettings();
  const auto plugin = settings->pluginPathExec.find(name);
  if (plugin == settings->pluginPathExec.end()) {
    logLine(2, "EXEC plugin: error plugin not defined");
    metrics.countRefusal(Refusal::UnknownPlugin);
    answerUnrun(qavel, identifier, 2, -1, "EXEC plugin: error plugin not defined " + name);
    return;
  }
  auto svc = std::make_shared<countedService>(settings->counters.at(name));
  svc->SetService_id(static_cast<unsigned long long>(static_cast<long long>(identifier)));
  svc->Setname(name);
  svc->Setpath(plugin->second);
  svc->Setparameter(parameter);
  svc->SetRunLimits(settings->limits);
  if (settings->rules) {
    const PluginRules::Verdict verdict = settings->rules->check(name, svc->getVectorParam());
    if (!verdict.allowed) {
      // At WARNING, with what was asked for: a refusal is worth an audit, whoever sent it.
      logLine(3, "EXEC plugin: ", name, " refused, ", verdict.refusal, "; parameter: '",
              printableForLog(parameter, kAuditedParameterBytes), "'");
      metrics.countRefusal(Refusal::NotAllowed);
      answerUnrun(qavel, identifier, 2, -1,
                  "EXEC plugin: " + name + " not allowed: " + verdict.refusal);
      return;
    }
    svc->SetExecutable(verdict.executable);
  }
  if (settings->maxQueue > 0 && !roomInQueues(settings->maxQueue, qavel, identifier)) return;
  logLine(0, "SEND EXEC to pool: ", name);
  if (PoolThreadService* pool = poolFor(priority)) pool->executeService(std::move(svc));
}

}  // namespace

void on_message(std::weak_ptr<void> /*hdl*/, std::string message) {
  try {
    logLine(0, "Receive message ", message);
    QAVEL qavel;
    qavel.parseMessage(message);
    const std::string command = qavel.getQAVELCommand();
    logLine(0, "COMMAND ", command);
    if (command == "REGISTER-RESPONSE") {
      if (qavel.getQAVELParameter("STATUS") != "0") {
        logLine(2, "BAD register status receive by server (quit): ");
        agentExit(0);
      } else {
        registered = true;
        if (metricsFile* const writer = metricsWriter.load()) writer->poke();
      }
    } else if (command == "EXEC") {
      metrics.countOrder();
      int identifier = 0;
      try {
        dispatchOrder(qavel, identifier);
      } catch (const Json::LogicError& e) {
        const std::string text = kJsonFailure + std::string(e.what());
        logLine(4, text);
        metrics.countRefusal(Refusal::Malformed);
        answerUnrun(qavel, identifier, 255, -2, text);
      }
    }
  } catch (const Json::Exception& e) {
    logLine(4, kJsonFailure, e.what());
  } catch (const WSSEndpointException& e) {
    stopOnFailure(kLinkFailure, e);
  }
}

void callbackService(std::shared_ptr<service> svc) {
  if (const auto* counted = dynamic_cast<const countedService*>(svc.get()))
    counted->counters().record(resultOf(*svc), svc->GetRunDuration());
  try {
    QAVEL qavel;
    const std::string name = svc->Getname();
    std::string output = svc->GetStdout();
    logLine(0, "Service END ", name, " OUTPUT ", output);
    Task task(static_cast<int>(svc->GetService_id()));
    const int rc = svc->GetReturnCode();
    if (rc == 255) {
      task.setExecutionStatus(255);
    } else if (rc > 4 || rc < 0) {
      task.setExecutionStatus(4);
    } else {
      task.setExecutionStatus(0);
    }
    task.setReturn(rc);
    task.setOutput(std::move(output));
    logLine(0, name, " send status service");
    std::string text = qavel.buildJsonTaskState(task);
    logLine(0, text);
    endpoint->send(std::move(text));
    metrics.noteResult(std::chrono::system_clock::now());
    writeLastExecTime();
  } catch (const Json::LogicError& e) {
    stopOnFailure(kJsonFailure, e);
  } catch (const WSSEndpointException& e) {
    stopOnFailure(kLinkFailure, e);
  } catch (const FileException& e) {
    stopOnFailure(kFileFailureInCallback, e);
  }
}
