#include "link/qavel.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_client.hpp>

namespace {

Json::Value parseJson(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
  return value;
}

std::string taskState(int status, int ret, const std::string& output) {
  Task task(17);
  task.setExecutionStatus(status);
  task.setReturn(ret);
  task.setOutput(output);
  return QAVEL().buildJsonTaskState(task);
}

std::unique_ptr<Task> taskOf(const char* text) {
  QAVEL message;
  message.parseMessage(text);
  return std::unique_ptr<Task>(message.getTask());
}

}  // namespace

TEST(QAVEL, TaskStateIsExecResponseInKeyOrder) {
  const std::string text = taskState(255, -2, "OK - disk 41% used\n");
  const Json::Value doc = parseJson(text);
  EXPECT_EQ(doc["COMMAND"], "EXEC-RESPONSE");
  EXPECT_EQ(doc["STATUS"], 255);
  EXPECT_EQ(doc["TASK"]["TASKID"], 17);
  EXPECT_EQ(doc["TASK"]["RETURN"], -2);
  EXPECT_EQ(doc["TASK"]["OUTPUT"], "OK - disk 41% used\n");
  EXPECT_EQ(doc.size(), 3u);
  EXPECT_EQ(doc["TASK"].size(), 3u);
  EXPECT_LT(text.find("\"COMMAND\""), text.find("\"STATUS\""));
  EXPECT_LT(text.find("\"STATUS\""), text.find("\"TASK\""));
  EXPECT_LT(text.find("\"OUTPUT\""), text.find("\"RETURN\""));
  EXPECT_LT(text.find("\"RETURN\""), text.find("\"TASKID\""));
}

TEST(QAVEL, TaskStateOutputRoundTrips) {
  EXPECT_NE(taskState(0, 0, "").find("\"OUTPUT\" : \"\""), std::string::npos);
  const std::string odd = "température ✓\nline \"two\"\t\\";
  EXPECT_EQ(parseJson(taskState(0, 0, odd))["TASK"]["OUTPUT"], odd);
}

TEST(QAVEL, ParametersReadAsText) {
  QAVEL message;
  for (const char* text : {R"({"COMMAND":"REGISTER-RESPONSE","STATUS":0})",
                           R"({"COMMAND":"REGISTER-RESPONSE","STATUS":"0"})"}) {
    message.parseMessage(text);
    EXPECT_EQ(message.getQAVELCommand(), "REGISTER-RESPONSE");
    EXPECT_EQ(message.getQAVELParameter("STATUS"), "0") << text;
  }
  EXPECT_EQ(message.getQAVELParameter("MISSING"), "");
}

TEST(QAVEL, CommandIsEmptyWhenAbsentOrUnparsable) {
  QAVEL message;
  for (const std::string text : {R"({"STATUS":0})", "not json", "", "{\"COMMAND\":"}) {
    message.parseMessage(text);
    EXPECT_EQ(message.getQAVELCommand(), "") << text;
  }
  // Too deep for the reader: the exception leaves no trace of the previous document.
  message.parseMessage(R"({"COMMAND":"EXEC"})");
  EXPECT_THROW(message.parseMessage(std::string(2000, '[')), Json::Exception);
  EXPECT_EQ(message.getQAVELCommand(), "");
}

TEST(QAVEL, TaskRequestIsCopyOfTaskMember) {
  QAVEL message;
  message.parseMessage(R"({"COMMAND":"EXEC","TASK":{"TASKID":17,"NAME":"check_disk"}})");
  EXPECT_EQ(message.getTaskJSONRequest()["NAME"], "check_disk");
  message.parseMessage(R"({"COMMAND":"EXEC"})");
  EXPECT_TRUE(message.getTaskJSONRequest().isNull());
  message.parseMessage(R"("just a string")");
  EXPECT_THROW(message.getTaskJSONRequest(), Json::LogicError);
}

TEST(QAVEL, GetTaskReadsResponseMembersWithDefaults) {
  auto full = taskOf(R"({"TASK":{"TASKID":5,"RETURN":2,"OUTPUT":"DISK OK"}})");
  EXPECT_EQ(full->getTaskId(), 5);
  EXPECT_EQ(full->getReturn(), 2);
  EXPECT_EQ(full->getOutput(), "DISK OK");

  auto bare = taskOf(R"({"TASK":{"TASKID":5}})");
  EXPECT_EQ(bare->getReturn(), -1);
  EXPECT_EQ(bare->getOutput(), "QAVEL NO OUTPUT");

  auto anonymous = taskOf(R"({"TASK":{"RETURN":2,"OUTPUT":"DISK OK"}})");
  EXPECT_EQ(anonymous->getTaskId(), -1);
  EXPECT_EQ(anonymous->getOutput(), "");
  EXPECT_EQ(anonymous->getPriority(), 5);
}

TEST(QAVEL, WrongMemberTypesThrowLogicError) {
  EXPECT_THROW(taskOf(R"({"TASK":{"TASKID":"17"}})"), Json::LogicError);
  QAVEL message;
  message.parseMessage(R"({"COMMAND":{"NAME":"x"}})");
  EXPECT_THROW(message.getQAVELCommand(), Json::LogicError);
}

TEST(QAVEL, TraceWritesOnlyInDebugMode) {
  QAVEL message;
  testing::internal::CaptureStdout();
  message.Trace("silent");
  message.DebugMode(true);
  message.Trace("loud");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[QAVEL]loud\n");
}

// A handle to no connection fails before any I/O, so no network is needed.
TEST(QAVEL, SendWithoutConnectionThrowsBadConnection) {
  QAVEL::tlsClient client;
  client.clear_access_channels(websocketpp::log::alevel::all);
  client.clear_error_channels(websocketpp::log::elevel::all);
  client.init_asio();
  const auto expectBadConnection = [](const std::function<void()>& send) {
    try {
      send();
      ADD_FAILURE() << "no exception";
    } catch (const websocketpp::exception& e) {
      EXPECT_EQ(e.code(), websocketpp::error::make_error_code(websocketpp::error::bad_connection));
      EXPECT_STREQ(e.what(), "Bad Connection");
    }
  };
  Task task(17, "check_disk", "-w 80");
  expectBadConnection([&] { QAVEL().sendRegister(client, {}, 1); });
  expectBadConnection([&] { QAVEL().sendTask(client, {}, task); });
}
