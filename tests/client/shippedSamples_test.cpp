// The samples the package installs.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "src/client/agentSettings.h"
#include "src/client/liveConfig.h"
#include "src/common/iniConfig.h"
#include "tests/common/tempDirTest.h"

namespace {

using SampleConfiguration = TempDirTest;

// The key reader takes the first line of a section that holds the key's text anywhere: in the
// shipped sample, every key must be read from its own line, and every key the agent knows is on,
// or shown commented out as an example that reads right and is usable once it is put in force.
TEST_F(SampleConfiguration, EveryKeyIsOnAndReadFromItsOwnLine) {
  std::ostringstream shipped;
  shipped << std::ifstream(NIVO_SAMPLE_CONFIG).rdbuf();
  std::string text = shipped.str();
  for (const std::string example : {"proxy_url=", "fallback_urls="}) {
    const std::size_t at = text.find("\n#" + example);
    ASSERT_NE(at, std::string::npos) << "no example #" << example;
    text.erase(at + 1, 1);
  }
  writeFile("sample.conf", text);
  iniConfig sample(path("sample.conf"));
  for (const ConfigKey& key : configKeys()) {
    SCOPED_TRACE(std::string(key.section) + "/" + key.name);
    const std::map<std::string, std::string> lines = sample.getSection(key.section);
    const auto own = lines.find(key.name);
    ASSERT_NE(own, lines.end()) << "no line " << key.name << "=";
    EXPECT_FALSE(own->second.empty());
    EXPECT_EQ(sample.getKey(key.section, key.name), own->second);
  }
  std::vector<std::string> problems;
  const AgentSettings settings = readAgentSettings(sample, problems);
  EXPECT_TRUE(settings.proxy);
  EXPECT_EQ(settings.fallbackUrls.size(), 2u);
  for (const std::string& problem : problems) EXPECT_EQ(problem.find("_url"), std::string::npos);
}

}  // namespace
