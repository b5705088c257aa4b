#include "src/client/orderDispatch.h"

#include <json/json.h>

#include <chrono>
#include <cstddef>
#include <utility>

#include "src/client/orderSettings.h"
#include "src/client/qavel-client.h"
#include "src/common/convertTo.h"
#include "src/link/qavel.h"
#include "src/link/task.h"

namespace {

// Orders of priority up to this value go to the web pool, the others to the monitor pool.
constexpr int kWebPriorityMax = 4;

// How much of a refused order's parameter text the audit line shows.
constexpr std::size_t kAuditedParameterBytes = 256;

// An order answered at once, without a plugin run.
void answerUnrun(QAVEL& qavel, int identifier, int executionStatus, int returnCode,
                 std::string output) {
  Task task(identifier);
  task.setExecutionStatus(executionStatus);
  task.setReturn(returnCode);
  task.setOutput(std::move(output));
  const std::string text = qavel.buildJsonTaskState(task);
  logLine(0, text);
  endpoint->send(text);
}

// A failure in a callback that the agent cannot go on after: logged, then the stop routine.
void stopOnFailure(const char* prefix, const std::exception& failure) {
  logLine(4, prefix, failure.what());
  HandlerQuit(1);
}

// Whether the queue bound was said to be reached since the queues were last found empty; the
// network thread only.
bool queueFullSaid = false;

// Orders waiting in the two pools; none before the pools exist.
int waitingOrders() {
  const AgentPools pools = publishedPools();
  int waiting = 0;
  for (PoolThreadService* pool : {pools.monitor, pools.web})
    if (pool != nullptr) waiting += pool->getSizeofExecuteQueue();
  return waiting;
}

// True when an order may wait in the queues; else it is answered at once, never queued. The
// network thread is the only one to queue, so the queues cannot fill between this look and the
// order's push.
bool roomInQueues(int bound, QAVEL& qavel, int identifier) {
  const int waiting = waitingOrders();
  if (waiting == 0) queueFullSaid = false;
  if (waiting < bound) return true;
  // Once, until the queues have emptied: a flood would otherwise write a line per order.
  if (!queueFullSaid)
    logLine(2, "NIVO max_queue reached: ", std::to_string(waiting),
            " orders waiting; further orders are answered UNKNOWN at once, unrun");
  queueFullSaid = true;
  agentCounters.countRefusal(Refusal::QueueFull);
  answerUnrun(qavel, identifier, 5, 3,
              "UNKNOWN: the agent is busy with " + std::to_string(waiting) +
                  " orders waiting; this one was not run");
  return false;
}

// When an order too long to be read was last logged; the network thread only.
std::chrono::steady_clock::time_point tooLargeSaid;
constexpr auto kTooLargeLogInterval = std::chrono::minutes(1);

// True when `frame` is an EXEC frame beyond `bound`: then it has been answered at once, read no
// further than its identifier, never queued. What such an order would cost (the parsed document,
// its argument list, the copies of its parameter text along the way) is never spent.
bool refusedAsTooLarge(const std::string& frame, std::size_t bound) {
  if (bound == 0 || frame.size() <= bound) return false;
  const QAVEL::FramePeek peek = QAVEL::peekFrame(frame);
  if (!peek.exec) return false;
  agentCounters.countOrder();
  agentCounters.countRefusal(Refusal::TooLarge);
  const std::string size = std::to_string(frame.size());
  const std::string limit = std::to_string(bound);
  // A line a minute at most: a server that sends such orders in a loop must not fill the log.
  const auto now = std::chrono::steady_clock::now();
  if (tooLargeSaid == std::chrono::steady_clock::time_point() ||
      now - tooLargeSaid >= kTooLargeLogInterval) {
    tooLargeSaid = now;
    logLine(3, "NIVO max_order_bytes: an EXEC order of ", size, " bytes (bound ", limit,
            ") was answered UNKNOWN at once, unrun; such orders are logged once a minute at most");
  }
  QAVEL qavel;
  answerUnrun(qavel, peek.taskId, 5, 3,
              "UNKNOWN: the order is " + size + " bytes long, above the agent's bound of " + limit +
                  " bytes (max_order_bytes); it was not run");
  return true;
}

// An order's service, with the counters its run is counted under.
class countedService : public service {
 public:
  explicit countedService(std::shared_ptr<PluginCounters> counters)
      : counters_(std::move(counters)) {}
  PluginCounters& counters() const { return *counters_; }

