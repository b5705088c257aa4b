#include "src/common/iniConfig.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "tests/common/tempDirTest.h"

namespace {

using IniConfigTest = TempDirTest;

TEST_F(IniConfigTest, GetKeyReturnsRawTextAfterEqualsOfFirstLineHoldingTheKey) {
  struct Case {
    const char *content, *section, *key, *value;
  };
  const Case cases[] = {
      {"[NIVO]\r\nthread=4\r\n", "NIVO", "thread", ""},  // not a header: a CR is no line end
      {"thread=1\n  [NIVO]\nthread=4\r\n", "NIVO", "thread", "4\r"},
      {"[S]\nkey = value\n", "S", "key", " value"},
      {"[NIVO]\n#server_url=x\n \t#server_url=z\n\t #server_url=y\n", "NIVO", "server_url", "y"},
      {"[NIVO]\nthreads_max=9\nthread=4\n", "NIVO", "thread", "9"},
      {"[A]\n[B]\nk=1\n[A]\nk=2\n", "A", "k", ""},
      {"[A]\n[B]\nk=1\n[A]\nk=2\n", "B", "k", "1"},
  };
  iniConfig ini(path("agent.conf"));  // one reader: each query reads the file as it is now
  for (const Case& c : cases) {
    writeFile("agent.conf", c.content);
    EXPECT_EQ(ini.getKey(c.section, c.key), c.value) << c.content;
  }
  // A whole section: its header and a line without "=" are keys with empty values.
  writeFile("agent.conf", "[S]\nbare\nk=v\n");
  EXPECT_EQ(ini.getSection("S"),
            (std::map<std::string, std::string>{{"[S]", ""}, {"bare", ""}, {"k", "v"}}));
}

}  // namespace
