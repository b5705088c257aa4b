// What the process writes to one of its standard descriptors while the object lives: the
// descriptor points at a temporary file until text() or the destructor puts it back. Writes of
// child processes started meanwhile are caught too, since they inherit the descriptor.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "src/common/uniqueFd.h"

class CapturedOutput {
 public:
  explicit CapturedOutput(int fd) : fd_(fd), saved_(::dup(fd)) {
    flushAll();
    if (file_ != nullptr && saved_) ::dup2(::fileno(file_.get()), fd_);
  }
  ~CapturedOutput() { restore(); }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  // Everything written so far; the descriptor is put back first.
  std::string text() {
    restore();
    std::string captured;
    if (file_ == nullptr) return "(no capture file)";
    std::rewind(file_.get());
    for (int c; (c = std::fgetc(file_.get())) != EOF;) captured.push_back(static_cast<char>(c));
    return captured;
  }

 private:
  static void flushAll() {
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
  }
  void restore() {
    if (!saved_) return;
    flushAll();
    ::dup2(saved_.get(), fd_);
    saved_.reset();
  }

  const int fd_;
  UniqueFd saved_;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_{std::tmpfile(), &std::fclose};
};
