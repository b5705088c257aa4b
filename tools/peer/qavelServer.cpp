#include "tools/peer/qavelServer.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <websocketpp/config/asio.hpp>
#include <websocketpp/server.hpp>

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

namespace qavel {
namespace {

// WebSocket++ waits 5 s for a socket shutdown and for a close handshake; a peer for tests and
// administrators must let a closed link go at once.
struct PeerConfig : websocketpp::config::asio_tls {
  using type = PeerConfig;
  using base = websocketpp::config::asio_tls;
  struct transport_config : base::transport_config {
    static const long timeout_socket_shutdown = 200;  // milliseconds
  };
  using transport_type = websocketpp::transport::asio::endpoint<transport_config>;
  static const long timeout_close_handshake = 1000;
};

using Server = websocketpp::server<PeerConfig>;
using Hdl = websocketpp::connection_hdl;
using TlsContext = boost::asio::ssl::context;

// How long stop() lets the links close before it drops whatever is left.
constexpr std::chrono::seconds kStopGrace{2};

double secondsSinceEpoch() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string openSslError() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return "unknown OpenSSL error";
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

void checkSsl(bool ok, const char* what) {
  if (!ok)
    throw ServerError(std::string("cannot make a self-signed certificate: ") + what + ": " +
                      openSslError());
}

struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertificateFree {
  void operator()(X509* certificate) const { X509_free(certificate); }
};

// A throwaway P-256 key and certificate for CN=localhost, valid for a day: the agent verifies
// nothing, and no file has to be written or cleaned up.
void useSelfSignedCertificate(TlsContext& context) {
  const std::unique_ptr<EVP_PKEY, KeyFree> key(EVP_EC_gen("P-256"));
  checkSsl(key != nullptr, "key");
  const std::unique_ptr<X509, CertificateFree> certificate(X509_new());
  checkSsl(certificate != nullptr, "certificate");
  X509* const cert = certificate.get();
  checkSsl(X509_set_version(cert, 2) == 1, "version");
  checkSsl(
      ASN1_INTEGER_set(X509_get_serialNumber(cert), static_cast<long>(std::time(nullptr))) == 1,
      "serial number");
  // Back-dated a minute so that a peer with a slightly slow clock accepts it too.
  checkSsl(X509_gmtime_adj(X509_getm_notBefore(cert), -60) != nullptr, "validity");
  checkSsl(X509_gmtime_adj(X509_getm_notAfter(cert), 24 * 3600) != nullptr, "validity");
  X509_NAME* const name = X509_get_subject_name(cert);
  checkSsl(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                      reinterpret_cast<const unsigned char*>("localhost"), -1, -1,
                                      0) == 1,
           "subject");
  checkSsl(X509_set_issuer_name(cert, name) == 1, "issuer");
  checkSsl(X509_set_pubkey(cert, key.get()) == 1, "public key");
  checkSsl(X509_sign(cert, key.get(), EVP_sha256()) > 0, "signature");
  checkSsl(SSL_CTX_use_certificate(context.native_handle(), cert) == 1, "use certificate");
  checkSsl(SSL_CTX_use_PrivateKey(context.native_handle(), key.get()) == 1, "use key");
}

// Boost's message for a failed load is only "asio.ssl error": the system's or OpenSSL's reason
// says what is wrong with the file.
std::string loadFailure(const std::string& file, const boost::system::error_code& ec) {
  if (access(file.c_str(), R_OK) != 0) return strerror(errno);
  if (ec.category() == boost::asio::error::get_ssl_category()) {
    const char* const reason = ERR_reason_error_string(static_cast<unsigned long>(ec.value()));
    if (reason != nullptr) return reason;
  }
  return ec.message();
}

void useCertificateFiles(TlsContext& context, const std::string& certFile,
                         const std::string& keyFile) {
  boost::system::error_code ec;
  context.use_certificate_chain_file(certFile, ec);
  if (ec)
    throw ServerError("cannot read certificate " + certFile + ": " + loadFailure(certFile, ec));
  context.use_private_key_file(keyFile, TlsContext::pem, ec);
  if (ec) throw ServerError("cannot read private key " + keyFile + ": " + loadFailure(keyFile, ec));
  if (SSL_CTX_check_private_key(context.native_handle()) != 1) {
    throw ServerError("private key " + keyFile + " does not match certificate " + certFile);
  }
}

std::shared_ptr<TlsContext> makeTlsContext(const ServerOptions& options) {
  if (options.certFile.empty() != options.keyFile.empty()) {
    throw ServerError("a certificate file and a key file go together");
  }
  auto context = std::make_shared<TlsContext>(TlsContext::tls_server);
  context->set_options(TlsContext::default_workarounds | TlsContext::no_sslv2 |
                       TlsContext::no_sslv3 | TlsContext::single_dh_use);
  if (options.certFile.empty()) {
    useSelfSignedCertificate(*context);
  } else {
    useCertificateFiles(*context, options.certFile, options.keyFile);
  }
  if (!options.clientCaFile.empty()) {
    boost::system::error_code ec;
    context->load_verify_file(options.clientCaFile, ec);
    if (ec)
      throw ServerError("cannot read client CA file " + options.clientCaFile + ": " +
                        loadFailure(options.clientCaFile, ec));
    context->set_verify_mode(boost::asio::ssl::verify_peer |
                             boost::asio::ssl::verify_fail_if_no_peer_cert);
  }
  return context;
}

// WebSocket++ reports every failure to bind as "Underlying Transport Error"; a plain acceptor
// tells why (address in use, permission denied).
std::string bindFailure(const boost::asio::ip::tcp::endpoint& where) {
  boost::asio::io_context io;
  boost::asio::ip::tcp::acceptor acceptor(io);
  boost::system::error_code ec;
  acceptor.open(where.protocol(), ec);
  if (!ec) acceptor.set_option(boost::asio::socket_base::reuse_address(true), ec);
  if (!ec) acceptor.bind(where, ec);
  if (!ec) acceptor.listen(boost::asio::socket_base::max_listen_connections, ec);
  return ec ? ec.message() : std::string();
}

// "/CN=..." of the client's certificate once the handshake verified it; empty without one.
std::string clientSubject(SSL* tls) {
  const std::unique_ptr<X509, CertificateFree> certificate(SSL_get1_peer_certificate(tls));
  if (certificate == nullptr || SSL_get_verify_result(tls) != X509_V_OK) return "";
  char name[256];
  X509_NAME_oneline(X509_get_subject_name(certificate.get()), name, sizeof name);
  return name;
}

ReceivedFrame readFrame(std::string text) {
  ReceivedFrame frame;
  frame.time = secondsSinceEpoch();
  frame.text = std::move(text);
  std::optional<Json::Value> document = parseJsonDocument(frame.text);
  frame.isJson = document.has_value();
  if (document) frame.json = std::move(*document);
  return frame;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ",") + word;
  return text.empty() ? "none" : text;
}

}  // namespace

