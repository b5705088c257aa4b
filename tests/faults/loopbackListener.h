// A TCP listener on 127.0.0.1 that stands in the link's path for the fault tests: a proxy that
// misbehaves, a relay that delays. `serve` gets each accepted connection on the listener's own
// I/O thread, with its I/O context for whatever more it needs; the destructor ends the thread.
#pragma once

#include <boost/asio.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

namespace agentTest {

class LoopbackListener {
 public:
  using Socket = std::shared_ptr<boost::asio::ip::tcp::socket>;
  using Serve = std::function<void(Socket, boost::asio::io_context&)>;

  explicit LoopbackListener(Serve serve) : serve_(std::move(serve)) {
    accept();
    thread_ = std::thread([this] { io_.run(); });
  }
  ~LoopbackListener() {
    io_.stop();
    thread_.join();
  }
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  std::uint16_t port() const { return acceptor_.local_endpoint().port(); }

 private:
  void accept() {
    acceptor_.async_accept([this](boost::system::error_code ec, boost::asio::ip::tcp::socket peer) {
      if (ec) return;
      serve_(std::make_shared<boost::asio::ip::tcp::socket>(std::move(peer)), io_);
      accept();
    });
  }

  boost::asio::io_context io_;
  boost::asio::ip::tcp::acceptor acceptor_{io_, {boost::asio::ip::address_v4::loopback(), 0}};
  const Serve serve_;
  std::thread thread_;
};

}  // namespace agentTest
