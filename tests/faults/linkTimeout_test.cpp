// The link's time limits, end to end: NIVO/open_timeout lets REGISTER wait for a link that opens
// slowly, NIVO/pong_timeout ends a link whose server no longer answers. Without open_timeout,
// REGISTER goes out 0.6 s after the connect, open or not, as it always has.
#include "tests/faults/faultTest.h"

namespace agentTest {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

using PongTimeoutTest = FaultTest;

// A server that no longer answers, whether it still reads (no pong) or not (nothing read after
// REGISTER, with a large result stuck in the agent's buffers), ends the agent within one ping
// interval (40 s) and the pong timeout: the first ping's pong does not come, the link ends at
// once, and the agent's next ping, made right then, fails. With pong_timeout=0 no pong is
// awaited, as before the key. The agents run side by side, because each must live through a
// whole ping interval of real time.
TEST_F(PongTimeoutTest, ServerThatStopsAnsweringEndsAgentWithinPingIntervalAndPongTimeout) {
  sandbox_.reset();  // the fixture's agent is not used
  qavel::ServerOptions noPong;
  noPong.answerPings = false;
  qavel::ServerOptions deaf;
  deaf.stopReadingAfterRegister = true;
  deaf.execOrders.push_back(qavel::execOrder(1, "plugin_big", "8000000", 5));
  qavel::ServerOptions unanswered = noPong;

  const auto pongTimeout = [](const char* seconds) {
    return [seconds](agentSandbox& sandbox) {
      sandbox.setKey("NIVO", "pong_timeout", seconds);
      sandbox.addPlugin("plugin_big", kPlugins + "/plugin_big.sh");
    };
  };
  Pair& silent = startPair(noPong, pongTimeout("2"));
  Pair& notReading = startPair(deaf, pongTimeout("2"));
  Pair& notAwaited = startPair(unanswered, pongTimeout("0"));
  for (Pair* pair : {&silent, &notReading, &notAwaited})
    ASSERT_TRUE(pair->sandbox->waitForLog("Pool exec is running", kWait));
  // Then the main loop starts: its first ping goes 40 s later.
  const auto running = Clock::now();

  for (Pair* ending : {&silent, &notReading}) {
    const auto left = kPingWait - (Clock::now() - running);
    EXPECT_EQ(agentSandbox::describeEnd(
                  ending->sandbox->waitExit(std::chrono::duration_cast<milliseconds>(left))),
              kExitedNormally)
        << ending->sandbox->dir();
    std::cout << "agent ended "
              << std::chrono::duration_cast<milliseconds>(Clock::now() - running).count()
              << " ms after its run phase began" << std::endl;
    EXPECT_NE(ending->sandbox->log().find("#ERRORS#ENDPOINT SOCKET: no pong within 2000 ms: "
                                          "link ended\n"),
              std::string::npos);
    EXPECT_NE(ending->sandbox->log().find(kLinkFailure + "Error sending message: "),
              std::string::npos);
  }
  EXPECT_TRUE(notAwaited.sandbox->waitForLog("send ping function end", seconds(1)));
  EXPECT_TRUE(notAwaited.sandbox->running());
  EXPECT_EQ(notAwaited.sandbox->log().find("no pong"), std::string::npos);
}

}  // namespace
}  // namespace agentTest
