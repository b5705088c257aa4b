// A frame from the server is untrusted: the link does not verify who is at the other end. Whatever
// it holds, on_message must not crash and must do at most one thing: hand one order to one pool,
// send one answer, or end the process with status 0. An answer is one strict JSON "EXEC-RESPONSE"
// of valid text; a queued order runs a catalogued plugin; a frame that does not name an order leads
// to nothing sent and nothing queued. Recorders stand in for the pools, the link and the exit.
#include <json/json.h>
#include <utf8.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzzCheck.h"
#include "src/client/orderDispatch.h"
#include "src/client/orderSettings.h"
#include "src/client/qavel-client.h"

namespace {

const std::map<std::string, std::string> kCatalogue = {
    {"check_dummy", "/nonexistent/check_dummy"},
    {"check_load", "/nonexistent/check_load"},
};

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
QueueRecorder* pools[2] = {nullptr, nullptr};
int exits = 0;

void recordExit(int status) {
  FUZZ_CHECK(status == 0);
  ++exits;
}

void checkAnswer(const std::string& text) {
  Json::Value answer;
  FUZZ_CHECK(parseStrictly(text, answer));
  FUZZ_CHECK(answer.isObject() && answer["COMMAND"] == "EXEC-RESPONSE");
  const Json::Value& task = answer["TASK"];
  FUZZ_CHECK(task.isObject() && task["TASKID"].isInt() && task["OUTPUT"].isString());
  const std::string output = task["OUTPUT"].asString();
  FUZZ_CHECK(utf8::is_valid(output.begin(), output.end()));
  // An unknown plugin, or an order whose members cannot be read.
  FUZZ_CHECK((answer["STATUS"] == 2 && task["RETURN"] == -1) ||
             (answer["STATUS"] == 255 && task["RETURN"] == -2));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Level 0 so that every log line of the dispatch is built and written.
  fileLog = new logFile(static_cast<char>(0), "/dev/null");
  // One endpoint for the whole process: its constructor starts a network thread.
  sentRecorder = new SentRecorder(fileLog);
  endpoint = sentRecorder;
  pools[0] = new QueueRecorder();
  pools[1] = new QueueRecorder();
  webPool = pools[0];
  monitorPool = pools[1];
  agentExit = recordExit;
  OrderSettings settings;
  settings.pluginPathExec = kCatalogue;
  publishOrderSettings(std::move(settings));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string frame(reinterpret_cast<const char*>(data), size);
  sentRecorder->sent.clear();
  exits = 0;
  for (QueueRecorder* pool : pools) pool->queued.clear();

  on_message(std::weak_ptr<void>(), frame);

  FUZZ_CHECK(die_orva == 0);
  const std::size_t sent = sentRecorder->sent.size();
  const std::size_t queued = pools[0]->queued.size() + pools[1]->queued.size();
  FUZZ_CHECK(sent + queued + exits <= 1);
  if (frame.find("EXEC") == std::string::npos) FUZZ_CHECK(sent + queued == 0);
  if (sent == 1) checkAnswer(sentRecorder->sent.front());
  for (const QueueRecorder* pool : pools) {
    for (const std::shared_ptr<service>& s : pool->queued) {
      FUZZ_CHECK(kCatalogue.count(s->Getname()) == 1);
      FUZZ_CHECK(s->Getpath() == kCatalogue.at(s->Getname()));
    }
  }
  return 0;
}
