// The fuzz targets' one assertion: a broken property ends the run with abort(), which libFuzzer
// reports as a crash and saves the input for. A plain assert() would vanish under NDEBUG.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                               \
  do {                                                                                      \
    if (!(condition)) {                                                                     \
      std::fprintf(stderr, "%s:%d: property broken: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                         \
    }                                                                                       \
  } while (false)
