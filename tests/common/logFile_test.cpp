#include "common/logFile.h"

#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tempDirTest.h"

namespace {

// The asctime form, e.g. "Sat Nov 14 23:07:23 2026"; in the mask "_" is a blank or a digit.
bool isStamp(const std::string& text) {
  const std::string mask = "Aaa Aaa _9 99:99:99 9999";
  if (text.size() != mask.size()) return false;
  for (std::size_t i = 0; i < mask.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const bool fits = mask[i] == 'A'   ? std::isupper(c) != 0
                      : mask[i] == 'a' ? std::islower(c) != 0
                      : mask[i] == '9' ? std::isdigit(c) != 0
                      : mask[i] == '_' ? c == ' ' || std::isdigit(c) != 0
                                       : c == static_cast<unsigned char>(mask[i]);
    if (!fits) return false;
  }
  return true;
}

// Makes a relative path without "/" refer to the test's directory for as long as it lives.
class CurrentDir {
 public:
  explicit CurrentDir(const std::string& dir) : saved_(std::filesystem::current_path()) {
    std::filesystem::current_path(dir);
  }
  ~CurrentDir() { std::filesystem::current_path(saved_); }

 private:
  const std::filesystem::path saved_;
};

class LogFileTest : public TempDirTest {
 protected:
  std::vector<std::string> lines() const {
    std::vector<std::string> result;
    std::istringstream in(readFile("agent.log"));
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
  }
  // Each line must be a time stamp followed by "#" and the given rest, in order.
  void expectStampedLines(const std::vector<std::string>& rests) const {
    const std::vector<std::string> got = lines();
    ASSERT_EQ(got.size(), rests.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
      EXPECT_TRUE(isStamp(got[i].substr(0, 24))) << got[i];
      EXPECT_EQ(got[i].substr(24), "#" + rests[i]);
    }
  }
};

TEST_F(LogFileTest, WritesStampLevelTextAndMessage) {
  {
    logFile log(char{0}, path("agent.log"));
    for (int level : {0, 1, 2, 3, 4, 5, 6, 7, 8, 255})
      log.write(static_cast<char>(level), "m" + std::to_string(level));
    log.write("first", "second");
  }
  expectStampedLines({"DEBUG#m0", "INFO#m1", "NOTICE#m2", "WARNING#m3", "ERRORS#m4", "CRITICAL#m5",
                      "ALERT#m6", "ERMERGENCY#m7", "INFO#m8", "INFO#m255", "first#second"});
}

TEST_F(LogFileTest, ThresholdIsUnsignedAndOnlyGuardsLevelledLines) {
  {
    logFile log(char{7}, path("agent.log"));
    for (int level : {0, 6, 7, 8, 200}) log.write(static_cast<char>(level), "x");
    log.write("a", "b");
  }
  expectStampedLines({"ERMERGENCY#x", "INFO#x", "INFO#x", "a#b"});

  std::filesystem::remove(path("agent.log"));
  {
    logFile log(path("agent.log"));  // threshold INFO
    log.write(char{0}, "dropped");
    log.write(char{1}, "kept");
  }
  expectStampedLines({"INFO#kept"});
}

TEST_F(LogFileTest, AppendsToExistingFileAndMeasuresItOnDisk) {
  writeFile("agent.log", "old\n");
  logFile log(path("agent.log").c_str());
  log.write("bare");
  EXPECT_EQ(readFile("agent.log"), "old\nbare\n");
  EXPECT_EQ(log.size(), 9u);
  std::filesystem::remove(path("agent.log"));
  EXPECT_THROW(log.size(), std::filesystem::filesystem_error);
}

TEST_F(LogFileTest, ConcurrentWritersProduceWholeLines) {
  const int kPerThread = 2000;
  const std::string a(200, 'a'), b(200, 'b');
  {
    logFile log(path("agent.log"));
    std::thread other([&] {
      for (int i = 0; i < kPerThread; ++i) log.write(char{1}, a);
    });
    for (int i = 0; i < kPerThread; ++i) log.write(char{1}, b);
    other.join();
  }
  const std::vector<std::string> got = lines();
  ASSERT_EQ(got.size(), 2u * kPerThread);
  for (const std::string& line : got) {
    ASSERT_TRUE(isStamp(line.substr(0, 24))) << line;
    const std::string rest = line.substr(24);
    ASSERT_TRUE(rest == "#INFO#" + a || rest == "#INFO#" + b) << line;
  }
}

TEST_F(LogFileTest, MissingDirectoryFailsConstruction) {
  const std::string missing = path("none/agent.log");
  EXPECT_EQ(thrownText<FileException>([&] { logFile log(missing); }),
            "error open file: " + missing);
  EXPECT_FALSE(std::filesystem::exists(path("none")));
}

TEST_F(LogFileTest, FileNameKeepsSlashAndDirectoryDropsIt) {
  const logFile absolute(path("b.log"));
  EXPECT_EQ(absolute.getFileName(), "/b.log");
  EXPECT_EQ(absolute.getDirectory(), dir_);

  const CurrentDir here(dir_);
  const logFile relative("b.log");
  EXPECT_EQ(relative.getDirectory(), "b.log");
  EXPECT_THROW(relative.getFileName(), std::out_of_range);
}

}  // namespace
