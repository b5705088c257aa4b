// qavel-demo: shows the agent at work. It starts the protocol peer on 127.0.0.1 with a throwaway
// certificate, starts a real qavel-client in a private sandbox whose catalogue holds real
// monitoring plugins and one sample plugin of ours, sends a handful of orders (one for a plugin
// the agent does not know), prints the results as a table, stops the agent with SIGTERM and shows
// how it ended. A run that fails says why on one screen; every run, failed or interrupted, stops
// the agent and removes its sandbox.
#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iomanip>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "tools/harness/agentSandbox.h"
#include "tools/peer/qavelServer.h"

namespace {

const char kUsage[] =
    R"(Usage: qavel-demo --agent FILE --sandbox-run FILE --plugin-dir DIR --sample-plugin FILE
Runs the NIVO agent against the bundled protocol peer and prints what it answers. Needs root
(the agent runs in a private mount namespace so that its fixed paths point into a sandbox).
)";

struct Options {
  std::string agent;
  std::string sandboxRun;
  std::string pluginDir;
  std::string samplePlugin;
};

struct Order {
  int taskId;
  std::string plugin;
  int priority;
  std::string parameter;
};

const std::vector<Order> kOrders = {
    {101, "check_load", 5, "-w 15,10,5 -c 30,25,20"},
    {102, "check_disk", 5, "-w 20% -c 10% -p /"},
    {103, "check_procs", 5, "-w 400 -c 800"},
    {104, "check_users", 5, "-w 20 -c 50"},
    {105, "check_dummy", 1, "1 'demo warning from check_dummy'"},
    {106, "check_uptime", 5, "-w 10 -c 2"},
    {107, "check_foo", 5, "--not-installed"},
};

// In the sandbox: its /tmp/nivo.
const char* const kMetricsFile = "tmp/nivo-agent.prom";

const char* stateName(int code) {
  switch (code) {
    case 0:
      return "OK";
    case 1:
      return "WARNING";
    case 2:
      return "CRITICAL";
    case 3:
      return "UNKNOWN";
    default:
      return "?";
  }
}

// Set from signal context by Ctrl-C, SIGTERM or a closed terminal; the waits below look at it
// often, and the way out runs the sandbox's destructor, which stops the agent and removes it.
volatile sig_atomic_t interrupted = 0;

extern "C" void noteInterrupt(int) { interrupted = 1; }

void catchInterrupts() {
  struct sigaction action {};
  action.sa_handler = noteInterrupt;
  if (sigemptyset(&action.sa_mask) != 0)
    throw std::system_error(errno, std::generic_category(), "sigemptyset");
  for (const int signo : {SIGINT, SIGTERM, SIGHUP}) {
    if (sigaction(signo, &action, nullptr) != 0)
      throw std::system_error(errno, std::generic_category(), "sigaction");
  }
}

struct Interrupted {};

void leaveIfInterrupted() {
  if (interrupted != 0) throw Interrupted{};
}

// How long each wait step lasts: bounds how late an interrupt or the agent's end is noticed.
constexpr std::chrono::milliseconds kStep{100};

// The frames, once there are `count`; fewer once the limit has passed or the agent has ended.
std::vector<qavel::ReceivedFrame> waitForFrames(qavel::QavelServer& server, agentSandbox& agent,
                                                std::size_t count, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    std::vector<qavel::ReceivedFrame> frames = server.waitForFrames(count, kStep);
    if (frames.size() >= count || std::chrono::steady_clock::now() >= deadline) return frames;
    // What it sent just before it ended may still be on its way.
    if (!agent.running()) return server.waitForFrames(count, kStep);
    leaveIfInterrupted();
  }
}

std::optional<int> waitForEnd(agentSandbox& agent, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (const auto status = agent.waitExit(kStep)) return status;
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    leaveIfInterrupted();
  }
}

