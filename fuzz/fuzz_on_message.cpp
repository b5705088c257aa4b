// A frame from the server is untrusted: the link does not verify who is at the other end. Whatever
// it holds, on_message must not crash and must do at most one thing: hand one order to one pool,
// send one answer, or end the process with status 0. An answer is one strict JSON "EXEC-RESPONSE"
// of valid text; a queued order runs a catalogued plugin; a frame that does not name an order leads
// to nothing sent and nothing queued. Recorders stand in for the pools, the link and the exit. What
// the agent reads of a frame too long to be parsed agrees with what the parser reads of it.
#include <json/json.h>
#include <utf8.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzzCheck.h"
#include "src/link/qavel.h"
#include "tests/client/dispatchFakes.h"

namespace {

const std::map<std::string, std::string> kCatalogue = {
    {"check_dummy", "/nonexistent/check_dummy"},
    {"check_load", "/nonexistent/check_load"},
};

dispatchFakes::Fakes* fakes = nullptr;

void checkAnswer(const std::string& text) {
  Json::Value answer;
  FUZZ_CHECK(parseStrictly(text, answer));
  FUZZ_CHECK(answer.isObject() && answer["COMMAND"] == "EXEC-RESPONSE");
  const Json::Value& task = answer["TASK"];
  FUZZ_CHECK(task.isObject() && task["TASKID"].isInt() && task["OUTPUT"].isString());
  const std::string output = task["OUTPUT"].asString();
  FUZZ_CHECK(utf8::is_valid(output.begin(), output.end()));
  // An unknown plugin, an order whose members cannot be read, or one too long to be read.
  FUZZ_CHECK((answer["STATUS"] == 2 && task["RETURN"] == -1) ||
             (answer["STATUS"] == 255 && task["RETURN"] == -2) ||
             (answer["STATUS"] == 5 && task["RETURN"] == 3));
}

// What a well-formed frame says without being parsed must be what the parsed document says.
void checkPeek(const std::string& frame) {
  Json::Value root;
  try {
    if (!Json::Reader().parse(frame, root, true) || !root.isObject()) return;
  } catch (const Json::Exception&) {
    return;  // nested beyond the parser's limit
  }
  const QAVEL::FramePeek peek = QAVEL::peekFrame(frame);
  FUZZ_CHECK(peek.exec == (root.get("COMMAND", "") == "EXEC"));
  const Json::Value& task = root["TASK"];
  if (peek.exec && task.isObject() && task["TASKID"].isInt())
    FUZZ_CHECK(peek.taskId == task["TASKID"].asInt());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  OrderSettings settings;
  settings.pluginPathExec = kCatalogue;
  // Small enough that longer inputs take the path of an order too long to be read.
  settings.maxOrderBytes = 512;
  publishOrderSettings(std::move(settings));
  fakes = &dispatchFakes::fakes();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string frame(reinterpret_cast<const char*>(data), size);
  fakes->clear();

  on_message(std::weak_ptr<void>(), frame);

  FUZZ_CHECK(die_orva == 0);
  const std::size_t sent = fakes->link->sent.size();
  const std::size_t queued = fakes->web->queued.size() + fakes->monitor->queued.size();
  FUZZ_CHECK(sent + queued + fakes->exits.size() <= 1);
  FUZZ_CHECK(fakes->exits.empty() || fakes->exits[0] == 0);
  // Only a "\u" escape can spell the command without its letters ("\u0045XEC").
  if (frame.find("EXEC") == std::string::npos && frame.find("\\u") == std::string::npos)
    FUZZ_CHECK(sent + queued == 0);
  if (sent == 1) checkAnswer(fakes->link->sent.front());
  for (const dispatchFakes::QueueRecorder* pool : {fakes->web, fakes->monitor}) {
    for (const std::shared_ptr<service>& s : pool->queued) {
      FUZZ_CHECK(kCatalogue.count(s->Getname()) == 1);
      FUZZ_CHECK(s->Getpath() == kCatalogue.at(s->Getname()));
    }
  }
  checkPeek(frame);
  return 0;
}
