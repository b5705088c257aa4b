// Owners of descriptors for the fault tests' peers and child processes.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <system_error>

namespace faults {

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Descriptor& operator=(Descriptor&&) = delete;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const noexcept { return fd_; }

 private:
  int fd_;
};

struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;

  // Both ends close-on-exec; throws std::system_error.
  static Pipe make() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
      throw std::system_error(errno, std::generic_category(), "pipe2");
    return Pipe{Descriptor(ends[0]), Descriptor(ends[1])};
  }
};

}  // namespace faults
