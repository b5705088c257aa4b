#include "src/client/agentMetrics.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "src/service/service.h"

namespace {

// The confinement's gauge is written only once confine_plugins is given, so that the file of an
// agent that never set the key stays as it was; a run a limit ended counts as unknown; reloads
// are counted by their result.
TEST(AgentMetrics, ReloadsByResultConfinementOnceTheKeyIsGivenAndALimitAsUnknown) {
  agentMetrics metrics("1.0", std::chrono::system_clock::time_point{});
  AgentGauges gauges;
  metrics.countReload(false);
  EXPECT_NE(metrics.exposition(gauges).find("nivo_agent_reloads_total{result=\"refused\"} 1\n"
                                            "nivo_agent_reloads_total{result=\"applied\"} 0\n"),
            std::string::npos);
  EXPECT_EQ(metrics.exposition(gauges).find("confinement"), std::string::npos);
  for (const int abi : {0, 7}) {
    gauges.confinementAbi = abi;
    EXPECT_NE(metrics.exposition(gauges).find("# TYPE nivo_agent_confinement_abi gauge\n"
                                              "nivo_agent_confinement_abi " +
                                              std::to_string(abi) + "\n"),
              std::string::npos);
  }

  service ended;
  ended.Setpath("/bin/sh");
  ended.Setparameter("-c 'kill -SEGV $$'");
  RuleLimits limits;
  limits.memoryMib = 64;
  ended.SetRuleLimits(limits);
  EXPECT_EQ(ended.execute(), 3);
  EXPECT_EQ(ended.GetRunOutcome(), RunOutcome::LimitReached);
  EXPECT_EQ(resultOf(ended), PluginResult::Unknown);
}

}  // namespace
