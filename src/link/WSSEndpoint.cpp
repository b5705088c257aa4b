#include "src/link/WSSEndpoint.h"

#include <boost/asio/post.hpp>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "src/link/linkTls.h"
#include "src/link/qavel.h"

// Every WebSocket++ call on the endpoint or the connection runs on the network thread. The library
// reads and writes the connection's state there without its own lock (the open and the
// termination paths set it unlocked, and the close path arms its timer unlocked), so a send, ping
// or close made directly from a pool worker or the main thread races with the I/O loop. Posting
// the call to the loop and waiting for its result keeps the library single-threaded, as its
// documentation asks for connection pointers obtained from a handle. A call made from the network
// thread itself (a reply sent by the message callback) runs at once, since waiting would deadlock.
// So does a call made while the network thread sits in the message callback: the agent's callback
// may wait for the main thread (an order that arrives before the pools exist), and the main thread
// may be in send() meanwhile. Calls already waiting when the callback starts are run by the network
// thread before it enters the callback, so that no waiting thread has to be woken to borrow it.
// Each caller waits on a condition variable of its own: with a thousand workers waiting to send
// their results, a completion wakes its one caller, not all of them.
// The outcome comes back as a value or an error text, never as an exception_ptr: libstdc++ frees
// a shared exception on whichever thread drops it last, out of ThreadSanitizer's sight. Any
// failure reaches the caller as a WSSEndpointException with the failure's text.
class WSSEndpoint::PendingCall {
 public:
  virtual ~PendingCall() = default;
  // Runs the operation and keeps its outcome; called once, by whoever claimed the call.
  virtual void run() = 0;

  // Under loanLock_.
  bool claimed = false;
  bool done = false;
  std::list<std::shared_ptr<PendingCall>>::iterator entry;  // in unclaimed_, until claimed
  std::condition_variable finished;                         // its caller alone waits here
};

template <typename Operation>
class WSSEndpoint::Call : public WSSEndpoint::PendingCall {
 public:
  using Result = decltype(std::declval<Operation&>()());
  explicit Call(Operation operation) : operation_(std::move(operation)) {}

  void run() override {
    try {
      value_.emplace(operation_());
    } catch (const std::exception& e) {
      error_ = e.what();
    }
  }
  // Read by the caller once done is set.
  Result take() {
    if (error_) throw WSSEndpointException(*error_);
    return std::move(*value_);
  }

 private:
  Operation operation_;
  std::optional<Result> value_;
  std::optional<std::string> error_;
};

bool WSSEndpoint::claim(PendingCall& call) {
  if (call.claimed) return false;
  call.claimed = true;
  unclaimed_.erase(call.entry);
  return true;
}

void WSSEndpoint::complete(PendingCall& call) {
  call.run();
  {
    const std::lock_guard<std::mutex> lock(loanLock_);
    call.done = true;
  }
  call.finished.notify_one();
}

template <typename Operation>
auto WSSEndpoint::onNetworkThread(Operation operation) -> decltype(operation()) {
  if (std::this_thread::get_id() == thread_->get_id()) {
    return operation();
  }
  const auto call = std::make_shared<Call<Operation>>(std::move(operation));
  std::unique_lock<std::mutex> lock(loanLock_);
  if (inCallback_) {
    call->claimed = true;
    ++borrowers_;
    lock.unlock();
    call->run();
    lock.lock();
    if (--borrowers_ == 0) borrowersGone_.notify_one();
    return call->take();
  }
  call->entry = unclaimed_.insert(unclaimed_.end(), call);
  lock.unlock();
  boost::asio::post(endpoint_.get_io_service(), [this, call] {
    bool mine;
    {
      const std::lock_guard<std::mutex> guard(loanLock_);
      mine = claim(*call);
    }
    if (mine) complete(*call);
  });
  lock.lock();
  call->finished.wait(lock, [&] { return call->done; });
  return call->take();
}

