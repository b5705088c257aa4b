#include "testCertificate.h"

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace faults {

TestCertificate::TestCertificate() {
  const char* const base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/nivo-certificate-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr)
    throw std::runtime_error("cannot make a directory like " + pattern);
  dir_ = pattern;
  certificate_ = dir_ + "/cert.pem";
  key_ = dir_ + "/key.pem";
  const std::string command =
      "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost"
      " -keyout " +
      key_ + " -out " + certificate_ + " >/dev/null 2>&1";
  if (std::system(command.c_str()) != 0) {
    std::filesystem::remove_all(dir_);
    throw std::runtime_error("the openssl command could not make a certificate");
  }
}

TestCertificate::~TestCertificate() {
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

}  // namespace faults
