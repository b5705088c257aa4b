// One large order's memory: by how much does the real qavel-client's resident memory grow while it
// reads, runs and answers one EXEC frame whose PARAMETER is many megabytes? The baseline is the
// frame itself, the least a reader of it must hold: the ratio printed is the growth over the
// frame's size. Each size is sent to a fresh agent without a bound, then to one with
// max_order_bytes=65536, which answers it unread.
//   usage: bench_order_memory [MB, default 30] [agent, default the one built beside it]
// As root: the agent's sandbox is a private mount namespace.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "tools/harness/agentSandbox.h"
#include "tools/harness/answerBook.h"
#include "tools/peer/qavelServer.h"

namespace {

constexpr const char* kPlugin = "/usr/lib/nagios/plugins/check_dummy";
constexpr auto kPatience = std::chrono::seconds(120);

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "bench_order_memory: %s\n", what.c_str());
  std::exit(1);
}

double mebibytes(long kilobytes) { return static_cast<double>(kilobytes) / 1024; }

std::string mib(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MiB", value);
  return text;
}

class Bench {
 public:
  Bench(int megabytes, agentSandbox::Paths paths) : megabytes_(megabytes), paths_(paths) {}

  void run() {
    qavel::ServerOptions options;
    options.onFrame = [this](const qavel::ReceivedFrame& frame) { answers_.record(frame); };
    qavel::QavelServer server(options);
    server.start();
    server_ = &server;
    std::printf("qavel-client, one EXEC of check_dummy whose PARAMETER holds %d MB\n", megabytes_);
    std::printf("%-28s %-12s %-12s %s\n", "agent", "RSS growth", "x frame", "answer");
    measure("no bound");
    measure("max_order_bytes=65536", "65536");
  }

 private:
  void measure(const std::string& name, const std::string& bound = "") {
    agentSandbox sandbox(paths_, "wss://127.0.0.1:" + std::to_string(server_->port()));
    sandbox.addPlugin("check_dummy", kPlugin);
    if (!bound.empty()) sandbox.setKey("NIVO", "max_order_bytes", bound);
    sandbox.start({"-f", "/etc/nivo/qavel.conf"});
    if (!sandbox.waitForLog("Pool exec is running", kPatience) && !sandbox.running())
      fail("the agent did not start; its log:\n" + sandbox.log());
    server_->sendExec(++task_, "check_dummy", "0 OK", 5);  // every pool and buffer in use once
    if (answers_.to(task_).empty()) fail("the agent did not answer; its log:\n" + sandbox.log());
    std::this_thread::sleep_for(std::chrono::milliseconds(500));

    // From here the high-water mark starts at the resident memory as it is now.
    std::ofstream(("/proc/" + std::to_string(sandbox.pid()) + "/clear_refs").c_str()) << "5";
    const long before = sandbox.procStatus("VmRSS");
    const std::string parameter(static_cast<std::size_t>(megabytes_) * 1000 * 1000, 'x');
    server_->sendExec(++task_, "check_dummy", parameter, 5);
    const std::vector<Json::Value> answered = answers_.to(task_);
    if (answered.empty()) fail("the agent did not answer; its log:\n" + sandbox.log());
    const Json::Value& answer = answered.front();
    const long peak = sandbox.procStatus("VmHWM");
    if (before < 0 || peak < 0) fail("the agent ended; its log:\n" + sandbox.log());

    const double growth = mebibytes(peak - before);
    const double frame = static_cast<double>(parameter.size()) / (1024 * 1024);
    char ratio[32];
    std::snprintf(ratio, sizeof ratio, "%.3f", growth / frame);
    const std::string output = answer["TASK"]["OUTPUT"].asString().substr(0, 60);
    std::printf("%-28s %-12s %-12s STATUS %d RETURN %d %s\n", name.c_str(), mib(growth).c_str(),
                ratio, answer["STATUS"].asInt(), answer["TASK"]["RETURN"].asInt(), output.c_str());
  }

  const int megabytes_;
  const agentSandbox::Paths paths_;
  qavel::QavelServer* server_ = nullptr;
  AnswerBook answers_{kPatience};
  int task_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const int megabytes = argc > 1 ? std::atoi(argv[1]) : 30;
  if (megabytes < 1 || megabytes > 31)
    fail("usage: bench_order_memory [MB, 1 to 31: the link takes frames up to 32 MB] [agent]");
  if (geteuid() != 0) fail("run as root: the agent's sandbox is a private mount namespace");
  Bench(megabytes, {argc > 2 ? argv[2] : NIVO_AGENT_PATH, NIVO_SANDBOX_RUN}).run();
  return 0;
}
