#include "src/client/hostDiscovery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/service/service.h"
#include "tests/common/tempDirTest.h"

namespace {

class HostDiscoveryFiles : public TempDirTest {};

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
  EXPECT_THAT([&] { findIdentity(killed, nullptr); },
              // what it printed follows the parameters
              testing::ThrowsMessage<serviceException>(
                  "Error: orva can't execute ip command\npath:" + killed + " -j a-j\n"));
}

}  // namespace
