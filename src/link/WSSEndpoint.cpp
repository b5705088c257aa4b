#include "WSSEndpoint.h"

#include <json/json.h>

#include <boost/asio/post.hpp>
#include <functional>
#include <future>
#include <utility>

// Every WebSocket++ call on the endpoint or the connection runs on the network thread. The library
// reads and writes the connection's state there without its own lock (the open and the
// termination paths set it unlocked, and the close path arms its timer unlocked), so a send, ping
// or close made directly from a pool worker or the main thread races with the I/O loop. Posting
// the call to the loop and waiting for its result keeps the library single-threaded, as its
// documentation asks for connection pointers obtained from a handle. A call made from the network
// thread itself (a reply sent by the message callback) runs at once, since waiting would deadlock.
template <typename Operation>
auto WSSEndpoint::onNetworkThread(Operation operation) -> decltype(operation()) {
  if (std::this_thread::get_id() == thread_->get_id()) {
    return operation();
  }
  std::packaged_task<decltype(operation())()> task(std::move(operation));
  auto result = task.get_future();
  boost::asio::post(endpoint_.get_io_service(), [&task] { task(); });
  return result.get();
}

WSSEndpoint::WSSEndpoint() { setUp(); }

WSSEndpoint::WSSEndpoint(logFile* log) : log_(log) {
  Trace(0, "Debug CLASS");
  setUp();
  Trace(0, "END construct");
}

void WSSEndpoint::setUp() {
  endpoint_.clear_access_channels(websocketpp::log::alevel::all);
  endpoint_.clear_error_channels(websocketpp::log::elevel::all);
  endpoint_.init_asio();
  endpoint_.start_perpetual();
  thread_ = std::make_shared<std::thread>([this] { endpoint_.run(); });
}

WSSEndpoint::~WSSEndpoint() {
  // Posted before the loop may run dry: the pending handler is work, so run() executes it even
  // though it drops the perpetual work first. The thread then ends once the link has closed.
  boost::asio::post(endpoint_.get_io_service(), [this] {
    try {
      endpoint_.stop_perpetual();
      Trace(0, "start clossing function ");
      websocketpp::lib::error_code ec;
      endpoint_.close(hdl_, websocketpp::close::status::going_away, "", ec);
      if (ec) {
        Trace(4, "clossing function error: " + ec.message());
      }
    } catch (...) {
      // A failing log write must not escape the loop: the destructor never throws.
    }
  });
  thread_->join();
}

int WSSEndpoint::connect(const std::string& uri) {
  return onNetworkThread([this, &uri] {
    endpoint_.set_tls_init_handler(
        [this](websocketpp::connection_hdl hdl) { return enableSSLMode(std::move(hdl)); });
    Trace(0, "start connect function: " + uri);
    websocketpp::lib::error_code ec;
    const client::connection_ptr con = endpoint_.get_connection(uri, ec);
    if (ec) {
      const std::string text = "connect function initialization error: " + ec.message();
      Trace(4, text);
      throw WSSEndpointException(text);
    }
    con->add_subprotocol("qavel");
    con->set_message_handler([this](websocketpp::connection_hdl hdl, client::message_ptr msg) {
      on_message(std::move(hdl), std::move(msg));
    });
    hdl_ = con->get_handle();
    endpoint_.connect(con);
    Trace(0, "end connect function: ");
    return 0;
  });
}

void WSSEndpoint::setCallbackFctOnMessage(MessageCallback callback) {
  // Stored on the network thread, where on_message reads it.
  onNetworkThread([this, callback] { callback_ = callback; });
}

std::shared_ptr<boost::asio::ssl::context> WSSEndpoint::enableSSLMode(
    websocketpp::connection_hdl /*hdl*/) {
  namespace ssl = boost::asio::ssl;
  auto context = std::make_shared<ssl::context>(ssl::context::sslv23);
  try {
    context->set_verify_mode(ssl::verify_none);
    context->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                         ssl::context::no_sslv3 | ssl::context::no_tlsv1 |
                         ssl::context::single_dh_use);
    Trace(0, "enableSSLMode SSL OK");
  } catch (const std::exception& e) {
    const std::string text = std::string("SSLException: error in init session ") + e.what();
    Trace(4, text);
    throw WSSEndpointException(text);
  }
  return context;
}

void WSSEndpoint::on_message(websocketpp::connection_hdl hdl, client::message_ptr msg) {
  const std::string payload = msg->get_payload();
  Trace(0, "on_message function: " + payload);
  if (callback_ != nullptr) {
    callback_(std::move(hdl), payload);
  }
  Trace(0, "on_message function end");
}

void WSSEndpoint::send(std::string text) {
  Trace(0, "send function: " + text);
  const websocketpp::lib::error_code ec = onNetworkThread([this, &text] {
    websocketpp::lib::error_code first;
    endpoint_.send(hdl_, text, websocketpp::frame::opcode::text, first);
    if (!first) {
      return first;
    }
    // A fresh code: WebSocket++ does nothing when handed one that is already set.
    websocketpp::lib::error_code second;
    endpoint_.send(hdl_, text, websocketpp::frame::opcode::text, second);
    return second;
  });
  if (ec) {
    const std::string error = "Error sending message: " + ec.message();
    Trace(4, error);
    throw WSSEndpointException(error);
  }
  Trace(0, "send function end");
}

void WSSEndpoint::ping() {
  Trace(0, "send ping function: ");
  const websocketpp::lib::error_code ec = onNetworkThread([this] {
    websocketpp::lib::error_code code;
    endpoint_.ping(hdl_, "ping", code);
    return code;
  });
  if (ec) {
    const std::string error = "Error sending message: " + ec.message();
    Trace(4, error);
    throw WSSEndpointException(error);
  }
  Trace(0, "send ping function end");
}

void WSSEndpoint::close(std::uint16_t code, std::string reason) {
  const websocketpp::lib::error_code ec = onNetworkThread([this, code, &reason] {
    websocketpp::lib::error_code result;
    endpoint_.close(hdl_, code, reason, result);
    return result;
  });
  if (ec) {
    const std::string error = "Error initiating close: " + ec.message();
    Trace(4, error);
    throw WSSEndpointException(error);
  }
}

void WSSEndpoint::registerQAVEL(std::string sn, std::string ip, std::string mac) {
  Json::Value message(Json::objectValue);
  message["COMMAND"] = "REGISTER";
  message["IP"] = ip;
  message["SN"] = sn;
  message["MAC"] = mac;
  Trace(0, "register function: ");
  send(message.toStyledString());
}

void WSSEndpoint::Trace(int level, std::string text) {
  if (log_ != nullptr) {
    log_->write(static_cast<char>(level), "ENDPOINT SOCKET: " + text);
  }
}
