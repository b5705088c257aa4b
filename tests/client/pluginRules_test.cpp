#include "src/client/pluginRules.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "src/service/pluginConfinement.h"
#include "src/service/service.h"
#include "tests/common/tempDirTest.h"

namespace {

// The verdict for an order written "PLUGIN PARAMETER", split as the dispatch splits it.
PluginRules::Verdict check(PluginRules& rules, const std::string& order) {
  std::vector<std::string> words;
  appendParameterTokens(order, words);
  const std::string name = words.front();
  words.erase(words.begin());
  return rules.check(name, words);
}

void expectVerdicts(PluginRules& rules, const std::vector<std::string>& orders, bool allowed) {
  for (const std::string& order : orders) {
    const PluginRules::Verdict verdict = check(rules, order);
    EXPECT_EQ(verdict.allowed, allowed) << order;
    EXPECT_EQ(verdict.refusal, allowed ? "" : "no rule allows these arguments") << order;
  }
}

class PluginRulesTest : public TempDirTest {
 protected:
  // The rules file, $D standing for the test's directory.
  PluginRules load(const std::string& rules, int confinementAbi = 0) {
    writeFile("rules", inDir(rules));
    std::map<std::string, std::string> catalogue;
    for (const char* name :
         {"check_disk", "check_dummy", "check_load", "check_procs", "check_swap", "check_users"})
      catalogue[name] = path(name);
    return PluginRules(path("rules"), catalogue, confinementAbi);
  }
};

// An order runs on a line of its plugin whose patterns each match an argument whole, with that
// line's limits and, with a confinement ABI, its confinement, built at load: one for all the lines
// that widen it in nothing, one for each that does. A line that cannot be used (a write= path that
// is not there, once confined) allows nothing and is reported with its number.
TEST_F(PluginRulesTest, OrderRunsOnAUsableLineOfItsPluginThatMatchesItWithThatLinesLimits) {
  const std::string at = path("rules") + ":", nothing = "; the line allows nothing";
  std::string text =
      "# thresholds only\n  # an indented comment\n\ncheck_ping args=x\n"
      "check_load args=-w [0-9]+,[0-9]+,[0-9]+ -c [0-9]+,[0-9]+,[0-9]+\r\n"
      "check_load cpu=5 memory=64 args=a\n"
      "check_disk args=-w [0-9]+% -c [0-9]+% -p /|/var|/home\n"
      "check_disk\targs=-p '/srv/my data'\n"
      "check_disk write=$D,/dev/shm connect=5666 args=b\n"
      "check_swap args=a|b\n"
      "check_swap write=$D/absent args=c\n"
      "check_dummy args=\ncheck_users\n";
  std::vector<std::string> problems = {
      at + "4: check_ping is not in the plugin catalogue (plugin_list, plugin_dir)" + nothing};
  // Lines that cannot be used, each of which would allow the argument "x", and what is said of them
  const std::string notHex = std::string(63, 'a') + "g";
  const std::pair<std::string, std::string> unusable[] = {
      {"sha512=00 args=x", "unknown field 'sha512=00'"},
      {"sha256=" + notHex + " args=x", "'" + notHex + "' is not a SHA-256 (64 hexadecimal digits)"},
      {"args=x(", "'x(': Unmatched ( or \\("},
      {"args=(x)\\1*", "'(x)\\1*': back-references are not allowed"},
      {"args=x)|(y)", "'x)|(y)': a ')' without its '('"},
      {"write=tmp/x args=x", "write= 'tmp/x' is not an absolute path"},
      {"write=/tmp, args=x", "write= '' is not an absolute path"},
      {"connect=0 args=x", "connect= '0' is not a TCP port from 1 to 65535"},
      {"connect=5666,65536 args=x", "connect= '65536' is not a TCP port from 1 to 65535"},
      {"cpu=0 args=x", "cpu= '0' is not a whole number of seconds from 1 to 86400"},
      {"memory=-1 args=x", "memory= '-1' is not a whole number of MiB from 1 to 1048576"},
      {"cpu=5 memory=64 cpu=5 args=x", "cpu= given twice"},
  };
  for (const auto& [fields, problem] : unusable) {
    text += "check_load " + fields + "\n";
    problems.push_back(at + std::to_string(problems.size() + 13) + ": " + problem + nothing);
  }
  const int abi = LandlockSupport::get().abi();
  ASSERT_GT(abi, 0) << "this test wants a kernel with Landlock";
  for (const int confinementAbi : {0, abi}) {
    SCOPED_TRACE(confinementAbi);
    const bool confined = confinementAbi > 0;
    if (confined)
      problems.insert(problems.begin() + 1, at + "11: cannot allow writing beneath " +
                                                path("absent") + ": No such file or directory" +
                                                nothing);
    PluginRules rules = load(text, confinementAbi);
    EXPECT_EQ(rules.text(), inDir(text));  // a reload tells by it whether the rules changed
    EXPECT_EQ(rules.problems(), problems);
    // Patterns anchored at both ends, around all their branches; the plugin's lines alternatives.
    expectVerdicts(rules,
                   {"check_load -w 5,4,3 -c 10,8,6", "check_disk -w 10% -c 5% -p /var",
                    "check_disk -w 10% -c 5% -p /", "check_disk -p '/srv/my data'", "check_swap b",
                    "check_dummy", "check_users -w 5 -c 10 --extra"},
                   true);
    expectVerdicts(
        rules,
        {"check_load -w 5,4,3x -c 10,8,6", "check_load -w x5,4,3 -c 10,8,6",
         "check_load -w 5,4,3 -c 10,8,6 -r", "check_load -w 5,4,3", "check_load x", "check_ping x",
         "check_disk -w 10% -c 5% -p /var/x", "check_disk -w 10% -c 5% -p x/home",
         "check_disk -p /srv/my data", "check_swap ab", std::string("check_swap a\0b", 14),
         "check_dummy 0", "check_procs"},  // listed, but without a line
        false);
    EXPECT_EQ(check(rules, "check_swap c").allowed, !confined);
    const RuleLimits load = check(rules, "check_load a").limits;
    const RuleLimits disk = check(rules, "check_disk b").limits;
    const auto users = check(rules, "check_users").limits.confinement;
    EXPECT_EQ(std::tie(load.cpuSeconds, load.memoryMib, disk.cpuSeconds),
              std::make_tuple(5, 64, 0));
    EXPECT_EQ(load.confinement != nullptr, confined);
    EXPECT_EQ(users, load.confinement);
    EXPECT_EQ(users, check(rules, "check_dummy").limits.confinement);
    EXPECT_EQ(disk.confinement != nullptr, confined);
    EXPECT_EQ(disk.confinement == users, !confined);
  }
}

}  // namespace
