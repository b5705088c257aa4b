// What qavel-client answers without starting: --help, --version and --check-config. The long
// options store their request through getopt_long's flag, so the agent's own handling of -f and -D
// is not touched, and the request is served once the whole command line is read (-f may follow
// --check-config). The check reads the configuration and every file it names, connects nowhere and
// says what would stop or cripple the agent, one line a problem.
#pragma once

#include <getopt.h>

#include <iosfwd>
#include <string>
#include <vector>

namespace configCheck {

enum Request { kNone = 0, kHelp, kVersion, kCheckConfig };

// The request the command line made; kNone when it made none.
extern int request;
// The long options, for getopt_long; each one sets `request`.
extern const option kLongOptions[];

// The files the agent finds at fixed places rather than through its configuration.
struct FixedFiles {
  std::string serialNumber;  // first line: the host's serial number
  std::string serverUrl;     // first line: host:port, read when server_url is empty
};

// The agent's version, as --version shows it.
const char* version();

// Every problem of the configuration at `configPath` and of the files it names, one line each;
// empty when nothing is wrong. Read and write permissions are those of the calling user. With
// confine_plugins=1 on a kernel without Landlock, one line says that every order would be refused.
std::vector<std::string> problems(const std::string& configPath, const FixedFiles& fixed);

// Serves `what` on `out` and returns the process's exit status: 0, or 1 when the check found a
// problem. The check prints its problems, then a line for each restriction of confine_plugins=1
// that the kernel cannot enforce, which leaves the status 0.
int answer(Request what, const std::string& configPath, const FixedFiles& fixed, std::ostream& out);

}  // namespace configCheck
