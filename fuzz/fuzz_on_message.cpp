// A frame from the server is untrusted: the link does not verify who is at the other end. Whatever
// it holds, on_message must not crash, and every order must either reach exactly one pool or be
// answered exactly once, never both. Recorders stand in for the pools, the link and the process
// exit; what on_message should have done is worked out here from the frame with JsonCpp alone.
#include <json/json.h>
#include <utf8.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/fuzzCheck.h"
#include "src/client/qavel-client.h"
#include "src/common/convertTo.h"

namespace {

const std::map<std::string, std::string> kCatalogue = {
    {"check_dummy", "/nonexistent/check_dummy"},
    {"check_load", "/nonexistent/check_load"},
    {"check_disk", "/nonexistent/check_disk"},
};

const char* const kUnknownPluginText = "EXEC plugin: error plugin not defined ";
const char* const kJsonErrorText = "NIVO  JSON exception ";

class SentRecorder : public WSSEndpoint {
 public:
  using WSSEndpoint::WSSEndpoint;
  void send(std::string text) override { sent.push_back(std::move(text)); }
  void close(std::uint16_t, std::string) override {}
  std::vector<std::string> sent;
};

class QueueRecorder : public PoolThreadService {
 public:
  QueueRecorder() : PoolThreadService(1, fileLog) {}
  void executeService(std::shared_ptr<service> s) override { queued.push_back(std::move(s)); }
  std::vector<std::shared_ptr<service>> queued;
};

SentRecorder* sentRecorder = nullptr;
QueueRecorder* webRecorder = nullptr;
QueueRecorder* monitorRecorder = nullptr;
int exits = 0;

void recordExit(int status) {
  FUZZ_CHECK(status == 0);
  ++exits;
}

// What one frame must lead to.
struct Expected {
  enum class Kind { kNothing, kExit, kQueued, kUnknownPlugin, kTypeError } kind = Kind::kNothing;
  int id = 0;
  std::string name;
  std::string parameter;
  int priority = 0;
};

// The agent reads the order's members in this order; the first one of a type it cannot convert
// ends the reading, and the identifier keeps what was read before.
Expected expectOrder(const Json::Value& task) {
  Expected e;
  e.kind = Expected::Kind::kTypeError;
  if (!task.isNull() && !task.isObject()) return e;
  if (!task["TASKID"].isConvertibleTo(Json::intValue)) return e;
  e.id = task["TASKID"].asInt();
  if (!task["NAME"].isConvertibleTo(Json::stringValue)) return e;
  e.name = task["NAME"].asString();
  if (!task["PARAMETER"].isConvertibleTo(Json::stringValue)) return e;
  e.parameter = task["PARAMETER"].asString();
  if (!task["PRIORITY"].isConvertibleTo(Json::intValue)) return e;
  e.priority = task["PRIORITY"].asInt();
  e.kind = kCatalogue.count(e.name) != 0 ? Expected::Kind::kQueued : Expected::Kind::kUnknownPlugin;
  return e;
}

// The registration is accepted only by a status that reads as the text "0".
bool refusesRegistration(const Json::Value& status) {
  if (status.isString()) return status.asString() != "0";
  if (status.type() == Json::intValue || status.type() == Json::uintValue) {
    return status.asLargestInt() != 0;
  }
  return true;
}

Expected expect(const std::string& frame) {
  Json::Value root;
  Json::Reader reader;
  try {
    reader.parse(frame, root, true);  // a partial tree counts: the agent reads it too
  } catch (const Json::Exception&) {
    return {};  // too deeply nested: nothing was read
  }
  // A root that is neither an object nor null cannot be asked for its command: dropped.
  if (!root.isObject()) return {};
  const Json::Value& command = root["COMMAND"];
  if (!command.isString()) return {};  // a number or true is never a known command
  if (command.asString() == "REGISTER-RESPONSE") {
    const Json::Value& status = root["STATUS"];
    // An array or object has no text; the frame is dropped before the status is looked at.
    if (status.isArray() || status.isObject()) return {};
    Expected e;
    if (status.isNull() || refusesRegistration(status)) e.kind = Expected::Kind::kExit;
    return e;
  }
  if (command.asString() == "EXEC") return expectOrder(root["TASK"]);
  return {};
}

void checkAnswer(const std::string& text, const Expected& e) {
  Json::Value answer;
  FUZZ_CHECK(parseStrictly(text, answer));
  FUZZ_CHECK(answer.isObject());
  FUZZ_CHECK(answer["COMMAND"] == "EXEC-RESPONSE");
  const Json::Value& task = answer["TASK"];
  FUZZ_CHECK(task.isObject());
  FUZZ_CHECK(task["TASKID"].isInt() && task["TASKID"].asInt() == e.id);
  FUZZ_CHECK(task["OUTPUT"].isString());
  const std::string output = task["OUTPUT"].asString();
  // The server must get valid text: the name comes back repaired as plugin output is.
  FUZZ_CHECK(utf8::is_valid(output.begin(), output.end()));
  if (e.kind == Expected::Kind::kUnknownPlugin) {
    FUZZ_CHECK(answer["STATUS"] == 2);
    FUZZ_CHECK(task["RETURN"] == -1);
    FUZZ_CHECK(output == toValidUtf8(kUnknownPluginText + e.name));
  } else {
    FUZZ_CHECK(answer["STATUS"] == 255);
    FUZZ_CHECK(task["RETURN"] == -2);
    FUZZ_CHECK(output.rfind(kJsonErrorText, 0) == 0 && output.size() > 21);
  }
}

void checkQueued(const service& svc, const Expected& e) {
  FUZZ_CHECK(svc.GetService_id() == static_cast<unsigned long long>(static_cast<long long>(e.id)));
  FUZZ_CHECK(svc.Getname() == e.name);
  FUZZ_CHECK(svc.Getpath() == kCatalogue.at(e.name));
  FUZZ_CHECK(svc.Getparameter() == e.parameter);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Level 0 so that every log line of the dispatch is built and written.
  fileLog = new logFile(static_cast<char>(0), "/dev/null");
  // One endpoint for the whole process: its constructor starts a network thread.
  sentRecorder = new SentRecorder(fileLog);
  endpoint = sentRecorder;
  webRecorder = new QueueRecorder();
  monitorRecorder = new QueueRecorder();
  webPool = webRecorder;
  monitorPool = monitorRecorder;
  agentExit = recordExit;
  pluginPathExec = kCatalogue;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string frame(reinterpret_cast<const char*>(data), size);
  sentRecorder->sent.clear();
  webRecorder->queued.clear();
  monitorRecorder->queued.clear();
  exits = 0;

  on_message(std::weak_ptr<void>(), frame);

  const Expected e = expect(frame);
  const std::size_t sent = sentRecorder->sent.size();
  const std::size_t web = webRecorder->queued.size();
  const std::size_t monitor = monitorRecorder->queued.size();
  FUZZ_CHECK(die_orva == 0);
  switch (e.kind) {
    case Expected::Kind::kNothing:
    case Expected::Kind::kExit:
      FUZZ_CHECK(sent == 0 && web == 0 && monitor == 0);
      FUZZ_CHECK(exits == (e.kind == Expected::Kind::kExit ? 1 : 0));
      break;
    case Expected::Kind::kQueued: {
      FUZZ_CHECK(sent == 0 && exits == 0);
      const bool toWeb = e.priority <= 4;
      FUZZ_CHECK(web == (toWeb ? 1u : 0u) && monitor == (toWeb ? 0u : 1u));
      checkQueued(*(toWeb ? webRecorder : monitorRecorder)->queued.front(), e);
      break;
    }
    case Expected::Kind::kUnknownPlugin:
    case Expected::Kind::kTypeError:
      FUZZ_CHECK(sent == 1 && web == 0 && monitor == 0 && exits == 0);
      checkAnswer(sentRecorder->sent.front(), e);
      break;
  }
  return 0;
}
