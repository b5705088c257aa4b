#include "src/link/task.h"

#include <utility>

Task::Task(int id) : taskId_(id) {}

Task::Task(int id, std::string name, std::string parameter)
    : taskId_(id), name_(std::move(name)), parameter_(std::move(parameter)) {}

Task::Task(int id, std::string name, std::string parameter, int priority)
    : taskId_(id), name_(std::move(name)), parameter_(std::move(parameter)), priority_(priority) {}

// The command word is per exchange, so a copy starts without one.
Task::Task(const Task& other)
    : taskId_(other.taskId_),
      name_(other.name_),
      parameter_(other.parameter_),
      output_(other.output_),
      return_(other.return_),
      executionStatus_(other.executionStatus_),
      priority_(other.priority_),
      sendExecTime_(other.sendExecTime_),
      connectionHDL_(other.connectionHDL_) {}

Task::~Task() {
  if (!connectionHDL_.expired()) connectionHDL_.reset();
}

int Task::getTaskId() const { return taskId_; }
std::string Task::getName() const { return name_; }
std::string Task::getParameter() const { return parameter_; }
int Task::getReturn() const { return return_; }
std::string Task::getOutput() const { return output_; }
int Task::getExecutionStatus() const { return executionStatus_; }
int Task::getPriority() const { return priority_; }
timeval Task::getSendExecTime() const { return sendExecTime_; }
std::weak_ptr<void> Task::getConnectionHDL() const { return connectionHDL_; }

void Task::setTaskId(int id) { taskId_ = id; }
void Task::setName(std::string name) { name_ = std::move(name); }
void Task::setParameter(std::string parameter) { parameter_ = std::move(parameter); }
void Task::setReturn(int code) { return_ = code; }
void Task::setOutput(std::string output) { output_ = std::move(output); }
void Task::setExecutionStatus(int status) { executionStatus_ = status; }
void Task::setPriority(int priority) { priority_ = priority; }
void Task::setCommand(std::string command) { command_ = std::move(command); }
void Task::setSendExecTime(timeval time) { sendExecTime_ = time; }
void Task::setConnectionHDL(std::weak_ptr<void> hdl) { connectionHDL_ = std::move(hdl); }

bool Task::exec_isSuccess() const { return executionStatus_ == 0; }

// The server shows these texts as they are; code 4's odd condition is part of the protocol.
std::string Task::ExecutionMessage() const {
  switch (executionStatus_) {
    case 0:
      return "Execution success";
    case 1:
      return "Executable not found";
    case 2:
      return "Plugin not defined in the configuration file";
    case 3:
      return "The NIVO is not connected to the WebSocket server";
    case 4:
      return "Bad code return (return >= 0 && return <=0)";
    case 5:
      return "NIVO delay for response is expired.";
    case 255:
      return output_;
    default:
      return "Status not defined";
  }
}
