// Throwaway EC keys and certificates for the fault tests of the link's TLS, made with the openssl
// command.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace agentTest {

// In <dir>/pki: <name>.pem and <name>.key.
class Certificates {
 public:
  explicit Certificates(const std::string& dir) : dir_(dir + "/pki") {
    std::filesystem::create_directories(dir_);
  }

  std::string pem(const std::string& name) const { return dir_ + "/" + name + ".pem"; }
  std::string key(const std::string& name) const { return dir_ + "/" + name + ".key"; }

  void authority(const std::string& name) { make(name, "/CN=NIVO test CA " + name, ""); }

  // Signed by `authority`; `altNames` as for subjectAltName ("DNS:localhost,IP:127.0.0.1").
  void certificate(const std::string& name, const std::string& commonName,
                   const std::string& altNames, const std::string& authority) {
    make(name, "/CN=" + commonName,
         " -addext subjectAltName=" + altNames +
             " -addext basicConstraints=critical,CA:FALSE -CA " + pem(authority) + " -CAkey " +
             key(authority));
  }

 private:
  void make(const std::string& name, const std::string& subject, const std::string& extra) {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 -subj '" +
        subject + "' -keyout " + key(name) + " -out " + pem(name) + extra + " >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
  }

  const std::string dir_;
};

}  // namespace agentTest