// The last `count` lines of a text, each indented; "(nothing)" for an empty one.
std::string lastLines(const std::string& text, std::size_t count) {
  std::istringstream in(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  if (lines.empty()) return "  (nothing)\n";
  std::string shown;
  for (std::size_t i = lines.size() > count ? lines.size() - count : 0; i < lines.size(); ++i)
    shown += "  " + lines[i] + "\n";
  return shown;
}

// Why a run failed, on one screen: what went wrong, how the agent ended, what it printed (its
// standard error goes to its standard output once its log is open) and the end of its log.
void explainFailure(const std::string& what, agentSandbox& agent) {
  std::cerr << "qavel-demo: " << what << "\n"
            << "the agent: " << agentSandbox::describeEnd(agent.waitExit(kStep))
            << (agent.running() ? " (the demo stops it)" : "") << "\n"
            << "its standard error and output:\n"
            << lastLines(agent.errors() + agent.output(), 8) << "the last lines of its log:\n"
            << lastLines(agent.log(), 12);
}

struct DemoFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string firstLine(const std::string& text, std::size_t width) {
  std::string line = text.substr(0, text.find('\n'));
  if (line.size() > width) line = line.substr(0, width - 3) + "...";
  return line;
}

Options parseOptions(int argc, char** argv) {
  static const option kLong[] = {{"agent", required_argument, nullptr, 'a'},
                                 {"sandbox-run", required_argument, nullptr, 's'},
                                 {"plugin-dir", required_argument, nullptr, 'p'},
                                 {"sample-plugin", required_argument, nullptr, 'x'},
                                 {"help", no_argument, nullptr, 'h'},
                                 {nullptr, 0, nullptr, 0}};
  Options options;
  int c;
  while ((c = getopt_long(argc, argv, "h", kLong, nullptr)) != -1) {
    switch (c) {
      case 'a':
        options.agent = optarg;
        break;
      case 's':
        options.sandboxRun = optarg;
        break;
      case 'p':
        options.pluginDir = optarg;
        break;
      case 'x':
        options.samplePlugin = optarg;
        break;
      case 'h':
        std::cout << kUsage;
        std::exit(0);
      default:
        std::cerr << kUsage;
        std::exit(2);
    }
  }
  if (options.agent.empty() || options.sandboxRun.empty() || options.pluginDir.empty() ||
      options.samplePlugin.empty()) {
    std::cerr << kUsage;
    std::exit(2);
  }
  return options;
}

// The run proper, once the agent has started; throws DemoFailure when something went wrong.
int showAgentAtWork(qavel::QavelServer& server, agentSandbox& agent) {
  const auto registration = waitForFrames(server, agent, 1, std::chrono::seconds(15));
  if (registration.empty())
    throw DemoFailure(agent.running() ? "the agent did not register within 15 s"
                                      : "the agent ended before it registered");
  const Json::Value& reg = registration.front().json;
  std::cout << "REGISTER from SN " << reg.get("SN", "").asString() << ", IP "
            << reg.get("IP", "").asString() << ", MAC " << reg.get("MAC", "").asString() << "\n";
  // The agent opens its pools 0.6 s after registering; orders sent before wait for them.
  for (const Order& order : kOrders)
    server.sendExec(order.taskId, order.plugin, order.parameter, order.priority);
  std::cout << "sent " << kOrders.size() << " orders\n\n";

  const auto frames = waitForFrames(server, agent, 1 + kOrders.size(), std::chrono::seconds(60));
  std::map<int, Json::Value> answers;
  for (const qavel::ReceivedFrame& frame : frames) {
    if (frame.json.isObject() && frame.json.get("COMMAND", "").asString() == "EXEC-RESPONSE")
      answers[frame.json["TASK"].get("TASKID", -1).asInt()] = frame.json;
  }

  std::cout << std::left << std::setw(6) << "TASK" << std::setw(14) << "PLUGIN" << std::setw(10)
            << "STATE" << std::setw(8) << "RETURN" << std::setw(8) << "STATUS"
            << "OUTPUT\n";
  for (const Order& order : kOrders) {
    std::cout << std::setw(6) << order.taskId << std::setw(14) << order.plugin;
    const auto answer = answers.find(order.taskId);
    if (answer == answers.end()) {
      std::cout << "(no answer)\n";
      continue;
    }
    const Json::Value& task = answer->second["TASK"];
    const int code = task.get("RETURN", 0).asInt();
    std::cout << std::setw(10) << (code >= 0 ? stateName(code) : "-") << std::setw(8) << code
              << std::setw(8) << answer->second.get("STATUS", 0).asInt()
              << firstLine(task.get("OUTPUT", "").asString(), 70) << "\n";
  }
  std::cout << "\nSTATE is the monitoring state of RETURN; STATUS 0 means the plugin ran, 2 that it"
               " is not in the agent's catalogue.\n\n";
  if (answers.size() != kOrders.size())
    throw DemoFailure(std::to_string(kOrders.size() - answers.size()) + " of " +
                      std::to_string(kOrders.size()) + " orders were not answered");

  std::cout << "status file:\n" << agent.readFile("status");
  std::cout << "last result at (epoch seconds): " << agent.readFile("tmp/lastexec") << "\n";

  std::cout << "stopping the agent with SIGTERM...\n";
  const auto stopAt = std::chrono::steady_clock::now();
  agent.signal(SIGTERM);
  const auto status = waitForEnd(agent, std::chrono::seconds(15));
  const auto after = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - stopAt);
  if (!status) throw DemoFailure("the agent did not stop within 15 s of SIGTERM");
  std::cout << "agent ended after " << after.count() << " ms: " << agentSandbox::describeEnd(status)
            << "\n";
  if (const auto close = server.waitForClose(std::chrono::seconds(5)))
    std::cout << "server saw the link closed with code " << close->code << " \"" << close->reason
              << "\"\n";
  std::cout << "last lines of the agent's log:\n" << lastLines(agent.log(), 3);
  std::cout << "\nthe agent's metrics (LOG/metrics_file, Prometheus text format) as it left them,"
               " without the HELP and TYPE lines and the runs counted 0:\n";
  std::istringstream metrics(agent.readFile(kMetricsFile));
  for (std::string line; std::getline(metrics, line);) {
    const bool noRun = line.rfind("nivo_agent_plugin_runs_total", 0) == 0 &&
                       line.compare(line.size() - 2, 2, " 0") == 0;
    if (line.rfind('#', 0) != 0 && !noRun) std::cout << "  " << line << "\n";
  }
  return 0;
}