struct QavelServer::Impl {
  explicit Impl(ServerOptions opts) : options(std::move(opts)) {}

  // Endpoint calls are not thread-safe: they run on the I/O thread, and the caller waits for the
  // outcome. From the I/O thread itself (a callback) they run at once. The outcome comes back as
  // an error text, not as an exception_ptr, which libstdc++ would free on whichever thread drops it
  // last, out of ThreadSanitizer's sight.
  void onIoThread(std::function<void()> operation) {
    bool onIo = false;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      if (!running) throw ServerError("the server is not running");
      onIo = std::this_thread::get_id() == ioThread;
    }
    if (onIo) return operation();
    struct Outcome {
      bool done = false;
      std::optional<std::string> error;
    };
    const auto outcome = std::make_shared<Outcome>();
    boost::asio::post(server.get_io_service(), [this, outcome, operation = std::move(operation)] {
      std::optional<std::string> error;
      try {
        operation();
      } catch (const std::exception& e) {
        error = e.what();
      }
      {
        const std::lock_guard<std::mutex> lock(mutex);
        outcome->error = std::move(error);
        outcome->done = true;
      }
      changed.notify_all();
    });
    std::unique_lock<std::mutex> lock(mutex);
    // Not done when stop() gave up on the loop and dropped the call with it.
    changed.wait(lock, [&] { return outcome->done || stopped; });
    if (!outcome->done) throw ServerError("the server stopped");
    if (outcome->error) throw ServerError(*outcome->error);
  }

  void event(const std::string& text) const {
    if (options.onEvent) options.onEvent(text);
  }

  Server::connection_ptr linkConnection() {
    websocketpp::lib::error_code ec;
    const Server::connection_ptr con = server.get_con_from_hdl(link, ec);
    if (ec) throw ServerError("no agent is connected");
    return con;
  }

  void send(const Hdl& hdl, const std::string& text) {
    websocketpp::lib::error_code ec;
    server.send(hdl, text, websocketpp::frame::opcode::text, ec);
    if (ec) throw ServerError("cannot send: " + ec.message());
  }

  bool onValidate(const Hdl& hdl) {
    if (options.openDelay.count() > 0) std::this_thread::sleep_for(options.openDelay);
    const Server::connection_ptr con = server.get_con_from_hdl(hdl);
    const std::vector<std::string>& offered = con->get_requested_subprotocols();
    if (options.selectSubprotocol &&
        std::find(offered.begin(), offered.end(), "qavel") != offered.end()) {
      con->select_subprotocol("qavel");
    }
    return true;
  }

  void onOpen(const Hdl& hdl) {
    const Server::connection_ptr con = server.get_con_from_hdl(hdl);
    SSL* const tls = con->get_socket().native_handle();
    const char* const serverName = SSL_get_servername(tls, TLSEXT_NAMETYPE_host_name);
    ConnectionInfo info{con->get_remote_endpoint(), con->get_requested_subprotocols(),
                        con->get_subprotocol(), serverName != nullptr ? serverName : "",
                        clientSubject(tls)};
    link = hdl;
    openLinks.insert(hdl);
    {
      const std::lock_guard<std::mutex> lock(mutex);
      linkInfo = info;
    }
    changed.notify_all();
    event("agent connected from " + info.remote +
          ", subprotocols offered: " + joined(info.offeredSubprotocols) +
          ", selected: " + (info.selectedSubprotocol.empty() ? "none" : info.selectedSubprotocol) +
          (info.clientSubject.empty() ? "" : ", client certificate: " + info.clientSubject));
  }

  void onFail(const Hdl& hdl) {
    if (stopping) return;  // the connection waiting in accept, cancelled by stop_listening
    const Server::connection_ptr con = server.get_con_from_hdl(hdl);
    event("connection failed: " + con->get_ec().message());
  }

  void onClose(const Hdl& hdl) {
    const Server::connection_ptr con = server.get_con_from_hdl(hdl);
    const CloseInfo info{con->get_remote_close_code(), con->get_remote_close_reason()};
    openLinks.erase(hdl);
    const bool wasLink = !link.owner_before(hdl) && !hdl.owner_before(link);
    if (wasLink) link.reset();
    {
      const std::lock_guard<std::mutex> lock(mutex);
      if (wasLink) linkInfo.reset();
      closes.push_back(info);
    }
    changed.notify_all();
    event("link closed, code " + std::to_string(info.code) +
          (info.reason.empty() ? "" : ", reason: " + info.reason));
    if (options.onClose) options.onClose(info);
  }

  void onMessage(const Hdl& hdl, const Server::message_ptr& message) {
    const ReceivedFrame frame = readFrame(message->get_payload());
    {
      const std::lock_guard<std::mutex> lock(mutex);
      frames.push_back(frame);
    }
    changed.notify_all();
    if (options.onFrame) options.onFrame(frame);
    if (frame.json.isObject() && frame.json["COMMAND"] == "REGISTER") {
      answerRegister(hdl);
      if (options.stopReadingAfterRegister) stopReading(hdl);
    }
  }

  // Paused from within the message handler, no further read is started at all. A connection lives
  // only as long as an operation of its own is pending, so the peer holds on to it until it stops.
  void stopReading(const Hdl& hdl) {
    websocketpp::lib::error_code ec;
    server.pause_reading(hdl, ec);
    if (ec) {
      event("cannot stop reading: " + ec.message());
      return;
    }
    unread.push_back(server.get_con_from_hdl(hdl));
  }

  void answerRegister(const Hdl& hdl) {
    try {
      const RegisterReply& reply = options.registerReply;
      if (reply.kind != RegisterReply::Kind::Silent) {
        Json::Value answer(Json::objectValue);
        answer["COMMAND"] = "REGISTER-RESPONSE";
        if (reply.kind == RegisterReply::Kind::Status) answer["STATUS"] = reply.status;
        send(hdl, answer.toStyledString());
      }
      for (const Json::Value& order : options.execOrders) send(hdl, order.toStyledString());
    } catch (const ServerError& e) {
      event(std::string("REGISTER not answered: ") + e.what());
    }
  }

  // Asks every link to close; the I/O loop ends once they are gone.
  void shutdown() {
    stopping = true;
    websocketpp::lib::error_code ec;
    server.stop_listening(ec);
    for (const Hdl& hdl : openLinks) {
      websocketpp::lib::error_code closeError;  // a set code would make close do nothing
      server.close(hdl, websocketpp::close::status::going_away, "qavel-server stopping",
                   closeError);
    }
    unread.clear();  // each now lives as long as its close takes
  }

  void runLoop() {
    for (;;) {
      try {
        server.run();
        break;
      } catch (const std::exception& e) {
        // A throwing callback must not end the peer; the loop carries on with the next handler.
        event(std::string("error in a handler: ") + e.what());
      }
    }
    finished.set_value();
  }

  const ServerOptions options;
  Server server;
  std::shared_ptr<TlsContext> tls;
  std::thread thread;
  std::promise<void> finished;
  std::uint16_t boundPort = 0;
  std::mutex stopMutex;  // serialises start() and stop()

  // I/O thread only.
  Hdl link;
  std::set<Hdl, std::owner_less<Hdl>> openLinks;
  std::vector<Server::connection_ptr> unread;  // links no longer read from
  bool stopping = false;

  // Under mutex.
  std::mutex mutex;
  std::condition_variable changed;
  bool running = false;
  bool stopped = false;  // the I/O thread has ended
  std::thread::id ioThread;
  std::optional<ConnectionInfo> linkInfo;
  std::vector<ReceivedFrame> frames;
  std::deque<CloseInfo> closes;
};

