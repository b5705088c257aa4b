#include "src/client/configCheck.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <ostream>
#include <set>
#include <stdexcept>

#include "src/client/agentSettings.h"
#include "src/client/hostDiscovery.h"
#include "src/client/liveConfig.h"
#include "src/common/iniConfig.h"
#include "src/service/pluginConfinement.h"

#ifndef NIVO_VERSION
#define NIVO_VERSION "unknown"
#endif

namespace configCheck {

int request = kNone;

const option kLongOptions[] = {
    {"help", no_argument, &request, kHelp},
    {"version", no_argument, &request, kVersion},
    {"check-config", no_argument, &request, kCheckConfig},
    {nullptr, 0, nullptr, 0},
};

namespace {

const char kHelpText[] =
    R"(Usage: qavel-client [-f CONFIG] [-D]
       qavel-client [-f CONFIG] --check-config
       qavel-client --help | --version
The NIVO monitoring agent: keeps one TLS WebSocket link to the monitoring server, registers there,
runs the plugins the server orders and sends their results back. It does not reconnect: it ends
when the link is lost, and its service manager starts it again.

  -f CONFIG        configuration file (default /etc/nivo/qavel.conf)
  -D               debug logging
  --check-config   read the configuration and every file it names, print what is wrong, one
                   line each, and exit without connecting
  --help           show this help and exit
  --version        show the version and exit
Other options are ignored.

Files: /etc/nivo/qavel.conf, /etc/nivo/sn (first line: the host's serial number),
/tmp/nivo/server_url (host:port of the server when server_url is empty).
Exit status: 0 after SIGTERM, a lost link or a failure it logged; 2 when standard error cannot be
redirected; --check-config: 0 when nothing is wrong, 1 otherwise. See qavel-client(8).
)";

std::string systemError() { return std::strerror(errno); }

// The directory in which the file at `path` would be created.
std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// A CR or a tab shown as such rather than moving the terminal's cursor.
std::string visible(const std::string& text) {
  std::string shown;
  for (const char c : text) {
    if (c == '\r')
      shown += "\\r";
    else if (c == '\t')
      shown += "\\t";
    else
      shown += c;
  }
  return shown;
}

using SslContext = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

// The reason of OpenSSL's oldest queued error; the queue is left empty for the next check.
std::string sslError() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  const char* reason = ERR_reason_error_string(code);
  return reason != nullptr ? reason : "unknown TLS error";
}

// An encrypted key would make OpenSSL ask for its pass phrase on the terminal (and hang a package
// installation); the agent has none to give either, so such a key is simply unreadable.
int noPassPhrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) { return 0; }

class Checker {
 public:
  Checker(const std::string& configPath, const FixedFiles& fixed)
      : configPath_(configPath), config_(configPath), fixed_(fixed) {}

  void run() {
    if (!configurationUsable()) return;
    checkLogFiles();
    checkSerialNumber();
    const AgentSettings settings = readAgentSettings(config_, problems_);
    checkTls(settings);
    checkMetricsFile(settings);
    checkPlugins(settings);
    checkServerUrl();
    checkIpCommand();
    checkThread();
    checkConfinement(settings);
  }

  const std::vector<std::string>& problems() const { return problems_; }
  const std::vector<std::string>& notes() const { return notes_; }

 private:
  void add(const std::string& problem) { problems_.push_back(problem); }

  std::string key(const char* section, const char* name) { return config_.getKey(section, name); }

  // Every key of a file that cannot be read, or of one with CR LF line ends (no section header
  // matches), would be reported empty: one line says it all.
  bool configurationUsable() {
    std::ifstream in(configPath_, std::ios::binary);
    if (!in.is_open()) {
      add("configuration " + configPath_ + ": cannot read it: " + systemError());
      return false;
    }
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (text.find('\r') != std::string::npos) {
      add("configuration " + configPath_ + ": CR LF line ends; the agent finds no section in it");
      return false;
    }
    return true;
  }

  bool readable(const std::string& label, const std::string& path) {
    if (::access(path.c_str(), R_OK) == 0) return true;
    add(label + ": cannot read " + path + ": " + systemError());
    return false;
  }

