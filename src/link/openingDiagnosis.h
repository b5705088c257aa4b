// Why an opening of the link failed, in words an administrator can act on: the library's error,
// the first note it made while the attempt ran (the connect's reason, a certificate refused), the
// server's HTTP answer, and, through a proxy, whether the proxy could not be reached, refused the
// tunnel (with its status) or opened none. The endpoint feeds it the events of the current attempt;
// network thread only.
#pragma once

#include <websocketpp/common/system_error.hpp>

#include <string>

class OpeningDiagnosis {
 public:
  // A new attempt; `throughProxy` when it opens a tunnel first.
  void begin(bool throughProxy);
  // TCP is connected, to the server or to the proxy.
  void tcpConnected() { tcpConnected_ = true; }
  // TLS is up, through the tunnel if there is one.
  void secured() { secured_ = true; }
  // A note of the library's info channel, or one of the endpoint's own (a refused certificate).
  void note(const std::string& text);

  // The failure of the attempt from what the library says of it: its error, and the server's
  // HTTP status and reason (status 0: none came).
  std::string describe(const websocketpp::lib::error_code& error, int httpStatus,
                       const std::string& httpReason) const;
  // True when a failure of the I/O loop is the opening's (a proxy's reply it cannot parse makes
  // the library leave its loop); describeLoopFailure then says it.
  bool ownsLoopFailure() const { return throughProxy_ && !secured_; }
  static std::string describeLoopFailure(const std::string& what);

 private:
  bool throughProxy_ = false;
  bool tcpConnected_ = false;
  bool secured_ = false;
  std::string note_;
  std::string proxyRefusal_;  // "407 (Proxy Authentication Required)"
};
