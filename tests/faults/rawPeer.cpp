#include "rawPeer.h"

#include "testCertificate.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <stdexcept>
#include <system_error>

namespace faults {
namespace {

// Bounds every read and write of the peer, so that a connection the agent abandons never keeps
// the peer's thread from noticing the end of the test.
constexpr timeval kIoTimeout{5, 0};

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), "raw peer: " + what);
}

SSL_CTX* newTlsContext() {
  const TestCertificate certificate;
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  if (context == nullptr ||
      SSL_CTX_use_certificate_file(context, certificate.certificateFile().c_str(),
                                   SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, certificate.keyFile().c_str(), SSL_FILETYPE_PEM) != 1) {
    SSL_CTX_free(context);
    throw std::runtime_error("raw peer: cannot load its TLS certificate");
  }
  return context;  // it keeps what it loaded
}

// False when the bounds cannot be set: the connection is then dropped unanswered.
bool limitIo(int fd) {
  return setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kIoTimeout, sizeof kIoTimeout) == 0 &&
         setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kIoTimeout, sizeof kIoTimeout) == 0;
}

}  // namespace

Descriptor RawPeer::bindLoopback(bool listening) {
  Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (listener.get() < 0) fail("socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      (listening && listen(listener.get(), 8) != 0))
    fail("listen on 127.0.0.1");
  return listener;
}

namespace {

std::uint16_t portOf(const Descriptor& listener) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
    fail("getsockname");
  return ntohs(address.sin_port);
}

}  // namespace

RawPeer::RawPeer(Behaviour behaviour, std::string reply)
    : behaviour_(behaviour),
      reply_(std::move(reply)),
      tls_(behaviour == Behaviour::TlsReply ? newTlsContext() : nullptr),
      listener_(bindLoopback(behaviour != Behaviour::Refuse)),
      port_(portOf(listener_)),
      stop_(Pipe::make()),
      thread_([this] { serve(); }) {}

RawPeer::~RawPeer() {
  const char byte = 0;
  while (write(stop_.writeEnd.get(), &byte, 1) == -1 && errno == EINTR) {
  }
  thread_.join();
}

std::string RawPeer::request(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> guard(lock_);
  changed_.wait_for(guard, timeout, [this] { return requestRead_; });
  return request_;
}

void RawPeer::serve() {
  for (;;) {
    // A socket that does not listen is not watched (poll skips negative descriptors).
    const int listener = behaviour_ == Behaviour::Refuse ? -1 : listener_.get();
    pollfd watched[] = {{listener, POLLIN, 0}, {stop_.readEnd.get(), POLLIN, 0}};
    if (poll(watched, 2, -1) == -1) {
      if (errno == EINTR) continue;
      return;
    }
    if (watched[1].revents != 0) return;
    Descriptor connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection.get() >= 0) answer(std::move(connection));
  }
}

void RawPeer::answer(Descriptor connection) {
  switch (behaviour_) {
    case Behaviour::Refuse:
      return;
    case Behaviour::Silent:
      held_.push_back(std::move(connection));
      return;
    case Behaviour::PlainText: {
      if (!limitIo(connection.get())) return;
      char hello[4096];
      ssize_t got;
      while ((got = recv(connection.get(), hello, sizeof hello, 0)) == -1 && errno == EINTR) {
      }
      if (got > 0) send(connection.get(), reply_.data(), reply_.size(), MSG_NOSIGNAL);
      return;
    }
    case Behaviour::TlsReply:
      answerOverTls(connection);
      return;
  }
}

void RawPeer::answerOverTls(const Descriptor& connection) {
  if (!limitIo(connection.get())) return;
  const std::unique_ptr<SSL, decltype(&SSL_free)> tls(SSL_new(tls_.get()), SSL_free);
  if (tls == nullptr || SSL_set_fd(tls.get(), connection.get()) != 1 || SSL_accept(tls.get()) != 1)
    return;
  std::string request;
  char chunk[4096];
  while (request.find("\r\n\r\n") == std::string::npos && request.size() < 65536) {
    const int got = SSL_read(tls.get(), chunk, sizeof chunk);
    if (got <= 0) break;
    request.append(chunk, static_cast<std::size_t>(got));
  }
  {
    const std::lock_guard<std::mutex> guard(lock_);
    if (!requestRead_) request_ = request;
    requestRead_ = true;
  }
  changed_.notify_all();
  SSL_write(tls.get(), reply_.data(), static_cast<int>(reply_.size()));
  SSL_shutdown(tls.get());
}

}  // namespace faults
