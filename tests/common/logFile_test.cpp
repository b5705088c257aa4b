#include "src/common/logFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tests/common/tempDirTest.h"

namespace {

using LogFileTest = TempDirTest;

TEST_F(LogFileTest, MissingDirectoryFailsAndLinesFromInfoOnAreWrittenEvenAfterAFailedWrite) {
  const std::string missing = path("none/agent.log");
  const auto failure = testing::ThrowsMessage<FileException>("error open file: " + missing);
  EXPECT_THAT([&] { logFile log(missing); }, failure);
  EXPECT_THAT([&] { logFile log(char{0}, missing); }, failure);
  EXPECT_FALSE(std::filesystem::exists(path("none")));

  logFile log(path("b.log"));
  log.write(char{0}, "dropped below INFO");
  log.write(char{1}, "kept");
  EXPECT_THAT(readFile("b.log"),
              testing::MatchesRegex("[A-Z][a-z]{2} [A-Z][a-z]{2} [ 1-3][0-9] "
                                    "[0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}#INFO#kept\n"));
  // A write the disk refuses (the file-size limit stands in for a full disk) stops no later line.
  ASSERT_NE(std::signal(SIGXFSZ, SIG_IGN), SIG_ERR);
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit full{readFile("b.log").size(), limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
  log.write(char{1}, "refused");
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  log.write(char{1}, "next");
  EXPECT_THAT(readFile("b.log"), testing::EndsWith("#INFO#next\n"));
  EXPECT_EQ(log.getFileName(), "/b.log");
  EXPECT_EQ(log.getDirectory(), dir_);
}

}  // namespace
