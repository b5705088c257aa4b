// The parameter text of an order comes from the server as is and becomes the plugin's argument
// vector. Whatever the text, the split must not throw, must never hand the plugin an empty
// argument or a quote (quotes group and vanish), and must lose no other character: the arguments
// hold the text's characters in order, but for quotes and the blanks that separate. The alerting
// list only ever grows.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzzCheck.h"
#include "src/service/service.h"

namespace {

std::string withoutQuotesAndBlanks(const std::string& text) {
  std::string kept;
  for (const char c : text) {
    if (c != '"' && c != '\'' && c != ' ') kept.push_back(c);
  }
  return kept;
}

void checkSplit(const std::string& text, const std::vector<std::string>& arguments) {
  std::string joined;
  for (const std::string& argument : arguments) {
    FUZZ_CHECK(!argument.empty());
    FUZZ_CHECK(argument.find_first_of("\"'") == std::string::npos);
    joined += argument;
  }
  FUZZ_CHECK(withoutQuotesAndBlanks(joined) == withoutQuotesAndBlanks(text));
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
  checkSplit(first, arguments);

  svc.SetAlertingParameter(first);
  FUZZ_CHECK(svc.getVectorAlertingParam() == arguments);
  svc.SetAlertingParameter(second);
  const std::vector<std::string> alerting = svc.getVectorAlertingParam();
  FUZZ_CHECK(alerting.size() >= arguments.size());
  FUZZ_CHECK(std::vector<std::string>(alerting.begin(), alerting.begin() + arguments.size()) ==
             arguments);
  checkSplit(second, std::vector<std::string>(alerting.begin() + arguments.size(), alerting.end()));
  return 0;
}
