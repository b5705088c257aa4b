#include "src/link/qavel.h"

#include <iostream>
#include <string_view>
#include <utility>

#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_client.hpp>

#include "src/common/convertTo.h"

namespace {

void sendText(QAVEL::tlsClient& endpoint, std::weak_ptr<void> hdl, const std::string& text) {
  // WebSocket++ treats a set error code as "already failed" and does nothing: start clear.
  websocketpp::lib::error_code ec;
  endpoint.send(std::move(hdl), text, websocketpp::frame::opcode::text, ec);
  if (ec) throw websocketpp::exception(ec);
}

// Walks a JSON text the way Json::Reader (comments allowed) reads it, without building anything:
// members are skipped in place, and only short strings are decoded. Stops quietly at the first
// thing that is not well formed, keeping what it found before.
class FrameSkimmer {
 public:
  explicit FrameSkimmer(const std::string& text) : text_(text) {}

  QAVEL::FramePeek peek() {
    QAVEL::FramePeek found;
    members([&](const std::string& key) {
      // A member given again replaces the one before, as in the parsed document.
      if (key == "COMMAND") {
        found.exec = false;
        std::string command;
        if (next() != '"') return skipValue();
        if (!string(command)) return false;
        found.exec = command == "EXEC";
        return true;
      }
      if (key == "TASK") {
        found.taskId = 0;
        if (next() != '{') return skipValue();
        return members([&](const std::string& member) {
          if (member != "TASKID") return skipValue();
          found.taskId = 0;
          return integer(found.taskId);
        });
      }
      return skipValue();
    });
    return found;
  }

 private:
  // The longest string decoded: longer than any key or command looked for.
  static constexpr std::size_t kShortString = 64;

  bool at(std::size_t offset, char c) const {
    return at_ + offset < text_.size() && text_[at_ + offset] == c;
  }

  // The next character after white space and comments; '\0' at the end.
  char next() {
    for (;;) {
      while (at_ < text_.size() && std::string_view(" \t\n\r").find(text_[at_]) != npos) ++at_;
      if (!at(0, '/') || !(at(1, '/') || at(1, '*'))) return at_ < text_.size() ? text_[at_] : 0;
      // A line comment ends at a CR as well, as the parser has it.
      const std::size_t end =
          at(1, '/') ? text_.find_first_of("\r\n", at_) : text_.find("*/", at_ + 2);
      at_ = end == npos ? text_.size() : end + (at(1, '/') ? 0 : 2);
    }
  }

  // An object's members: `onMember(key)` reads the value that follows the key's colon. False once
  // the text is not well formed.
  template <typename OnMember>
  bool members(OnMember onMember) {
    if (next() != '{') return false;
    ++at_;
    if (next() == '}') return ++at_, true;
    for (;;) {
      std::string key;
      if (next() != '"' || !string(key) || next() != ':') return false;
      ++at_;
      if (!onMember(key)) return false;
      const char after = next();
      ++at_;
      if (after == '}') return true;
      if (after != ',') return false;
    }
  }

  // The string at the cursor, decoded into `text` when short; a long one is passed over and left
  // undecoded. False when it is not closed, or when a short one cannot be decoded.
  bool string(std::string& text) {
    const std::size_t start = at_++;
    while (at_ < text_.size() && text_[at_] != '"') at_ += text_[at_] == '\\' ? 2 : 1;
    if (at_ >= text_.size()) return false;
    ++at_;
    if (at_ - start > kShortString) return true;
    Json::Value decoded;
    if (!Json::Reader().parse(text_.substr(start, at_ - start), decoded, false) ||
        !decoded.isString())
      return false;  // where the parser stops too
    text = decoded.asString();
    return true;
  }

  // A number that asInt would read, into `value`; anything else leaves it alone.
  bool integer(int& value) {
    next();
    const std::size_t start = at_;
    while (at_ < text_.size() && std::string_view("0123456789+-.eE").find(text_[at_]) != npos)
      ++at_;
    if (at_ == start) return skipValue();
    Json::Value number;
    if (at_ - start < 32 && Json::Reader().parse(text_.substr(start, at_ - start), number, false) &&
        number.isInt())
      value = number.asInt();
    return true;
  }