QavelServer::QavelServer(ServerOptions options)
    : impl_(std::make_unique<Impl>(std::move(options))) {}

QavelServer::~QavelServer() { stop(); }

void QavelServer::start() {
  Impl& impl = *impl_;
  const std::lock_guard<std::mutex> serial(impl.stopMutex);
  if (impl.thread.joinable()) throw ServerError("the server was started already");
  boost::system::error_code ec;
  const boost::asio::ip::address address = boost::asio::ip::make_address(impl.options.address, ec);
  if (ec) throw ServerError("bad listen address '" + impl.options.address + "': " + ec.message());
  const boost::asio::ip::tcp::endpoint where(address, impl.options.port);
  impl.tls = makeTlsContext(impl.options);

  Server& server = impl.server;
  server.clear_access_channels(websocketpp::log::alevel::all);
  server.clear_error_channels(websocketpp::log::elevel::all);
  server.init_asio();
  server.set_reuse_addr(true);
  server.set_tls_init_handler([&impl](const Hdl&) { return impl.tls; });
  server.set_validate_handler([&impl](Hdl hdl) { return impl.onValidate(hdl); });
  server.set_open_handler([&impl](Hdl hdl) { impl.onOpen(hdl); });
  server.set_fail_handler([&impl](Hdl hdl) { impl.onFail(hdl); });
  server.set_close_handler([&impl](Hdl hdl) { impl.onClose(hdl); });
  server.set_message_handler(
      [&impl](Hdl hdl, Server::message_ptr message) { impl.onMessage(hdl, message); });
  server.set_ping_handler([&impl](Hdl, std::string) { return impl.options.answerPings; });

  websocketpp::lib::error_code listenError;
  server.listen(where, listenError);
  if (listenError) {
    const std::string why = bindFailure(where);
    throw ServerError("cannot listen on " + impl.options.address + ":" +
                      std::to_string(impl.options.port) + ": " +
                      (why.empty() ? listenError.message() : why));
  }
  websocketpp::lib::error_code acceptError;
  server.start_accept(acceptError);
  if (acceptError) throw ServerError("cannot accept connections: " + acceptError.message());
  impl.boundPort = server.get_local_endpoint(ec).port();

  const std::lock_guard<std::mutex> lock(impl.mutex);
  impl.running = true;
  impl.thread = std::thread([&impl] { impl.runLoop(); });
  impl.ioThread = impl.thread.get_id();
}

