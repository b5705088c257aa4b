// The start-up status record that other programs on the host read: two lines, "STATUS=<state>"
// and "REGISTER=<state>", each padded with blanks to 28 characters. Every record overwrites the
// previous one from the start of the file, and the fixed width makes the new record cover the old
// one exactly, so the file stays 58 bytes. A file that cannot be opened loses every record
// silently; the agent goes on.
#pragma once

#include <fstream>
#include <string>

class statusFile {
 public:
  // Truncates the file and writes STARTING / NONE.
  explicit statusFile(const std::string& path);
  // Overwrites the record and flushes.
  void write(const std::string& state, const std::string& registration);
  // Overwrites the record one last time and closes the file.
  void finish(const std::string& state, const std::string& registration);

 private:
  void writeRecord(const std::string& state, const std::string& registration);

  std::ofstream stream_;
};
