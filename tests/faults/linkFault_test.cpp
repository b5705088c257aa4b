// The server gone while the agent works: whatever was running, the agent ends with status 0 after
// its link-failure line, and never crashes.
#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

class LinkFaultTest : public FaultTest {};

// The link ends without a close handshake, as when the server is killed, while both monitor
// workers and the web worker run a plugin that waits for "release": their results have nowhere to
// go.
TEST_F(LinkFaultTest, ServerGoneWhileOrdersRunEndsAgentWithStatusZero) {
  addPlugin("pool_block", "pool_block.sh");
  launch();
  ASSERT_TRUE(answers_.waitForRegister());
  const int priorities[] = {5, 5, 1};
  for (int id = 0; id < 3; ++id)
    server_->sendExec(id, "pool_block",
                      marker("started-" + std::to_string(id)) + " " + marker("release"),
                      priorities[id]);
  for (int id = 0; id < 3; ++id) ASSERT_TRUE(waitForMarker("started-" + std::to_string(id)));

  server_->dropConnection();
  server_.reset();
  const auto gone = Clock::now();
  release("release");
  EXPECT_EQ(ending(kPingWait), kExitedNormally);
  std::cout << "agent ended "
            << std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - gone).count()
            << " ms after the server went" << std::endl;
  EXPECT_TRUE(logHas(kLinkFailure));
}

}  // namespace
}  // namespace agentTest
