// The parameter text of an order comes from the server as is and becomes the plugin's argument
// vector. Whatever the text, the split must not throw, must never hand the plugin an empty
// argument, and must follow the quoting rule: a blank outside quotes ends an argument, ' and "
// toggle quoting and vanish, everything else (backslash, tab, line end) is an ordinary character.
// The alerting list only ever grows.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzzCheck.h"
#include "src/service/service.h"

namespace {

// The quoting rule, written out character by character.
std::vector<std::string> expectedArguments(const std::string& text) {
  std::vector<std::string> arguments;
  std::string current;
  bool quoted = false;
  for (const char c : text) {
    if (c == '"' || c == '\'') {
      quoted = !quoted;
    } else if (c == ' ' && !quoted) {
      if (!current.empty()) arguments.push_back(current);
      current.clear();
    } else {
      current.push_back(c);
    }
  }
  if (!current.empty()) arguments.push_back(current);
  return arguments;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider provider(data, size);
  const std::string first = provider.ConsumeRandomLengthString();
  const std::string second = provider.ConsumeRemainingBytesAsString();

  service svc;
  svc.Setparameter(first);
  FUZZ_CHECK(svc.Getparameter() == first);
  const std::vector<std::string> arguments = svc.getVectorParam();
  for (const std::string& argument : arguments) FUZZ_CHECK(!argument.empty());
  FUZZ_CHECK(arguments == expectedArguments(first));

  // A second text replaces the first.
  svc.Setparameter(second);
  FUZZ_CHECK(svc.Getparameter() == second);
  FUZZ_CHECK(svc.getVectorParam() == expectedArguments(second));

  svc.SetAlertingParameter(first);
  const std::size_t before = svc.getVectorAlertingParam().size();
  FUZZ_CHECK(before == arguments.size());
  svc.SetAlertingParameter(second);
  const std::vector<std::string> alerting = svc.getVectorAlertingParam();
  const std::vector<std::string> added = expectedArguments(second);
  FUZZ_CHECK(alerting.size() == before + added.size());
  FUZZ_CHECK(std::vector<std::string>(alerting.begin(), alerting.begin() + before) == arguments);
  FUZZ_CHECK(std::vector<std::string>(alerting.begin() + before, alerting.end()) == added);
  return 0;
}
