// What the agent learns about its host at start-up: the plugins it may run, the server's address
// and its own network identity. Pure functions of what they are given; each writes its lines to
// `log` (not owned, may be null) and returns what it found, so that start-up only wires them up.
#pragma once

#include <map>
#include <string>
#include <vector>

class logFile;

// The plugin list file, one name a line, kept as written; throws FileException when unreadable.
std::vector<std::string> readPluginList(const std::string& path);

// The executable regular files of `directory` named on `list`, by name, with their paths. A
// missing directory is logged and then thrown (std::filesystem::filesystem_error): the agent does
// not start with an empty catalogue.
std::map<std::string, std::string> pluginCatalogue(const std::string& directory,
                                                   const std::vector<std::string>& list,
                                                   logFile* log);

// `configured` when set, else "wss://" and the first line of `dropFile`; a missing file is thrown
// as a pointer to a FileException, deliberately matched by no handler.
std::string serverUrl(const std::string& configured, const char* dropFile, logFile* log);

struct HostIdentity {
  std::string interfaceName;
  std::string mac;
  std::string ip;
};

// The first interface of `ip -j a` output other than the loopback whose first address is set.
// Output that is not JSON gives an empty identity; an interface of the wrong shape throws
// Json::LogicError.
HostIdentity identityFromIpOutput(const std::string& output, logFile* log);
// Runs the ip program as `ip -j a` and reads its output as above.
HostIdentity findIdentity(const std::string& ipCommand, logFile* log);
