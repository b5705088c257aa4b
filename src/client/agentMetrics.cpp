#include "src/client/agentMetrics.h"

#include <cstdio>
#include <utility>

#include "src/service/service.h"

namespace {

constexpr std::size_t index(PluginResult result) { return static_cast<std::size_t>(result); }

const char* const kResultLabels[] = {"ok", "warning", "critical", "unknown", "timeout", "failed"};
const char* const kRefusalLabels[] = {"unknown_plugin", "not_allowed", "queue_full",
                                      "malformed",      "too_large",   "not_confined"};
const char* const kReloadLabels[] = {"refused", "applied"};

double secondsSinceEpoch(std::chrono::system_clock::time_point when) {
  return std::chrono::duration<double>(when.time_since_epoch()).count();
}

// A label value as the text format wants it: backslash, double quote and line end escaped.
std::string labelValue(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    if (c == '\\')
      escaped += "\\\\";
    else if (c == '"')
      escaped += "\\\"";
    else if (c == '\n')
      escaped += "\\n";
    else
      escaped += c;
  }
  return escaped;
}

// Builds the text family by family; a family is written only with at least one sample, its HELP
// and TYPE lines right before the first.
class Exposition {
 public:
  void family(const char* name, const char* type, const char* help) {
    name_ = name;
    type_ = type;
    help_ = help;
    announced_ = false;
  }

  // `labels` is the inside of the braces, already escaped; empty for none.
  void sample(const std::string& suffix, const std::string& labels, const std::string& value) {
    if (!announced_) {
      text_ +=
          std::string("# HELP ") + name_ + " " + help_ + "\n# TYPE " + name_ + " " + type_ + "\n";
      announced_ = true;
    }
    text_ += name_ + suffix;
    if (!labels.empty()) text_ += "{" + labels + "}";
    text_ += " " + value + "\n";
  }
  void sample(const std::string& labels, const std::string& value) { sample("", labels, value); }

  std::string take() { return std::move(text_); }

 private:
  std::string name_;
  const char* type_ = "";
  const char* help_ = "";
  bool announced_ = false;
  std::string text_;
};

std::string number(std::uint64_t value) { return std::to_string(value); }

std::string number(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string label(const char* name, const std::string& value) {
  return std::string(name) + "=\"" + labelValue(value) + "\"";
}

void poolSamples(Exposition& out, const AgentGauges& gauges, long AgentGauges::Pool::*field) {
  out.sample(label("pool", "web"), number(static_cast<std::uint64_t>(gauges.web.*field)));
  out.sample(label("pool", "monitor"), number(static_cast<std::uint64_t>(gauges.monitor.*field)));
}

}  // namespace

PluginResult resultOf(const service& finished) {
  switch (finished.GetRunOutcome()) {
    case RunOutcome::TimedOut:
      return PluginResult::Timeout;
    case RunOutcome::LimitReached:
      // A result label of its own would change the file of every agent that never sets a limit.
      return PluginResult::Unknown;
    case RunOutcome::NotRun:
    case RunOutcome::Failed:
      return PluginResult::Failed;
    case RunOutcome::Completed:
      break;
  }
  switch (finished.GetReturnCode()) {
    case 0:
      return PluginResult::Ok;
    case 1:
      return PluginResult::Warning;
    case 2:
      return PluginResult::Critical;
    default:
      return PluginResult::Unknown;
  }
}

void PluginCounters::record(PluginResult result, std::chrono::nanoseconds duration) {
  runs_[index(result)].fetch_add(1, std::memory_order_relaxed);
  durationNanoseconds_.fetch_add(static_cast<std::uint64_t>(duration.count()),
                                 std::memory_order_relaxed);
  durationCount_.fetch_add(1, std::memory_order_relaxed);
}

std::uint64_t PluginCounters::runs(PluginResult result) const {
  return runs_[index(result)].load(std::memory_order_relaxed);
}

double PluginCounters::durationSeconds() const {
  return static_cast<double>(durationNanoseconds_.load(std::memory_order_relaxed)) / 1e9;
}

agentMetrics::agentMetrics(std::string version, std::chrono::system_clock::time_point started)
    : version_(std::move(version)), started_(secondsSinceEpoch(started)) {}

void agentMetrics::setSerial(std::string serial) { serial_ = std::move(serial); }

void agentMetrics::countRefusal(Refusal why) {
  refusals_[static_cast<std::size_t>(why)].fetch_add(1, std::memory_order_relaxed);
}

void agentMetrics::countReload(bool applied) {
  reloads_[applied ? 1 : 0].fetch_add(1, std::memory_order_relaxed);
}