std::uint16_t QavelServer::port() const { return impl_->boundPort; }

void QavelServer::stop() {
  Impl& impl = *impl_;
  const std::lock_guard<std::mutex> serial(impl.stopMutex);
  {
    const std::lock_guard<std::mutex> lock(impl.mutex);
    if (!impl.running) return;
    impl.running = false;
  }
  boost::asio::post(impl.server.get_io_service(), [&impl] { impl.shutdown(); });
  // A peer that never answers the close, or a handshake still in progress, would hold the loop
  // for the library's full timeouts.
  if (impl.finished.get_future().wait_for(kStopGrace) != std::future_status::ready) {
    impl.server.stop();
  }
  impl.thread.join();
  {
    const std::lock_guard<std::mutex> lock(impl.mutex);
    impl.stopped = true;
  }
  impl.changed.notify_all();
}

std::optional<ConnectionInfo> QavelServer::waitForConnection(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(impl_->mutex);
  impl_->changed.wait_for(lock, timeout, [this] { return impl_->linkInfo.has_value(); });
  return impl_->linkInfo;
}

std::vector<ReceivedFrame> QavelServer::waitForFrames(std::size_t count,
                                                      std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(impl_->mutex);
  impl_->changed.wait_for(lock, timeout, [&] { return impl_->frames.size() >= count; });
  return impl_->frames;
}

