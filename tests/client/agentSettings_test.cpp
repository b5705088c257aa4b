#include "src/client/agentSettings.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/common/iniConfig.h"
#include "tests/common/tempDirTest.h"

namespace {

class AgentSettingsTest : public TempDirTest {
 protected:
  AgentSettings read(const std::string& nivoLines, const std::string& sslLines = "") {
    writeFile("qavel.conf", "[SSL]\ncafile=\n" + sslLines + "[NIVO]\nthread=2\n" + nivoLines);
    iniConfig config(path("qavel.conf"));
    problems_.clear();
    return readAgentSettings(config, problems_);
  }
  std::vector<std::string> problems_;
};

TEST_F(AgentSettingsTest, FlagsAreZeroOrOneAndAKeyFileMustBeReadable) {
  writeFile("agent.key", "key");
  AgentSettings settings = read("unknown_on_failure=1\nmax_output=65536\n",
                                "verify_server=1\nclient_key=" + path("agent.key") + "\n");
  EXPECT_TRUE(settings.verifyServer);
  EXPECT_TRUE(settings.unknownOnFailure);
  EXPECT_EQ(settings.maxOutput, 65536u);
  EXPECT_EQ(settings.clientKey, path("agent.key"));
  EXPECT_TRUE(problems_.empty());

  settings = read("unknown_on_failure=2\n", "client_key=" + path("absent.key") + "\n");
  EXPECT_FALSE(settings.unknownOnFailure);
  EXPECT_EQ(settings.clientKey, path("absent.key"));
  ASSERT_EQ(problems_.size(), 2u);
  EXPECT_EQ(problems_[0],
            "SSL/client_key: cannot read " + path("absent.key") + ": No such file or directory");
  EXPECT_EQ(problems_[1].rfind("NIVO/unknown_on_failure: '2' is not a whole number from 0 to 1", 0),
            0u);
}

}  // namespace
