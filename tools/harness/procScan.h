// Processes as /proc shows them, for the harness and the tests: what a sandbox or a test left
// running.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

// The processes whose /proc/PID/`file` ("cmdline", "mountinfo", ...) holds `text`; one that ends
// meanwhile is left out.
inline std::vector<pid_t> processesWhose(const std::string& file, const std::string& text) {
  std::vector<pid_t> found;
  std::error_code ignored;
  for (const auto& process : std::filesystem::directory_iterator("/proc", ignored)) {
    const std::string name = process.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream in(process.path() / file);
    const std::string content{std::istreambuf_iterator<char>(in), {}};
    if (content.find(text) != std::string::npos) found.push_back(std::stoi(name));
  }
  return found;
}
