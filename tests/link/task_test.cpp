#include "src/link/task.h"

#include "src/link/qavel.h"

#include <gtest/gtest.h>

#include <memory>
#include <tuple>
#include <utility>

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
