#include <stdio.h>
#include <sys/wait.h>

#include <cstdio>

#include "linkFixture.h"

namespace {

Json::Value asJson(const std::string& text) {
  return qavel::parseJsonDocument(text).value_or(Json::Value(text));
}

struct ServerRun {
  int status = -1;
  std::vector<std::string> lines;  // standard output and standard error together
};

ServerRun runServer(const std::string& arguments) {
  ServerRun run;
  FILE* const out = popen((QAVEL_SERVER_PATH " " + arguments + " 2>&1 </dev/null").c_str(), "r");
  if (out == nullptr) return run;
  char line[4096];
  while (fgets(line, sizeof line, out) != nullptr) run.lines.emplace_back(line);
  run.status = pclose(out);
  return run;
}

}  // namespace

using QavelServerTest = LinkTest;

TEST_F(QavelServerTest, RegisterIsAnsweredAsConfigured) {
  using qavel::RegisterReply;
  const std::pair<RegisterReply, std::string> cases[] = {
      {RegisterReply::withStatus(0), R"({"COMMAND":"REGISTER-RESPONSE","STATUS":0})"},
      {RegisterReply::withStatus("0"), R"({"COMMAND":"REGISTER-RESPONSE","STATUS":"0"})"},
      {RegisterReply::withStatus(1), R"({"COMMAND":"REGISTER-RESPONSE","STATUS":1})"},
      {RegisterReply::withStatus(""), R"({"COMMAND":"REGISTER-RESPONSE","STATUS":""})"},
      {RegisterReply::withoutStatus(), R"({"COMMAND":"REGISTER-RESPONSE"})"},
      {RegisterReply::silent(), "marker"},
  };
  for (const auto& [reply, expected] : cases) {
    SCOPED_TRACE(expected);
    CallbackRecord::instance().clear();
    qavel::ServerOptions options;
    options.registerReply = reply;
    startServer(options);
    WSSEndpoint endpoint;
    openLink(endpoint);
    endpoint.registerQAVEL("SN", "IP", "MAC");
    server_->waitForFrames(1, kWait);
    server_->sendRaw("marker");  // queued after any answer to the REGISTER
    const std::vector<std::string> got = CallbackRecord::instance().waitFor(2);
    ASSERT_GE(got.size(), 2u);
    EXPECT_EQ(asJson(got[1]), asJson(expected));
  }
}

TEST_F(QavelServerTest, ExecOrdersFollowTheRegisterReply) {
  qavel::ServerOptions options;
  options.execOrders = {qavel::parseExecOrder("17 check_disk 5 -w 80  -c 90"),
                        qavel::parseExecOrder(R"({"COMMAND":"EXEC","TASK":{"TASKID":18}})")};
  startServer(options);
  WSSEndpoint endpoint;
  openLink(endpoint);
  endpoint.registerQAVEL("SN", "IP", "MAC");

  const std::vector<std::string> got = CallbackRecord::instance().waitFor(4);
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(asJson(got[1])["COMMAND"], "REGISTER-RESPONSE");
  EXPECT_EQ(asJson(got[2]), qavel::execOrder(17, "check_disk", "-w 80  -c 90", 5));
  EXPECT_EQ(asJson(got[3])["TASK"]["TASKID"], 18);

  server_->stop();  // with the link still open
  EXPECT_EQ(server_->waitForClose(kWait).value_or(qavel::CloseInfo{}).code, 1001);
  EXPECT_THROW(server_->sendRaw("late"), qavel::ServerError);
}

TEST(ExecOrderText, MalformedOrdersAreRefused) {
  for (const char* bad : {"17 check_disk", "x check_disk 5", "17 check_disk 5x", R"({"TASK":)"}) {
    EXPECT_THROW(qavel::parseExecOrder(bad), qavel::ServerError) << bad;
  }
}

TEST_F(QavelServerTest, DropEndsTheLinkWithoutClosingHandshake) {
  startServer();
  WSSEndpoint endpoint;
  openLink(endpoint);
  server_->dropConnection();

  const std::optional<qavel::CloseInfo> closed = server_->waitForClose(kWait);
  ASSERT_TRUE(closed);
  EXPECT_EQ(closed->code, 1006);
  EXPECT_THROW(server_->sendRaw("late"), qavel::ServerError);
  // The endpoint notices the end of stream on its own thread; its pings fail from then on.
  const auto deadline = std::chrono::steady_clock::now() + kWait;
  bool failed = false;
  while (!failed && std::chrono::steady_clock::now() < deadline) {
    try {
      endpoint.ping();
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } catch (const WSSEndpointException&) {
      failed = true;
    }
  }
  EXPECT_TRUE(failed);
}

TEST_F(QavelServerTest, CommandLinePrintsEachFrameAsOneJsonLine) {
  FILE* const out = popen(QAVEL_SERVER_PATH
                          " --once --status '\"1\"' --exec '17 check_disk 5 -w 80' 2>&1 </dev/null",
                          "r");
  ASSERT_NE(out, nullptr);
  char line[4096];
  unsigned port = 0;
  ASSERT_NE(fgets(line, sizeof line, out), nullptr);
  ASSERT_EQ(sscanf(line, "qavel-server: listening on wss://127.0.0.1:%u/", &port), 1) << line;

  WSSEndpoint endpoint;
  endpoint.setCallbackFctOnMessage(&CallbackRecord::callback);
  endpoint.connect("wss://127.0.0.1:" + std::to_string(port));
  // No greeting from this server: retry until the endpoint is open.
  const auto deadline = std::chrono::steady_clock::now() + kWait;
  for (bool sent = false; !sent && std::chrono::steady_clock::now() < deadline;) {
    try {
      endpoint.registerQAVEL("SN", "IP", "MAC");
      sent = true;
    } catch (const WSSEndpointException&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  const std::vector<std::string> got = CallbackRecord::instance().waitFor(2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(asJson(got[0])["STATUS"], "1");
  EXPECT_EQ(asJson(got[1]), qavel::execOrder(17, "check_disk", "-w 80", 5));
  endpoint.send("not json");
  endpoint.close(1000, "done");

  std::vector<Json::Value> frames;
  while (fgets(line, sizeof line, out) != nullptr) {
    if (line[0] == '{') frames.push_back(asJson(line));
  }
  EXPECT_EQ(pclose(out), 0);  // --once: the server ends with the link
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0]["frame"]["COMMAND"], "REGISTER");
  EXPECT_EQ(frames[1]["frame"], "not json");
  const double now =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  EXPECT_NEAR(frames[1]["time"].asDouble(), now, 60);
  EXPECT_EQ(frames[1]["time"].type(), Json::realValue);  // with its fraction of a second
}

TEST(QavelServerCommandLine, ErrorsAreOneLineWithFailureStatus) {
  const ServerRun badPort = runServer("--port 70000");
  ASSERT_FALSE(badPort.lines.empty());
  EXPECT_EQ(badPort.lines[0], "qavel-server: bad port '70000': want a number from 0 to 65535\n");
  EXPECT_EQ(WEXITSTATUS(badPort.status), 2);

  const ServerRun noCertificate = runServer("--cert /nonexistent.pem --key /nonexistent.pem");
  EXPECT_EQ(noCertificate.lines,
            std::vector<std::string>{
                "qavel-server: cannot read certificate /nonexistent.pem: No such file or "
                "directory\n"});
  EXPECT_EQ(WEXITSTATUS(noCertificate.status), 1);
}
