#include "src/common/logFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/common/tempDirTest.h"

namespace {

using LogFileTest = TempDirTest;

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
