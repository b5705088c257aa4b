// qavel-server: the agent's protocol peer on the command line. It answers the agent's REGISTER,
// sends EXEC orders given as options or typed on standard input, prints every received frame as
// one JSON line on standard output and reports connections and errors on standard error.
#include <errno.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

#include "src/common/uniqueFd.h"
#include "tools/peer/qavelServer.h"

namespace {

const char kUsage[] =
    R"(Usage: qavel-server [OPTION]...
Stand in for the agent's monitoring server: a TLS WebSocket server (subprotocol "qavel") that
answers the agent's REGISTER, sends it EXEC orders and prints every frame it receives.

Options:
  -a, --address ADDR      listen address (default 127.0.0.1)
  -p, --port PORT         listen port, 0 picks a free one (default 0); the port in use is
                          reported on standard error as "listening on wss://ADDR:PORT/"
      --cert FILE         PEM certificate (or chain) to present; needs --key
      --key FILE          PEM private key of --cert; without both, a throwaway self-signed
                          certificate for CN=localhost is made at start
      --client-ca FILE    PEM file of the CAs that sign accepted client certificates: an agent
                          that presents none they signed is refused in the TLS handshake
                          (mutual TLS); the subject it presented is shown when it connects
      --status JSON       STATUS of the REGISTER-RESPONSE, as a JSON value (default 0):
                          0, 1, '"0"', '""' ...
      --no-status         answer REGISTER with a REGISTER-RESPONSE that has no STATUS
      --no-register-reply do not answer REGISTER at all
      --no-subprotocol    act as a server that does not speak "qavel": accept the connection
                          without selecting the subprotocol (what RFC 6455 asks of such a server)
      --no-pong           never answer the agent's pings, like a server whose application hangs
      --stop-reading      once a link's REGISTER is answered (and the --exec orders sent), read
                          nothing more from it: the agent's frames stay in the buffers, like a
                          server that no longer reads; commands still send on it
      --open-delay MS     hold each opening handshake MS milliseconds before accepting it, like
                          a slow link (the server does nothing else meanwhile)
  -e, --exec ORDER        send this EXEC order right after answering REGISTER; repeatable, sent
                          in order. ORDER is 'TASKID NAME PRIORITY [PARAMETER...]' (the parameter
                          is the rest of the text) or a whole JSON document
      --once              exit when the first link closes
  -h, --help              show this help and exit

Commands on standard input, one per line:
  exec TASKID NAME PRIORITY [PARAMETER...]  send an EXEC order (or: exec JSON)
  {...}                                     send the line as it is; it must be a JSON document
  raw TEXT                                  send TEXT as it is, JSON or not
  close [CODE [REASON...]]                  close the link (default code 1000)
  drop                                      drop the connection: no close frame
  quit                                      stop the server
The send and close commands act on the most recently opened link.

Output: one line per received frame on standard output,
  {"frame":<the frame as JSON, or its text as a string>,"time":<seconds since the epoch>}
Connections, closes and errors go to standard error, one line each.
SIGINT and SIGTERM close the links (code 1001) and stop the server.
Exit status: 0 after a stop, 1 when the server cannot start, 2 on a bad command line.

Example:
  qavel-server --port 8443 --exec '17 check_disk 5 -w 80 -c 90'
  then point the agent's server_url at wss://127.0.0.1:8443 and watch its REGISTER and its
  EXEC-RESPONSE for task 17 arrive.
)";

constexpr const char* kName = "qavel-server";

[[noreturn]] void usageError(const std::string& message) {
  std::cerr << kName << ": " << message << "\nTry '" << kName << " --help'." << std::endl;
  std::exit(2);
}

// One line per write, whole, and the streams flushed: the output is read by programs.
class Console {
 public:
  void out(const std::string& line) { print(std::cout, line); }
  void err(const std::string& line) { print(std::cerr, std::string(kName) + ": " + line); }

