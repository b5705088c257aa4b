// A TCP listener on 127.0.0.1 that stands in the link's path for the fault tests: a proxy that
// misbehaves, a relay that delays. Each accepted connection goes to serve() on the listener's own
// I/O thread. A derived class calls start() once it can serve, and stop() in its destructor,
// before its own members go.
#pragma once

#include <boost/asio.hpp>
#include <cstdint>
#include <memory>
#include <thread>

namespace agentTest {

class LoopbackListener {
 public:
  using Socket = std::shared_ptr<boost::asio::ip::tcp::socket>;

  LoopbackListener() : acceptor_(io_, {boost::asio::ip::address_v4::loopback(), 0}) {}
  virtual ~LoopbackListener() = default;
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  std::uint16_t port() const { return acceptor_.local_endpoint().port(); }

 protected:
  void start() {
    accept();
    thread_ = std::thread([this] { io_.run(); });
  }
  void stop() {
    io_.stop();
    if (thread_.joinable()) thread_.join();
  }
  virtual void serve(Socket socket) = 0;

  boost::asio::io_context io_;

 private:
  void accept() {
    acceptor_.async_accept([this](boost::system::error_code ec, boost::asio::ip::tcp::socket peer) {
      if (ec) return;
      serve(std::make_shared<boost::asio::ip::tcp::socket>(std::move(peer)));
      accept();
    });
  }

  boost::asio::ip::tcp::acceptor acceptor_;
  std::thread thread_;
};

}  // namespace agentTest
