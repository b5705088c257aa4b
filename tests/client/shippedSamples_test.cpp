// The plugin list and the plugin rules the package installs.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "src/client/hostDiscovery.h"
#include "src/client/pluginRules.h"
#include "src/service/pluginConfinement.h"
#include "src/service/service.h"

namespace {

// The package's rules, confined, against its plugin list as the agent catalogues it: every line
// usable, getopt's other spellings of an allowed option refused, and every line's example order
// (the comment above it, after its first ": ") allowed and answered by the real plugin confined
// with what its line gives it.
TEST(ShippedPluginRules, AllowTheirExamplesAnsweredConfinedAndNoOtherSpelling) {
  const int abi = LandlockSupport::get().abi();
  ASSERT_GT(abi, 0) << "this test wants a kernel with Landlock";
  const std::map<std::string, std::string> catalogue =
      pluginCatalogue(NIVO_MONITORING_PLUGIN_DIR, readPluginList(NIVO_SAMPLE_PLUGIN_LIST), nullptr);
  PluginRules rules(NIVO_SAMPLE_PLUGIN_RULES, catalogue, abi);
  EXPECT_EQ(rules.problems(), std::vector<std::string>{});
  // An order written "PLUGIN PARAMETER", its parameter split as the dispatch splits it.
  const auto allowed = [&rules](const std::string& order) {
    service s;
    s.Setparameter(order.substr(order.find(' ') + 1));
    return rules.check(order.substr(0, order.find(' ')), s.getVectorParam()).allowed;
  };
  EXPECT_TRUE(allowed("check_procs -w :5 -c @1:3 -s Z"));
  for (const char* order : {"check_load --warning=5,4,3 -c 10,8,6", "check_load -w5,4,3 -c10,8,6",
                            "check_load -rw 5,4,3 -c 10,8,6", "check_disk -w 20% -c 10% --pa=/",
                            "check_disk -w 20% -c 10% -p /var/../etc", "check_dummy 1 $(reboot)",
                            "check_procs -w 250 -c 400 --extra-opts=@/etc/shadow"})
    EXPECT_FALSE(allowed(order)) << order;
  std::ifstream file(NIVO_SAMPLE_PLUGIN_RULES);
  std::string previous;
  int lines = 0;
  for (std::string line; std::getline(file, line); previous = line) {
    if (line.empty() || line[0] == '#') continue;
    ASSERT_EQ(previous.rfind("# ", 0), 0u) << "no example order above: " << line;
    service s;
    s.Setname(line.substr(0, line.find(' ')));
    s.Setpath(catalogue.at(s.Getname()));
    s.Setparameter(previous.substr(previous.find(": ") + 2));
    SCOPED_TRACE(previous);
    ++lines;
    const PluginRules::Verdict verdict = rules.check(s.Getname(), s.getVectorParam());
    ASSERT_TRUE(verdict.allowed);
    ASSERT_NE(verdict.limits.confinement, nullptr);
    s.SetRuleLimits(verdict.limits);
    EXPECT_NO_THROW(s.execute());
    // A state, never UNKNOWN: a plugin that could not do its work says so with 3.
    EXPECT_LE(s.GetReturnCode(), 2) << s.GetStdout();
    for (const char* refused : {"denied", "not permitted", "Read-only"})
      EXPECT_EQ(s.GetStdout().find(refused), std::string::npos) << s.GetStdout();
  }
  EXPECT_GE(lines, 13);
}

}  // namespace