// Marks the network thread as lent out for the span of the message callback. On the way in it runs
// the calls already waiting; on the way out it waits for the borrowers, so that the loop touches
// the connection again only after them.
class WSSEndpoint::CallbackLoan {
 public:
  explicit CallbackLoan(WSSEndpoint& endpoint) : endpoint_(endpoint) {
    std::vector<std::shared_ptr<PendingCall>> waiting;
    {
      const std::lock_guard<std::mutex> lock(endpoint_.loanLock_);
      endpoint_.inCallback_ = true;
      waiting.reserve(endpoint_.unclaimed_.size());
      while (!endpoint_.unclaimed_.empty()) {
        waiting.push_back(endpoint_.unclaimed_.front());
        endpoint_.claim(*waiting.back());
      }
    }
    for (const auto& call : waiting) endpoint_.complete(*call);
  }
  ~CallbackLoan() {
    std::unique_lock<std::mutex> lock(endpoint_.loanLock_);
    endpoint_.inCallback_ = false;
    endpoint_.borrowersGone_.wait(lock, [this] { return endpoint_.borrowers_ == 0; });
  }
  CallbackLoan(const CallbackLoan&) = delete;
  CallbackLoan& operator=(const CallbackLoan&) = delete;

 private:
  WSSEndpoint& endpoint_;
};

WSSEndpoint::WSSEndpoint() { setUp(); }

WSSEndpoint::WSSEndpoint(logFile* log) : log_(log) {
  Trace(0, "Debug CLASS");
  setUp();
  Trace(0, "END construct");
}

void WSSEndpoint::setUp() {
  endpoint_.clear_access_channels(websocketpp::log::alevel::all);
  endpoint_.clear_error_channels(websocketpp::log::elevel::all);
  endpoint_.get_elog().setInfoSink([this](const std::string& text) { note(text); });
  endpoint_.init_asio();
  endpoint_.start_perpetual();
  thread_ = std::make_shared<std::thread>([this] { runLoop(); });
}

void WSSEndpoint::runLoop() {
  for (;;) {
    std::string what = "unknown exception";
    try {
      endpoint_.run();
      return;
    } catch (const std::exception& e) {
      what = e.what();
    } catch (...) {
    }
    // Asio lets the loop be run again after a handler threw, without a restart.
    try {
      onLoopFailure(what);
    } catch (...) {
      // Nothing may end the network thread but the end of its work.
    }
  }
}

