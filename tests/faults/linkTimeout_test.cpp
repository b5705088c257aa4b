// The link's time limits, end to end: NIVO/open_timeout lets REGISTER wait for a link that opens
// slowly, NIVO/pong_timeout ends a link whose server no longer answers. Without open_timeout,
// REGISTER goes out 0.6 s after the connect, open or not, as it always has.
#include <array>

#include "tests/faults/faultTest.h"
#include "tests/faults/loopbackListener.h"

namespace agentTest {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

using OpenTimeoutTest = FaultTest;

// REGISTER waits for the open at most open_timeout, says so, and then fails as without the key.
TEST_F(OpenTimeoutTest, OpenSlowerThanTheWaitIsGivenUpOn) {
  sandbox_->setKey("NIVO", "open_timeout", "1");
  qavel::ServerOptions options;
  options.openDelay = milliseconds(4000);
  launch(options);
  EXPECT_EQ(ending(kWait), kExitedNormally);
  EXPECT_TRUE(logHas("#ERRORS#NIVO link not open after 1 s"));
  EXPECT_TRUE(logHas(kLinkFailure + "Error sending message: invalid state\n"));
  EXPECT_FALSE(logHas("REGISTER SUCCESS"));
}

// Bytes from `from` to `to` until `from` ends.
void pump(const LoopbackListener::Socket& from, const LoopbackListener::Socket& to) {
  auto bytes = std::make_shared<std::array<char, 16384>>();
  from->async_read_some(
      boost::asio::buffer(*bytes), [from, to, bytes](boost::system::error_code ec, size_t size) {
        if (ec) {
          to->shutdown(boost::asio::ip::tcp::socket::shutdown_send, ec);
          return;
        }
        boost::asio::async_write(*to, boost::asio::buffer(*bytes, size),
                                 [from, to, bytes](boost::system::error_code failed, size_t) {
                                   if (!failed) pump(from, to);
                                 });
      });
}

// Holds each connection `delay` before it connects it to `port` and relays both ways.
LoopbackListener::Serve delayingRelay(std::uint16_t port, std::chrono::seconds delay) {
  return [port, delay](LoopbackListener::Socket agent, boost::asio::io_context& io) {
    auto timer = std::make_shared<boost::asio::steady_timer>(io, delay);
    auto server = std::make_shared<boost::asio::ip::tcp::socket>(io);
    timer->async_wait([agent, server, timer, port](boost::system::error_code ec) {
      if (!ec)
        server->async_connect({boost::asio::ip::address_v4::loopback(), port},
                              [agent, server](boost::system::error_code failed) {
                                if (failed) return;
                                pump(agent, server);
                                pump(server, agent);
                              });
    });
  };
}

// The server's TLS handshake starts 8 s after the agent's TCP connection, past WebSocket++'s own
// 5 s for a handshake: the link opens within open_timeout all the same.
TEST_F(OpenTimeoutTest, SlowTlsHandshakeOpensWithinTheWait) {
  startServer();
  LoopbackListener relay(delayingRelay(server_->port(), seconds(8)));
  sandbox_->setKey("NIVO", "server_url", "wss://127.0.0.1:" + std::to_string(relay.port()));
  sandbox_->setKey("NIVO", "open_timeout", "20");
  sandbox_->start();
  ASSERT_TRUE(answers_.waitForRegister(seconds(8) + kWait));
  server_->sendExec(1, "plugin_exit", "slow", 5);
  EXPECT_EQ(answers_.to(1), once(qavel::execResponse(0, 1, "slow\n", 0)));
}

// One agent and its server, for a test that runs several side by side.
struct Pair {
  std::unique_ptr<qavel::QavelServer> server;
  std::unique_ptr<agentSandbox> sandbox;
};

class PongTimeoutTest : public FaultTest {
 protected:
  Pair start(qavel::ServerOptions options, const char* pongTimeout) {
    Pair pair{std::make_unique<qavel::QavelServer>(std::move(options)), makeSandbox()};
    pair.server->start();
    pair.sandbox->setKey("NIVO", "server_url",
                         "wss://127.0.0.1:" + std::to_string(pair.server->port()));
    pair.sandbox->setKey("NIVO", "pong_timeout", pongTimeout);
    pair.sandbox->start();
    return pair;
  }
};

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

  Pair pairs[] = {start(noPong, "2"), start(deaf, "2"), start(unanswered, "0")};
  Pair& silent = pairs[0];
  Pair& notReading = pairs[1];
  Pair& notAwaited = pairs[2];
  notReading.sandbox->addPlugin("plugin_big", kPlugins + "/plugin_big.sh");
  for (Pair& pair : pairs) ASSERT_TRUE(pair.sandbox->waitForLog("Pool exec is running", kWait));
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
  for (const Pair& pair : pairs) checkAgentOutput(*pair.sandbox);
}

}  // namespace
}  // namespace agentTest
