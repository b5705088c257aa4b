// The agent's one secure WebSocket client link, with its own network thread. It offers the "qavel"
// subprotocol, does not verify the server's certificate (TLS 1.1 and later only), hands every
// inbound frame to one callback on the network thread and raises WSSEndpointException on failure.
// send/ping/close may be called from any thread: each runs on the network thread and waits (see
// onNetworkThread in the .cpp for why, and for calls made while the callback runs).
#pragma once

#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_client.hpp>

#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "../common/logFile.h"
#include "../common/messageException.h"

class WSSEndpointException : public MessageException {
 public:
  using MessageException::MessageException;
};

class WSSEndpoint {
 public:
  using client = websocketpp::client<websocketpp::config::asio_tls_client>;
  using MessageCallback = void (*)(std::weak_ptr<void>, std::string);

  WSSEndpoint();
  explicit WSSEndpoint(logFile* log);
  // Stops the loop, closes the link with 1001 and joins the network thread; never throws.
  virtual ~WSSEndpoint();
  WSSEndpoint(const WSSEndpoint&) = delete;
  WSSEndpoint& operator=(const WSSEndpoint&) = delete;

  int connect(const std::string& uri);
  void setCallbackFctOnMessage(MessageCallback callback);
  // Virtual so that a test can record what the agent sends instead of sending it.
  virtual void send(std::string text);
  void ping();
  virtual void close(std::uint16_t code, std::string reason);
  void registerQAVEL(std::string sn, std::string ip, std::string mac);

  std::shared_ptr<boost::asio::ssl::context> enableSSLMode(websocketpp::connection_hdl hdl);
  void on_message(websocketpp::connection_hdl hdl, client::message_ptr msg);
  void Trace(int level, std::string text);

 private:
  void setUp();
  // Trace(level, the parts joined), the text built only when the log writes the line.
  template <typename... Parts>
  void traceJoined(int level, const Parts&... parts) {
    if (log_ != nullptr) log_->writeJoined(static_cast<char>(level), "ENDPOINT SOCKET: ", parts...);
  }
  // Logs `text` at level 4 and throws it as a WSSEndpointException.
  [[noreturn]] void fail(const std::string& text);
  // Runs the operation on the network thread and returns its result; a failure comes back as a
  // WSSEndpointException with its text.
  template <typename Operation>
  auto onNetworkThread(Operation operation) -> decltype(operation());
  class PendingCall;
  template <typename Operation>
  class Call;
  class CallbackLoan;
  // Claims `call` for the thread that runs it; false when another thread already has. Under
  // loanLock_.
  bool claim(PendingCall& call);
  // Runs a claimed call and wakes the one thread waiting for it.
  void complete(PendingCall& call);

  client endpoint_;
  std::mutex mutex_;
  std::shared_ptr<std::thread> thread_;
  websocketpp::connection_hdl hdl_;
  MessageCallback callback_ = nullptr;
  logFile* log_ = nullptr;
  [[maybe_unused]] std::int32_t status_ = 254;  // no operation reads it yet
  // While the network thread is inside the message callback, it touches no connection state:
  // another thread may then use the connection directly ("borrow" the thread), for the callback
  // may be waiting for that very thread. Calls waiting when the callback starts are run by the
  // network thread first. All of it under loanLock_.
  std::mutex loanLock_;
  std::condition_variable borrowersGone_;  // only the network thread waits here
  std::list<std::shared_ptr<PendingCall>> unclaimed_;
  bool inCallback_ = false;
  int borrowers_ = 0;
};
