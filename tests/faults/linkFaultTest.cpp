// The agent's link failing: the server killed mid-work, peers that never let the link open, a
// server that does not speak "qavel", a server that refuses a result too large for it. Whatever
// happens, the agent ends with status 0 after its link-failure line, and never crashes.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>

#include "faultFixture.h"
#include "rawPeer.h"

namespace faults {
namespace {

const std::string kRegistering = "STATUS=REGISTERING          \nREGISTER=NONE               \n";

// The qavel-server program as a child of the test: orders are typed on its standard input, and
// its standard output (one line per frame received) and standard error go to files.
class ServerProcess {
 public:
  explicit ServerProcess(const std::string& dir)
      : outputPath_(dir + "/server.out"), errorPath_(dir + "/server.err"), input_(Pipe::make()) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input_.readEnd.get(), STDIN_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputPath_.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorPath_.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    char* const argv[] = {const_cast<char*>(NIVO_SERVER_PATH), nullptr};
    const int failed = posix_spawn(&pid_, NIVO_SERVER_PATH, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) throw std::runtime_error("cannot start " NIVO_SERVER_PATH);
  }

  ~ServerProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      reap();
    }
  }

  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // The port from "listening on wss://127.0.0.1:PORT/"; 0 when the line did not come.
  int port() const {
    std::smatch found;
    std::string errors;
    const std::regex listening("listening on wss://127\\.0\\.0\\.1:([0-9]+)/");
    if (!eventually([&] {
          errors = read(errorPath_);
          return std::regex_search(errors, found, listening);
        }))
      return 0;
    return std::stoi(found[1]);
  }

  // True once a frame holding `text` has been received.
  bool waitForFrame(const std::string& text) const {
    return eventually([&] { return read(outputPath_).find(text) != std::string::npos; });
  }

  void command(const std::string& line) {
    const std::string text = line + "\n";
    ASSERT_EQ(write(input_.writeEnd.get(), text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
  }

  // Kills the server and waits until it has ended, its sockets closed by the kernel.
  void killNow() {
    kill(pid_, SIGKILL);
    reap();
  }

 private:
  static std::string read(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
  }

  void reap() {
    int status;
    while (waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
    }
    pid_ = -1;
  }

  const std::string outputPath_;
  const std::string errorPath_;
  const Pipe input_;
  pid_t pid_ = -1;
};

class LinkFaultTest : public FaultTest {};

TEST_F(LinkFaultTest, ServerKilledWhileOrdersRunEndsAgentWithStatusZero) {
  addPlugin("pool_block", "pool_block.sh");
  ServerProcess server(sandbox_->dir());
  const int port = server.port();
  ASSERT_NE(port, 0);
  sandbox_->setKey("NIVO", "server_url", "wss://127.0.0.1:" + std::to_string(port));
  sandbox_->start();
  ASSERT_TRUE(server.waitForFrame("\"REGISTER\""));

  // Both monitor workers and the web worker busy with a plugin that waits for "release".
  const int priorities[] = {5, 5, 1};
  for (int id = 0; id < 3; ++id) {
    server.command("exec " + std::to_string(id) + " pool_block " + std::to_string(priorities[id]) +
                   " " + marker("started-" + std::to_string(id)) + " " + marker("release"));
  }
  for (int id = 0; id < 3; ++id) ASSERT_TRUE(waitForMarker("started-" + std::to_string(id)));

  server.killNow();
  const auto killed = Clock::now();
  release("release");
  EXPECT_EQ(agentSandbox::describeEnd(sandbox_->waitExit(kPingWait)), kExitedNormally);
  std::cout << "agent ended "
            << std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - killed).count()
            << " ms after the server was killed" << std::endl;
  EXPECT_TRUE(logHas(kLinkFailure));
}

struct OpeningFault {
  const char* name;
  RawPeer::Behaviour behaviour;
  std::string reply;
  std::string error;  // of the failed "REGISTER"
};

const char kBadRequest[] = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";
const char kGone[] = "Bad Connection";

void PrintTo(const OpeningFault& fault, std::ostream* out) { *out << fault.name; }

class OpeningFaultTest : public FaultTest, public ::testing::WithParamInterface<OpeningFault> {};

