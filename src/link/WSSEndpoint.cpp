#include "WSSEndpoint.h"

#include <json/json.h>

#include <boost/asio/post.hpp>
#include <optional>
#include <utility>
#include <vector>

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
      fail("connect function initialization error: " + ec.message());
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
    context->set_verify_mode(ssl::verify_none);
    context->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                         ssl::context::no_sslv3 | ssl::context::no_tlsv1 |
                         ssl::context::single_dh_use);
    Trace(0, "enableSSLMode SSL OK");
  } catch (const std::exception& e) {
    fail(std::string("SSLException: error in init session ") + e.what());
  }
  return context;
}

void WSSEndpoint::on_message(websocketpp::connection_hdl hdl, client::message_ptr msg) {
  const std::string payload = msg->get_payload();
  traceJoined(0, "on_message function: ", payload);
  // Read before the loan: while lent out, a borrower may store a new callback.
  const MessageCallback callback = callback_;
  if (callback != nullptr) {
    const CallbackLoan loan(*this);
    callback(std::move(hdl), payload);
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
  Json::Value message(Json::objectValue);
  message["COMMAND"] = "REGISTER";
  message["IP"] = ip;
  message["SN"] = sn;
  message["MAC"] = mac;
  Trace(0, "register function: ");
  send(message.toStyledString());
}

void WSSEndpoint::fail(const std::string& text) {
  Trace(4, text);
  throw WSSEndpointException(text);
}

void WSSEndpoint::Trace(int level, std::string text) { traceJoined(level, text); }