std::optional<CloseInfo> QavelServer::waitForClose(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(impl_->mutex);
  if (!impl_->changed.wait_for(lock, timeout, [this] { return !impl_->closes.empty(); })) {
    return std::nullopt;
  }
  const CloseInfo info = impl_->closes.front();
  impl_->closes.pop_front();
  return info;
}

void QavelServer::sendExec(const Json::Value& document) { sendRaw(document.toStyledString()); }

void QavelServer::sendExec(int taskId, const std::string& name, const std::string& parameter,
                           int priority) {
  sendExec(execOrder(taskId, name, parameter, priority));
}

void QavelServer::sendRaw(const std::string& text) {
  impl_->onIoThread([this, &text] { impl_->send(impl_->linkConnection()->get_handle(), text); });
}

void QavelServer::closeLink(std::uint16_t code, const std::string& reason) {
  impl_->onIoThread([this, code, &reason] {
    websocketpp::lib::error_code ec;
    impl_->linkConnection()->close(code, reason, ec);
    if (ec) throw ServerError("cannot close: " + ec.message());
  });
}

void QavelServer::dropConnection() {
  impl_->onIoThread([this] {
    boost::system::error_code ec;
    auto& socket = impl_->linkConnection()->get_raw_socket();
    // Both directions shut before the close, so the agent reads an end of stream rather than
    // waiting for data: no close frame and no TLS close_notify are sent.
    socket.shutdown(boost::asio::ip::tcp::socket::shutdown_both, ec);
    socket.close(ec);
    if (ec) throw ServerError("cannot drop the connection: " + ec.message());
  });
}

Json::Value execOrder(int taskId, const std::string& name, const std::string& parameter,
                      int priority) {
  Json::Value order(Json::objectValue);
  order["COMMAND"] = "EXEC";
  Json::Value& task = order["TASK"];
  task["TASKID"] = taskId;
  task["NAME"] = name;
  task["PARAMETER"] = parameter;
  task["PRIORITY"] = priority;
  return order;
}

long wholeNumber(const std::string& text, long lowest, long highest, const std::string& what) {
  std::size_t used = 0;
  long value = 0;
  try {
    value = std::stol(text, &used);
  } catch (const std::logic_error&) {
    used = 0;
  }
  if (text.empty() || used != text.size() || value < lowest || value > highest) {
    throw ServerError("bad " + what + " '" + text + "': want a number from " +
                      std::to_string(lowest) + " to " + std::to_string(highest));
  }
  return value;
}

std::optional<Json::Value> parseJsonDocument(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value document;
  std::string errors;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &document, &errors)) return document;
  } catch (const Json::Exception&) {
    // Nested too deep for the parser: not a document this peer can show as one.
  }
  return std::nullopt;
}

Json::Value execResponse(int status, int taskId, const std::string& output, int returnCode) {
  Json::Value document;
  document["COMMAND"] = "EXEC-RESPONSE";
  document["STATUS"] = status;
  document["TASK"]["TASKID"] = taskId;
  document["TASK"]["OUTPUT"] = output;
  document["TASK"]["RETURN"] = returnCode;
  return document;
}

Json::Value parseExecOrder(const std::string& text) {
  const std::size_t start = text.find_first_not_of(" \t");
  if (start != std::string::npos && text[start] == '{') {
    std::optional<Json::Value> document = parseJsonDocument(text);
    if (!document) throw ServerError("bad EXEC order: not a JSON document: " + text);
    return *document;
  }
  std::istringstream words(text);
  std::string taskId;
  std::string name;
  std::string priority;
  if (!(words >> taskId >> name >> priority)) {
    throw ServerError("bad EXEC order '" + text + "': want TASKID NAME PRIORITY [PARAMETER...]");
  }
  std::string parameter;
  std::getline(words >> std::ws, parameter);
  constexpr long kLowest = std::numeric_limits<int>::min();
  constexpr long kHighest = std::numeric_limits<int>::max();
  return execOrder(static_cast<int>(wholeNumber(taskId, kLowest, kHighest, "TASKID")), name,
                   parameter,
                   static_cast<int>(wholeNumber(priority, kLowest, kHighest, "PRIORITY")));
}

std::string frameLine(const ReceivedFrame& frame) {
  Json::Value line(Json::objectValue);
  line["time"] = frame.time;
  line["frame"] = frame.isJson ? frame.json : Json::Value(frame.text);
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, line);
}

}  // namespace qavel
