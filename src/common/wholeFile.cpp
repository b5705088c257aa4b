#include "src/common/wholeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "src/common/uniqueFd.h"

bool writeWhole(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
    if (written == -1) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<std::size_t>(written);
  }
  return true;
}

std::string replaceWhole(const std::string& path, const std::string& text, mode_t mode) {
  const auto failed = [](const std::string& what) { return what + ": " + std::strerror(errno); };
  // A hidden name without the final name's suffix: a reader that picks files by their suffix
  // (*.prom) never takes the half-written one.
  const std::size_t slash = path.rfind('/');
  const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
  const std::string temporary = path.substr(0, nameStart) + "." + path.substr(nameStart) + ".tmp";
  UniqueFd file(
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode));
  if (!file) return failed("cannot create " + temporary);
  if (::fchmod(file.get(), mode) == -1 || !writeWhole(file.get(), text)) {
    const std::string why = failed("cannot write " + temporary);
    ::unlink(temporary.c_str());
    return why;
  }
  // close() is where a file system may report a write that failed late; not retried on EINTR,
  // since Linux has released the descriptor by then.
  if (::close(file.release()) == -1 && errno != EINTR) {
    const std::string why = failed("cannot write " + temporary);
    ::unlink(temporary.c_str());
    return why;
  }
  if (::rename(temporary.c_str(), path.c_str()) == -1) {
    const std::string why = failed("cannot rename " + temporary + " to " + path);
    ::unlink(temporary.c_str());
    return why;
  }
  return "";
}
