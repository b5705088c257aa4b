// One task as the protocol sees it: the server's identifier, the plugin and its parameters and,
// once run, return code, output and execution status, with the table of status texts.
#pragma once

#include <sys/time.h>

#include <memory>
#include <string>

class Task {
 public:
  explicit Task(int id);
  Task(int id, std::string name, std::string parameter);
  Task(int id, std::string name, std::string parameter, int priority);
  // Copies everything but the command word, which stays empty in the copy.
  Task(const Task& other);
  Task& operator=(const Task&) = delete;
  ~Task();

  int getTaskId() const;
  std::string getName() const;
  std::string getParameter() const;
  int getReturn() const;
  std::string getOutput() const;
  int getExecutionStatus() const;
  int getPriority() const;
  timeval getSendExecTime() const;
  std::weak_ptr<void> getConnectionHDL() const;

  void setTaskId(int id);
  void setName(std::string name);
  void setParameter(std::string parameter);
  void setReturn(int code);
  void setOutput(std::string output);
  void setExecutionStatus(int status);
  void setPriority(int priority);
  void setCommand(std::string command);
  void setSendExecTime(timeval time);
  void setConnectionHDL(std::weak_ptr<void> hdl);

  bool exec_isSuccess() const;
  // Text of the execution status; for 255 the output itself.
  std::string ExecutionMessage() const;

 private:
  int taskId_;
  std::string name_;
  std::string parameter_;
  std::string output_;
  int return_ = 0;
  int executionStatus_ = -1;
  int priority_ = 5;
  std::string command_;
  timeval sendExecTime_{};
  std::weak_ptr<void> connectionHDL_;
};
