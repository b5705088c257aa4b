// What the process writes to its standard output or standard error while the object lives:
// GoogleTest's capture points the descriptor at a temporary file until text() or the destructor
// puts it back. Writes of child processes started meanwhile are caught too, since they inherit the
// descriptor. One capture of each stream at a time.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

class CapturedOutput {
 public:
  // `fd`: STDOUT_FILENO or STDERR_FILENO.
  explicit CapturedOutput(int fd) : out_(fd == STDOUT_FILENO) {
    out_ ? testing::internal::CaptureStdout() : testing::internal::CaptureStderr();
  }
  ~CapturedOutput() { text(); }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  // Everything written until the first call; the descriptor is put back then.
  const std::string& text() {
    if (!taken_)
      text_ =
          out_ ? testing::internal::GetCapturedStdout() : testing::internal::GetCapturedStderr();
    taken_ = true;
    return text_;
  }

 private:
  const bool out_;
  bool taken_ = false;
  std::string text_;
};