// WebSocket++ does not catch a parse error of a proxy's reply (a malformed status or header line):
// it leaves the loop, and the connection that read it goes with the handler that held it, without
// a fail handler. While a tunnel is being opened, that is the opening's failure.
void WSSEndpoint::onLoopFailure(const std::string& what) {
  if (state_ == LinkState::Opening && diagnosis_.ownsLoopFailure()) {
    settle(LinkState::Ended, OpeningDiagnosis::describeLoopFailure(what));
  } else {
    Trace(4, "network loop: " + what);
  }
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

void WSSEndpoint::setOptions(LinkOptions options) {
  if (!options.clientKey.empty()) {
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> probe(SSL_CTX_new(TLS_client_method()),
                                                                  SSL_CTX_free);
    try {
      if (probe == nullptr) throw std::runtime_error("no TLS context: " + linkTls::openSslReason());
      linkTls::useClientCertificate(probe.get(), options.clientCertificate, options.clientKey);
    } catch (const std::exception& e) {
      fail(e.what());
    }
  }
  // Stored on the network thread, where the handlers read it.
  onNetworkThread([this, &options] {
    options_ = std::move(options);
    return true;
  });
}

int WSSEndpoint::connect(const std::string& uri) {
  return onNetworkThread([this, &uri] {
    endpoint_.set_tls_init_handler(
        [this](websocketpp::connection_hdl hdl) { return enableSSLMode(std::move(hdl)); });
    Trace(0, "start connect function: " + uri);
    // The TLS context is made while the connection is created, before it knows its URI.
    const websocketpp::uri parsed(uri);
    host_ = parsed.get_valid() ? parsed.get_host() : std::string();
    const std::uint64_t attempt = beginAttempt();
    websocketpp::lib::error_code ec;
    // WebSocket++ writes the CONNECT target as host:port, which for an IPv6 address no proxy
    // understands; a host given with its brackets keeps them there (and in the Host header).
    const bool bracketed = options_.proxy && host_.find(':') != std::string::npos;
    const client::connection_ptr con =
        bracketed ? endpoint_.get_connection(std::make_shared<websocketpp::uri>(
                                                 parsed.get_secure(), "[" + host_ + "]",
                                                 parsed.get_port(), parsed.get_resource()),
                                             ec)
                  : endpoint_.get_connection(uri, ec);
    if (ec) {
      fail("connect function initialization error: " + ec.message());
    }
    con->add_subprotocol("qavel");
    con->set_message_handler(
        [this, attempt](websocketpp::connection_hdl hdl, client::message_ptr msg) {
          if (current(attempt)) on_message(std::move(hdl), std::move(msg));
        });
    con->set_open_handler([this, attempt](websocketpp::connection_hdl hdl) {
      if (current(attempt)) {
        settle(LinkState::Open);
      } else {
        websocketpp::lib::error_code ignored;
        endpoint_.close(hdl, websocketpp::close::status::going_away, "", ignored);
      }
    });
    con->set_fail_handler([this, attempt](websocketpp::connection_hdl hdl) {
      websocketpp::lib::error_code gone;
      const client::connection_ptr failed = endpoint_.get_con_from_hdl(hdl, gone);
      if (current(attempt) && !gone)
        settle(LinkState::Ended, diagnosis_.describe(failed->get_ec(), failed->get_response_code(),
                                                     failed->get_response_msg()));
    });
    con->set_close_handler([this, attempt](websocketpp::connection_hdl) {
      if (current(attempt)) state_ = LinkState::Ended;
    });
    con->set_tcp_pre_init_handler([this, attempt](websocketpp::connection_hdl) {
      if (current(attempt)) diagnosis_.tcpConnected();
    });
    con->set_tcp_post_init_handler([this, attempt](websocketpp::connection_hdl) {
      if (current(attempt)) diagnosis_.secured();
    });
    if (options_.pongTimeout.count() > 0) {
      con->set_pong_timeout(static_cast<long>(options_.pongTimeout.count()));
      con->set_pong_timeout_handler([this, attempt](websocketpp::connection_hdl hdl, std::string) {
        if (current(attempt)) onPongTimeout(std::move(hdl));
      });
    }
    if (const long limit = static_cast<long>(options_.openingStepLimit.count()); limit > 0) {
      con->set_open_handshake_timeout(limit);
    }
    if (options_.proxy) useProxy(*con);
    hdl_ = con->get_handle();
    state_ = LinkState::Opening;
    endpoint_.connect(con);
    Trace(0, "end connect function: ");
    return 0;
  });
}

// Each call replaces what the one before set: the address first, then the credentials and the
// time limit.
void WSSEndpoint::useProxy(client::connection_type& con) {
  const ProxyUrl& proxy = *options_.proxy;
  websocketpp::lib::error_code ec;
  con.set_proxy(proxy.address, ec);
  if (!ec && !proxy.user.empty()) con.set_proxy_basic_auth(proxy.user, proxy.password, ec);
  if (!ec && options_.openingStepLimit.count() > 0)
    con.set_proxy_timeout(static_cast<long>(options_.openingStepLimit.count()), ec);
  if (ec) fail("proxy " + proxy.shown + ": " + ec.message());
}

std::uint64_t WSSEndpoint::beginAttempt() {
  websocketpp::lib::error_code gone;
  const client::connection_ptr before = endpoint_.get_con_from_hdl(hdl_, gone);
  if (!gone && before->get_state() == websocketpp::session::state::open) {
    websocketpp::lib::error_code ignored;
    before->close(websocketpp::close::status::going_away, "", ignored);
  }
  // One still opening is left to the steps' own limits, which end it soon: its handlers are
  // already stale, and cutting it short from outside would race with its pending operations.
  diagnosis_.begin(options_.proxy.has_value());
  failure_.clear();
  LinkConfig::transport_config::limitOpeningSteps(options_.openingStepLimit);
  return ++attempt_;
}

void WSSEndpoint::settle(LinkState outcome, const std::string& failure) {
  if (state_ != LinkState::Opening) return;
  failure_ = failure;
  state_ = outcome;
  announceLinkEvent();
}

std::string WSSEndpoint::openingFailure() const {
  return state_ == LinkState::Ended ? failure_ : std::string();
}

void WSSEndpoint::note(const std::string& text) {
  // A caller that borrows the thread (see CallbackLoan) acts on an open link, never an opening.
  if (std::this_thread::get_id() == thread_->get_id()) diagnosis_.note(text);
}

void WSSEndpoint::setCallbackFctOnMessage(MessageCallback callback) {
  // Stored on the network thread, where on_message reads it.
  onNetworkThread([this, callback] {
    callback_ = callback;
    return true;
  });
}

std::shared_ptr<boost::asio::ssl::context> WSSEndpoint::enableSSLMode(
    websocketpp::connection_hdl /*hdl*/) {
  namespace ssl = boost::asio::ssl;
  auto context = std::make_shared<ssl::context>(ssl::context::sslv23);
  try {
    if (options_.verifyServer) {
      requireVerifiedServer(*context);
    } else {
      context->set_verify_mode(ssl::verify_none);
    }
    context->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                         ssl::context::no_sslv3 | ssl::context::no_tlsv1 |
                         ssl::context::single_dh_use);
    if (!options_.clientKey.empty())
      linkTls::useClientCertificate(context->native_handle(), options_.clientCertificate,
                                    options_.clientKey);
    Trace(0, "enableSSLMode SSL OK");
  } catch (const std::exception& e) {
    fail(std::string("SSLException: error in init session ") + e.what());
  }
  return context;
}

