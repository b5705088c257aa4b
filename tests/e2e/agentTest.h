// Fixture of the tests that run the real agent: one qavel-client in a sandbox of its own, the
// protocol peer on 127.0.0.1, and a book of the answers the peer receives.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tests/common/eventually.h"
#include "tools/harness/agentSandbox.h"
#include "tools/harness/answerBook.h"
#include "tools/peer/qavelServer.h"

namespace agentTest {

using Clock = std::chrono::steady_clock;

// Bounds the waits of a failing test; a passing one goes on as soon as its condition holds.
inline const std::chrono::seconds kWait = testWait();
// A lost link that no result reveals is noticed at the agent's next keep-alive ping, 40 s apart.
constexpr std::chrono::seconds kPingWait{60};

const std::string kPlugins = NIVO_TEST_PLUGIN_DIR;
const std::string kLinkFailure = "NIVO  QAVEL Link exception ";
const std::string kExitedNormally = "exit status 0";
const std::vector<std::string> kDebugArguments = {"-D", "-f", "/etc/nivo/qavel.conf"};

// What an order answered exactly once has received.
inline std::vector<Json::Value> once(Json::Value answer) { return {std::move(answer)}; }

class AgentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0)
      GTEST_SKIP() << "needs root: each agent runs in a private mount namespace of its own";
    sandbox_ = makeSandbox();
    answers_.setAgentAlive([this] { return sandbox_ == nullptr || sandbox_->running(); });
  }

  void TearDown() override {
    if (sandbox_ != nullptr) checkAgentOutput(*sandbox_);
    for (const Pair& pair : pairs_) checkAgentOutput(*pair.sandbox);
  }

  // A sandbox with plugin_exit, set up for the build under test; sandbox_ is one. A test that runs
  // several agents side by side makes the others with it and checks each with checkAgentOutput.
  std::unique_ptr<agentSandbox> makeSandbox() const {
    auto sandbox =
        std::make_unique<agentSandbox>(agentSandbox::Paths{program(), NIVO_SANDBOX_RUN}, "");
    sandbox->addPlugin("plugin_exit", kPlugins + "/plugin_exit.sh");
    // What a ThreadSanitizer build of the agent reports by design; other builds ignore it. Quoted,
    // since the sanitizers split their options at blanks and colons, which a checkout's path may
    // hold.
    const char* const inherited = std::getenv("TSAN_OPTIONS");
    const std::string options =
        inherited != nullptr && *inherited != '\0' ? std::string(inherited) + ":" : std::string();
    sandbox->setEnvironment("TSAN_OPTIONS",
                            options + "suppressions=\"" NIVO_AGENT_TSAN_SUPPRESSIONS "\"");
    return sandbox;
  }

  // A sanitizer's report from the agent is a fault even when the test saw what it wanted; a failed
  // test shows the agent's log.
  void checkAgentOutput(const agentSandbox& sandbox) const {
    const std::string printed = sandbox.output() + sandbox.errors();
    for (const char* mark : {"Sanitizer", "runtime error"})
      EXPECT_EQ(printed.find(mark), std::string::npos) << tail(printed);
    if (HasFailure())
      std::cerr << "---- agent log (" << sandbox.dir() << ")\n"
                << tail(sandbox.log()) << "---- agent output\n"
                << tail(printed);
  }

  // What the sandbox starts: the agent, or a program that runs it.
  virtual std::string program() const { return NIVO_AGENT_PATH; }

  void startServer(qavel::ServerOptions options = {}) {
    options.onFrame = [this](const qavel::ReceivedFrame& frame) { answers_.record(frame); };
    server_ = std::make_unique<qavel::QavelServer>(std::move(options));
    server_->start();
  }

  std::string serverAddress() const { return "127.0.0.1:" + std::to_string(server_->port()); }

  // Starts the peer and an agent configured to reach it.
  void launch(qavel::ServerOptions options = {},
              const std::vector<std::string>& arguments = kDebugArguments) {
    startServer(std::move(options));
    sandbox_->setKey("NIVO", "server_url", "wss://" + serverAddress());
    sandbox_->start(arguments);
  }

  // Launches and waits until the agent has registered and its pools run.
  ::testing::AssertionResult launchRunning(qavel::ServerOptions options = {}) {
    launch(std::move(options));
    if (sandbox_->waitForLog("Pool exec is running", kWait)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the agent did not reach its run phase";
  }

  void addPlugin(const std::string& name, const std::string& file) {
    sandbox_->addPlugin(name, kPlugins + "/" + file);
  }

  bool logHas(const std::string& text) const {
    return sandbox_->log().find(text) != std::string::npos;
  }

  // Another agent with its own peer, for a test that runs several side by side; checked for
  // sanitizer reports when the test ends.
  struct Pair {
    std::unique_ptr<qavel::QavelServer> server;
    std::unique_ptr<agentSandbox> sandbox;
  };
  Pair& startPair(qavel::ServerOptions options,
                  const std::function<void(agentSandbox&)>& configure = nullptr) {
    pairs_.push_back({std::make_unique<qavel::QavelServer>(std::move(options)), makeSandbox()});
    Pair& pair = pairs_.back();
    pair.server->start();
    pair.sandbox->setKey("NIVO", "server_url",
                         "wss://127.0.0.1:" + std::to_string(pair.server->port()));
    if (configure) configure(*pair.sandbox);
    pair.sandbox->start(kDebugArguments);
    return pair;
  }

  // How the agent ended, as agentSandbox::describeEnd() puts it.
  std::string ending(std::chrono::milliseconds limit) {
    return agentSandbox::describeEnd(sandbox_->waitExit(limit));
  }

  // Declared in this order so that the agent goes before the peer (an agent that outlived its peer
  // would see a lost link) and the peer before the book that its callback fills.
  AnswerBook answers_{kWait};
  std::unique_ptr<qavel::QavelServer> server_;
  std::unique_ptr<agentSandbox> sandbox_;
  std::deque<Pair> pairs_;  // a deque: a Pair handed out stays where it is

 private:
  // The last bytes of a text: a failing test's log may hold plugin outputs of many megabytes.
  static std::string tail(const std::string& text, std::size_t bytes = 16384) {
    return text.size() <= bytes ? text : "[...]\n" + text.substr(text.size() - bytes);
  }
};

}  // namespace agentTest