  // Any value, containers whole, without recursion: a deep nesting costs no stack.
  bool skipValue() {
    std::size_t depth = 0;
    do {
      const char c = next();
      if (c == 0) return false;
      if (c == '"') {
        std::string ignored;
        if (!string(ignored)) return false;
        continue;
      }
      if (depth == 0 && c != '{' && c != '[') {
        // A scalar: up to the next delimiter.
        while (at_ < text_.size() && std::string_view(",}] \t\r\n/").find(text_[at_]) == npos)
          ++at_;
        return true;
      }
      if (c == '{' || c == '[') ++depth;
      if (c == '}' || c == ']') --depth;
      ++at_;
    } while (depth > 0);
    return true;
  }

  static constexpr std::size_t npos = std::string::npos;
  const std::string& text_;
  std::size_t at_ = 0;
};

}  // namespace

QAVEL::QAVEL() : root_(Json::nullValue) {}

void QAVEL::DebugMode(bool on) { debug_ = on; }

void QAVEL::Trace(std::string message) {
  if (debug_) std::cout << "[QAVEL]" << message << "\n";
}

void QAVEL::parseMessage(std::string message) {
  // The reader throws on absurd nesting; parsing into a scratch value keeps the root null then
  // instead of holding whatever the reader had built when it gave up.
  root_ = Json::Value(Json::nullValue);
  Json::Value parsed;
  Json::Reader reader;
  // A malformed document leaves a null or partial tree; the caller finds out from the command
  // it reads next ("" or a JsonCpp exception), so the result adds nothing.
  // From the text itself: the string overload would copy it first.
  (void)reader.parse(message.data(), message.data() + message.size(), parsed, true);
  root_.swap(parsed);
}

void QAVEL::releaseMessage() { root_ = Json::Value(Json::nullValue); }

void QAVEL::parseMessage(const char* message) { parseMessage(std::string(message)); }

std::string QAVEL::getQAVELCommand() { return root_.get("COMMAND", "").asString(); }

std::string QAVEL::getQAVELParameter(const char* key) { return root_.get(key, "").asString(); }

Json::Value QAVEL::getTaskJSONRequest() {
  // The const lookup never inserts "TASK" into the root and throws for a root of the wrong type.
  const Json::Value& root = root_;
  return root["TASK"];
}

const Json::Value& QAVEL::taskRequest() const { return root_["TASK"]; }

Task* QAVEL::getTask() {
  const Json::Value& root = root_;
  const Json::Value& json = root["TASK"];
  auto task = std::make_unique<Task>(json.get("TASKID", -1).asInt());
  if (task->getTaskId() != -1) {
    task->setReturn(json.get("RETURN", -1).asInt());
    task->setOutput(json.get("OUTPUT", "QAVEL NO OUTPUT").asString());
  }
  return task.release();
}

void QAVEL::sendRegister(tlsClient& endpoint, std::weak_ptr<void> hdl, int status) {
  Json::Value doc(Json::objectValue);
  doc["COMMAND"] = "REGISTER-RESPONSE";
  doc["STATUS"] = status != 0 ? 1 : 0;
  sendText(endpoint, std::move(hdl), doc.toStyledString());
}

void QAVEL::sendTask(tlsClient& endpoint, std::weak_ptr<void> hdl, Task& task) {
  Json::Value inner(Json::objectValue);
  inner["TASKID"] = task.getTaskId();
  inner["NAME"] = task.getName();
  inner["PARAMETER"] = task.getParameter();
  inner["PRIORITY"] = task.getPriority();
  Json::Value doc(Json::objectValue);
  doc["COMMAND"] = "EXEC";
  doc["TASK"] = std::move(inner);
  sendText(endpoint, std::move(hdl), doc.toStyledString());
}

QAVEL::FramePeek QAVEL::peekFrame(const std::string& text) { return FrameSkimmer(text).peek(); }

std::string QAVEL::buildJsonRegister(const std::string& sn, const std::string& ip,
                                     const std::string& mac) {
  Json::Value message(Json::objectValue);
  message["COMMAND"] = "REGISTER";
  message["IP"] = ip;
  message["SN"] = sn;
  message["MAC"] = mac;
  return message.toStyledString();
}

std::string QAVEL::buildJsonTaskState(Task& task) {
  Json::Value inner(Json::objectValue);
  inner["TASKID"] = task.getTaskId();
  // JSON carries text only: JsonCpp would turn invalid bytes (an unknown plugin's name as the
  // server sent it, say) into arbitrary characters and swallow what follows them.
  inner["OUTPUT"] = toValidUtf8(task.getOutput());
  inner["RETURN"] = task.getReturn();
  Json::Value doc(Json::objectValue);
  doc["COMMAND"] = "EXEC-RESPONSE";
  doc["STATUS"] = task.getExecutionStatus();
  doc["TASK"] = std::move(inner);
  return doc.toStyledString();
}
