#include "src/link/qavel.h"

#include <iostream>
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
  (void)reader.parse(message, parsed, true);
  root_.swap(parsed);
}

void QAVEL::parseMessage(const char* message) { parseMessage(std::string(message)); }

std::string QAVEL::getQAVELCommand() { return root_.get("COMMAND", "").asString(); }

std::string QAVEL::getQAVELParameter(const char* key) { return root_.get(key, "").asString(); }

Json::Value QAVEL::getTaskJSONRequest() {
  // The const lookup never inserts "TASK" into the root and throws for a root of the wrong type.
  const Json::Value& root = root_;
  return root["TASK"];
}

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
