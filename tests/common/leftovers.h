// What a test's plugins may have left running, seen from /proc.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// Processes whose command line mentions `text` (a directory only the test uses, say).
inline int processesMentioning(const std::string& text) {
  int count = 0;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
    std::ifstream file(entry.path() / "cmdline");
    const std::string line((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    if (line.find(text) != std::string::npos) ++count;
  }
  return count;
}