 private:
  const std::shared_ptr<PluginCounters> counters_;
};

void dispatchOrder(QAVEL& qavel, const std::shared_ptr<const OrderSettings>& settings,
                   int& identifier) {
  const Json::Value& order = qavel.taskRequest();
  identifier = order["TASKID"].asInt();
  const std::string name = order["NAME"].asString();
  std::string parameter = order["PARAMETER"].asString();
  const int priority = order["PRIORITY"].asInt();
  // The document is not needed any more: a long parameter text is held once less from here on.
  qavel.releaseMessage();
  logLine(0, "EXEC plugin ", name, " ", parameter);

  const auto plugin = settings->pluginPathExec.find(name);
  if (plugin == settings->pluginPathExec.end()) {
    logLine(2, "EXEC plugin: error plugin not defined");
    agentCounters.countRefusal(Refusal::UnknownPlugin);
    answerUnrun(qavel, identifier, 2, -1, "EXEC plugin: error plugin not defined " + name);
    return;
  }
  if (settings->confine && settings->confinementAbi == 0) {
    agentCounters.countRefusal(Refusal::NotConfined);
    answerUnrun(qavel, identifier, 2, -1, LandlockSupport::get().notRunText(name));
    return;
  }
  auto svc = std::make_shared<countedService>(settings->counters.at(name));
  svc->SetService_id(static_cast<unsigned long long>(static_cast<long long>(identifier)));
  svc->Setname(name);
  svc->Setpath(plugin->second);
  svc->Setparameter(std::move(parameter));
  svc->SetRunLimits(settings->limits);
  if (settings->rules) {
    const PluginRules::Verdict verdict = settings->rules->check(name, svc->parameterList());
    if (!verdict.allowed) {
      // At WARNING, with what was asked for: a refusal is worth an audit, whoever sent it.
      logLine(3, "EXEC plugin: ", name, " refused, ", verdict.refusal, "; parameter: '",
              printableForLog(svc->parameterText(), kAuditedParameterBytes), "'");
      agentCounters.countRefusal(Refusal::NotAllowed);
      answerUnrun(qavel, identifier, 2, -1,
                  "EXEC plugin: " + name + " not allowed: " + verdict.refusal);
      return;
    }
    svc->SetExecutable(verdict.executable);
    svc->SetRuleLimits(verdict.limits);
  } else {
    svc->SetRuleLimits({0, 0, settings->defaultConfinement});
  }
  if (settings->maxQueue > 0 && !roomInQueues(settings->maxQueue, qavel, identifier)) return;
  logLine(0, "SEND EXEC to pool: ", name);
  const AgentPools pools = awaitPools();
  if (PoolThreadService* pool = priority <= kWebPriorityMax ? pools.web : pools.monitor)
    pool->executeService(std::move(svc));
}

}  // namespace

void on_message(std::weak_ptr<void> /*hdl*/, std::string message) {
  try {
    logLine(0, "Receive message ", message);
    const std::shared_ptr<const OrderSettings> settings = currentOrderSettings();
    if (refusedAsTooLarge(message, settings->maxOrderBytes)) return;
    QAVEL qavel;
    qavel.parseMessage(std::move(message));
    const std::string command = qavel.getQAVELCommand();
    logLine(0, "COMMAND ", command);
    if (command == "REGISTER-RESPONSE") {
      if (qavel.getQAVELParameter("STATUS") != "0") {
        logLine(2, "BAD register status receive by server (quit): ");
        agentExit(0);
      } else {
        noteRegistered();
      }
    } else if (command == "EXEC") {
      agentCounters.countOrder();
      int identifier = 0;
      try {
        dispatchOrder(qavel, settings, identifier);
      } catch (const Json::LogicError& e) {
        const std::string text = kJsonFailure + std::string(e.what());
        logLine(4, text);
        agentCounters.countRefusal(Refusal::Malformed);
        answerUnrun(qavel, identifier, 255, -2, text);
      }
    }
  } catch (const Json::Exception& e) {
    logLine(4, kJsonFailure, e.what());
  } catch (const WSSEndpointException& e) {
    stopOnFailure(kLinkFailure, e);
  }
}

void callbackService(std::shared_ptr<service> svc) {
  if (const auto* counted = dynamic_cast<const countedService*>(svc.get()))
    counted->counters().record(resultOf(*svc), svc->GetRunDuration());
  try {
    QAVEL qavel;
    const std::string name = svc->Getname();
    std::string output = svc->GetStdout();
    logLine(0, "Service END ", name, " OUTPUT ", output);
    Task task(static_cast<int>(svc->GetService_id()));
    const int rc = svc->GetReturnCode();
    if (rc == 255) {
      task.setExecutionStatus(255);
    } else if (rc > 4 || rc < 0) {
      task.setExecutionStatus(4);
    } else {
      task.setExecutionStatus(0);
    }
    task.setReturn(rc);
    task.setOutput(std::move(output));
    logLine(0, name, " send status service");
    std::string text = qavel.buildJsonTaskState(task);
    logLine(0, text);
    endpoint->send(std::move(text));
    agentCounters.noteResult(std::chrono::system_clock::now());
    writeLastExecTime();
  } catch (const Json::LogicError& e) {
    stopOnFailure(kJsonFailure, e);
  } catch (const WSSEndpointException& e) {
    stopOnFailure(kLinkFailure, e);
  } catch (const FileException& e) {
    stopOnFailure(kFileFailureInCallback, e);
  }
}
