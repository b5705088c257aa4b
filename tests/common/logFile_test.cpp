#include "src/common/logFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/common/tempDirTest.h"

namespace {

using LogFileTest = TempDirTest;

TEST_F(LogFileTest, MissingDirectoryFailsConstructionAndFileNameKeepsItsSlash) {
  const std::string missing = path("none/agent.log");
  const auto failure = testing::ThrowsMessage<FileException>("error open file: " + missing);
  EXPECT_THAT([&] { logFile log(missing); }, failure);
  EXPECT_THAT([&] { logFile log(char{0}, missing); }, failure);
  EXPECT_FALSE(std::filesystem::exists(path("none")));

  const logFile log(path("b.log"));
  EXPECT_EQ(log.getFileName(), "/b.log");
  EXPECT_EQ(log.getDirectory(), dir_);
}

}  // namespace
