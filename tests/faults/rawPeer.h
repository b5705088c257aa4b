// A peer on 127.0.0.1 that breaks the opening of the agent's link: it refuses the connection, or
// accepts it and then stays silent, or answers the TLS ClientHello with plain text, or completes
// TLS and answers the WebSocket upgrade request with a fixed HTTP response. It serves the
// connections one after the other on a thread of its own until it is destroyed.
#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "descriptor.h"

namespace faults {

class RawPeer {
 public:
  enum class Behaviour {
    Refuse,     // nothing listens on the port: connections are refused
    Silent,     // accept and hold the connection open, never send a byte
    PlainText,  // read what comes (the ClientHello), answer `reply` in the clear, close
    TlsReply,   // complete TLS, read the HTTP request, answer `reply`, close
  };

  // Throws std::runtime_error when it cannot listen or make its TLS certificate.
  explicit RawPeer(Behaviour behaviour, std::string reply = "");
  ~RawPeer();
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  std::uint16_t port() const { return port_; }
  // The HTTP request read on the first TLS connection, once there is one ("" after the timeout).
  std::string request(std::chrono::milliseconds timeout);

 private:
  struct ContextFree {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };

  // Bound to an ephemeral port of 127.0.0.1; listening unless the behaviour is Refuse.
  static Descriptor bindLoopback(bool listening);

  void serve();
  void answer(Descriptor connection);
  void answerOverTls(const Descriptor& connection);

  const Behaviour behaviour_;
  const std::string reply_;
  const std::unique_ptr<SSL_CTX, ContextFree> tls_;
  const Descriptor listener_;
  const std::uint16_t port_;
  const Pipe stop_;               // written once by the destructor
  std::vector<Descriptor> held_;  // the silent peer's connections, used by the thread only

  std::mutex lock_;
  std::condition_variable changed_;
  std::string request_;
  bool requestRead_ = false;

  std::thread thread_;  // last: started once everything above is ready
};

}  // namespace faults
