#include "src/client/hostDiscovery.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "src/common/logFile.h"
#include "src/service/service.h"
#include "tests/common/tempDirTest.h"

namespace {

TEST(HostIdentity, FirstInterfaceBesideLoopbackWithAnAddressElseTheLastOneRead) {
  struct Case {
    const char* output;
    HostIdentity expected;
  };
  const std::vector<Case> cases = {
      {R"([{"ifname":"lo","address":"00:00:00:00:00:00","addr_info":[{"local":"127.0.0.1"}]},
           {"ifname":"eth0","address":"aa:bb:cc:dd:ee:ff","addr_info":[{"local":"10.0.0.2"}]},
           {"ifname":"eth1","address":"11:22:33:44:55:66","addr_info":[{"local":"10.0.1.2"}]}])",
       {"eth0", "aa:bb:cc:dd:ee:ff", "10.0.0.2"}},
      {R"([{"ifname":"eth0","address":"aa:bb:cc:dd:ee:ff","addr_info":[{"local":""}]},
           {"ifname":"eth1","address":"11:22:33:44:55:66","addr_info":[{"local":"10.0.1.2"}]}])",
       {"eth1", "11:22:33:44:55:66", "10.0.1.2"}},
      {R"([{"ifname":"eth0","address":"aa:bb:cc:dd:ee:ff","addr_info":[]},
           {"ifname":"lo","address":"00:00:00:00:00:00","addr_info":[{"local":"127.0.0.1"}]}])",
       {"lo", "aa:bb:cc:dd:ee:ff", ""}},
      {"not json", {"", "", ""}},
  };
  for (const Case& c : cases) {
    const HostIdentity found = identityFromIpOutput(c.output, nullptr);
    EXPECT_EQ(found.interfaceName, c.expected.interfaceName) << c.output;
    EXPECT_EQ(found.mac, c.expected.mac) << c.output;
    EXPECT_EQ(found.ip, c.expected.ip) << c.output;
  }
}

class HostDiscoveryFiles : public TempDirTest {};

TEST_F(HostDiscoveryFiles, CatalogueHoldsListedExecutablesAndLogsEveryChoice) {
  std::filesystem::create_directory(path("plugins"));
  for (const char* name : {"check_a", "check_b", "check_plain"}) {
    writeFile(std::string("plugins/") + name, "#!/bin/sh\n");
    if (std::string(name) != "check_plain")
      chmod(path(std::string("plugins/") + name).c_str(), 0755);
  }
  std::filesystem::create_directory(path("plugins/check_dir"));
  logFile log(static_cast<char>(0), path("log"));
  const auto catalogue =
      pluginCatalogue(path("plugins"), {"check_a", "check_plain", "check_dir"}, &log);
  EXPECT_EQ(catalogue, (std::map<std::string, std::string>{{"check_a", path("plugins/check_a")}}));
  const std::string lines = readFile("log");
  EXPECT_NE(lines.find("#DEBUG#PLUGIN SELECTED: check_a\n"), std::string::npos) << lines;
  EXPECT_NE(lines.find("#DEBUG#PLUGIN REJECT: check_b\n"), std::string::npos) << lines;
  EXPECT_EQ(lines.find("check_plain"), std::string::npos) << lines;
}

TEST_F(HostDiscoveryFiles, ServerUrlIsTheKeyAsWrittenElseTheDroppedAddressOverWss) {
  writeFile("server_url", "monitor.example:8443\nignored\n");
  EXPECT_EQ(serverUrl("127.0.0.1:1", path("server_url").c_str(), nullptr), "127.0.0.1:1");
  EXPECT_EQ(serverUrl("", path("server_url").c_str(), nullptr), "wss://monitor.example:8443");
  EXPECT_EQ(readPluginList(path("server_url")),
            (std::vector<std::string>{"monitor.example:8443", "ignored"}));
}

// The ip program's failure is what an administrator reads on the way out: it names the program.
TEST(HostIdentity, IpProgramEndedBySignalIsNamedInTheFailure) {
  const std::string killed = NIVO_TEST_PLUGIN_DIR "/plugin_kill.sh";
  EXPECT_EQ(thrownText<serviceException>([&] { findIdentity(killed, nullptr); }),
            "Error: orva can't execute ip command\npath:" + killed + " -j a-j\n");  // what it printed follows
}

}  // namespace
