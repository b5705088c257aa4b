#include "src/common/wholeNumber.h"

#include <cerrno>
#include <cstdlib>

bool parseWholeNumber(const std::string& text, unsigned long long max, unsigned long long& value) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  value = std::strtoull(text.c_str(), nullptr, 10);
  return errno == 0 && value <= max;
}
