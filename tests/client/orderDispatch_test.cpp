// Order dispatch and result reporting against recorders of the link and the pools: what each frame
// from the server leads to (one order queued on the right pool, one answer sent at once, the end of
// the agent, or nothing), and what each finished run is reported as.
#include "src/client/orderDispatch.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

#include "src/service/pluginConfinement.h"
#include "tests/client/dispatchFakes.h"
#include "tests/common/tempDirTest.h"

namespace {

const char kPluginPath[] = "/nonexistent/check_dummy";

class OrderDispatchTest : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    useSettings(false);
  }

  // A catalogue of check_dummy, frames of 200 bytes at most, and plugins confined with no Landlock
  // to do it (every order refused) when `unconfinable`.
  void useSettings(bool unconfinable) {
    OrderSettings settings;
    settings.pluginPathExec = {{"check_dummy", kPluginPath}};
    settings.maxOrderBytes = 200;
    settings.confine = unconfinable;
    fakes_ = &dispatchFakes::install(std::move(settings));
  }

  // The one answer sent, parsed; a failure when there is not exactly one.
  Json::Value answer() const {
    Json::Value parsed;
    if (fakes_->link->sent.size() != 1) {
      ADD_FAILURE() << fakes_->link->sent.size() << " answers sent";
      return parsed;
    }
    Json::Reader().parse(fakes_->link->sent.front(), parsed);
    return parsed;
  }

  static std::string refusals(const char* reason) {
    const std::string text = agentCounters.exposition(AgentGauges());
    const std::string series =
        "nivo_agent_orders_refused_total{reason=\"" + std::string(reason) + "\"} ";
    const std::size_t at = text.find(series);
    return at == std::string::npos
               ? ""
               : text.substr(at + series.size(), text.find('\n', at) - at - series.size());
  }

  dispatchFakes::Fakes* fakes_ = nullptr;
};

std::string order(const std::string& task) { return R"({"COMMAND":"EXEC","TASK":)" + task + "}"; }

TEST_F(OrderDispatchTest, OrderGoesToThePoolOfItsPriority) {
  const struct {
    const char* priority;  // the member as sent, empty for none
    bool web;
  } cases[] = {{"4", true}, {"5", false}, {"", true}, {"-3", true}, {"9", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.priority);
    fakes_->clear();
    const std::string priority = *c.priority ? std::string(R"(,"PRIORITY":)") + c.priority : "";
    on_message(
        {}, order(R"({"TASKID":17,"NAME":"check_dummy","PARAMETER":"-w '80 %'")" + priority + "}"));
    EXPECT_TRUE(fakes_->link->sent.empty());
    const auto& queued = (c.web ? fakes_->web : fakes_->monitor)->queued;
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_TRUE((c.web ? fakes_->monitor : fakes_->web)->queued.empty());
    EXPECT_EQ(queued[0]->GetService_id(), 17u);
    EXPECT_EQ(queued[0]->Getname(), "check_dummy");
    EXPECT_EQ(queued[0]->Getpath(), kPluginPath);
    EXPECT_EQ(queued[0]->getVectorParam(), (std::vector<std::string>{"-w", "80 %"}));
  }
}

TEST_F(OrderDispatchTest, OrdersThatCannotRunAreAnsweredAtOnce) {
  const std::string tooLarge =
      order(R"({"NAME":"check_dummy","PARAMETER":")" + std::string(300, 'x') + R"(","TASKID":21})");
  const struct {
    std::string frame;
    int status;
    int returned;
    int taskId;
    std::string output;
    const char* reason;
    bool unconfinable = false;
  } cases[] = {
      {order(R"({"TASKID":3,"NAME":"check_foo","PRIORITY":5})"), 2, -1, 3,
       "EXEC plugin: error plugin not defined check_foo", "unknown_plugin"},
      {R"({"COMMAND":"EXEC"})", 2, -1, 0, "EXEC plugin: error plugin not defined ",
       "unknown_plugin"},
      {order(R"({"TASKID":"17","NAME":"check_dummy"})"), 255, -2, 0,
       "NIVO  JSON exception Value is not convertible to Int.", "malformed"},
      {order(R"({"TASKID":9,"NAME":["check_dummy"]})"), 255, -2, 9,
       "NIVO  JSON exception Type is not convertible to string", "malformed"},
      {tooLarge, 5, 3, 21,
       "UNKNOWN: the order is " + std::to_string(tooLarge.size()) +
           " bytes long, above the agent's bound of 200 bytes (max_order_bytes); it was not run",
       "too_large"},
      {order(R"({"TASKID":4,"NAME":"check_dummy"})"), 2, -1, 4,
       LandlockSupport::get().notRunText("check_dummy"), "not_confined", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.frame.substr(0, 80));
    useSettings(c.unconfinable);
    const std::string before = refusals(c.reason);
    on_message({}, c.frame);
    const Json::Value sent = answer();
    EXPECT_EQ(sent["COMMAND"], "EXEC-RESPONSE");
    EXPECT_EQ(sent["STATUS"], c.status);
    EXPECT_EQ(sent["TASK"]["RETURN"], c.returned);
    EXPECT_EQ(sent["TASK"]["TASKID"], c.taskId);
    EXPECT_EQ(sent["TASK"]["OUTPUT"], c.output);
    EXPECT_EQ(std::stoi(refusals(c.reason)), std::stoi(before) + 1);
    EXPECT_TRUE(fakes_->web->queued.empty() && fakes_->monitor->queued.empty());
  }
}

TEST_F(OrderDispatchTest, RegistrationAnswerEndsTheAgentUnlessItsStatusIsZero) {
  const struct {
    const char* frame;
    int exits;
  } cases[] = {
      {R"({"COMMAND":"REGISTER-RESPONSE","STATUS":0})", 0},
      {R"({"COMMAND":"REGISTER-RESPONSE","STATUS":"0"})", 0},
      {R"({"COMMAND":"REGISTER-RESPONSE","STATUS":1})", 1},
      {R"({"COMMAND":"REGISTER-RESPONSE","STATUS":""})", 1},
      {R"({"COMMAND":"REGISTER-RESPONSE"})", 1},
      {"not json", 0},
      {R"({"COMMAND":"PING"})", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.frame);
    fakes_->clear();
    on_message({}, c.frame);
    EXPECT_EQ(fakes_->exits, c.exits);
    EXPECT_EQ(fakes_->exitStatus, c.exits > 0 ? 0 : -1);
    EXPECT_TRUE(fakes_->link->sent.empty());
  }
}

TEST_F(OrderDispatchTest, ResultIsReportedWithItsStatusAndStampsTheLastExecutionFile) {
  pathLastExecFile = path("lastexec");
  const struct {
    int returnCode;
    int status;
  } cases[] = {{0, 0}, {3, 0}, {4, 0}, {5, 4}, {255, 255}, {-1, 4}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.returnCode);
    fakes_->clear();
    std::remove(pathLastExecFile.c_str());
    auto finished = std::make_shared<service>();
    finished->SetService_id(42);
    finished->Setname("check_dummy");
    finished->SetReturnCode(c.returnCode);
    callbackService(finished);
    const Json::Value sent = answer();
    EXPECT_EQ(sent["STATUS"], c.status);
    EXPECT_EQ(sent["TASK"]["RETURN"], c.returnCode);
    EXPECT_EQ(sent["TASK"]["TASKID"], 42);
    EXPECT_EQ(sent["TASK"]["OUTPUT"], "");
    EXPECT_FALSE(readFile("lastexec").empty());
  }
}

}  // namespace
