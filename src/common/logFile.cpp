#include "src/common/logFile.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <utility>

logFile::logFile(std::string path) : threshold_(1), path_(std::move(path)) { open(); }

logFile::logFile(const char* path) : logFile(std::string(path)) {}

logFile::logFile(char level, std::string path)
    : threshold_(static_cast<unsigned char>(level)), path_(std::move(path)) {
  open();
}

logFile::logFile(char level, const char* path) : logFile(level, std::string(path)) {}

logFile::~logFile() = default;  // the stream closes itself

const char* logFile::levelText(unsigned char level) {
  static const char* const kTexts[] = {"DEBUG",  "INFO",     "NOTICE", "WARNING",
                                       "ERRORS", "CRITICAL", "ALERT",  "ERMERGENCY"};
  return level < sizeof kTexts / sizeof kTexts[0] ? kTexts[level] : "INFO";
}

void logFile::write(char level, std::string message) {
  // Dropped lines must cost nothing, so the threshold is tested before the lock; it never changes
  // after construction.
  if (!accepts(level)) return;
  writeLine(timeStamp() + '#' + levelText(static_cast<unsigned char>(level)) + '#' + message);
}

void logFile::write(std::string first, std::string second) {
  writeLine(timeStamp() + '#' + first + '#' + second);
}

void logFile::write(std::string message) { writeLine(message); }

void logFile::writeLine(const std::string& line) {
  const std::lock_guard<std::mutex> guard(lock_);
  reopenIfClosed();
  // A failed write (a full disk) loses its own line only: the error state is cleared so that the
  // next line is tried again instead of every later line being dropped.
  stream_.clear();
  stream_ << line << std::endl;
  stream_.flush();
}

// A vanished file is reported by the file-system error rather than as size 0: a caller watching
// the growth of the log must not mistake a deleted file for an empty one.
std::uint64_t logFile::size() {
  const std::lock_guard<std::mutex> guard(lock_);
  return std::filesystem::file_size(path_);
}

// Without a "/" rfind gives npos and substr throws std::out_of_range, as callers expect.
std::string logFile::getFileName() const { return path_.substr(path_.rfind('/')); }

std::string logFile::getDirectory() const { return path_.substr(0, path_.rfind('/')); }

// in|app (out is implied by ofstream) keeps an existing file and creates a missing one; the
// directory is never created.
void logFile::open() {
  stream_.open(path_, std::ios::in | std::ios::app);
  if (!stream_.is_open()) throw FileException("error open file: " + path_);
}

std::string logFile::reopen() {
  std::ofstream fresh(path_, std::ios::in | std::ios::app);
  if (!fresh.is_open()) return std::strerror(errno);
  const std::lock_guard<std::mutex> guard(lock_);
  stream_.swap(fresh);
  return "";  // the old stream, flushed line by line, closes with `fresh`
}

void logFile::reopenIfClosed() {
  if (!stream_.is_open()) open();
}

// asctime form without its trailing newline. The reentrant calls are used because other threads
// (other logFile objects, libraries) may format times at the same moment.
std::string logFile::timeStamp() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  char text[64] = {};  // asctime_r needs at least 26 bytes
  if (localtime_r(&now, &local) == nullptr || asctime_r(&local, text) == nullptr) return "";
  std::string stamp(text);
  const std::size_t newline = stamp.rfind('\n');
  if (newline != std::string::npos) stamp.erase(newline);
  return stamp;
}