  // A file the agent writes: it exists and is writable, or its directory lets it be created.
  void writable(const std::string& label, const std::string& path) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
      add(label + ": " + path + " is a directory");
    } else if (::access(path.c_str(), F_OK) == 0) {
      if (::access(path.c_str(), W_OK) != 0)
        add(label + ": cannot write " + path + ": " + systemError());
    } else if (::access(directoryOf(path).c_str(), W_OK | X_OK) != 0) {
      add(label + ": cannot create " + path + ": " + systemError());
    }
  }

  // Replaced whole by a rename: its directory is what must be writable.
  void checkMetricsFile(const AgentSettings& settings) {
    const std::string& path = settings.metricsFile;
    if (path.empty()) return;
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored))
      add("LOG/metrics_file: " + path + " is a directory");
    else if (::access(directoryOf(path).c_str(), W_OK | X_OK) != 0)
      add("LOG/metrics_file: cannot write in " + directoryOf(path) + ": " + systemError() +
          "; the agent runs without metrics");
  }

  void executable(const std::string& label, const std::string& path) {
    std::error_code ignored;
    if (!std::filesystem::is_regular_file(path, ignored) || ::access(path.c_str(), X_OK) != 0)
      add(label + ": " + path + " is not an executable file");
  }

  void checkLogFiles() {
    const struct {
      const char* key;
      const char* whenEmpty;
    } files[] = {
        {"info", "the start-up status file is not written"},
        {"log_file", "the agent cannot open its log and ends"},
        {"lastExec", "the agent ends right after registering"},
    };
    for (const auto& file : files) {
      const std::string label = std::string("LOG/") + file.key;
      const std::string path = key("LOG", file.key);
      if (path.empty())
        add(label + " is empty: " + file.whenEmpty);
      else
        writable(label, path);
    }
  }

  void checkSerialNumber() {
    const std::string label = "serial number file";
    if (!readable(label, fixed_.serialNumber)) return;
    std::ifstream file(fixed_.serialNumber);
    std::string serial;
    std::getline(file, serial);
    if (serial.empty()) add(label + " " + fixed_.serialNumber + ": the first line is empty");
  }

  SslContext newContext() {
    SslContext context(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
    if (!context) add("TLS: cannot create a context: " + sslError());
    return context;
  }

  // cafile is used only to verify the server, local_cert only with client_key.
  void checkTls(const AgentSettings& settings) {
    const std::string caPath = key("SSL", "cafile");
    if (settings.verifyServer && !caPath.empty() && readable("SSL/cafile", caPath)) {
      const SslContext context = newContext();
      if (context && SSL_CTX_load_verify_locations(context.get(), caPath.c_str(), nullptr) != 1)
        add("SSL/cafile: no certificate in " + caPath + ": " + sslError());
    }
    const std::string& keyPath = settings.clientKey;  // empty when unreadable: already said
    if (keyPath.empty()) return;
    const std::string certPath = key("SSL", "local_cert");
    if (certPath.empty()) {
      add("SSL/local_cert is empty: SSL/client_key needs the certificate it belongs to");
      return;
    }
    if (!readable("SSL/local_cert", certPath)) return;
    const SslContext context = newContext();
    if (!context) return;
    if (SSL_CTX_use_certificate_chain_file(context.get(), certPath.c_str()) != 1) {
      add("SSL/local_cert: no certificate in " + certPath + ": " + sslError());
      return;
    }
    SSL_CTX_set_default_passwd_cb(context.get(), noPassPhrase);
    if (SSL_CTX_use_PrivateKey_file(context.get(), keyPath.c_str(), SSL_FILETYPE_PEM) != 1) {
      add("SSL/client_key: " + keyPath + " is not the unencrypted key of " + certPath + ": " +
          sslError());
    }
  }

  // The agent matches the list's lines, as they are, against the executable files of the
  // directory: a name with a blank or a CR, or without its file, never runs.
  void checkPlugins(const AgentSettings& settings) {
    const std::string directory = key("NIVO", "plugin_dir");
    bool directoryUsable = false;
    if (directory.empty()) {
      add("NIVO/plugin_dir is empty: the agent ends at start-up");
    } else {
      std::error_code error;
      std::filesystem::directory_iterator listing(directory, error);
      if (error)
        add("NIVO/plugin_dir: cannot list " + directory + ": " + error.message());
      else
        directoryUsable = true;
    }

    const std::string listPath = key("NIVO", "plugin_list");
    if (listPath.empty()) {
      add("NIVO/plugin_list is empty: the agent ends at start-up");
      return;
    }
    if (!readable("NIVO/plugin_list", listPath)) return;
    const std::vector<std::string> list = readPluginList(listPath);
    const std::size_t problemsBefore = problems_.size();
    std::set<std::string> seen;
    for (std::size_t number = 1; number <= list.size(); ++number) {
      const std::string& name = list[number - 1];
      if (name.empty()) continue;
      if (name.find_first_of(" \t\r") != std::string::npos) {
        add("NIVO/plugin_list: line " + std::to_string(number) + ", '" + visible(name) +
            "', holds a blank or a CR and matches no plugin");
        continue;
      }
      if (directoryUsable && seen.insert(name).second)
        executable("NIVO/plugin_list: " + name, directory + "/" + name);
    }
    // Against a catalogue found sound: a fault above would otherwise be said again, as a rule for
    // a plugin that is not in the catalogue.
    if (directoryUsable && problems_.size() == problemsBefore)
      checkRules(settings, pluginCatalogue(directory, list, nullptr));
  }

  // Each line that allows nothing, against the catalogue the agent would build.
  void checkRules(const AgentSettings& settings,
                  const std::map<std::string, std::string>& catalogue) {
    if (settings.pluginRules.empty()) return;
    try {
      const std::shared_ptr<PluginRules> rules =
          readRules(settings.pluginRules, catalogue, confinementAbi(settings.confinePlugins));
      for (const std::string& problem : rules->problems()) add("NIVO/plugin_rules: " + problem);
    } catch (const FileException& e) {
      add(std::string("NIVO/plugin_rules: ") + e.what() + "; the agent does not start");
    }
  }

  void checkServerUrl() {
    std::string url = key("NIVO", "server_url");
    std::string label = "NIVO/server_url";
    if (url.empty()) {
      label = "NIVO/server_url is empty, and " + fixed_.serverUrl;
      if (!readable(label, fixed_.serverUrl)) return;
      std::ifstream file(fixed_.serverUrl);
      std::string address;
      std::getline(file, address);
      url = "wss://" + address;
    }
    if (!isServerUrl(url)) add(label + ": '" + visible(url) + "' is not wss://HOST:PORT");
  }

  void checkIpCommand() {
    const std::string path = key("NIVO", "ip_command");
    if (path.empty())
      add("NIVO/ip_command is empty: the agent cannot learn its address");
    else
      executable("NIVO/ip_command", path);
  }

  // The agent reads it with std::stoi: a leading number is enough, anything else ends it.
  void checkThread() {
    const std::string text = key("NIVO", "thread");
    int workers = 0;
    try {
      workers = std::stoi(text);
    } catch (const std::logic_error&) {
      workers = 0;
    }
    if (workers < 1) add("NIVO/thread: '" + visible(text) + "' is not a worker count of 1 or more");
  }

  // What the kernel cannot enforce is said, but is no fault of the configuration: a reload (which
  // runs this check) must go through on an older kernel. A kernel with no Landlock at all is:
  // every order would be refused.
  void checkConfinement(const AgentSettings& settings) {
    if (!settings.confinePlugins) return;
    const LandlockSupport& support = LandlockSupport::get();
    std::vector<std::string>& into = support.abi() == 0 ? problems_ : notes_;
    for (const std::string& line : support.warnings()) into.push_back(line);
  }

  const std::string configPath_;
  iniConfig config_;
  const FixedFiles fixed_;
  std::vector<std::string> problems_;
  std::vector<std::string> notes_;  // printed, but leave the exit status 0
};

}  // namespace

const char* version() { return NIVO_VERSION; }

std::vector<std::string> problems(const std::string& configPath, const FixedFiles& fixed) {
  Checker checker(configPath, fixed);
  checker.run();
  return checker.problems();
}

int answer(Request what, const std::string& configPath, const FixedFiles& fixed,
           std::ostream& out) {
  switch (what) {
    case kHelp:
      out << kHelpText << std::flush;
      return 0;
    case kVersion:
      out << "qavel-client " << version() << std::endl;
      return 0;
    case kCheckConfig: {
      Checker checker(configPath, fixed);
      checker.run();
      for (const std::string& line : checker.problems()) out << line << '\n';
      for (const std::string& line : checker.notes()) out << line << '\n';
      out.flush();
      return checker.problems().empty() ? 0 : 1;
    }
    case kNone:
      break;
  }
  return 0;
}

}  // namespace configCheck
