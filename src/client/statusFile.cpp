#include "src/client/statusFile.h"

namespace {
constexpr std::size_t kLineWidth = 28;

std::string padded(std::string line) {
  if (line.size() < kLineWidth) line.append(kLineWidth - line.size(), ' ');
  return line;
}
}  // namespace

statusFile::statusFile(const std::string& path) : stream_(path, std::ios::out | std::ios::trunc) {
  writeRecord("STARTING", "NONE");
  stream_.flush();
}

void statusFile::write(const std::string& state, const std::string& registration) {
  stream_.seekp(0);
  writeRecord(state, registration);
  stream_.flush();
}

void statusFile::finish(const std::string& state, const std::string& registration) {
  stream_.seekp(0);
  writeRecord(state, registration);
  stream_.close();
}

void statusFile::writeRecord(const std::string& state, const std::string& registration) {
  stream_ << padded("STATUS=" + state) << '\n' << padded("REGISTER=" + registration) << '\n';
}
