#include "src/service/pluginConfinement.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "tests/service/pluginRun.h"

using Confinement = PluginTest;

// Each thing a confined plugin may not do, denied from the ABI that brings it on, and what stays
// allowed allowed at every ABI; without confinement (ABI 0) everything goes through.
TEST_F(Confinement, PluginIsHeldToItsRuleAsFarAsTheAbiReaches) {
  ASSERT_GE(LandlockSupport::get().abi(), 6) << "this test wants a kernel with Landlock ABI 6";
  std::filesystem::create_directories(path("outside"));
  boost::asio::io_context io;
  const auto listening = [&io] {
    return boost::asio::ip::tcp::acceptor(io, {boost::asio::ip::address_v4::loopback(), 0});
  };
  const auto allowedPort = listening(), otherPort = listening();
  const std::string socketName = "nivo-confinement-" + std::to_string(::getpid());
  const boost::asio::local::stream_protocol::acceptor abstractSocket(
      io, {std::string(1, '\0') + socketName});
  const std::string python = "/usr/bin/python3 -c 'import socket; socket.socket(";
  const std::string perl = "/usr/bin/perl -e ", file = path("allowed/f");
  const std::string checkTcp = NIVO_MONITORING_PLUGIN_DIR "/check_tcp -H 127.0.0.1 -p ";
  const std::uint16_t port = allowedPort.local_endpoint().port();
  const int never = 99;
  // The first ABI that denies it, what it is, the command.
  const std::tuple<int, const char*, std::string> cases[] = {
      {1, "write outside", "echo x > " + path("outside/file")},
      {1, "symbolic link outside", "/bin/ln -s / " + path("outside/link")},
      {3, "truncate(2) outside", perl + "'truncate($ARGV[0], 0) or die' " + path("outside/log")},
      {6, "signal the agent", "kill -0 " + std::to_string(::getpid())},
      {6, "signal another process", "kill -0 " + std::to_string(::getppid())},
      {6, "abstract UNIX socket", python + "socket.AF_UNIX).connect(\"\\0" + socketName + "\")'"},
      {4, "check_tcp to another port",
       checkTcp + std::to_string(otherPort.local_endpoint().port())},
      {4, "bind", python + ").bind((\"127.0.0.1\", 0))'"},
      {never, "write, truncate, move and remove beneath write=",
       "echo x > " + file + " && : > " + file + " && " + perl +
           "'rename($ARGV[0], $ARGV[1]) or die' " + file + " " + path("allowed/d/f") +
           " && /bin/rm -r " + path("allowed/d")},
      {never, "write and truncate /dev/null", ": > /dev/null && echo x > /dev/null"},
      {never, "check_tcp to the connect= port", checkTcp + std::to_string(port)},
      {never, "signal its own child", "/bin/sleep 5 & kill $!"},
  };
  for (const int abi : {0, 2, 3, 4, 6, 7}) {
    std::filesystem::create_directories(path("allowed/d"));
    RuleLimits rule;
    if (abi > 0) rule.confinement = PluginConfinement::make(abi, {path("allowed")}, {port});
    for (const auto& [deniedFrom, what, command] : cases) {
      SCOPED_TRACE(std::string(what) + " at ABI " + std::to_string(abi));
      writeFile("outside/log", "the agent's log\n");
      const bool denied = abi >= deniedFrom;
      PluginRun run{
          script("probe", "if { " + command +
                              "; } >/dev/null 2>&1; then echo allowed; else echo denied; fi"),
          "", 0, denied ? "denied\n" : "allowed\n"};
      run.rule = rule;
      expectRun(run);
      EXPECT_EQ(readFile("outside/log").empty(), !denied && deniedFrom == 3);
    }
  }
  EXPECT_THAT([this] { PluginConfinement::make(7, {path("none")}); },
              testing::ThrowsMessage<ConfinementError>(
                  "cannot allow writing beneath " + path("none") + ": No such file or directory"));
  // A confinement that cannot be put in place fails the start as a failed execve does: the
  // program never runs, unconfined or otherwise.
  PluginRun echo{"/bin/echo",
                 "ran",
                 2,
                 "DAEMON: plugin not run: landlock_restrict_self failed: " +
                     std::string(std::strerror(EBADFD)) + "\n",
                 "",
                 RunOutcome::Failed};
  echo.rule.confinement = PluginConfinement::make(LandlockSupport::get().abi());
  const UniqueFd notARuleset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  ASSERT_NE(::dup3(notARuleset.get(), echo.rule.confinement->rulesetFd(), O_CLOEXEC), -1);
  expectRun(echo);
}

// The ABI in use: the kernel's, never above the newest the agent knows nor the test seam's cap; why
// there is none, as an order refused for it says; and what each ABI cannot enforce.
TEST(LandlockSupport, AbiInUseWhyThereIsNoneAndWhatItCannotEnforce) {
  // The kernel's ABI or -1, its error, the cap; the ABI in use, why there is none.
  const std::tuple<int, int, const char*, int, std::string> cases[] = {
      {9, 0, nullptr, 7, ""},
      {7, 0, "3", 3, ""},
      {3, 0, "6", 3, ""},
      {7, 0, "three", 7, ""},
      {7, 0, "0", 0, "NIVO_LANDLOCK_ABI_MAX=0 leaves no Landlock ABI (a test setting)"},
      {-1, ENOSYS, "3", 0,
       "this kernel has no Landlock (Linux 5.13 or later built with it is needed)"},
      {-1, EOPNOTSUPP, nullptr, 0,
       "Landlock is disabled in this kernel (it is not in the boot parameter lsm=)"},
      {-1, EPERM, nullptr, 0, "the kernel's Landlock ABI cannot be read: Operation not permitted"},
  };
  for (const auto& [kernelAbi, kernelError, cap, abi, absence] : cases) {
    const LandlockSupport support(kernelAbi, kernelError, cap);
    EXPECT_EQ(support.abi(), abi) << kernelAbi << " " << (cap ? cap : "");
    EXPECT_EQ(support.absence(), absence);
  }
  const LandlockSupport none(-1, ENOSYS, nullptr);
  EXPECT_EQ(none.notRunText("check_load"),
            "EXEC plugin: check_load not run: it cannot be confined: " + none.absence());
  const std::vector<std::string> later = {
      "truncating files (ABI 3)", "TCP bind and connect (ABI 4)", "ioctl on devices (ABI 5)",
      "signals and abstract UNIX sockets (ABI 6)"};
  const std::size_t enforced[] = {0, 0, 1, 2, 3, 4, 4};  // of those, by ABI 1 to 7
  for (int abi = 1; abi <= 7; ++abi)
    EXPECT_EQ(unenforcedRestrictions(abi),
              std::vector<std::string>(later.begin() + enforced[abi - 1], later.end()))
        << abi;
}
