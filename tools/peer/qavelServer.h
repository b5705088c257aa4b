// The agent's protocol peer: a TLS WebSocket server on a loopback address that answers the agent's
// "REGISTER", sends "EXEC" orders, records every frame it receives and can close or drop the link.
// It runs its own I/O thread; every public call may be made from any thread, the callbacks too.
// The most recently opened connection is "the link" that the send and close calls act on.
//
// The peer writes and reads the protocol with code of its own, never the agent's (only the
// descriptor owner is shared, which knows nothing of the protocol): the tests judge the agent by
// what this peer sees, and a fault in code both shared would pass unseen on both sides.
#pragma once

#include <json/json.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qavel {

// A failure of the server: bad address, unreadable certificate, no link to act on, ...
class ServerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct ReceivedFrame {
  double time = 0;   // receive time, seconds since the epoch
  std::string text;  // the payload as it arrived
  bool isJson = false;
  Json::Value json;  // the payload parsed, null when it is not one JSON document
};

struct ConnectionInfo {
  std::string remote;                            // "address:port" of the agent
  std::vector<std::string> offeredSubprotocols;  // as the agent asked for them
  std::string selectedSubprotocol;               // empty when none was selected
  std::string serverName;                        // the agent's SNI; empty when it sent none
  std::string clientSubject;  // subject of the agent's verified certificate; empty without one
};

struct CloseInfo {
  std::uint16_t code = 0;  // the agent's close code; 1006 when the link ended without one
  std::string reason;
};

// How "REGISTER" is answered.
struct RegisterReply {
  enum class Kind { Status, NoStatus, Silent };
  Kind kind = Kind::Status;
  Json::Value status = 0;  // any JSON value: 0, "0", 1, "" ...

  static RegisterReply withStatus(Json::Value status) { return {Kind::Status, std::move(status)}; }
  static RegisterReply withoutStatus() { return {Kind::NoStatus, Json::Value()}; }
  static RegisterReply silent() { return {Kind::Silent, Json::Value()}; }
};

struct ServerOptions {
  std::string address = "127.0.0.1";
  std::uint16_t port = 0;  // 0: an ephemeral port, see QavelServer::port()
  // PEM files; both empty: a throwaway self-signed certificate for CN=localhost.
  std::string certFile;
  std::string keyFile;
  // PEM file of the CAs whose client certificates are accepted; set, a client without a
  // certificate they signed is refused in the TLS handshake (mutual TLS).
  std::string clientCaFile;
  // false: behave like a server that does not speak "qavel". Such a server accepts the handshake
  // without a Sec-WebSocket-Protocol header, as RFC 6455 asks of it, rather than refusing it.
  bool selectSubprotocol = true;
  RegisterReply registerReply;
  // false: pings get no pong, as from a server whose application hangs.
  bool answerPings = true;
  // Once a link's "REGISTER" has been answered (and execOrders sent), read nothing more from it:
  // the agent's frames pile up in its buffers, as with a server that no longer reads.
  bool stopReadingAfterRegister = false;
  // Each opening handshake is held this long before it is accepted. The I/O thread waits
  // meanwhile: for tests of a slow link, one connection at a time.
  std::chrono::milliseconds openDelay{0};
  // "EXEC" documents sent, in order, right after each "REGISTER" has been handled.
  std::vector<Json::Value> execOrders;
  // Called on the I/O thread, outside the server's locks.
  std::function<void(const ReceivedFrame&)> onFrame;
  std::function<void(const std::string&)> onEvent;  // one line on connections and failures
  std::function<void(const CloseInfo&)> onClose;
};

class QavelServer {
 public:
  explicit QavelServer(ServerOptions options = {});
  ~QavelServer();  // stop()
  QavelServer(const QavelServer&) = delete;
  QavelServer& operator=(const QavelServer&) = delete;

  // Binds, listens and starts the I/O thread; throws ServerError (bad address, port in use,
  // unreadable certificate or key).
  void start();
  std::uint16_t port() const;  // the port actually bound, valid after start()
  // Closes every link (1001), waits a short while for the handshakes, ends the thread. Idempotent.
  void stop();

  // The open link, once there is one; nullopt when none opened within the timeout.
  std::optional<ConnectionInfo> waitForConnection(std::chrono::milliseconds timeout);
  // Every frame received since start(), from all connections, once there are at least count of
  // them or the timeout has passed (then fewer).
  std::vector<ReceivedFrame> waitForFrames(std::size_t count, std::chrono::milliseconds timeout);
  // The next connection end not yet returned by an earlier call, in order of their ends.
  std::optional<CloseInfo> waitForClose(std::chrono::milliseconds timeout);

  // On the link; each throws ServerError when there is no open link or the library refuses.
  void sendExec(const Json::Value& document);
  void sendExec(int taskId, const std::string& name, const std::string& parameter, int priority);
  void sendRaw(const std::string& text);
  void closeLink(std::uint16_t code, const std::string& reason);
  void dropConnection();  // closes the socket: no close frame, no TLS shutdown

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// {"COMMAND":"EXEC","TASK":{"NAME","PARAMETER","PRIORITY","TASKID"}}.
Json::Value execOrder(int taskId, const std::string& name, const std::string& parameter,
                      int priority);
// {"COMMAND":"EXEC-RESPONSE","STATUS":status,"TASK":{"OUTPUT","RETURN","TASKID"}}, as the agent
// answers an order.
Json::Value execResponse(int status, int taskId, const std::string& output, int returnCode);
// The whole of `text` as a decimal number in [lowest, highest]; throws ServerError naming `what`.
long wholeNumber(const std::string& text, long lowest, long highest, const std::string& what);
// One whole JSON document (nothing after it), or nullopt.
std::optional<Json::Value> parseJsonDocument(const std::string& text);
// "TASKID NAME PRIORITY [PARAMETER...]" (the parameter is the rest of the text, kept as written)
// or one JSON document; throws ServerError naming what is wrong.
Json::Value parseExecOrder(const std::string& text);
// The frame as one line of JSON: {"frame": <document, or the text as a string>, "time": seconds}.
std::string frameLine(const ReceivedFrame& frame);

}  // namespace qavel