// The agent sends "REGISTER" 0.6 s after it has started to connect, without waiting for the link
// to open. On a link that failed by then, the connection is gone ("Bad Connection"); on one still
// opening, the send is refused ("invalid state").
TEST_P(OpeningFaultTest, AgentEndsWithStatusZeroBeforeRegistering) {
  RawPeer peer(GetParam().behaviour, GetParam().reply);
  sandbox_->setKey("NIVO", "server_url", "wss://127.0.0.1:" + std::to_string(peer.port()));
  sandbox_->start();
  EXPECT_EQ(agentSandbox::describeEnd(sandbox_->waitExit(kWait)), kExitedNormally);
  EXPECT_TRUE(logHas(kLinkFailure + "Error sending message: " + GetParam().error + "\n"));
  EXPECT_FALSE(logHas("REGISTER SUCCESS"));
  EXPECT_EQ(sandbox_->readFile("status"), kRegistering);
  if (GetParam().behaviour == RawPeer::Behaviour::TlsReply) {
    EXPECT_NE(peer.request(kWait).find("\r\nSec-WebSocket-Protocol: qavel\r\n"), std::string::npos)
        << peer.request(kWait);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Peers, OpeningFaultTest,
    ::testing::Values(
        OpeningFault{"NothingListening", RawPeer::Behaviour::Refuse, "", kGone},
        // TLS would give up after 5 s; the agent has given up on the link before.
        OpeningFault{"SilentAfterTcpAccept", RawPeer::Behaviour::Silent, "", "invalid state"},
        OpeningFault{"PlainTextAnswerToTls", RawPeer::Behaviour::PlainText, kBadRequest, kGone},
        // What a WebSocket++ server answers when its validate handler refuses the connection.
        OpeningFault{"HandshakeRefusedWith400", RawPeer::Behaviour::TlsReply, kBadRequest, kGone},
        OpeningFault{"HandshakeRefusedWith426", RawPeer::Behaviour::TlsReply,
                     "HTTP/1.1 426 Upgrade Required\r\nSec-WebSocket-Version: 13\r\n"
                     "Content-Length: 0\r\n\r\n",
                     kGone}),
    [](const ::testing::TestParamInfo<OpeningFault>& info) { return info.param.name; });

// RFC 6455 lets a server that speaks none of the offered subprotocols accept the connection
// without naming one. The agent does not look at the server's choice: it works with such a server.
TEST_F(LinkFaultTest, ServerThatSelectsNoSubprotocolIsServedLikeAnyOther) {
  qavel::ServerOptions options;
  options.selectSubprotocol = false;
  launch(options);
  const std::optional<qavel::ConnectionInfo> link = server_->waitForConnection(kWait);
  ASSERT_TRUE(link);
  EXPECT_EQ(link->offeredSubprotocols, std::vector<std::string>{"qavel"});
  EXPECT_EQ(link->selectedSubprotocol, "");
  ASSERT_TRUE(answers_.waitForRegister());
  server_->sendExec(1, "plugin_exit", "served", 5);
  EXPECT_EQ(answers_.waitFor(1),
            std::vector<Json::Value>{qavel::execResponse(0, 1, "served\n", 0)});
  EXPECT_TRUE(sandbox_->running());
}

// The peer, like any WebSocket++ server left at its defaults, refuses a message over 32,000,000
// bytes by dropping the link. The agent learns of it at its next ping.
TEST_F(LinkFaultTest, ResultTooLargeForServerEndsAgentAtNextPing) {
  // A sanitized agent takes about a second per megabyte: it gets an output just over the limit.
  constexpr long kOutputBytes = kSanitized ? 32L * 1000 * 1000 : 50L * 1024 * 1024;
  constexpr std::chrono::seconds kSendWait = kSanitized ? std::chrono::seconds(120) : kWait;
  addPlugin("plugin_big", "plugin_big.sh");
  ASSERT_TRUE(launchAndWarmUp(kProductionArguments));
  const pid_t agent = sandbox_->pid();
  const long idle = ProcessProbe::status(agent, "VmRSS");
  server_->sendExec(1, "plugin_big", std::to_string(kOutputBytes), 5);
  EXPECT_TRUE(server_->waitForClose(kSendWait));
  // For the record, not checked here: what the agent keeps once the result has gone.
  long after = -1;
  eventually([&] { return (after = ProcessProbe::status(agent, "VmRSS")) <= idle + 8192; },
             std::chrono::seconds(10));
  std::cout << "agent memory, " << kOutputBytes << "-byte output: idle VmRSS " << idle
            << " kB, VmHWM " << ProcessProbe::status(agent, "VmHWM") << " kB, VmRSS after " << after
            << " kB" << std::endl;
  EXPECT_EQ(agentSandbox::describeEnd(sandbox_->waitExit(kPingWait)), kExitedNormally);
  EXPECT_TRUE(logHas(kLinkFailure));
  EXPECT_EQ(answers_.waitFor(1, std::chrono::seconds(0)).size(), 0u);
}

// The agent's own WebSocket++ client refuses an inbound message over 32,000,000 bytes from its
// header, before reading it, and closes the link (1009, message too big; the peer, still sending,
// may see the connection reset instead). The agent then ends at its next ping.
TEST_F(LinkFaultTest, FrameTooLargeForAgentEndsAgentAtNextPing) {
  ASSERT_TRUE(launchAndWarmUp(kProductionArguments));
  server_->sendRaw(std::string(33 * 1000 * 1000, ' '));
  EXPECT_TRUE(server_->waitForClose(kWait));
  EXPECT_EQ(agentSandbox::describeEnd(sandbox_->waitExit(kPingWait)), kExitedNormally);
  EXPECT_TRUE(logHas(kLinkFailure));
}

}  // namespace
}  // namespace faults