void WSSEndpoint::requireVerifiedServer(boost::asio::ssl::context& context) {
  linkTls::trustServer(context.native_handle(), options_.caFile, host_);
  context.set_verify_mode(boost::asio::ssl::verify_peer);
  context.set_verify_callback([this](bool preverified, boost::asio::ssl::verify_context& store) {
    if (preverified) return true;
    const std::string refusal = linkTls::certificateRefusal(store.native_handle());
    Trace(4, refusal);
    note(refusal);
    return false;
  });
}

void WSSEndpoint::announceLinkEvent() {
  if (options_.onLinkEvent != nullptr) options_.onLinkEvent();
}

void WSSEndpoint::onPongTimeout(websocketpp::connection_hdl hdl) {
  websocketpp::lib::error_code ec;
  const client::connection_ptr con = endpoint_.get_con_from_hdl(hdl, ec);
  // The timer outlives a close: a link that ended meanwhile is left alone.
  if (ec || con->get_state() != websocketpp::session::state::open) return;
  Trace(4, "no pong within " + std::to_string(options_.pongTimeout.count()) + " ms: link ended");
  // Ended at once rather than closed: a close handshake needs a peer that still reads.
  con->terminate(websocketpp::lib::error_code());
  state_ = LinkState::Ended;
  announceLinkEvent();
}

void WSSEndpoint::on_message(websocketpp::connection_hdl hdl, client::message_ptr msg) {
  // Taken over, not copied: a frame may be tens of megabytes, and the library drops it anyway.
  std::string payload = std::move(msg->get_raw_payload());
  traceJoined(0, "on_message function: ", payload);
  // Read before the loan: while lent out, a borrower may store a new callback.
  const MessageCallback callback = callback_;
  if (callback != nullptr) {
    const CallbackLoan loan(*this);
    callback(std::move(hdl), std::move(payload));
  }
  traceJoined(0, "on_message function end");
}

void WSSEndpoint::send(std::string text) {
  traceJoined(0, "send function: ", text);
  const websocketpp::lib::error_code ec = onNetworkThread([this, &text] {
    websocketpp::lib::error_code first;
    endpoint_.send(hdl_, text, websocketpp::frame::opcode::text, first);
    if (!first) {
      return first;
    }
    // A failed send is deliberately tried once more, and the first failure is not logged.
    // A fresh code: WebSocket++ does nothing when handed one that is already set.
    websocketpp::lib::error_code second;
    endpoint_.send(hdl_, text, websocketpp::frame::opcode::text, second);
    return second;
  });
  if (ec) {
    fail("Error sending message: " + ec.message());
  }
  traceJoined(0, "send function end");
}

void WSSEndpoint::ping() {
  Trace(0, "send ping function: ");
  const websocketpp::lib::error_code ec = onNetworkThread([this] {
    websocketpp::lib::error_code code;
    endpoint_.ping(hdl_, "ping", code);
    return code;
  });
  if (ec) {
    fail("Error sending message: " + ec.message());
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
    fail("Error initiating close: " + ec.message());
  }
}

void WSSEndpoint::registerQAVEL(std::string sn, std::string ip, std::string mac) {
  Trace(0, "register function: ");
  send(QAVEL::buildJsonRegister(sn, ip, mac));
}

void WSSEndpoint::fail(const std::string& text) {
  Trace(4, text);
  throw WSSEndpointException(text);
}

void WSSEndpoint::Trace(int level, std::string text) { traceJoined(level, text); }
