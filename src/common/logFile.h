// The agent's one append-only log. Every writer produces one whole line under the object's mutex
// and flushes it at once, so lines from different threads never mix and the file is complete up to
// the last event. Lines of write(level, message) below the threshold are dropped.
#pragma once

#include <cstdint>
#include <fstream>
#include <mutex>
#include <string>
#include <utility>

#include "src/common/messageException.h"

// Thrown when the log file, the configuration file or another file of the agent cannot be opened.
class FileException : public MessageException {
 public:
  using MessageException::MessageException;
};

class logFile {
 public:
  explicit logFile(std::string path);
  explicit logFile(const char* path);
  logFile(char level, std::string path);
  logFile(char level, const char* path);
  ~logFile();

  logFile(const logFile&) = delete;
  logFile& operator=(const logFile&) = delete;

  // "<asctime>#<LEVEL>#<message>"; levels 0..7 DEBUG..ERMERGENCY, anything else INFO.
  void write(char level, std::string message);
  // "<asctime>#<first>#<second>", no threshold.
  void write(std::string first, std::string second);
  // The bare message, no time stamp.
  void write(std::string message);

  // True when a line of `level` is written rather than dropped.
  bool accepts(char level) const { return static_cast<unsigned char>(level) >= threshold_; }
  // write(level, the parts joined), the text built only when the line is written: the per-order
  // debug lines cost nothing without -D.
  template <typename... Parts>
  void writeJoined(char level, const Parts&... parts) {
    if (!accepts(level)) return;
    std::string message;
    (message.append(parts), ...);
    write(level, std::move(message));
  }

  // Opens the file at its path again and writes on there, so that a log moved away by rotation is
  // followed by a new one. When the path cannot be opened the file open so far is kept, and the
  // system's reason is returned; "" on success.
  std::string reopen();

  const std::string& path() const { return path_; }

  // Size of the file on disk; throws std::filesystem::filesystem_error when it is gone.
  std::uint64_t size();
  // From the last "/" to the end, the "/" included; std::out_of_range without a "/".
  std::string getFileName() const;
  // Up to, not including, the last "/"; the whole path without a "/".
  std::string getDirectory() const;

  // The text written for a level code.
  static const char* levelText(unsigned char level);

 private:
  void open();
  void reopenIfClosed();
  void writeLine(const std::string& line);
  static std::string timeStamp();

  const unsigned char threshold_;
  const std::string path_;
  std::ofstream stream_;
  std::mutex lock_;
};

// writeJoined on a log that callers may leave out: a null log writes nothing.
template <typename... Parts>
void writeJoinedTo(logFile* log, char level, const Parts&... parts) {
  if (log != nullptr) log->writeJoined(level, parts...);
}
