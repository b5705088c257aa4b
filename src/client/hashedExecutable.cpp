#include "src/client/hashedExecutable.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

namespace {

bool operator<(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

bool operator==(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

using DigestContext = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

// The SHA-256 of everything `fd` holds, read with pread so that the descriptor's offset, shared
// with any plugin started from it meanwhile, is left alone. False with errno on a read failure.
bool hashContent(int fd, HashedExecutable::Digest& digest) {
  const DigestContext context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    errno = ENOMEM;  // OpenSSL fails here only when it cannot allocate
    return false;
  }
  std::vector<unsigned char> buffer(64 * 1024);
  for (off_t offset = 0;;) {
    const ssize_t received = ::pread(fd, buffer.data(), buffer.size(), offset);
    if (received == 0) break;
    if (received == -1) {
      if (errno == EINTR) continue;
      return false;
    }
    if (EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(received)) != 1) {
      errno = ENOMEM;
      return false;
    }
    offset += received;
  }
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1 || length != digest.size()) {
    errno = ENOMEM;
    return false;
  }
  return true;
}

std::string unreadable(int error) {
  return std::string("the executable cannot be read: ") + std::strerror(error);
}

}  // namespace

bool HashedExecutable::Identity::operator==(const Identity& other) const {
  return device == other.device && inode == other.inode && size == other.size &&
         modified == other.modified && changed == other.changed;
}

HashedExecutable::HashedExecutable(std::string path) : path_(std::move(path)) {}

const HashedExecutable::State& HashedExecutable::current() {
  struct stat now;
  if (::stat(path_.c_str(), &now) == -1) {
    refuse(unreadable(errno));
  } else if (!trusted_ || !(hashed_ == Identity{now.st_dev, now.st_ino, now.st_size, now.st_mtim,
                                                now.st_ctim})) {
    rehash();
  }
  return state_;
}

void HashedExecutable::refuse(std::string reason) {
  state_ = State{};
  state_.error = std::move(reason);
  trusted_ = false;
}

void HashedExecutable::rehash() {
  // A change made within the same tick of the file system's clock as an earlier one can leave the
  // change time as it was. So the result is relied on later only when the change time it was read
  // at lies before the moment of reading (the clock that stamps files is CLOCK_REALTIME_COARSE):
  // any later change then gets a later change time. A file changed just before is hashed again at
  // the next look.
  timespec reading{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &reading);

  // O_NONBLOCK: a FIFO put in the plugin's place must not block the thread that looks; it has no
  // effect on a regular file, and a script's interpreter opens /dev/fd/N with its own flags.
  UniqueFd file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return refuse(unreadable(errno));
  struct stat opened;
  if (::fstat(file.get(), &opened) == -1) return refuse(unreadable(errno));
  if (!S_ISREG(opened.st_mode)) return refuse("the executable is not a regular file");

  Digest digest{};
  if (!hashContent(file.get(), digest)) return refuse(unreadable(errno));
  const Identity identity{opened.st_dev, opened.st_ino, opened.st_size, opened.st_mtim,
                          opened.st_ctim};
  struct stat read;
  if (::fstat(file.get(), &read) == -1) return refuse(unreadable(errno));
  if (!(identity == Identity{read.st_dev, read.st_ino, read.st_size, read.st_mtim, read.st_ctim}))
    return refuse("the executable changed while it was read");

  state_.file = std::make_shared<const UniqueFd>(std::move(file));
  state_.sha256 = digest;
  state_.error.clear();
  hashed_ = identity;
  trusted_ = identity.changed < reading;
}
