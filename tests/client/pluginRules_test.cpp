#include "src/client/pluginRules.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "src/client/hostDiscovery.h"
#include "src/common/logFile.h"
#include "src/service/pluginConfinement.h"
#include "src/service/service.h"
#include "tests/common/rewriteInPlace.h"
#include "tests/common/tempDirTest.h"

namespace {

const char kNoRule[] = "no rule allows these arguments";

class PluginRulesTest : public TempDirTest {
 protected:
  PluginRules load(const std::string& rules) {
    writeFile("rules", rules);
    return PluginRules(path("rules"), catalogue());
  }

  std::map<std::string, std::string> catalogue() const {
    std::map<std::string, std::string> plugins;
    for (const char* name :
         {"check_disk", "check_dummy", "check_load", "check_procs", "check_swap", "check_users"})
      plugins[name] = path(name);
    return plugins;
  }
};

// The verdict for an order's parameter text, split as the dispatch splits it.
PluginRules::Verdict check(PluginRules& rules, const std::string& name,
                           const std::string& parameter) {
  std::vector<std::string> arguments;
  appendParameterTokens(parameter, arguments);
  return rules.check(name, arguments);
}

TEST_F(PluginRulesTest, ArgumentsMatchTheirPatternsWholeOnALineOfThePlugin) {
  PluginRules rules = load(
      "# thresholds only\n"
      "  # an indented comment\n"
      "\n"
      "check_load args=-w [0-9]+,[0-9]+,[0-9]+ -c [0-9]+,[0-9]+,[0-9]+\r\n"
      "check_disk args=-w [0-9]+% -c [0-9]+% -p /|/var|/home\n"
      "check_disk\targs=-p '/srv/my data'\n"
      "check_swap args=a|b\n"
      "check_dummy args=\n"
      "check_users\n");
  EXPECT_EQ(rules.problems(), std::vector<std::string>{});
  const std::vector<std::tuple<std::string, std::string, bool>> orders = {
      {"check_load", "-w 5,4,3 -c 10,8,6", true},
      {"check_load", "-w 5,4,3x -c 10,8,6", false},  // anchored at the end
      {"check_load", "-w x5,4,3 -c 10,8,6", false},  // and at the start
      {"check_load", "-w 5,4,3 -c 10,8,6 -r", false},
      {"check_load", "-w 5,4,3", false},
      {"check_disk", "-w 10% -c 5% -p /var", true},
      {"check_disk", "-w 10% -c 5% -p /", true},
      {"check_disk", "-w 10% -c 5% -p /var/x", false},  // around all branches
      {"check_disk", "-w 10% -c 5% -p x/home", false},
      {"check_disk", "-p '/srv/my data'", true},  // the second line of the plugin
      {"check_disk", "-p /srv/my data", false},
      {"check_swap", "b", true},
      {"check_swap", "ab", false},
      {"check_swap", std::string("a\0b", 3), false},
      {"check_dummy", "", true},
      {"check_dummy", "0", false},
      {"check_users", "-w 5 -c 10 --extra", true},
      {"check_procs", "", false},  // listed, but no line
  };
  for (const auto& [name, parameter, allowed] : orders) {
    const PluginRules::Verdict verdict = check(rules, name, parameter);
    EXPECT_EQ(verdict.allowed, allowed) << name << " " << parameter;
    EXPECT_EQ(verdict.refusal, allowed ? "" : kNoRule) << name << " " << parameter;
    EXPECT_EQ(verdict.executable, nullptr);
  }
}

TEST_F(PluginRulesTest, UnusableLineAllowsNothingAndIsReportedWithItsNumber) {
  const std::string hash(64, 'a');
  // Each bad line would allow the argument "x".
  PluginRules rules = load(
      "check_load sha512=00 args=x\n"
      "check_load sha256=" +
      hash.substr(1) + "g args=x\n" + "check_load sha256=" + hash + " sha256=" + hash +
      " args=x\n"
      "check_load args=x(\n"
      "check_load args=(x)\\1*\n"
      "check_load args=x)|(y)\n"
      "check_ping args=x\n"
      "check_load args=-x\n"
      "check_load write=tmp/x args=x\n"
      "check_load write=/tmp, args=x\n"
      "check_load connect=0 args=x\n"
      "check_load connect=5666,65536 args=x\n"
      "check_load cpu=0 args=x\n"
      "check_load memory=-1 args=x\n"
      "check_load cpu=5 memory=64 cpu=5 args=x\n");
  const std::string at = path("rules") + ":";
  const std::string nothing = "; the line allows nothing";
  EXPECT_EQ(
      rules.problems(),
      (std::vector<std::string>{
          at + "1: unknown field 'sha512=00'" + nothing,
          at + "2: '" + hash.substr(1) + "g' is not a SHA-256 (64 hexadecimal digits)" + nothing,
          at + "3: sha256= given twice" + nothing,
          at + "4: 'x(': Unmatched ( or \\(" + nothing,
          at + "5: '(x)\\1*': back-references are not allowed" + nothing,
          at + "6: 'x)|(y)': a ')' without its '('" + nothing,
          at + "7: check_ping is not in the plugin catalogue (plugin_list, plugin_dir)" + nothing,
          at + "9: write= 'tmp/x' is not an absolute path" + nothing,
          at + "10: write= '' is not an absolute path" + nothing,
          at + "11: connect= '0' is not a TCP port from 1 to 65535" + nothing,
          at + "12: connect= '65536' is not a TCP port from 1 to 65535" + nothing,
          at + "13: cpu= '0' is not a whole number of seconds from 1 to 86400" + nothing,
          at + "14: memory= '-1' is not a whole number of MiB from 1 to 1048576" + nothing,
          at + "15: cpu= given twice" + nothing,
      }));
  EXPECT_EQ(check(rules, "check_load", "x").refusal, kNoRule);
  EXPECT_EQ(check(rules, "check_ping", "x").refusal, kNoRule);
  EXPECT_TRUE(check(rules, "check_load", "-x").allowed);
}

// The allowing line's limits go with its verdict, and with a confinement ABI its confinement,
// built at load: one for all the lines that widen it in nothing, one for each that does. A write=
// path that cannot be used then makes its line allow nothing.
TEST_F(PluginRulesTest, OptionsGoWithTheVerdictOfTheLineThatAllows) {
  const int abi = LandlockSupport::get().abi();
  ASSERT_GT(abi, 0) << "this test wants a kernel with Landlock";
  const std::string rulesText =
      "check_load cpu=5 memory=64 args=a\n"
      "check_disk write=" +
      dir_ +
      ",/dev/shm connect=5666 args=b\n"
      "check_swap write=" +
      path("absent") +
      " args=c\n"
      "check_users\n"
      "check_dummy\n";
  writeFile("rules", rulesText);
  const std::string absentPath = path("rules") + ":3: cannot allow writing beneath " +
                                 path("absent") +
                                 ": No such file or directory; the line allows nothing";
  for (const int confinementAbi : {0, abi}) {
    SCOPED_TRACE(confinementAbi);
    PluginRules rules(path("rules"), catalogue(), confinementAbi);
    const bool confined = confinementAbi > 0;
    EXPECT_EQ(rules.problems(),
              confined ? std::vector<std::string>{absentPath} : std::vector<std::string>{});
    const PluginRules::Verdict load = check(rules, "check_load", "a");
    EXPECT_EQ(load.limits.cpuSeconds, 5);
    EXPECT_EQ(load.limits.memoryMib, 64);
    EXPECT_EQ(check(rules, "check_swap", "c").allowed, !confined);
    const auto users = check(rules, "check_users", "").limits.confinement;
    const auto disk = check(rules, "check_disk", "b").limits.confinement;
    EXPECT_EQ(check(rules, "check_disk", "b").limits.cpuSeconds, 0);
    EXPECT_EQ(load.limits.confinement != nullptr, confined);
    EXPECT_EQ(users, load.limits.confinement);
    EXPECT_EQ(users, check(rules, "check_dummy", "").limits.confinement);
    EXPECT_EQ(disk != nullptr, confined);
    EXPECT_EQ(disk == users, !confined);
  }
}

// Until the clock that stamps files has passed the file's last change: a hash taken from now on
// is relied on until the file changes.
void awaitClockPastChange(const std::string& file) {
  struct stat status;
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  timespec now{};
  do {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  } while (now.tv_sec < status.st_ctim.tv_sec ||
           (now.tv_sec == status.st_ctim.tv_sec && now.tv_nsec <= status.st_ctim.tv_nsec));
}

std::string contentOf(const UniqueFd& file) {
  char buffer[64];
  const ssize_t received = ::pread(file.get(), buffer, sizeof buffer, 0);
  return received > 0 ? std::string(buffer, static_cast<std::size_t>(received)) : "";
}

TEST_F(PluginRulesTest, PinnedPluginRunsOnlyWhileItsContentHasTheHash) {
  const std::string v1 = "#!/bin/sh\necho v1\n";
  writeFile("check_dummy", v1);
  PluginRules rules = load(
      "check_dummy sha256=667F61A069B75F1F57FC561623DA00E013E144221E8EA54DE2803DA9DD8AA952 args=\n"
      "check_dummy args=unpinned\n");
  awaitClockPastChange(path("check_dummy"));

  const PluginRules::Verdict first = check(rules, "check_dummy", "");
  ASSERT_TRUE(first.allowed);
  ASSERT_NE(first.executable, nullptr);
  EXPECT_EQ(contentOf(*first.executable), v1);

  rewriteInPlace(path("check_dummy"), "#!/bin/sh\necho v2\n");
  const PluginRules::Verdict changed = check(rules, "check_dummy", "");
  EXPECT_FALSE(changed.allowed);
  EXPECT_EQ(changed.refusal, "the executable does not match its hash");
  EXPECT_EQ(changed.executable, nullptr);
  EXPECT_EQ(check(rules, "check_dummy", "unpinned").executable, nullptr);
  EXPECT_TRUE(check(rules, "check_dummy", "unpinned").allowed);

  rewriteInPlace(path("check_dummy"), v1);
  const PluginRules::Verdict restored = check(rules, "check_dummy", "");
  EXPECT_TRUE(restored.allowed);
  ASSERT_NE(restored.executable, nullptr);
  // A run still holding the first descriptor keeps it open after the file was hashed anew.
  EXPECT_NE(::fcntl(first.executable->get(), F_GETFD), -1);

  ASSERT_EQ(::unlink(path("check_dummy").c_str()), 0);
  EXPECT_EQ(check(rules, "check_dummy", "").refusal,
            "the executable cannot be read: No such file or directory");
}

// The package's rules against its plugin list as the agent catalogues it: every line usable, every
// plugin with an order it allows, and getopt's other spellings of an option refused.
TEST(ShippedPluginRules, AllowTheDocumentedOrdersOnly) {
  PluginRules rules(NIVO_SAMPLE_PLUGIN_RULES,
                    pluginCatalogue(NIVO_MONITORING_PLUGIN_DIR,
                                    readPluginList(NIVO_SAMPLE_PLUGIN_LIST), nullptr));
  EXPECT_EQ(rules.problems(), std::vector<std::string>{});
  // One order allowed per plugin, and getopt's other spellings of an allowed one refused.
  const std::vector<std::tuple<std::string, std::string, bool>> orders = {
      {"check_load", "-r -w 1.5,1.2,1 -c 3,2.5,2", true},
      {"check_load", "--warning=5,4,3 -c 10,8,6", false},
      {"check_load", "-w5,4,3 -c10,8,6", false},
      {"check_load", "-rw 5,4,3 -c 10,8,6", false},
      {"check_disk", "-W 20% -K 10% -p /", true},
      {"check_disk", "-w 20% -c 10% --pa=/", false},
      {"check_disk", "-w 20% -c 10% -p /var/../etc", false},
      {"check_procs", "-w :5 -c @1:3 -s Z", true},
      {"check_procs", "-w 250 -c 400 --extra-opts=@/etc/shadow", false},
      {"check_users", "-w 5 -c 10", true},
      {"check_swap", "-w 50% -c 20% -n ok", true},
      {"check_dummy", "1 'disk replaced'", true},
      {"check_dummy", "1 $(reboot)", false},
  };
  for (const auto& [name, parameter, allowed] : orders)
    EXPECT_EQ(check(rules, name, parameter).allowed, allowed) << name << " " << parameter;
}

// Every line of the package's rules against its example order (the comment above it, after its
// first ": "): the order is allowed, and the real plugin answers it confined with what its line
// gives it.
TEST(ShippedPluginRules, EachLinesExampleAnswersConfined) {
  const int abi = LandlockSupport::get().abi();
  ASSERT_GT(abi, 0) << "this test wants a kernel with Landlock";
  const std::map<std::string, std::string> catalogue =
      pluginCatalogue(NIVO_MONITORING_PLUGIN_DIR, readPluginList(NIVO_SAMPLE_PLUGIN_LIST), nullptr);
  PluginRules rules(NIVO_SAMPLE_PLUGIN_RULES, catalogue, abi);
  EXPECT_EQ(rules.problems(), std::vector<std::string>{});
  std::ifstream file(NIVO_SAMPLE_PLUGIN_RULES);
  std::string previous;
  int lines = 0;
  for (std::string line; std::getline(file, line); previous = line) {
    if (line.empty() || line[0] == '#') continue;
    const std::string name = line.substr(0, line.find(' '));
    const std::size_t example = previous.find(": ");
    ASSERT_EQ(previous.rfind("# ", 0), 0u) << "no example order above: " << line;
    ASSERT_NE(example, std::string::npos) << previous;
    const std::string parameter = previous.substr(example + 2);
    SCOPED_TRACE(name + " " + parameter);
    ++lines;
    service s;
    s.Setname(name);
    s.Setpath(catalogue.at(name));
    s.Setparameter(parameter);
    const PluginRules::Verdict verdict = rules.check(name, s.getVectorParam());
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
