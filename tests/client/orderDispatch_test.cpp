// Order dispatch and result reporting against recorders of the link and the pools: what each frame
// from the server leads to (one order queued on the right pool, one answer sent at once, the end of
// the agent, or nothing), and what each finished run is reported as.
#include "src/client/orderDispatch.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdio>
#include <string>

#include "src/service/pluginConfinement.h"
#include "tests/client/dispatchFakes.h"
#include "tests/common/tempDirTest.h"

namespace {

const char kPluginPath[] = "/nonexistent/check_dummy";

// check_dummy in the catalogue, frames of 200 bytes at most, and plugins confined without the
// Landlock to do it (every order refused) when `unconfinable`.
dispatchFakes::Fakes& useSettings(bool unconfinable = false) {
  OrderSettings settings;
  settings.pluginPathExec = {{"check_dummy", kPluginPath}};
  settings.maxOrderBytes = 200;
  settings.confine = unconfinable;
  return dispatchFakes::install(std::move(settings));
}

// The one answer sent, parsed; a failure when there is not exactly one.
Json::Value answer(const dispatchFakes::Fakes& fakes) {
  Json::Value parsed;
  EXPECT_EQ(fakes.link->sent.size(), 1u);
  if (!fakes.link->sent.empty()) Json::Reader().parse(fakes.link->sent.back(), parsed);
  return parsed;
}

long refusals(const std::string& reason) {
  const std::string text = agentCounters.exposition(AgentGauges());
  const std::string series = "nivo_agent_orders_refused_total{reason=\"" + reason + "\"} ";
  return std::stol(text.substr(text.find(series) + series.size()));
}

std::string order(const std::string& task) { return R"({"COMMAND":"EXEC","TASK":)" + task + "}"; }

TEST(OrderDispatch, OrdersThatCannotRunAreAnsweredAtOnce) {
  // Members of every kind before TASKID, which the skimmer passes over.
  const std::string tooLarge =
      order(R"({"NAME":"check_dummy","PRIORITY":15,"X":{"a":[1]},"Y":[true],)"
            R"("PARAMETER":")" +
            std::string(300, 'x') + R"(","TASKID":21})");
  const struct {
    std::string frame;
    int status, returned, taskId;
    std::string output, reason;
    bool unconfinable;
  } cases[] = {
      {order(R"({"TASKID":3,"NAME":"check_foo","PRIORITY":5})"), 2, -1, 3,
       "EXEC plugin: error plugin not defined check_foo", "unknown_plugin", false},
      {R"({"COMMAND":"EXEC"})", 2, -1, 0, "EXEC plugin: error plugin not defined ",
       "unknown_plugin", false},
      {order(R"({"TASKID":"17","NAME":"check_dummy"})"), 255, -2, 0,
       "NIVO  JSON exception Value is not convertible to Int.", "malformed", false},
      {order(R"({"TASKID":9,"NAME":["check_dummy"]})"), 255, -2, 9,
       "NIVO  JSON exception Type is not convertible to string", "malformed", false},
      {tooLarge, 5, 3, 21,
       "UNKNOWN: the order is " + std::to_string(tooLarge.size()) +
           " bytes long, above the agent's bound of 200 bytes (max_order_bytes); it was not run",
       "too_large", false},
      {R"({"COMMAND":"EXEC","PARAMETER":")" + std::string(300, 'x') + R"("})", 5, 3, 0,
       "UNKNOWN: the order is 333 bytes long, above the agent's bound of 200 bytes "
       "(max_order_bytes); it was not run",
       "too_large", false},
      {order(R"({"TASKID":4,"NAME":"check_dummy"})"), 2, -1, 4,
       LandlockSupport::get().notRunText("check_dummy"), "not_confined", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.frame.substr(0, 80));
    dispatchFakes::Fakes& fakes = useSettings(c.unconfinable);
    const long before = refusals(c.reason);
    on_message({}, c.frame);
    const Json::Value sent = answer(fakes);
    EXPECT_EQ(sent["COMMAND"], "EXEC-RESPONSE");
    EXPECT_EQ(sent["STATUS"], c.status);
    EXPECT_EQ(sent["TASK"]["RETURN"], c.returned);
    EXPECT_EQ(sent["TASK"]["TASKID"], c.taskId);
    EXPECT_EQ(sent["TASK"]["OUTPUT"], c.output);
    EXPECT_EQ(refusals(c.reason), before + 1);
    EXPECT_TRUE(fakes.web->queued.empty() && fakes.monitor->queued.empty());
  }
}

using ResultReport = TempDirTest;

TEST_F(ResultReport, ResultIsSentWithItsStatusAndStampsTheLastExecutionFile) {
  pathLastExecFile = path("lastexec");
  const struct {
    int returnCode, status;
  } cases[] = {{0, 0}, {3, 0}, {4, 0}, {5, 4}, {255, 255}, {-1, 4}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.returnCode);
    dispatchFakes::Fakes& fakes = useSettings();
    // Another program's line, most likely in the second of the last stamp: rewritten all the same.
    writeFile("lastexec", "1\n");
    auto finished = std::make_shared<service>();
    finished->SetService_id(42);
    finished->SetReturnCode(c.returnCode);
    callbackService(finished);
    const Json::Value sent = answer(fakes);
    EXPECT_EQ(sent["STATUS"], c.status);
    EXPECT_EQ(sent["TASK"]["RETURN"], c.returnCode);
    EXPECT_EQ(sent["TASK"]["TASKID"], 42);
    EXPECT_EQ(sent["TASK"]["OUTPUT"], "");
    EXPECT_NE(readFile("lastexec"), "1\n");
  }
}

}  // namespace
