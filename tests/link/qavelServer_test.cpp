#include <stdio.h>

#include <cstdio>

#include "tests/common/eventually.h"
#include "tests/link/linkFixture.h"

namespace {

Json::Value asJson(const std::string& text) {
  return qavel::parseJsonDocument(text).value_or(Json::Value(text));
}

}  // namespace

// The command line serves one link: answers REGISTER, sends its order, prints each received frame
// as one JSON line, and ends with the link.
TEST(QavelServerCommandLine, ServesOneLinkAndPrintsEachFrame) {
  // Quoted: a checkout's path may hold blanks.
  FILE* const out =
      popen("'" QAVEL_SERVER_PATH
            "' --once --status '\"1\"' --exec '17 check_disk 5 -w 80' 2>&1 </dev/null",
            "r");
  ASSERT_NE(out, nullptr);
  char line[4096];
  unsigned port = 0;
  ASSERT_NE(fgets(line, sizeof line, out), nullptr);
  ASSERT_EQ(sscanf(line, "qavel-server: listening on wss://127.0.0.1:%u/", &port), 1) << line;

  CallbackRecord::clear();
  WSSEndpoint endpoint;
  endpoint.setCallbackFctOnMessage(&CallbackRecord::callback);
  endpoint.connect("wss://127.0.0.1:" + std::to_string(port));
  ASSERT_TRUE(eventually([&] {  // no greeting from this server: retried until the link is open
    try {
      endpoint.registerQAVEL("SN", "IP", "MAC");
      return true;
    } catch (const WSSEndpointException&) {
      return false;
    }
  }));
  const std::vector<std::string> got = CallbackRecord::waitFor(2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(asJson(got[0])["STATUS"], "1");
  EXPECT_EQ(asJson(got[1]), qavel::execOrder(17, "check_disk", "-w 80", 5));
  endpoint.send("not json");
  endpoint.close(1000, "done");

  std::vector<Json::Value> frames;
  while (fgets(line, sizeof line, out) != nullptr) {
    if (line[0] == '{') frames.push_back(asJson(line)["frame"]);
  }
  EXPECT_EQ(pclose(out), 0);
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0]["COMMAND"], "REGISTER");
  EXPECT_EQ(frames[1], "not json");
}
