#include "src/client/hostDiscovery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "src/service/service.h"

namespace {

// The ip program's failure is what an administrator reads on the way out: it names the program.
TEST(HostIdentity, IpProgramEndedBySignalIsNamedInTheFailure) {
  const std::string killed = NIVO_TEST_PLUGIN_DIR "/plugin_kill.sh";
  EXPECT_THAT([&] { findIdentity(killed, nullptr); },
              // what it printed follows the parameters
              testing::ThrowsMessage<serviceException>(
                  "Error: orva can't execute ip command\npath:" + killed + " -j a-j\n"));
}

}  // namespace
