#include "src/link/qavel.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

TEST(QAVEL, TaskStateIsExecResponseInKeyOrder) {
  Task task(17);
  task.setExecutionStatus(255);
  task.setReturn(-2);
  task.setOutput("OK - disk 41% used\n");
  const std::string text = QAVEL().buildJsonTaskState(task);
  Json::Value expected;
  ASSERT_TRUE(Json::Reader().parse(
      R"({"COMMAND":"EXEC-RESPONSE","STATUS":255,
          "TASK":{"OUTPUT":"OK - disk 41% used\n","RETURN":-2,"TASKID":17}})",
      expected));
  Json::Value got;
  ASSERT_TRUE(Json::Reader().parse(text, got)) << text;
  EXPECT_EQ(got, expected);
  EXPECT_LT(text.find("\"COMMAND\""), text.find("\"STATUS\""));
  EXPECT_LT(text.find("\"STATUS\""), text.find("\"TASK\""));
  EXPECT_LT(text.find("\"OUTPUT\""), text.find("\"RETURN\""));
  EXPECT_LT(text.find("\"RETURN\""), text.find("\"TASKID\""));
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

TEST(QAVEL, GetTaskReadsResponseMembersWithDefaults) {
  struct Case {
    const char* text;
    int id, ret;
    const char* output;
  };
  const Case cases[] = {
      {R"({"TASK":{"TASKID":5,"RETURN":2,"OUTPUT":"DISK OK"}})", 5, 2, "DISK OK"},
      {R"({"TASK":{"TASKID":5}})", 5, -1, "QAVEL NO OUTPUT"},
      {R"({"TASK":{"RETURN":2,"OUTPUT":"DISK OK"}})", -1, 0, ""},  // nothing read without an id
  };
  for (const Case& c : cases) {
    QAVEL message;
    message.parseMessage(c.text);
    const std::unique_ptr<Task> task(message.getTask());
    EXPECT_EQ(task->getTaskId(), c.id) << c.text;
    EXPECT_EQ(task->getReturn(), c.ret) << c.text;
    EXPECT_EQ(task->getOutput(), c.output) << c.text;
  }
}
