#include "src/common/logFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/common/tempDirTest.h"

namespace {

using Lines = std::vector<std::string>;

class LogFileTest : public TempDirTest {
 protected:
  // The lines of agent.log without their time stamps, each of which must have the asctime form.
  Lines unstamped() const {
    static const std::regex stamp(
        "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] ([0-9]{2}:){2}[0-9]{2} [0-9]{4}");
    Lines rests;
    std::istringstream in(readFile("agent.log"));
    for (std::string line; std::getline(in, line);) {
      EXPECT_TRUE(std::regex_match(line.substr(0, 24), stamp)) << line;
      rests.push_back(line.substr(24));
    }
    return rests;
  }
};

TEST_F(LogFileTest, WritesLevelTextAndMessageFromTheThresholdUp) {
  {
    logFile all(char{0}, path("agent.log"));
    for (int level : {0, 1, 2, 3, 4, 5, 6, 7, 8, 255})
      all.write(static_cast<char>(level), "m" + std::to_string(level));
    all.write("first", "second");
    logFile high(char{7}, path("agent.log"));  // compared unsigned: 200 passes
    for (int level : {6, 7, 200}) high.write(static_cast<char>(level), "x");
    logFile byDefault(path("agent.log"));  // threshold INFO
    for (int level : {0, 1}) byDefault.write(static_cast<char>(level), "y");
  }
  EXPECT_EQ(unstamped(),
            (Lines{"#DEBUG#m0", "#INFO#m1", "#NOTICE#m2", "#WARNING#m3", "#ERRORS#m4",
                   "#CRITICAL#m5", "#ALERT#m6", "#ERMERGENCY#m7", "#INFO#m8", "#INFO#m255",
                   "#first#second", "#ERMERGENCY#x", "#INFO#x", "#INFO#y"}));
}

TEST_F(LogFileTest, AppendsToAnExistingFile) {
  writeFile("agent.log", "old\n");
  logFile log(path("agent.log").c_str());
  log.write("bare");
  EXPECT_EQ(readFile("agent.log"), "old\nbare\n");
  EXPECT_EQ(log.size(), 9u);
}

TEST_F(LogFileTest, TwoThreadsWriteWholeLines) {
  const std::string a(200, 'a'), b(200, 'b');
  {
    logFile log(path("agent.log"));
    const auto writeMany = [&](const std::string& text) {
      for (int i = 0; i < 2000; ++i) log.write(char{1}, text);
    };
    std::thread other(writeMany, a);
    writeMany(b);
    other.join();
  }
  const Lines got = unstamped();
  EXPECT_EQ(got.size(), 4000u);
  for (const std::string& rest : got) ASSERT_TRUE(rest == "#INFO#" + a || rest == "#INFO#" + b);
}

TEST_F(LogFileTest, MissingDirectoryFailsConstruction) {
  const std::string missing = path("none/agent.log");
  EXPECT_EQ(thrownText<FileException>([&] { logFile log(missing); }),
            "error open file: " + missing);
  EXPECT_EQ(thrownText<FileException>([&] { logFile log(char{0}, missing); }),
            "error open file: " + missing);
  EXPECT_FALSE(std::filesystem::exists(path("none")));
}

TEST_F(LogFileTest, FileNameKeepsItsSlash) {
  const logFile log(path("b.log"));
  EXPECT_EQ(log.getFileName(), "/b.log");
  EXPECT_EQ(log.getDirectory(), dir_);
}

}  // namespace
