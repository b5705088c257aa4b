// Fixture giving each test a fresh directory under $TMPDIR (or /tmp), removed with all it holds.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = std::filesystem::temp_directory_path() / "nivo-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr) << pattern;
    dir_ = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }

  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  void writeFile(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary | std::ios::trunc) << content;
  }
  // `text` with each $D replaced by the directory.
  std::string inDir(std::string text) const {
    for (std::size_t at; (at = text.find("$D")) != std::string::npos;) text.replace(at, 2, dir_);
    return text;
  }
  std::string readFile(const std::string& name) const {
    std::ostringstream content;
    content << std::ifstream(path(name), std::ios::binary).rdbuf();
    return content.str();
  }

  std::string dir_;
};
