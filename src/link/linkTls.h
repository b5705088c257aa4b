// The TLS side of the link: the client certificate the agent presents and the trust it puts in the
// server. Functions over OpenSSL contexts, usable on any thread; each failure is thrown as a
// std::runtime_error whose text says why, in words an administrator can act on.
#pragma once

#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <string>

namespace linkTls {

// OpenSSL's reason for the latest failure of this thread; its error queue is left empty.
std::string openSslReason();

// Puts the certificate (PEM, may hold a chain) and its unencrypted key into `context`.
void useClientCertificate(SSL_CTX* context, const std::string& certificate, const std::string& key);

// Loads the trusted certificates of `caFile` (PEM; empty: the system's trust store) and has
// OpenSSL check the server's certificate against `host`, a name or an IP address, as part of the
// chain, so that a mismatch is refused like any other verification failure.
void trustServer(SSL_CTX* context, const std::string& caFile, const std::string& host);

// Why OpenSSL refused the certificate it is looking at: its error, depth and subject.
std::string certificateRefusal(X509_STORE_CTX* store);

}  // namespace linkTls
