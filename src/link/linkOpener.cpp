#include "src/link/linkOpener.h"

#include <utility>

#include "src/common/logFile.h"

namespace {

// Without open_timeout, a watched opening gets this long.
constexpr std::chrono::seconds kWatchedOpenLimit{10};

std::chrono::milliseconds until(std::chrono::steady_clock::time_point end) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(end -
                                                               std::chrono::steady_clock::now());
}

}  // namespace

OpeningPlan OpeningPlan::of(const std::string& serverUrl, const std::vector<std::string>& fallbacks,
                            int openTimeoutSeconds, const std::string& proxyShown) {
  OpeningPlan plan;
  plan.urls.push_back(serverUrl);
  plan.urls.insert(plan.urls.end(), fallbacks.begin(), fallbacks.end());
  plan.watchEach = !proxyShown.empty() || !fallbacks.empty();
  plan.limit = openTimeoutSeconds > 0 ? std::chrono::seconds(openTimeoutSeconds)
               : plan.watchEach       ? kWatchedOpenLimit
                                      : std::chrono::seconds(0);
  plan.proxyShown = proxyShown;
  return plan;
}

linkOpener::linkOpener(WSSEndpoint& endpoint, logFile* log, Sleep sleep)
    : endpoint_(endpoint), log_(log), sleep_(std::move(sleep)) {}

void linkOpener::open(const OpeningPlan& plan, std::chrono::milliseconds firstPause) {
  for (std::size_t tried = 0; tried < plan.urls.size(); ++tried) {
    const std::string& url = plan.urls[tried];
    const auto deadline = std::chrono::steady_clock::now() + plan.limit;
    try {
      endpoint_.connect(url);
    } catch (const WSSEndpointException& e) {
      if (!plan.watchEach) throw;
      reportUnopened(plan, url, e.what());
      continue;
    }
    if (tried == 0) pauseWhole(firstPause, sleep_);
    if (plan.limit.count() == 0 || awaitOpen(deadline)) {
      if (tried > 0) writeJoinedTo(log_, 2, "NIVO link open to ", url);
      return;
    }
    const bool timedOut = endpoint_.linkState() == WSSEndpoint::LinkState::Opening;
    const std::string limit = std::to_string(plan.limit.count());
    if (!plan.watchEach) {
      if (timedOut) writeJoinedTo(log_, 4, "NIVO link not open after ", limit, " s");
      return;
    }
    const std::string failure = endpoint_.openingFailure();
    reportUnopened(plan, url,
                   timedOut          ? "no open within " + limit + " s"
                   : failure.empty() ? "closed as it opened"
                                     : failure);
  }
}

void linkOpener::pauseWhole(std::chrono::milliseconds duration, const Sleep& sleep) {
  const auto end = std::chrono::steady_clock::now() + duration;
  for (auto left = duration; left.count() > 0; left = until(end)) sleep(left);
}

bool linkOpener::awaitOpen(std::chrono::steady_clock::time_point deadline) {
  while (endpoint_.linkState() == WSSEndpoint::LinkState::Opening) {
    const auto left = until(deadline);
    if (left.count() <= 0) return false;
    sleep_(left);
  }
  return endpoint_.linkState() == WSSEndpoint::LinkState::Open;
}

void linkOpener::reportUnopened(const OpeningPlan& plan, const std::string& url,
                                const std::string& why) {
  const std::string through = plan.proxyShown.empty() ? "" : " through " + plan.proxyShown;
  writeJoinedTo(log_, 4, "NIVO link to ", url, through, " not opened: ", why);
}
