// A real program a test runs beside the agent (a proxy, an exporter): started in a process group
// of its own, so that the whole group, with whatever the program started, is killed and reaped
// when the object goes.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <boost/asio/ip/tcp.hpp>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

class ChildProgram {
 public:
  // words[0] is looked up in PATH; the program's standard error is thrown away.
  explicit ChildProgram(std::vector<std::string> words) {
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    const int failed = posix_spawnp(&pid_, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) throw std::runtime_error("cannot start " + words[0]);
  }
  ~ChildProgram() {
    if (kill(-pid_, SIGKILL) != 0) return;
    while (waitpid(pid_, nullptr, 0) == -1 && errno == EINTR) {
    }
  }
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

 private:
  pid_t pid_ = -1;
};

// A TCP port of 127.0.0.1 free a moment ago, for a program the test starts to listen on.
inline unsigned short freeLoopbackPort() {
  boost::asio::io_context io;
  return boost::asio::ip::tcp::acceptor(io, {boost::asio::ip::address_v4::loopback(), 0})
      .local_endpoint()
      .port();
}
