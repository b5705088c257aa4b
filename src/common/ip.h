// Dotted-decimal rendering of a 32-bit address held in an unsigned long, with a fixed signed
// arithmetic: values of 2^31 and above carry the sign into the later fields
// (3232235777 -> "192.65704.16777217.1"); servers depend on that form as it is.
#pragma once

#include <string>

class IP {
 public:
  IP() = default;
  virtual ~IP() = default;

  std::string IPdecToIP(unsigned long n);
};
