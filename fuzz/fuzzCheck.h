// What the fuzz targets share: their one assertion (a broken property ends the run with abort(),
// which libFuzzer reports as a crash and saves the input for; a plain assert() would vanish under
// NDEBUG) and the strict JSON reading that checks what the agent sends.
#pragma once

#include <json/json.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#define FUZZ_CHECK(condition)                                                               \
  do {                                                                                      \
    if (!(condition)) {                                                                     \
      std::fprintf(stderr, "%s:%d: property broken: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                         \
    }                                                                                       \
  } while (false)

// True when `text` is one JSON document by the strict rules (what a server may rely on).
inline bool parseStrictly(const std::string& text, Json::Value& root) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  std::istringstream in(text);
  std::string errors;
  return Json::parseFromStream(builder, in, &root, &errors);
}
