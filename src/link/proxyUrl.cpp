#include "src/link/proxyUrl.h"

#include <arpa/inet.h>
#include <strings.h>

#include <cctype>

#include "src/common/convertTo.h"

namespace {

const char kScheme[] = "http://";
constexpr std::size_t kSchemeLength = sizeof kScheme - 1;

// A user or password as written in a URL, where ":", "@" and "%" must be escaped as %XX.
std::optional<std::string> percentDecoded(const std::string& text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      plain += text[i];
      continue;
    }
    const int high = i + 2 < text.size() ? hexDigitValue(text[i + 1]) : -1;
    const int low = high >= 0 ? hexDigitValue(text[i + 2]) : -1;
    if (low < 0) return std::nullopt;
    plain += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return plain;
}

bool isHostName(const std::string& host) {
  if (host.empty()) return false;
  for (const char c : host)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '.' && c != '_')
      return false;
  return true;
}

bool isPort(const std::string& text) {
  if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  const long port = std::stol(text);
  return port >= 1 && port <= 65535;
}

// HOST:PORT, HOST an IPv4 address, a name or an IPv6 address in brackets (kept). Empty on success.
std::string splitHostPort(const std::string& text, std::string& host, std::string& port) {
  std::size_t colon;
  if (!text.empty() && text.front() == '[') {
    const std::size_t close = text.find(']');
    if (close == std::string::npos) return "no ']' after the IPv6 address";
    in6_addr ignored;
    if (::inet_pton(AF_INET6, text.substr(1, close - 1).c_str(), &ignored) != 1)
      return "no IPv6 address in the brackets";
    host = text.substr(0, close + 1);
    colon = close + 1;
    if (colon < text.size() && text[colon] != ':') return "nothing but :PORT may follow HOST";
  } else {
    colon = text.rfind(':');
    host = text.substr(0, colon);
    if (!isHostName(host)) return "no host name or address";
  }
  if (colon >= text.size()) return "no port";
  port = text.substr(colon + 1);
  return isPort(port) ? "" : "no port from 1 to 65535";
}

}  // namespace

std::optional<ProxyUrl> ProxyUrl::parse(const std::string& text, std::string& why) {
  if (text.size() < kSchemeLength || ::strncasecmp(text.c_str(), kScheme, kSchemeLength) != 0) {
    why = "it does not begin with http:// (the link talks plain HTTP to a proxy)";
    return std::nullopt;
  }
  std::string rest = text.substr(kSchemeLength);
  if (!rest.empty() && rest.back() == '/') rest.pop_back();
  // The last "@": a password may hold an unescaped one.
  const std::size_t at = rest.rfind('@');
  const std::string userPart = at == std::string::npos ? "" : rest.substr(0, at);
  const std::string hostPort = at == std::string::npos ? rest : rest.substr(at + 1);

  ProxyUrl proxy;
  std::string host;
  std::string port;
  if (hostPort.find_first_of("/?#") != std::string::npos) {
    why = "nothing may follow HOST:PORT";
    return std::nullopt;
  }
  why = splitHostPort(hostPort, host, port);
  if (!why.empty()) return std::nullopt;
  if (at != std::string::npos) {
    const std::size_t colon = userPart.find(':');
    const std::optional<std::string> user = percentDecoded(userPart.substr(0, colon));
    const std::optional<std::string> password =
        percentDecoded(colon == std::string::npos ? "" : userPart.substr(colon + 1));
    if (!user || !password) {
      why = "a '%' of the user part is not followed by two hexadecimal digits";
      return std::nullopt;
    }
    if (user->empty()) {
      why = "no user name before the '@'";
      return std::nullopt;
    }
    proxy.user = *user;
    proxy.password = *password;
  }
  proxy.address = kScheme + host + ":" + port;
  proxy.shown =
      masked(kScheme + (at == std::string::npos ? "" : userPart + "@") + host + ":" + port);
  return proxy;
}

std::string masked(const std::string& text) {
  const std::size_t scheme = text.find("://");
  const std::size_t start = scheme == std::string::npos ? 0 : scheme + 3;
  const std::size_t at = text.rfind('@');
  if (at == std::string::npos || at < start) return text;
  const std::size_t colon = text.find(':', start);
  if (colon == std::string::npos || colon > at) return text;
  return text.substr(0, colon + 1) + "***" + text.substr(at);
}
