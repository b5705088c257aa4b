// The agent's own counters and their text in the Prometheus text exposition format (0.0.4), for
// an operator to see what the agent does: orders received and refused, plugin runs by result and
// their durations, the link, the pools. Counting is lock-free (relaxed atomic additions), so the
// order path pays a few atomic operations and nothing else; only the registry of per-plugin
// counters takes a lock, when a catalogue is built. Label values come from bounded sets only: the
// catalogue's plugin names, fixed results and reasons, never an order's parameter text.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class service;

// How a plugin run is counted.
enum class PluginResult { Ok, Warning, Critical, Unknown, Timeout, Failed };
// Why an order was answered without a run.
enum class Refusal { UnknownPlugin, NotAllowed, QueueFull, Malformed, TooLarge, NotConfined };

// The result a finished service is counted under: its outcome, else its return code (0 to 3 are
// the four states; anything else, RETURN 4 and 5 included, is unknown). A run ended by its rule's
// cpu= or memory= limit is unknown too.
PluginResult resultOf(const service& finished);

// The runs of one plugin; shared by every order for it, on any thread.
class PluginCounters {
 public:
  void record(PluginResult result, std::chrono::nanoseconds duration);

  std::uint64_t runs(PluginResult result) const;
  std::uint64_t durationCount() const { return durationCount_.load(std::memory_order_relaxed); }
  double durationSeconds() const;

 private:
  std::array<std::atomic<std::uint64_t>, 6> runs_{};
  std::atomic<std::uint64_t> durationNanoseconds_{0};
  std::atomic<std::uint64_t> durationCount_{0};
};

// What the counters cannot know themselves, read at the moment the text is made.
struct AgentGauges {
  struct Pool {
    long waiting = 0;  // orders queued, not yet started
    long workers = 0;
  };
  bool linkUp = false;
  long maxQueue = 0;  // the bound of the orders waiting in both pools; 0: none
  Pool web;
  Pool monitor;
  std::vector<std::string> plugins;  // the catalogue in use: the plugins whose series are shown
  // The Landlock ABI plugins are confined with, 0 when they are not (confinementAbi()); unset
  // while confine_plugins is absent from the configuration, and then the family is not written,
  // so that the file of an agent that never set the key stays as it was.
  std::optional<int> confinementAbi;
};

class agentMetrics {
 public:
  agentMetrics(std::string version, std::chrono::system_clock::time_point started);

  // The host's serial number, shown on nivo_agent_info; once, at start-up.
  void setSerial(std::string serial);

  void countOrder() { orders_.fetch_add(1, std::memory_order_relaxed); }
  void countRefusal(Refusal why);
  void countReload(bool applied);
  void noteResult(std::chrono::system_clock::time_point when);
  // The counters of `plugin`, the same object for the whole life of the agent, so that a plugin
  // taken out of the catalogue by a reload and put back goes on counting where it stopped.
  std::shared_ptr<PluginCounters> counters(const std::string& plugin);

  // Every family, with HELP and TYPE, no timestamps, ending with a line end.
  std::string exposition(const AgentGauges& gauges) const;

 private:
  const std::string version_;
  const double started_;
  std::string serial_;  // set before any other thread reads it
  std::atomic<std::uint64_t> orders_{0};
  std::array<std::atomic<std::uint64_t>, 6> refusals_{};
  std::array<std::atomic<std::uint64_t>, 2> reloads_{};  // failed, applied
  std::atomic<std::int64_t> lastResultMilliseconds_{0};
  mutable std::mutex pluginsLock_;
  std::map<std::string, std::shared_ptr<PluginCounters>> plugins_;
};
