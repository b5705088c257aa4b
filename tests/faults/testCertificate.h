// A throwaway self-signed RSA certificate for CN=localhost, made by the openssl command in a
// directory of its own and removed with it. RSA, because a client checks an RSA signature with far
// less work than an ECDSA one, which counts for an agent run under valgrind.
#pragma once

#include <string>

namespace faults {

class TestCertificate {
 public:
  // Throws std::runtime_error when the openssl command fails.
  TestCertificate();
  ~TestCertificate();
  TestCertificate(const TestCertificate&) = delete;
  TestCertificate& operator=(const TestCertificate&) = delete;

  const std::string& certificateFile() const { return certificate_; }
  const std::string& keyFile() const { return key_; }

 private:
  std::string dir_;
  std::string certificate_;
  std::string key_;
};

}  // namespace faults
