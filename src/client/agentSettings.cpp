#include "src/client/agentSettings.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include <sstream>

#include "src/common/iniConfig.h"
#include "src/common/wholeNumber.h"

namespace {

class KeyReader {
 public:
  KeyReader(iniConfig& config, std::vector<std::string>& problems)
      : config_(config), problems_(problems) {}

  // 0 when absent or empty; `fallback` (and a problem line) when the value is unusable.
  unsigned long long count(const char* section, const char* key, unsigned long long max,
                           unsigned long long fallback = 0) {
    const std::string text = config_.getKey(section, key);
    if (text.empty()) return fallback;
    unsigned long long value = 0;
    if (parseWholeNumber(text, max, value)) return value;
    problems_.push_back(std::string(section) + "/" + key + ": '" + text +
                        "' is not a whole number from 0 to " + std::to_string(max) +
                        "; the key is ignored");
    return fallback;
  }

  bool flag(const char* section, const char* key) { return count(section, key, 1) == 1; }

  // The proxy, or nullopt (with a problem line when the key is set).
  std::optional<ProxyUrl> proxy(const char* section, const char* key, std::string& text) {
    text = config_.getKey(section, key);
    if (text.empty()) return std::nullopt;
    std::string why;
    std::optional<ProxyUrl> proxy = ProxyUrl::parse(text, why);
    if (!proxy)
      problems_.push_back(std::string(section) + "/" + key + ": '" + masked(text) +
                          "' is not http://[USER:PASSWORD@]HOST:PORT: " + why +
                          "; the link is not opened without it");
    return proxy;
  }

  // The server URLs separated by blanks; one that cannot be used is left out, with a problem line.
  std::vector<std::string> serverUrls(const char* section, const char* key) {
    std::istringstream words(config_.getKey(section, key));
    std::vector<std::string> urls;
    for (std::string url; words >> url;) {
      if (isServerUrl(url))
        urls.push_back(url);
      else
        problems_.push_back(std::string(section) + "/" + key + ": '" + url +
                            "' is not wss://HOST:PORT; it is skipped");
    }
    return urls;
  }

  // The path, with a problem line when it names no readable file. The path is kept all the same:
  // a client key that is asked for and missing must stop the link, not let it go without one.
  std::string file(const char* section, const char* key) {
    const std::string path = config_.getKey(section, key);
    if (!path.empty() && ::access(path.c_str(), R_OK) != 0)
      problems_.push_back(std::string(section) + "/" + key + ": cannot read " + path + ": " +
                          std::strerror(errno));
    return path;
  }

 private:
  iniConfig& config_;
  std::vector<std::string>& problems_;
};

// Bounds that keep every later conversion (seconds to milliseconds, a worker count) in range.
constexpr unsigned long long kMaxSeconds = 24 * 3600;
constexpr unsigned long long kMaxWorkers = 100000;
constexpr unsigned long long kMaxOutput = 1ULL << 30;
constexpr unsigned long long kMaxQueue = 10000000;
constexpr unsigned long long kMaxOrderBytes = 1ULL << 30;

}  // namespace

AgentSettings readAgentSettings(iniConfig& config, std::vector<std::string>& problems) {
  KeyReader keys(config, problems);
  AgentSettings settings;
  // Where it cannot be written is found, and said, when it is written: the agent runs on.
  settings.metricsFile = config.getKey("LOG", "metrics_file");
  settings.verifyServer = keys.flag("SSL", "verify_server");
  settings.clientKey = keys.file("SSL", "client_key");
  settings.pluginTimeout = static_cast<int>(keys.count("NIVO", "plugin_timeout", kMaxSeconds));
  settings.maxOutput = static_cast<std::size_t>(keys.count("NIVO", "max_output", kMaxOutput));
  settings.maxWorkers = static_cast<int>(keys.count("NIVO", "max_workers", kMaxWorkers));
  settings.openTimeout = static_cast<int>(keys.count("NIVO", "open_timeout", kMaxSeconds));
  settings.unknownOnFailure = keys.flag("NIVO", "unknown_on_failure");
  settings.pongTimeout = static_cast<int>(
      keys.count("NIVO", "pong_timeout", kMaxSeconds, AgentSettings{}.pongTimeout));
  // A file that cannot be read ends the agent at start-up and refuses a reload: never unchecked.
  settings.pluginRules = config.getKey("NIVO", "plugin_rules");
  settings.maxQueue = static_cast<int>(keys.count("NIVO", "max_queue", kMaxQueue));
  settings.maxOrderBytes =
      static_cast<std::size_t>(keys.count("NIVO", "max_order_bytes", kMaxOrderBytes));
  settings.proxy = keys.proxy("NIVO", "proxy_url", settings.proxyUrl);
  settings.fallbackUrls = keys.serverUrls("NIVO", "fallback_urls");
  settings.confinePlugins = keys.flag("NIVO", "confine_plugins");
  settings.confinePluginsGiven = !config.getKey("NIVO", "confine_plugins").empty();
  return settings;
}

bool isServerUrl(const std::string& url) {
  const std::string scheme = "wss://";
  return url.compare(0, scheme.size(), scheme) == 0 && url.size() > scheme.size() &&
         url.find_first_of(" \t\r") == std::string::npos;
}
