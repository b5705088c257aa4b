// The agent's opt-in production keys. Each is read at start-up, and again by a reload for those a
// running agent can take up; absent, empty or 0 means off, and the agent then behaves as it always
// has. A value that is not a number leaves its key off; a
// key file that cannot be read is kept, so that the link refuses to start without it. Either is
// reported as one line naming the key, which the agent logs at WARNING level and `--check-config`
// prints. A proxy_url that cannot be used is kept too, so that the link refuses to start rather
// than go around the proxy; a fallback URL that cannot be used is skipped. No line holds a proxy's
// password.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "src/link/proxyUrl.h"

class iniConfig;

struct AgentSettings {
  // [LOG]
  std::string metricsFile;  // metrics_file: the agent's own metrics, Prometheus text format
  // [SSL]
  bool verifyServer = false;  // verify_server: check the server's chain and host name
  std::string clientKey;      // client_key: with local_cert, present a client certificate
  // [NIVO]
  int pluginTimeout = 0;          // plugin_timeout: seconds before a plugin's group is ended
  std::size_t maxOutput = 0;      // max_output: bytes of plugin output kept
  int maxWorkers = 0;             // max_workers: bound of a pool's automatic growth
  int openTimeout = 0;            // open_timeout: seconds REGISTER waits for the link to open
  bool unknownOnFailure = false;  // unknown_on_failure: agent-side failures reported as UNKNOWN
  int pongTimeout = 30;           // pong_timeout: seconds a ping waits for its pong; 0 off
  std::string pluginRules;        // plugin_rules: the file of what each plugin may run with
  int maxQueue = 0;               // max_queue: orders that may wait in the two pools together
  std::size_t maxOrderBytes = 0;  // max_order_bytes: bytes an EXEC frame may hold
  std::string proxyUrl;           // proxy_url: as written, password included
  std::optional<ProxyUrl> proxy;  // proxy_url read; nullopt when absent or unusable
  std::vector<std::string> fallbackUrls;  // fallback_urls: servers tried after server_url
  bool confinePlugins = false;  // confine_plugins: every plugin run confined with Landlock
  // confine_plugins is in the configuration (0 or 1): the metrics then show the ABI in use.
  bool confinePluginsGiven = false;
};

// True for a text the link can be given as a server's URL: "wss://", something after it, and no
// blank, tab or CR.
bool isServerUrl(const std::string& url);

// Reads every key above from `config`; what is wrong is appended to `problems`, one line a key.
AgentSettings readAgentSettings(iniConfig& config, std::vector<std::string>& problems);
