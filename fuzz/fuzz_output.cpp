// Plugin output is whatever bytes a plugin printed. The runner repairs it to UTF-8 and the result
// travels to the server inside an "EXEC-RESPONSE": the document must always read back, with the
// repaired text intact, and the repair must leave valid text alone.
#include <json/json.h>
#include <utf8.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzzCheck.h"
#include "src/common/convertTo.h"
#include "src/link/qavel.h"
#include "src/link/task.h"

namespace {

constexpr int kTaskId = 17;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string output(reinterpret_cast<const char*>(data), size);
  const std::string repaired = toValidUtf8(output);
  FUZZ_CHECK(utf8::is_valid(repaired.begin(), repaired.end()));
  if (utf8::is_valid(output.begin(), output.end())) FUZZ_CHECK(repaired == output);
  // One blank per invalid sequence, and a sequence is at least one byte.
  FUZZ_CHECK(repaired.size() <= output.size());

  Task task(kTaskId);
  task.setExecutionStatus(0);
  task.setReturn(0);
  task.setOutput(repaired);
  QAVEL qavel;
  const std::string text = qavel.buildJsonTaskState(task);
  FUZZ_CHECK(utf8::is_valid(text.begin(), text.end()));

  Json::Value root;
  FUZZ_CHECK(parseStrictly(text, root));
  FUZZ_CHECK(root.isObject());
  FUZZ_CHECK(root["COMMAND"] == "EXEC-RESPONSE");
  const Json::Value& inner = root["TASK"];
  FUZZ_CHECK(inner.isObject());
  FUZZ_CHECK(inner["TASKID"].isInt() && inner["TASKID"].asInt() == kTaskId);
  FUZZ_CHECK(inner["OUTPUT"].isString() && inner["OUTPUT"].asString() == repaired);
  return 0;
}
