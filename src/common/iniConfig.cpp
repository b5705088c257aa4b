#include "src/common/iniConfig.h"

#include <fstream>
#include <utility>

#include "src/common/convertTo.h"

namespace {

// Leading blanks, then leading tabs, once each, and nothing more: a tab followed by a blank keeps
// the blank, so "\t #x=1" is an entry, not a comment. Deliberate; this is not a general trim.
std::string stripIndent(std::string line) {
  line.erase(0, line.find_first_not_of(' '));
  line.erase(0, line.find_first_not_of('\t'));
  return line;
}

// Hands every line of the wanted section, its header first, to visit until visit returns false or
// the section ends. The header must match byte for byte: a CR left by a CRLF file, or a blank
// inside or after the brackets, means the section is never found.
template <typename Visit>
void forEachSectionLine(std::istream& in, const std::string& section, Visit visit) {
  const std::string header = "[" + section + "]";
  bool inSection = false;
  std::string raw;
  while (std::getline(in, raw)) {
    const std::string line = stripIndent(raw);
    if (!line.empty() && line.front() == '#') continue;
    if (!line.empty() && line.front() == '[' && inSection) return;
    if (line == header) inSection = true;
    if (!inSection) continue;
    if (!visit(line)) return;
  }
}

std::pair<std::string, std::string> splitEntry(const std::string& line) {
  const std::size_t equals = line.find('=');
  if (equals == std::string::npos) return {line, ""};
  return {line.substr(0, equals), line.substr(equals + 1)};
}

}  // namespace

iniConfig::iniConfig(std::string path) : path_(std::move(path)) {}

// The key test is a substring search over the whole line, the header line included: the first
// line of the section holding the key's text wins, whatever stands around it.
std::string iniConfig::getKey(std::string section, std::string key) {
  std::ifstream in(path_);
  if (in.fail()) throw FileException("error can't open file: " + path_);
  std::string value;
  forEachSectionLine(in, section, [&](const std::string& line) {
    if (line.find(key) == std::string::npos) return true;
    value = splitEntry(line).second;
    return false;
  });
  return value;
}

int iniConfig::getKeyToInt(std::string section, std::string key) {
  return stringToInt(getKey(std::move(section), std::move(key)));
}

// Unlike getKey, every line is kept (the header and blank lines too) and a repeated key keeps its
// last value. The table is never cleared, so it grows with each section read.
std::map<std::string, std::string>& iniConfig::getSection(std::string section) {
  std::ifstream in(path_);
  if (in.fail()) throw FileException("error can't open file " + path_);
  forEachSectionLine(in, section, [this](const std::string& line) {
    auto entry = splitEntry(line);
    section_[entry.first] = std::move(entry.second);
    return true;
  });
  return section_;
}
