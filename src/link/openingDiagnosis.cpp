#include "src/link/openingDiagnosis.h"

#include <websocketpp/transport/asio/base.hpp>
#include <websocketpp/transport/asio/security/base.hpp>

namespace {

// The reason in a library note "<step> error: <category>:<code> (<reason>)"; other notes as they
// are.
std::string noteReason(const std::string& note) {
  const std::string marker = " error: ";
  const std::size_t error = note.find(marker);
  if (error == std::string::npos) return note;
  const std::string detail = note.substr(error + marker.size());
  const std::size_t open = detail.find(" (");
  const bool coded = open != std::string::npos && detail.back() == ')' && detail.find(':') < open &&
                     detail.find(' ') == open;
  return coded ? detail.substr(open + 2, detail.size() - open - 3) : detail;
}

}  // namespace

void OpeningDiagnosis::begin(bool throughProxy) {
  throughProxy_ = throughProxy;
  tcpConnected_ = false;
  secured_ = false;
  note_.clear();
  proxyRefusal_.clear();
}

// Notes are not tied to a connection: one of an attempt given up on may land here too, which at
// worst words a failure less well.
void OpeningDiagnosis::note(const std::string& text) {
  const std::string refusal = "Proxy connection error: ";
  // The shutdown that follows a failure says nothing of its cause.
  const std::string shutdown = "asio async_shutdown";
  if (text.rfind(refusal, 0) == 0)
    proxyRefusal_ = text.substr(refusal.size());
  else if (note_.empty() && text.rfind(shutdown, 0) != 0)
    note_ = text;
}

std::string OpeningDiagnosis::describe(const websocketpp::lib::error_code& error, int httpStatus,
                                       const std::string& httpReason) const {
  std::string why = error.message();
  if (!note_.empty()) why += ": " + noteReason(note_);
  if (httpStatus != 0)
    why += " (the server answered " + std::to_string(httpStatus) + " " + httpReason + ")";
  if (!throughProxy_ || secured_ ||
      error.category() == websocketpp::transport::asio::socket::get_socket_category())
    return why;
  // Before TLS is up through the tunnel, a failure other than TLS's own is the proxy's.
  if (error == websocketpp::transport::asio::error::make_error_code(
                   websocketpp::transport::asio::error::proxy_failed))
    return proxyRefusal_.empty() ? "the proxy refused the tunnel"
                                 : "the proxy answered " + proxyRefusal_;
  return (tcpConnected_ ? "the proxy opened no tunnel: " : "cannot reach the proxy: ") + why;
}

std::string OpeningDiagnosis::describeLoopFailure(const std::string& what) {
  return "the proxy answered something that is not an HTTP reply: " + what;
}
