// Answers queries on one INI file. Nothing is cached: every query opens, scans and closes the
// file, so edits are seen by the next query. Key lookup is a substring test on the section's lines
// (the first line holding the key's text wins); see iniConfig.cpp for the exact line rules.
#pragma once

#include <map>
#include <string>

#include "src/common/logFile.h"  // FileException

class iniConfig {
 public:
  explicit iniConfig(std::string path);

  // The text after the first "=" of the first matching line; "" when not found.
  std::string getKey(std::string section, std::string key);
  // getKey read as a decimal int: 0 for a non-number, saturated when out of range.
  int getKeyToInt(std::string section, std::string key);
  // Adds every line of the section to the member table (last value of a key wins) and returns it.
  std::map<std::string, std::string>& getSection(std::string section);

 private:
  const std::string path_;
  std::map<std::string, std::string> section_;
};
