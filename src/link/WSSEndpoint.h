// The agent's one secure WebSocket client link, with its own network thread. It offers the "qavel"
// subprotocol (TLS 1.1 and later only), hands every inbound frame to one callback on the network
// thread and raises WSSEndpointException on failure. By default it verifies nothing and awaits no
// pong; LinkOptions turn on the server's verification, a client certificate, the pong timeout, an
// HTTP proxy and a time limit for the opening. connect may be called again to try another URL:
// the connection given up on can no longer change the link's state or reach the callback.
// send/ping/close may be called from any thread: each runs on the network thread and waits (see
// onNetworkThread in the .cpp for why, and for calls made while the callback runs).
#pragma once

#include <websocketpp/client.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "src/common/logFile.h"
#include "src/common/messageException.h"
#include "src/link/linkConfig.h"
#include "src/link/openingDiagnosis.h"
#include "src/link/proxyUrl.h"

class WSSEndpointException : public MessageException {
 public:
  using MessageException::MessageException;
};

// What the link checks and presents beyond its defaults; every member's default is off.
struct LinkOptions {
  // Verify the server's chain against caFile (PEM; empty: the system's trust store) and its
  // certificate against the host name or IP address of the URI.
  bool verifyServer = false;
  std::string caFile;
  // Both set: present this certificate (PEM, may hold a chain) and its key to the server.
  std::string clientCertificate;
  std::string clientKey;
  // A ping whose pong has not come back within this time ends the link at once; 0: not awaited.
  std::chrono::milliseconds pongTimeout{0};
  // Set: the link is opened through an HTTP CONNECT tunnel of this proxy; TLS runs through it end
  // to end, so the checks above concern the server, never the proxy.
  std::optional<ProxyUrl> proxy;
  // Each step of an opening (name resolution, TCP connect, the proxy's CONNECT, the TLS and the
  // WebSocket handshakes) may take this long; 0: the library's own 5 s each. The whole opening is
  // bounded by the caller, who gives up on it and calls connect again or ends.
  std::chrono::milliseconds openingStepLimit{0};
  // Called on the network thread when the link opens or fails to open, and when it is ended for
  // want of a pong; it must not call back into the endpoint.
  void (*onLinkEvent)() = nullptr;
};

class WSSEndpoint {
 public:
  enum class LinkState { Idle, Opening, Open, Ended };

  using client = websocketpp::client<LinkConfig>;
  using MessageCallback = void (*)(std::weak_ptr<void>, std::string);

  WSSEndpoint();
  explicit WSSEndpoint(logFile* log);
  // Stops the loop, closes the link with 1001 and joins the network thread; never throws.
  virtual ~WSSEndpoint();
  WSSEndpoint(const WSSEndpoint&) = delete;
  WSSEndpoint& operator=(const WSSEndpoint&) = delete;

  // Before connect. Loads the client certificate and key once to check them: a missing file or a
  // key that does not match its certificate throws here rather than on the network thread later.
  void setOptions(LinkOptions options);
  // Starts opening the link to `uri`; called again, it gives up on the connection before.
  int connect(const std::string& uri);
  // Idle before connect, Opening until the link opens (Open), then Ended once it has failed,
  // closed or been ended; from any thread.
  LinkState linkState() const { return state_; }
  // Why the latest opening failed, once linkState() is Ended without having been Open; empty
  // otherwise. From any thread, until the next connect.
  std::string openingFailure() const;
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
  // The network thread: the I/O loop, kept running when a handler throws out of it.
  void runLoop();
  void onLoopFailure(const std::string& what);
  // The connection being opened or open is this attempt's; the handlers of an older one find
  // they are not and leave the link alone.
  bool current(std::uint64_t attempt) const { return attempt == attempt_; }
  // A new attempt: the one before is given up on (a link it opened meanwhile is closed).
  std::uint64_t beginAttempt();
  // The outcome of the current attempt, once: Open, or Ended with why it failed.
  void settle(LinkState outcome, const std::string& failure = "");
  void useProxy(client::connection_type& con);
  // What the library says on its info channel while an attempt runs, for the diagnosis of a
  // failure. Network thread only.
  void note(const std::string& text);
  // Trace(level, the parts joined), the text built only when the log writes the line.
  template <typename... Parts>
  void traceJoined(int level, const Parts&... parts) {
    writeJoinedTo(log_, static_cast<char>(level), "ENDPOINT SOCKET: ", parts...);
  }
  // Logs `text` at level 4 and throws it as a WSSEndpointException.
  [[noreturn]] void fail(const std::string& text);
  void announceLinkEvent();  // to options_.onLinkEvent
  void onPongTimeout(websocketpp::connection_hdl hdl);
  // Sets `context` to verify the server against the trusted certificates and host_.
  void requireVerifiedServer(boost::asio::ssl::context& context);
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
  LinkOptions options_;  // network thread, once connect has been called
  std::string host_;     // of the URI being connected; network thread
  std::atomic<LinkState> state_{LinkState::Idle};
  // Of the current attempt, on the network thread. failure_ is written before state_ becomes
  // Ended, and read by other threads only after they have seen Ended.
  std::uint64_t attempt_ = 0;
  OpeningDiagnosis diagnosis_;
  std::string failure_;
  logFile* log_ = nullptr;                      // not owned; must outlive the endpoint
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
