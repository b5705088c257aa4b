#include "src/client/qavel-client.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/common/tempDirTest.h"

namespace {

class LastExecFileTest : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    log_ = std::make_unique<logFile>(char{0}, path("agent.log"));
    fileLog = log_.get();
  }
  void TearDown() override {
    fileLog = nullptr;
    TempDirTest::TearDown();
  }
  std::unique_ptr<logFile> log_;
};

// A full disk loses the stamp, not the result: the failure is logged and nothing is thrown. A file
// that another program wrote is written again by the next result even within the same second. A
// file that cannot be opened throws, as a pointer, as ever.
TEST_F(LastExecFileTest, FailuresAreLoggedOrThrownAndAnotherWriterIsOverwritten) {
  pathLastExecFile = "/dev/full";
  writeLastExecTime();
  const std::string failure = "#ERRORS#Error writing file: /dev/full: No space left on device\n";
  EXPECT_NE(readFile("agent.log").find(failure), std::string::npos);

  pathLastExecFile = path("lastexec");
  writeLastExecTime();
  const std::string stamp = readFile("lastexec");
  EXPECT_EQ(stamp.back(), '\n');
  // Another program's line, most likely within the agent's own second: the next result rewrites it.
  writeFile("lastexec", "1\n");
  writeLastExecTime();
  EXPECT_NE(readFile("lastexec"), "1\n");
  pathLastExecFile = path("none/lastexec");
  try {
    writeLastExecTime();
    ADD_FAILURE() << "nothing thrown";
  } catch (FileException* e) {
    EXPECT_STREQ(e->what(), ("Error opening file: " + pathLastExecFile).c_str());
    delete e;
  }
}

}  // namespace
