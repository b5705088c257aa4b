#include "link/task.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

TEST(Task, FreshTaskHasNoStatusAndDefaultPriority) {
  const Task bare(7);
  EXPECT_FALSE(bare.exec_isSuccess());
  EXPECT_EQ(bare.ExecutionMessage(), "Status not defined");
  EXPECT_EQ(bare.getPriority(), 5);
  EXPECT_EQ(bare.getOutput(), "");
  EXPECT_EQ(Task(7, "check_disk", "-w 80").getPriority(), 5);
  EXPECT_EQ(Task(7, "check_disk", "-w 80", 2).getPriority(), 2);
}

TEST(Task, ExecutionMessageFollowsStatusTable) {
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

// The command word is not copied; it has no getter, so this proves the rest travels.
TEST(Task, CopyKeepsEverythingButTheCommand) {
  auto connection = std::make_shared<int>(0);
  Task task(17, "check_disk", "-w 80", 3);
  task.setCommand("EXEC");
  task.setOutput("DISK OK\n");
  task.setReturn(2);
  task.setExecutionStatus(4);
  task.setSendExecTime(timeval{12, 34});
  task.setConnectionHDL(connection);

  const Task copy(task);
  EXPECT_EQ(copy.getTaskId(), 17);
  EXPECT_EQ(copy.getName(), "check_disk");
  EXPECT_EQ(copy.getParameter(), "-w 80");
  EXPECT_EQ(copy.getPriority(), 3);
  EXPECT_EQ(copy.getOutput(), "DISK OK\n");
  EXPECT_EQ(copy.getReturn(), 2);
  EXPECT_EQ(copy.getExecutionStatus(), 4);
  EXPECT_EQ(copy.getSendExecTime().tv_sec, 12);
  EXPECT_EQ(copy.getSendExecTime().tv_usec, 34);
  EXPECT_EQ(copy.getConnectionHDL().lock(), connection);
}
