// WebSocket++'s TLS client configuration as the link uses it, with two changes. Its error log can
// hand the info channel to a sink: the library says why a step of the opening failed (the
// connect's reason, a proxy's status) only there. And the time limits of the opening's steps that
// the library fixes at compile time (name resolution, TCP connect, TLS handshake: 5 s each) can be
// set for each opening, so that the agent's own limit is what counts.
#pragma once

#include <websocketpp/config/asio_client.hpp>
#include <websocketpp/logger/basic.hpp>

#include <chrono>
#include <functional>
#include <string>
#include <utility>

// The library's basic logger (silent while its channels are cleared), plus the sink.
template <typename Concurrency, typename Names>
class NotingLogger : public websocketpp::log::basic<Concurrency, Names> {
 public:
  using Base = websocketpp::log::basic<Concurrency, Names>;
  using Base::Base;

  // Set before the loop runs; called on the loop's thread.
  void setInfoSink(std::function<void(const std::string&)> sink) { sink_ = std::move(sink); }

  // Hides the base's: the library calls these through its logger type, never virtually.
  void write(websocketpp::log::level channel, const std::string& message) {
    if (channel == Names::info && sink_) sink_(message);
    Base::write(channel, message);
  }
  void write(websocketpp::log::level channel, const char* message) {
    write(channel, std::string(message));
  }

 private:
  std::function<void(const std::string&)> sink_;
};

struct LinkConfig : websocketpp::config::asio_tls_client {
  using type = LinkConfig;
  using base = websocketpp::config::asio_tls_client;
  using elog_type = NotingLogger<base::concurrency_type, websocketpp::log::elevel>;

  struct transport_config : base::transport_config {
    using elog_type = type::elog_type;

    // The library reads these each time it arms a step's timer, always on the thread that runs
    // its loop: thread_local makes them the setting of that loop, so each endpoint sets its own
    // on its own network thread, and a thread that never sets them keeps the library's values.
    static inline thread_local long timeout_dns_resolve =
        base::transport_config::timeout_dns_resolve;
    static inline thread_local long timeout_connect = base::transport_config::timeout_connect;
    static inline thread_local long timeout_socket_post_init =
        base::transport_config::timeout_socket_post_init;

    // Each step of the openings that follow gets `limit`; 0 gives back the library's own.
    static void limitOpeningSteps(std::chrono::milliseconds limit) {
      const bool own = limit.count() <= 0;
      timeout_dns_resolve = own ? base::transport_config::timeout_dns_resolve : limit.count();
      timeout_connect = own ? base::transport_config::timeout_connect : limit.count();
      timeout_socket_post_init =
          own ? base::transport_config::timeout_socket_post_init : limit.count();
    }
  };
  using transport_type = websocketpp::transport::asio::endpoint<transport_config>;
};