 private:
  void print(std::ostream& stream, const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    stream << line << std::endl;
  }
  std::mutex mutex_;
};

struct CommandLine {
  qavel::ServerOptions server;
  bool once = false;
};

CommandLine parseCommandLine(int argc, char** argv) {
  enum {
    kCert = 256,
    kKey,
    kClientCa,
    kStatus,
    kNoStatus,
    kNoReply,
    kNoSubprotocol,
    kNoPong,
    kStopReading,
    kOpenDelay,
    kOnce
  };
  static const option kOptions[] = {
      {"address", required_argument, nullptr, 'a'},
      {"port", required_argument, nullptr, 'p'},
      {"cert", required_argument, nullptr, kCert},
      {"key", required_argument, nullptr, kKey},
      {"status", required_argument, nullptr, kStatus},
      {"no-status", no_argument, nullptr, kNoStatus},
      {"no-register-reply", no_argument, nullptr, kNoReply},
      {"no-subprotocol", no_argument, nullptr, kNoSubprotocol},
      {"client-ca", required_argument, nullptr, kClientCa},
      {"no-pong", no_argument, nullptr, kNoPong},
      {"stop-reading", no_argument, nullptr, kStopReading},
      {"open-delay", required_argument, nullptr, kOpenDelay},
      {"exec", required_argument, nullptr, 'e'},
      {"once", no_argument, nullptr, kOnce},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  CommandLine line;
  qavel::ServerOptions& options = line.server;
  opterr = 0;  // our own one-line messages
  int option = 0;
  while ((option = getopt_long(argc, argv, ":a:p:e:h", kOptions, nullptr)) != -1) {
    try {
      switch (option) {
        case 'a':
          options.address = optarg;
          break;
        case 'p':
          options.port = static_cast<std::uint16_t>(qavel::wholeNumber(optarg, 0, 65535, "port"));
          break;
        case kCert:
          options.certFile = optarg;
          break;
        case kKey:
          options.keyFile = optarg;
          break;
        case kStatus: {
          const std::optional<Json::Value> status = qavel::parseJsonDocument(optarg);
          if (!status) {
            usageError(std::string("bad --status '") + optarg +
                       "': not a JSON value (a string is written '\"0\"')");
          }
          options.registerReply = qavel::RegisterReply::withStatus(*status);
          break;
        }
        case kNoStatus:
          options.registerReply = qavel::RegisterReply::withoutStatus();
          break;
        case kNoReply:
          options.registerReply = qavel::RegisterReply::silent();
          break;
        case kNoSubprotocol:
          options.selectSubprotocol = false;
          break;
        case kClientCa:
          options.clientCaFile = optarg;
          break;
        case kNoPong:
          options.answerPings = false;
          break;
        case kStopReading:
          options.stopReadingAfterRegister = true;
          break;
        case kOpenDelay:
          options.openDelay =
              std::chrono::milliseconds(qavel::wholeNumber(optarg, 0, 3600 * 1000, "open delay"));
          break;
        case 'e':
          options.execOrders.push_back(qavel::parseExecOrder(optarg));
          break;
        case kOnce:
          line.once = true;
          break;
        case 'h':
          std::cout << kUsage;
          std::exit(0);
        case ':':
          usageError(std::string("option ") + argv[optind - 1] + " needs a value");
        default:
          usageError(std::string("unknown option ") + argv[optind - 1]);
      }
    } catch (const qavel::ServerError& e) {
      usageError(e.what());
    }
  }
  if (optind < argc) usageError(std::string("unexpected argument '") + argv[optind] + "'");
  if (options.certFile.empty() != options.keyFile.empty()) {
    usageError("--cert and --key go together");
  }
  return line;
}

// Runs one line typed on standard input; false for "quit".
bool runCommand(qavel::QavelServer& server, const std::string& line, Console& console) {
  std::istringstream words(line);
  std::string command;
  words >> command;
  std::string rest;
  std::getline(words >> std::ws, rest);
  try {
    if (command.empty()) {
      return true;
    } else if (command[0] == '{') {
      if (!qavel::parseJsonDocument(line)) throw qavel::ServerError("not a JSON document");
      server.sendRaw(line);
    } else if (command == "exec") {
      server.sendExec(qavel::parseExecOrder(rest));
    } else if (command == "raw") {
      server.sendRaw(rest);
    } else if (command == "close") {
      std::istringstream arguments(rest);
      std::string code = "1000";
      arguments >> code;
      std::string reason;
      std::getline(arguments >> std::ws, reason);
      server.closeLink(static_cast<std::uint16_t>(qavel::wholeNumber(code, 0, 65535, "close code")),
                       reason);
    } else if (command == "drop") {
      server.dropConnection();
    } else if (command == "quit") {
      return false;
    } else {
      console.err("unknown command '" + command + "' (see --help)");
    }
  } catch (const qavel::ServerError& e) {
    console.err(e.what());
  }
  return true;
}

// Reads standard input, the stop signals and the "first link closed" event until one says stop.
void serve(qavel::QavelServer& server, int signals, int linkClosed, Console& console) {
  pollfd watched[] = {{STDIN_FILENO, POLLIN, 0}, {signals, POLLIN, 0}, {linkClosed, POLLIN, 0}};
  std::string pending;
  for (;;) {
    if (poll(watched, 3, -1) < 0) {
      if (errno == EINTR) continue;
      console.err(std::string("poll: ") + strerror(errno));
      return;
    }
    if (watched[1].revents != 0 || watched[2].revents != 0) return;
    if (watched[0].revents == 0) continue;
    char buffer[4096];
    const ssize_t got = read(STDIN_FILENO, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      // End of input (or a terminal gone): the server keeps running for the signals.
      if (got < 0) console.err(std::string("standard input: ") + strerror(errno));
      watched[0].fd = -1;
      continue;
    }
    pending.append(buffer, static_cast<std::size_t>(got));
    std::size_t end = 0;
    while ((end = pending.find('\n')) != std::string::npos) {
      const std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (!runCommand(server, line, console)) return;
    }
  }
}

std::string urlHost(const std::string& address) {
  return address.find(':') == std::string::npos ? address : "[" + address + "]";
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine line = parseCommandLine(argc, argv);
  Console console;

  // Blocked before the I/O thread exists so that it inherits the mask: the signals arrive only
  // through the descriptor that the main loop watches.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  if (pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr) != 0) {
    console.err("cannot block SIGINT and SIGTERM");
    return 1;
  }
  const UniqueFd signals(signalfd(-1, &stopSignals, SFD_CLOEXEC));
  const UniqueFd linkClosed(eventfd(0, EFD_CLOEXEC));
  if (signals.get() < 0 || linkClosed.get() < 0) {
    console.err(std::string("cannot watch signals: ") + strerror(errno));
    return 1;
  }

  line.server.onFrame = [&console](const qavel::ReceivedFrame& frame) {
    console.out(qavel::frameLine(frame));
  };
  line.server.onEvent = [&console](const std::string& text) { console.err(text); };
  if (line.once) {
    line.server.onClose = [&linkClosed](const qavel::CloseInfo&) {
      const std::uint64_t one = 1;
      // The counter cannot overflow from these few writes, so the write cannot block or fail.
      [[maybe_unused]] const ssize_t ignored = write(linkClosed.get(), &one, sizeof one);
    };
  }

  qavel::QavelServer server(line.server);
  try {
    server.start();
  } catch (const qavel::ServerError& e) {
    console.err(e.what());
    return 1;
  }
  console.err("listening on wss://" + urlHost(line.server.address) + ":" +
              std::to_string(server.port()) + "/");
  serve(server, signals.get(), linkClosed.get(), console);
  server.stop();
  return 0;
}
