// Opens the agent's link: server_url first and then, while an opening fails, each fallback server
// in turn; the first that opens carries the whole run. How long an opening may take, and whether
// each one is awaited and its failure said (URL and why), follow from the keys as OpeningPlan
// reads them. Once no URL has opened, open() returns all the same: REGISTER then fails on the link
// as it is and ends the agent, as a failed opening always has. Main thread only.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "src/link/WSSEndpoint.h"

class logFile;

struct OpeningPlan {
  std::vector<std::string> urls;  // in the order tried: server_url, then the fallbacks
  // The time an opening gets, from the connect to the open; 0: not awaited, REGISTER goes out
  // after the first pause, open or not.
  std::chrono::seconds limit{0};
  // Each opening awaited, and each that fails said: with a proxy or fallback servers, where the
  // link went and why not must show.
  bool watchEach = false;
  std::string proxyShown;  // the proxy the link goes through, password masked; empty: none

  // The plan for these keys: open_timeout (seconds, 0 unset), proxy_url, fallback_urls.
  static OpeningPlan of(const std::string& serverUrl, const std::vector<std::string>& fallbacks,
                        int openTimeoutSeconds, const std::string& proxyShown);
};

class linkOpener {
 public:
  // Sleeps at most the given time, waking early when the link has something to say; it may throw
  // to abandon the opening (the agent stops).
  using Sleep = std::function<void(std::chrono::milliseconds)>;

  // `endpoint` and `log` (not owned, may be null) must outlive the opener.
  linkOpener(WSSEndpoint& endpoint, logFile* log, Sleep sleep);

  // Connects as the plan says; `firstPause` is waited whole after the first connect.
  void open(const OpeningPlan& plan, std::chrono::milliseconds firstPause);

  // The whole of `duration`, however often `sleep` wakes early: the link's own wake-ups do not
  // cut it short, only a throw from `sleep` does.
  static void pauseWhole(std::chrono::milliseconds duration, const Sleep& sleep);

 private:
  // Until the link has opened or failed, at most until `deadline`. True once open.
  bool awaitOpen(std::chrono::steady_clock::time_point deadline);
  void reportUnopened(const OpeningPlan& plan, const std::string& url, const std::string& why);

  WSSEndpoint& endpoint_;
  logFile* const log_;
  const Sleep sleep_;
};
