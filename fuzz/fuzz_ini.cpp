// The configuration file is read by the agent at every getKey, so any content must give an answer
// rather than a crash or a hang. The answers are checked against the reading rules written out
// here independently: lines end at '\n' only; blanks then tabs are stripped once from the front;
// "#" starts a comment; a section runs from its exact "[name]" line to the next line starting
// with "["; getKey takes the first line of the section that contains the key text anywhere, the
// header included; getSection keeps the last value per key and never forgets earlier sections.
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "fuzz/fuzzCheck.h"
#include "src/common/iniConfig.h"

namespace {

// The configuration file of this process, rewritten for every input.
class ScratchFile {
 public:
  ScratchFile() {
    const char* dir = std::getenv("TMPDIR");
    path_ = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/nivo-fuzz-ini-XXXXXX";
    const int fd = mkstemp(path_.data());
    FUZZ_CHECK(fd != -1);
    close(fd);
  }
  ~ScratchFile() { unlink(path_.c_str()); }

  void write(const std::string& content) const {
    const int fd = open(path_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    FUZZ_CHECK(fd != -1);
    std::size_t done = 0;
    while (done < content.size()) {
      const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
      FUZZ_CHECK(n > 0);
      done += static_cast<std::size_t>(n);
    }
    close(fd);
  }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::vector<std::string> linesOf(const std::string& content) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < content.size()) {
    std::size_t end = content.find('\n', start);
    if (end == std::string::npos) end = content.size();
    lines.push_back(content.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

std::string withoutIndent(const std::string& line) {
  std::size_t i = 0;
  while (i < line.size() && line[i] == ' ') ++i;
  while (i < line.size() && line[i] == '\t') ++i;
  return line.substr(i);
}

// The lines of the first occurrence of the section, header first, comments left out.
std::vector<std::string> sectionLines(const std::vector<std::string>& lines,
                                      const std::string& section) {
  const std::string header = "[" + section + "]";
  std::vector<std::string> result;
  for (const std::string& raw : lines) {
    const std::string line = withoutIndent(raw);
    if (!line.empty() && line[0] == '#') continue;
    if (result.empty()) {
      if (line == header) result.push_back(line);
      continue;
    }
    if (!line.empty() && line[0] == '[') break;
    result.push_back(line);
  }
  return result;
}

std::string valueOf(const std::string& line) {
  const std::size_t equals = line.find('=');
  return equals == std::string::npos ? "" : line.substr(equals + 1);
}

std::string expectedKey(const std::vector<std::string>& section, const std::string& key) {
  for (const std::string& line : section) {
    if (line.find(key) != std::string::npos) return valueOf(line);
  }
  return "";
}

int expectedInt(const std::string& value) {
  const long n = std::strtol(value.c_str(), nullptr, 10);
  if (n > INT_MAX) return INT_MAX;
  if (n < INT_MIN) return INT_MIN;
  return static_cast<int>(n);
}

// Names the file itself suggests: its first section headers and the key part of its first
// entries. Few of them, because every pair costs two passes over the file.
void addNamesFrom(const std::vector<std::string>& lines, std::vector<std::string>& sections,
                  std::vector<std::string>& keys) {
  constexpr std::size_t kFromFile = 3;
  std::size_t sectionsTaken = 0;
  std::size_t keysTaken = 0;
  for (const std::string& raw : lines) {
    const std::string line = withoutIndent(raw);
    if (line.size() >= 2 && line.front() == '[' && line.back() == ']') {
      if (sectionsTaken++ < kFromFile) sections.push_back(line.substr(1, line.size() - 2));
    } else if (keysTaken++ < kFromFile) {
      keys.push_back(line.substr(0, line.find('=')));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ScratchFile file;
  const std::string content(reinterpret_cast<const char*>(data), size);
  file.write(content);
  const std::vector<std::string> lines = linesOf(content);

  std::vector<std::string> sections = {"NIVO", ""};
  std::vector<std::string> keys = {"thread", "", "="};
  addNamesFrom(lines, sections, keys);

  iniConfig config(file.path());
  std::map<std::string, std::string> table;
  for (const std::string& section : sections) {
    const std::vector<std::string> expected = sectionLines(lines, section);
    for (const std::string& key : keys) {
      const std::string value = config.getKey(section, key);
      FUZZ_CHECK(value == expectedKey(expected, key));
      FUZZ_CHECK(config.getKeyToInt(section, key) == expectedInt(value));
    }
    for (const std::string& line : expected) {
      const std::size_t equals = line.find('=');
      table[line.substr(0, equals)] = valueOf(line);
    }
    FUZZ_CHECK(config.getSection(section) == table);
  }
  return 0;
}