int runDemo(const Options& options) {
  catchInterrupts();
  qavel::ServerOptions serverOptions;
  serverOptions.registerReply = qavel::RegisterReply::withStatus(0);
  qavel::QavelServer server(serverOptions);
  server.start();
  const std::string url = "wss://127.0.0.1:" + std::to_string(server.port());
  std::cout << "demo server listening on " << url << " (throwaway self-signed certificate)\n";

  agentSandbox agent({options.agent, options.sandboxRun}, url);
  for (const char* name : {"check_load", "check_disk", "check_procs", "check_users", "check_dummy"})
    agent.addPlugin(name, options.pluginDir + "/" + name);
  agent.addPlugin("check_uptime", options.samplePlugin);
  agent.setKey("NIVO", "thread", "2");
  agent.setKey("LOG", "metrics_file", "/tmp/nivo/" + std::string(kMetricsFile).substr(4));
  agent.start({"-f", "/etc/nivo/qavel.conf"});
  std::cout << "agent started (pid " << agent.pid() << ") in sandbox " << agent.dir() << "\n";

  // Whichever way this ends, leaving runDemo stops the agent, removes the sandbox, then the peer.
  try {
    return showAgentAtWork(server, agent);
  } catch (const Interrupted&) {
    std::cerr << "qavel-demo: interrupted; stopping the agent and removing its sandbox\n";
    return 130;
  } catch (const std::exception& e) {
    explainFailure(e.what(), agent);
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  if (geteuid() != 0) {
    std::cerr << "qavel-demo: needs root, to give the agent a private mount namespace\n";
    return 2;
  }
  try {
    return runDemo(options);
  } catch (const std::exception& e) {
    std::cerr << "qavel-demo: " << e.what() << "\n";
    return 1;
  }
}
