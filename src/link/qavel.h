// The agent protocol's JSON documents: parses one inbound document ("REGISTER-RESPONSE", "EXEC")
// and builds the outbound ones. JsonCpp conversions of members of the wrong type throw
// Json::LogicError; callers catch it. One object per message, never shared.
#pragma once

#include <json/json.h>

#include <memory>
#include <string>

#include "src/link/task.h"

namespace websocketpp {
template <typename config>
class client;
namespace config {
struct asio_tls_client;
}
}  // namespace websocketpp

class QAVEL {
 public:
  using tlsClient = websocketpp::client<websocketpp::config::asio_tls_client>;

  QAVEL();

  void DebugMode(bool on);
  // "[QAVEL]<message>" on standard output when debug mode is on.
  void Trace(std::string message);

  // Parses into the root; a malformed text leaves a null or partial root and is not reported.
  // The text is not copied: move a long one in, and it is freed once parsed.
  void parseMessage(std::string message);
  void parseMessage(const char* message);
  // Drops the parsed document, once what is needed of it has been read.
  void releaseMessage();

  std::string getQAVELCommand();                   // "COMMAND", "" when absent
  std::string getQAVELParameter(const char* key);  // a top-level member as text, "" when absent
  Json::Value getTaskJSONRequest();                // copy of "TASK"
  // "TASK" itself (null when absent), valid until the next parse or release.
  const Json::Value& taskRequest() const;

  // What a frame says of itself without being parsed into a document: whether it is an "EXEC"
  // and its task identifier (0 when it has none that is an integer). Read the way the parser
  // would read it (comments skipped, the last of repeated members taken), as far as the text is
  // well formed, and without a copy of any long member: for a frame too long to be read whole.
  struct FramePeek {
    bool exec = false;
    int taskId = 0;
  };
  static FramePeek peekFrame(const std::string& text);
  // A new Task (owned by the caller) from an "EXEC-RESPONSE" task object.
  Task* getTask();

  // Send a "REGISTER-RESPONSE" / "EXEC" document on `hdl`; a send error is thrown as
  // websocketpp::exception.
  void sendRegister(tlsClient& endpoint, std::weak_ptr<void> hdl, int status);
  void sendTask(tlsClient& endpoint, std::weak_ptr<void> hdl, Task& task);
  // The serialised "EXEC-RESPONSE" of a task.
  std::string buildJsonTaskState(Task& task);
  // The serialised "REGISTER" of this host.
  static std::string buildJsonRegister(const std::string& sn, const std::string& ip,
                                       const std::string& mac);

 private:
  Json::Value root_;
  bool debug_ = false;
};
