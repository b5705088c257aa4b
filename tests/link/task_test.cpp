#include "src/link/task.h"

#include "src/link/qavel.h"

#include <gtest/gtest.h>

#include <memory>
#include <tuple>
#include <utility>

TEST(Task, ExecutionMessageFollowsStatusTable) {
  const Task fresh(7, "check_disk", "-w 80");
  EXPECT_EQ(fresh.ExecutionMessage(), "Status not defined");
  EXPECT_FALSE(fresh.exec_isSuccess());
  const std::pair<int, const char*> table[] = {
      {0, "Execution success"},
      {1, "Executable not found"},
      {2, "Plugin not defined in the configuration file"},
      {3, "The NIVO is not connected to the WebSocket server"},
      {4, "Bad code return (return >= 0 && return <=0)"},
      {5, "NIVO delay for response is expired."},
      {255, "custom text"},
      {6, "Status not defined"},
      {-1, "Status not defined"},
  };
  Task task(1);
  task.setOutput("custom text");
  for (const auto& [status, text] : table) {
    task.setExecutionStatus(status);
    EXPECT_EQ(task.ExecutionMessage(), text) << status;
    EXPECT_EQ(task.exec_isSuccess(), status == 0) << status;
  }
}

// getTask reads an answer's members; a task without an identifier keeps the defaults.
TEST(Task, MadeFromAnAnswerReadsItsReturnAndOutput) {
  QAVEL message;
  for (const auto& [frame, returned, output] :
       {std::make_tuple(R"({"TASK":{"TASKID":5,"RETURN":2,"OUTPUT":"x"}})", 2, "x"),
        std::make_tuple(R"({"TASK":{"RETURN":2,"OUTPUT":"x"}})", 0, "")}) {
    message.parseMessage(frame);
    const std::unique_ptr<Task> task(message.getTask());
    EXPECT_EQ(task->getReturn(), returned);
    EXPECT_EQ(task->getOutput(), output);
  }
}
