// LOG/metrics_file, end to end: after known orders the file tells what the agent did, and the last
// write on the way out (SIGTERM, a plugin still running) says the link is down. (The install test
// has the real node exporter serve it, under systemd.)
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <optional>
#include <sstream>

#include "tests/e2e/agentTest.h"

namespace {

using agentTest::AgentTest;
using agentTest::kExitedNormally;
using agentTest::kWait;

// Every sample of a text in the exposition format: "name{labels}" to its value.
std::map<std::string, std::string> samples(const std::string& text) {
  std::map<std::string, std::string> found;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t blank = line.rfind(' ');
    if (!line.empty() && line[0] != '#' && blank != std::string::npos)
      found[line.substr(0, blank)] = line.substr(blank + 1);
  }
  return found;
}

TEST_F(AgentTest, MetricsFileTellsWhatTheAgentDidAndSigtermEndsItAtOnce) {
  sandbox_->setKey("LOG", "metrics_file", "/tmp/nivo/nivo-agent.prom");
  sandbox_->setKey("NIVO", "plugin_timeout", "1");
  sandbox_->setKey("NIVO", "max_queue", "50");
  addPlugin("fault_forever", "fault_forever.sh");
  addPlugin("plugin_broken", "plugin_exit.sh");
  // A directory in the file's place at start: the agent runs on and writes the file once it can.
  std::filesystem::create_directory(sandbox_->path("tmp/nivo-agent.prom"));
  ASSERT_TRUE(launchRunning());
  std::filesystem::remove(sandbox_->path("tmp/nivo-agent.prom"));
  // Catalogued, and then no longer executable: its start fails.
  ASSERT_EQ(chmod(sandbox_->path("plugins/plugin_broken").c_str(), 0644), 0);
  const auto metrics = [&] { return samples(sandbox_->readFile("tmp/nivo-agent.prom")); };

  for (int code = 0; code <= 4; ++code)  // RETURN 4 is no state: it counts as unknown
    server_->sendExec(1 + code, "plugin_exit", "exit " + std::to_string(code), 5);
  server_->sendExec(6, "fault_forever", sandbox_->path("forever"), 5);
  server_->sendExec(7, "check_foo", "", 5);
  server_->sendExec(11, "plugin_broken", "", 5);
  ASSERT_EQ(answers_.wait(8).size(), 8u);
  ASSERT_EQ(chmod(sandbox_->path("plugins/plugin_broken").c_str(), 0755), 0);  // kept by a reload
  // The web pool's one worker held for good (the time limit taken off), two orders wait behind it.
  sandbox_->removeKey("NIVO", "plugin_timeout");
  sandbox_->writeConfig();
  sandbox_->signal(SIGHUP);
  ASSERT_TRUE(sandbox_->waitForLog("NIVO reload: NIVO/plugin_timeout: '1' -> ''", kWait));
  const std::string started = sandbox_->path("started");
  server_->sendExec(8, "fault_forever", started, 1);
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(started); }));
  server_->sendExec(9, "plugin_exit", "queued", 1);
  server_->sendExec(10, "plugin_exit", "queued", 1);

  std::map<std::string, std::string> now;
  // The file is at most 15 s old, whatever the test's waits.
  ASSERT_TRUE(eventually(
      [&] {
        now = metrics();
        return now["nivo_agent_queue_length{pool=\"web\"}"] == "2";
      },
      std::chrono::seconds(15) + kWait))
      << sandbox_->readFile("tmp/nivo-agent.prom");
  const std::string exit = "nivo_agent_plugin_runs_total{plugin=\"plugin_exit\",result=";
  const std::map<std::string, std::string> expected = {
      {"nivo_agent_info{version=\"1.0\",serial=\"SN-TEST-0001\"}", "1"},
      {"nivo_agent_link_up", "1"},
      {"nivo_agent_orders_total", "11"},
      {"nivo_agent_orders_refused_total{reason=\"unknown_plugin\"}", "1"},
      {exit + "\"ok\"}", "1"},
      {exit + "\"warning\"}", "1"},
      {exit + "\"critical\"}", "1"},
      {exit + "\"unknown\"}", "2"},
      {exit + "\"failed\"}", "0"},
      {"nivo_agent_plugin_runs_total{plugin=\"fault_forever\",result=\"timeout\"}", "1"},
      {"nivo_agent_plugin_runs_total{plugin=\"plugin_broken\",result=\"failed\"}", "1"},
      {"nivo_agent_plugin_duration_seconds_count{plugin=\"plugin_exit\"}", "5"},
      {"nivo_agent_queue_length{pool=\"monitor\"}", "0"},
      {"nivo_agent_max_queue", "50"},
      {"nivo_agent_workers{pool=\"web\"}", "1"},
      {"nivo_agent_plugins", "3"},
      {"nivo_agent_reloads_total{result=\"applied\"}", "1"},
  };
  for (const auto& [sample, value] : expected) EXPECT_EQ(now[sample], value) << sample;
  EXPECT_TRUE(logHas("#NOTICE#NIVO metrics: /tmp/nivo/nivo-agent.prom written again\n"));
  EXPECT_GE(std::stod(now["nivo_agent_plugin_duration_seconds_sum{plugin=\"fault_forever\"}"]),
            1.0);

  // SIGTERM ends the agent at once, though a plugin holds a worker for good, and closes the link
  // normally.
  sandbox_->signal(SIGTERM);
  EXPECT_EQ(ending(kWait), kExitedNormally);
  EXPECT_EQ(metrics()["nivo_agent_link_up"], "0");
  const std::optional<qavel::CloseInfo> closed = server_->waitForClose(kWait);
  ASSERT_TRUE(closed);
  EXPECT_EQ(closed->code, 1000);
  EXPECT_EQ(closed->reason, "stop qavel client... SIGTERM: ");
}

}  // namespace
