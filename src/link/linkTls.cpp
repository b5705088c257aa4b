#include "src/link/linkTls.h"

#include <openssl/err.h>
#include <unistd.h>

#include <boost/asio/ip/address.hpp>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace linkTls {
namespace {

// A file's own reason first: OpenSSL says only "system lib" for a file it cannot open.
std::string unreadable(const std::string& path) {
  return ::access(path.c_str(), R_OK) == 0 ? std::string() : std::strerror(errno);
}

// A daemon has no one to type a pass phrase: an encrypted key fails to load instead of prompting.
int noPassphrase(char* /*buffer*/, int /*size*/, int /*forWriting*/, void* /*data*/) { return 0; }

}  // namespace

std::string openSslReason() {
  const unsigned long code = ERR_peek_last_error();
  ERR_clear_error();
  const char* const reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
  return reason != nullptr ? reason : "unknown reason";
}

void useClientCertificate(SSL_CTX* context, const std::string& certificate,
                          const std::string& key) {
  if (certificate.empty())
    throw std::runtime_error("client key " + key + " given without a client certificate");
  if (const std::string why = unreadable(certificate); !why.empty())
    throw std::runtime_error("cannot read client certificate " + certificate + ": " + why);
  if (const std::string why = unreadable(key); !why.empty())
    throw std::runtime_error("cannot read client key " + key + ": " + why);
  SSL_CTX_set_default_passwd_cb(context, noPassphrase);
  if (SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) != 1)
    throw std::runtime_error("cannot use client certificate " + certificate + ": " +
                             openSslReason());
  if (SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(context) != 1)
    throw std::runtime_error("client key " + key + " does not fit client certificate " +
                             certificate + ": " + openSslReason());
}

void trustServer(SSL_CTX* context, const std::string& caFile, const std::string& host) {
  if (caFile.empty() ? SSL_CTX_set_default_verify_paths(context) != 1
                     : SSL_CTX_load_verify_locations(context, caFile.c_str(), nullptr) != 1) {
    const std::string why = caFile.empty() ? std::string() : unreadable(caFile);
    throw std::runtime_error("cannot load the trusted certificates of " +
                             (caFile.empty() ? std::string("the system") : caFile) + ": " +
                             (why.empty() ? openSslReason() : why));
  }
  X509_VERIFY_PARAM* const check = SSL_CTX_get0_param(context);
  boost::system::error_code notAnAddress;
  boost::asio::ip::make_address(host, notAnAddress);
  if ((notAnAddress ? X509_VERIFY_PARAM_set1_host(check, host.c_str(), host.size())
                    : X509_VERIFY_PARAM_set1_ip_asc(check, host.c_str())) != 1)
    throw std::runtime_error("cannot check the server's name " + host + ": " + openSslReason());
}

std::string certificateRefusal(X509_STORE_CTX* store) {
  std::string subject = "no certificate";
  if (X509* const certificate = X509_STORE_CTX_get_current_cert(store)) {
    char name[256];
    X509_NAME_oneline(X509_get_subject_name(certificate), name, sizeof name);
    subject = name;
  }
  return std::string("server certificate refused: ") +
         X509_verify_cert_error_string(X509_STORE_CTX_get_error(store)) + " (depth " +
         std::to_string(X509_STORE_CTX_get_error_depth(store)) + ", " + subject + ")";
}

}  // namespace linkTls