void agentMetrics::noteResult(std::chrono::system_clock::time_point when) {
  lastResultMilliseconds_.store(
      std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count(),
      std::memory_order_relaxed);
}

std::shared_ptr<PluginCounters> agentMetrics::counters(const std::string& plugin) {
  const std::lock_guard<std::mutex> guard(pluginsLock_);
  std::shared_ptr<PluginCounters>& counters = plugins_[plugin];
  if (!counters) counters = std::make_shared<PluginCounters>();
  return counters;
}

std::string agentMetrics::exposition(const AgentGauges& gauges) const {
  Exposition out;
  out.family("nivo_agent_info", "gauge", "The agent's version and the host's serial number.");
  out.sample(label("version", version_) + "," + label("serial", serial_), "1");
  out.family("nivo_agent_start_time_seconds", "gauge",
             "When the agent started, in seconds since the epoch.");
  out.sample("", number(started_, 3));
  out.family("nivo_agent_link_up", "gauge",
             "1 while the link to the server is open and the registration accepted, else 0.");
  out.sample("", gauges.linkUp ? "1" : "0");

  out.family("nivo_agent_orders_total", "counter", "EXEC orders received from the server.");
  out.sample("", number(orders_.load(std::memory_order_relaxed)));
  out.family("nivo_agent_orders_refused_total", "counter",
             "Orders answered at once, without a plugin run, by reason.");
  for (std::size_t why = 0; why < refusals_.size(); ++why)
    out.sample(label("reason", kRefusalLabels[why]),
               number(refusals_[why].load(std::memory_order_relaxed)));

  std::vector<std::pair<std::string, std::shared_ptr<const PluginCounters>>> shown;
  {
    const std::lock_guard<std::mutex> guard(pluginsLock_);
    for (const std::string& plugin : gauges.plugins) {
      const auto found = plugins_.find(plugin);
      if (found != plugins_.end()) shown.emplace_back(plugin, found->second);
    }
  }
  out.family("nivo_agent_plugin_runs_total", "counter",
             "Plugin runs by result: the plugin's state (RETURN 0 to 3; any other code counts as "
             "unknown), ended by the time limit, or failed inside the agent.");
  for (const auto& [plugin, counters] : shown)
    for (std::size_t result = 0; result < 6; ++result)
      out.sample(label("plugin", plugin) + "," + label("result", kResultLabels[result]),
                 number(counters->runs(static_cast<PluginResult>(result))));
  out.family("nivo_agent_plugin_duration_seconds", "summary",
             "Time from a plugin's start to its end, by plugin.");
  for (const auto& [plugin, counters] : shown) {
    out.sample("_sum", label("plugin", plugin), number(counters->durationSeconds(), 6));
    out.sample("_count", label("plugin", plugin), number(counters->durationCount()));
  }
  out.family("nivo_agent_plugins", "gauge", "Plugins in the catalogue in use.");
  out.sample("", number(static_cast<std::uint64_t>(gauges.plugins.size())));

  out.family("nivo_agent_queue_length", "gauge", "Orders waiting in a pool, not yet started.");
  poolSamples(out, gauges, &AgentGauges::Pool::waiting);
  out.family("nivo_agent_max_queue", "gauge",
             "Orders that may wait in the two pools together (max_queue); 0: no bound.");
  out.sample("", number(static_cast<std::uint64_t>(gauges.maxQueue)));
  out.family("nivo_agent_workers", "gauge", "Worker threads of a pool.");
  poolSamples(out, gauges, &AgentGauges::Pool::workers);
  out.family("nivo_agent_confinement_abi", "gauge",
             "The Landlock ABI plugins are confined with (confine_plugins); 0: not confined.");
  if (gauges.confinementAbi)
    out.sample("", number(static_cast<std::uint64_t>(*gauges.confinementAbi)));

  const std::int64_t lastResult = lastResultMilliseconds_.load(std::memory_order_relaxed);
  out.family("nivo_agent_last_result_timestamp_seconds", "gauge",
             "When the last result was sent to the server, in seconds since the epoch.");
  if (lastResult > 0) out.sample("", number(static_cast<double>(lastResult) / 1e3, 3));
  out.family("nivo_agent_reloads_total", "counter",
             "Reloads of the configuration on SIGHUP, by result.");
  for (std::size_t result = 0; result < reloads_.size(); ++result)
    out.sample(label("result", kReloadLabels[result]),
               number(reloads_[result].load(std::memory_order_relaxed)));
  return out.take();
}
